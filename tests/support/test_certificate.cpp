// Makes the certificate with OpenSSL: an EC key, one day of validity, signed with itself.
#include "test_certificate.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace {

template <auto Free> struct release {
    template <typename T> void operator()(T *object) const { Free(object); }
};
using key_ptr = std::unique_ptr<EVP_PKEY, release<EVP_PKEY_free>>;
using certificate_ptr = std::unique_ptr<X509, release<X509_free>>;
using extension_ptr = std::unique_ptr<X509_EXTENSION, release<X509_EXTENSION_free>>;
using file_ptr = std::unique_ptr<std::FILE, release<std::fclose>>;

void require(bool condition, const char *what)
{
    if (!condition) {
        throw std::runtime_error(std::string("test_certificate: ") + what);
    }
}

certificate_ptr sign(EVP_PKEY *key, const std::string &names)
{
    certificate_ptr certificate(X509_new());
    X509_set_version(certificate.get(), X509_VERSION_3);
    // Clients refuse two certificates of one issuer and serial number.
    std::uint32_t serial = 0;
    require(RAND_bytes(reinterpret_cast<unsigned char *>(&serial), sizeof serial) == 1, "serial");
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial | 1U);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86400);
    X509_set_pubkey(certificate.get(), key);
    const auto common_name = "test " + std::to_string(serial);
    X509_NAME *const subject = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(common_name.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(certificate.get(), subject);
    const extension_ptr alternative(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names.c_str()));
    require(alternative != nullptr, "names");
    X509_add_ext(certificate.get(), alternative.get(), -1);
    require(X509_sign(certificate.get(), key, EVP_sha256()) > 0, "signature");
    return certificate;
}

} // namespace

test_certificate::test_certificate(const std::string &names)
{
    auto pattern = (std::filesystem::temp_directory_path() / "test_certificate.XXXXXX").string();
    require(mkdtemp(pattern.data()) != nullptr, "folder");
    folder = pattern;
    const key_ptr key(EVP_EC_gen("P-256"));
    require(key != nullptr, "key");
    const auto certificate = sign(key.get(), names);
    const file_ptr certificate_out(std::fopen(certificate_file().c_str(), "we"));
    const file_ptr key_out(std::fopen(key_file().c_str(), "we"));
    require(certificate_out != nullptr && key_out != nullptr, "files");
    require(PEM_write_X509(certificate_out.get(), certificate.get()) == 1 &&
                PEM_write_PrivateKey(key_out.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                     nullptr) == 1,
            "writing");
}

test_certificate::~test_certificate()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}
