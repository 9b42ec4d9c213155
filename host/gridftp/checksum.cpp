/*
 * The checksum engine: digests by name, in the text forms that clients and storages compare.
 */
#include "errors.h"
#include "quickxor.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <strings.h>

struct tirval_gfs_checksum_s {
    tirval_gfs_checksum_s() = default;
    tirval_gfs_checksum_s(const tirval_gfs_checksum_s &) = delete;
    tirval_gfs_checksum_s &operator=(const tirval_gfs_checksum_s &) = delete;
    virtual ~tirval_gfs_checksum_s() = default;
    /* Both return false when the digest library fails. */
    virtual bool update(const unsigned char *data, size_t size) = 0;
    virtual bool finish(std::string &text) = 0;
};

namespace {

using tirval_gfs::put_error;

std::string hex(const unsigned char *bytes, size_t size)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t index = 0; index < size; ++index) {
        text += digits[bytes[index] >> 4];
        text += digits[bytes[index] & 0xf];
    }
    return text;
}

/* One of OpenSSL's digests; usable again after finish(). */
class evp {
  public:
    explicit evp(const EVP_MD *algorithm) : context_(EVP_MD_CTX_new()), algorithm_(algorithm)
    {
        restart();
    }
    bool update(const unsigned char *data, size_t size)
    {
        good_ = good_ && EVP_DigestUpdate(context_.get(), data, size) == 1;
        return good_;
    }
    /* Gives the digest, its size by the return value (0: failed), and starts anew. */
    unsigned finish(unsigned char (&digest)[EVP_MAX_MD_SIZE])
    {
        unsigned size = 0;
        good_ = good_ && EVP_DigestFinal_ex(context_.get(), digest, &size) == 1;
        bool finished = good_;
        restart();
        return finished ? size : 0;
    }

  private:
    struct release {
        void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
    };

    void restart()
    {
        good_ = context_ != nullptr && EVP_DigestInit_ex(context_.get(), algorithm_, nullptr) == 1;
    }

    std::unique_ptr<EVP_MD_CTX, release> context_;
    const EVP_MD *algorithm_;
    bool good_ = false;
};

class digest_checksum final : public tirval_gfs_checksum_s {
  public:
    explicit digest_checksum(const EVP_MD *algorithm) : digest_(algorithm) {}
    bool update(const unsigned char *data, size_t size) override
    {
        return digest_.update(data, size);
    }
    bool finish(std::string &text) override
    {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned size = digest_.finish(digest);
        text = hex(digest, size);
        return size > 0;
    }

  private:
    evp digest_;
};

class adler32_checksum final : public tirval_gfs_checksum_s {
  public:
    bool update(const unsigned char *data, size_t size) override
    {
        value_ = adler32_z(value_, data, size);
        return true;
    }
    bool finish(std::string &text) override
    {
        unsigned char bytes[4];
        for (int index = 0; index < 4; ++index) {
            bytes[index] = static_cast<unsigned char>(value_ >> (24 - 8 * index));
        }
        text = hex(bytes, sizeof bytes);
        return true;
    }

  private:
    uLong value_ = adler32_z(0, nullptr, 0);
};

/* OneDrive gives the hash in Base64 (RFC 4648); the text is that, each character in hexadecimal. */
class quick_xor_checksum final : public tirval_gfs_checksum_s {
  public:
    bool update(const unsigned char *data, size_t size) override
    {
        hash_.update(data, size);
        return true;
    }
    bool finish(std::string &text) override
    {
        auto hash = hash_.finish();
        unsigned char base64[32];
        int size = EVP_EncodeBlock(base64, hash.data(), static_cast<int>(hash.size()));
        text = hex(base64, static_cast<size_t>(size));
        return true;
    }

  private:
    tirval_gfs::quick_xor hash_;
};

