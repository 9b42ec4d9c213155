/*
 * A self-signed certificate for TLS tests, made at run time and kept in files of its own until the
 * object ends.  The certificate is its own trust anchor.
 */
#ifndef TIRVAL_TESTS_TEST_CERTIFICATE_H
#define TIRVAL_TESTS_TEST_CERTIFICATE_H

#include <string>

class test_certificate {
  public:
    /* `names` in the form of a subjectAltName (RFC 5280). */
    explicit test_certificate(const std::string &names = "IP:127.0.0.1,DNS:localhost");
    ~test_certificate();
    test_certificate(const test_certificate &) = delete;
    test_certificate &operator=(const test_certificate &) = delete;

    std::string certificate_file() const { return folder + "/certificate.pem"; }
    std::string key_file() const { return folder + "/key.pem"; }

  private:
    std::string folder;
};

#endif
