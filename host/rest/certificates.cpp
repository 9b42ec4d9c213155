// Loads and shares the certificate store.
#include "certificates.h"

#include <cstdlib>
#include <curl/curl.h>
#include <dirent.h>
#include <memory>
#include <mutex>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <string>

namespace tirval::rest {

namespace {

struct store_free {
    void operator()(X509_STORE *store) const { X509_STORE_free(store); }
};
using store_ptr = std::unique_ptr<X509_STORE, store_free>;

struct directory_close {
    void operator()(DIR *directory) const { closedir(directory); }
};

std::mutex store_mutex;
store_ptr current_store; /* guarded by store_mutex */

struct places {
    std::string file;
    std::string directory;
};

std::string environment(const char *name)
{
    const char *const value = secure_getenv(name);
    return value == nullptr ? "" : value;
}

/* The administrator's choice, or else what libcurl was built for on this system. */
places certificate_places()
{
    places chosen = {environment("SSL_CERT_FILE"), environment("SSL_CERT_DIR")};
    if (!chosen.file.empty() || !chosen.directory.empty()) {
        return chosen;
    }
    const auto *const version = curl_version_info(CURLVERSION_NOW);
    if (version->cainfo != nullptr) {
        return {version->cainfo, ""};
    }
    if (version->capath != nullptr) {
        return {"", version->capath};
    }
    return {X509_get_default_cert_file(), ""};
}

bool is_directory(const std::string &path)
{
    return std::unique_ptr<DIR, directory_close>(opendir(path.c_str())) != nullptr;
}

store_ptr load_store(const places &from)
{
    store_ptr store(X509_STORE_new());
    if (store == nullptr) {
        return nullptr;
    }
    if (!from.file.empty() && X509_STORE_load_file(store.get(), from.file.c_str()) != 1) {
        return nullptr;
    }
    // OpenSSL looks a directory's certificates up one by one, when it needs them.
    if (!from.directory.empty() &&
        (!is_directory(from.directory) ||
         X509_STORE_load_path(store.get(), from.directory.c_str()) != 1)) {
        return nullptr;
    }
    // A server's own certificate may be the trust anchor, as with libcurl's own store.
    X509_STORE_set_flags(store.get(), X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
    return store;
}

} // namespace

bool load_certificates()
{
    auto store = load_store(certificate_places());
    // What went wrong must not be taken for the failure of a later TLS call.
    ERR_clear_error();
    if (store == nullptr) {
        return false;
    }
    const std::lock_guard lock(store_mutex);
    current_store = std::move(store);
    return true;
}

void unload_certificates()
{
    const std::lock_guard lock(store_mutex);
    current_store.reset();
}

bool certificates_loaded()
{
    const std::lock_guard lock(store_mutex);
    return current_store != nullptr;
}

bool use_certificates(SSL_CTX *context)
{
    const std::lock_guard lock(store_mutex);
    if (current_store == nullptr || X509_STORE_up_ref(current_store.get()) != 1) {
        return false;
    }
    SSL_CTX_set_cert_store(context, current_store.get());
    return true;
}

} // namespace tirval::rest