/* Dropbox's content hash: SHA-256 over the SHA-256 digests of blocks of 4 MiB. */
class dropbox_checksum final : public tirval_gfs_checksum_s {
  public:
    bool update(const unsigned char *data, size_t size) override
    {
        bool good = true;
        while (good && size > 0) {
            size_t count = std::min(size, block_size - in_block_);
            good = block_.update(data, count);
            in_block_ += count;
            data += count;
            size -= count;
            good = good && (in_block_ < block_size || close_block());
        }
        return good;
    }
    bool finish(std::string &text) override
    {
        unsigned char digest[EVP_MAX_MD_SIZE];
        if (in_block_ > 0 && !close_block()) {
            return false;
        }
        unsigned size = whole_.finish(digest);
        text = hex(digest, size);
        return size > 0;
    }

  private:
    static constexpr size_t block_size = size_t{4} << 20;

    bool close_block()
    {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned size = block_.finish(digest);
        in_block_ = 0;
        return size > 0 && whole_.update(digest, size);
    }

    evp block_{EVP_sha256()};
    evp whole_{EVP_sha256()};
    size_t in_block_ = 0;
};

using maker = tirval_gfs_checksum_t (*)();

template <const EVP_MD *(*algorithm)()> tirval_gfs_checksum_t make_digest()
{
    return new (std::nothrow) digest_checksum(algorithm());
}

template <typename Checksum> tirval_gfs_checksum_t make()
{
    return new (std::nothrow) Checksum;
}

constexpr struct {
    const char *name;
    maker make;
} algorithms[] = {
    {"MD5", make_digest<EVP_md5>},       {"SHA1", make_digest<EVP_sha1>},
    {"SHA256", make_digest<EVP_sha256>}, {"SHA512", make_digest<EVP_sha512>},
    {"ADLER32", make<adler32_checksum>}, {"QuickXORHex", make<quick_xor_checksum>},
    {"Dropbox", make<dropbox_checksum>},
};

maker find_algorithm(const char *name)
{
    for (const auto &algorithm : algorithms) {
        if (name != nullptr && strcasecmp(name, algorithm.name) == 0) {
            return algorithm.make;
        }
    }
    return nullptr;
}

tirval_result_t digest_failed(const char *function, int line)
{
    return put_error(TIRVAL_ERROR_TYPE_SYSTEM, function, line, "The checksum cannot be computed.");
}

} // namespace

tirval_result_t tirval_gfs_checksum_init(const char *algorithm, tirval_gfs_checksum_t *checksum)
{
    *checksum = nullptr;
    maker make_checksum = find_algorithm(algorithm);
    if (make_checksum == nullptr) {
        return tirval_gfs::put_reply(nullptr, 504, "CHECKSUM_NOT_SUPPORTED",
                                     "The checksum algorithm \"%s\" is not known.",
                                     algorithm != nullptr ? algorithm : "");
    }
    *checksum = make_checksum();
    return *checksum != nullptr ? TIRVAL_SUCCESS
                                : put_error(TIRVAL_ERROR_TYPE_MEMORY, __func__, __LINE__,
                                            "There is no memory for a checksum.");
}

tirval_result_t tirval_gfs_checksum_update(tirval_gfs_checksum_t checksum, const void *data,
                                           tirval_size_t length)
{
    if (checksum == nullptr || (data == nullptr && length > 0)) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__,
                         "A checksum or its data is missing.");
    }
    bool good = length == 0 || checksum->update(static_cast<const unsigned char *>(data), length);
    return good ? TIRVAL_SUCCESS : digest_failed(__func__, __LINE__);
}

tirval_result_t tirval_gfs_checksum_finalize(tirval_gfs_checksum_t checksum, char **text)
{
    *text = nullptr;
    std::unique_ptr<tirval_gfs_checksum_s> owned(checksum);
    if (owned == nullptr) {
        return put_error(TIRVAL_ERROR_TYPE_ARGUMENT, __func__, __LINE__, "There is no checksum.");
    }
    try {
        std::string digest;
        if (owned->finish(digest)) {
            *text = strdup(digest.c_str());
        }
    } catch (const std::bad_alloc &) {
        /* reported like any other failure of the digest */
    }
    return *text != nullptr ? TIRVAL_SUCCESS : digest_failed(__func__, __LINE__);
}
