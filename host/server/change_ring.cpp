/*
 * The ring of changes.  A writer claims the next place with one atomic addition, then fills its
 * slot; the slot's place number, written last, and a check value tell a reader whether what it read
 * belongs together.  A reader that finds anything else than a whole entry assumes a change.
 */
#include "change_ring.h"

#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace tirval::server {

struct change_ring_t::slot_t {
    std::atomic<std::uint64_t> place; /* of the entry, from 1; 0: never written */
    std::atomic<std::uint64_t> hash;
    std::atomic<std::uint64_t> session;
    std::atomic<std::uint64_t> check;
};

struct change_ring_t::shared_t {
    std::atomic<std::uint64_t> last; /* the place claimed last; 0: none */

    slot_t *slots() { return reinterpret_cast<slot_t *>(this + 1); }
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

namespace {

struct mac_deleter_t {
    void operator()(EVP_MAC *mac) const { EVP_MAC_free(mac); }
    void operator()(EVP_MAC_CTX *context) const { EVP_MAC_CTX_free(context); }
};

/* Ties an entry's parts together. */
std::uint64_t check_value(std::uint64_t place, std::uint64_t hash, std::uint64_t session)
{
    std::uint64_t mixed = place * 0x9e3779b97f4a7c15U;
    mixed = (mixed ^ hash) * 0xbf58476d1ce4e5b9U;
    mixed = (mixed ^ session) * 0x94d049bb133111ebU;
    return mixed ^ (mixed >> 31);
}

std::string folded(std::string_view path)
{
    std::string text{path};
    for (char &c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

} // namespace

change_ring_t::change_ring_t(std::size_t slots)
    : slots_(slots), size_(sizeof(shared_t) + slots * sizeof(slot_t))
{
    if (RAND_bytes(key_.data(), static_cast<int>(key_.size())) != 1) {
        throw std::runtime_error("no random numbers for the ring of changes");
    }
    void *memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "shared memory for changes");
    }
    shared_ = new (memory) shared_t{};
    for (std::size_t i = 0; i < slots_; ++i) {
        new (shared_->slots() + i) slot_t{};
    }
}

change_ring_t::~change_ring_t()
{
    munmap(shared_, size_);
}

std::uint64_t change_ring_t::position() const
{
    return shared_->last.load(std::memory_order_acquire);
}

std::uint64_t change_ring_t::hash(std::string_view user, std::string_view path) const
{
    const std::unique_ptr<EVP_MAC, mac_deleter_t> mac{EVP_MAC_fetch(nullptr, "SIPHASH", nullptr)};
    const std::unique_ptr<EVP_MAC_CTX, mac_deleter_t> context{EVP_MAC_CTX_new(mac.get())};
    std::size_t size = sizeof(std::uint64_t);
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_size_t("size", &size),
                                     OSSL_PARAM_construct_end()};
    const auto add = [&](std::string_view text) {
        return EVP_MAC_update(context.get(), reinterpret_cast<const unsigned char *>(text.data()),
                              text.size()) == 1;
    };
    std::uint64_t value = 0;
    if (context == nullptr ||
        EVP_MAC_init(context.get(), key_.data(), key_.size(), parameters) != 1 || !add(user) ||
        !add({"\0", 1}) || !add(path) ||
        EVP_MAC_final(context.get(), reinterpret_cast<unsigned char *>(&value), &size,
                      sizeof value) != 1) {
        throw std::runtime_error("a path could not be hashed");
    }
    return value;
}

void change_ring_t::note_change(std::string_view user, std::string_view path, std::uint64_t session)
{
    const std::uint64_t key = hash(user, folded(path));
    const std::uint64_t place = shared_->last.fetch_add(1, std::memory_order_acq_rel) + 1;
    slot_t &slot = shared_->slots()[place % slots_];
    slot.place.store(0, std::memory_order_release);
    slot.hash.store(key, std::memory_order_release);
    slot.session.store(session, std::memory_order_release);
    slot.check.store(check_value(place, key, session), std::memory_order_release);
    slot.place.store(place, std::memory_order_release);
}

bool change_ring_t::changed_since(std::string_view user, std::string_view path,
                                  std::uint64_t session, std::uint64_t since) const
{
    const std::uint64_t last = position();
    if (last == since) {
        return false;
    }
    if (since > last || last - since > slots_) {
        return true;
    }
    const std::string whole = folded(path);
    std::vector<std::uint64_t> keys{hash(user, whole)};
    for (auto slash = whole.rfind('/'); slash != std::string::npos && slash > 0;
         slash = whole.rfind('/', slash - 1)) {
        keys.push_back(hash(user, std::string_view{whole}.substr(0, slash)));
    }
    for (std::uint64_t place = since + 1; place <= last; ++place) {
        const slot_t &slot = shared_->slots()[place % slots_];
        const bool written = slot.place.load(std::memory_order_acquire) == place;
        const std::uint64_t key = slot.hash.load(std::memory_order_acquire);
        const std::uint64_t author = slot.session.load(std::memory_order_acquire);
        const std::uint64_t check = slot.check.load(std::memory_order_acquire);
        if (!written || check != check_value(place, key, author)) {
            return true;
        }
        if (author != session && std::ranges::find(keys, key) != keys.end()) {
            return true;
        }
    }
    return false;
}

} // namespace tirval::server
