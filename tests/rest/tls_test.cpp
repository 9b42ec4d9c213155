// Pins whom the library trusts and what it keeps between TLS connections.
#include "rest_fixture.h"
#include "test_certificate.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <thread>

using testing::HasSubstr;

/* The library trusts `trusted` alone. */
class RestTls : public testing::Test {
  protected:
    RestTls() : scope(tirval_error_scope_create())
    {
        before = tirval_error_scope_enter(scope);
        ::setenv("SSL_CERT_FILE", trusted.certificate_file().c_str(), 1);
        ::unsetenv("SSL_CERT_DIR");
    }
    ~RestTls() override
    {
        ::unsetenv("SSL_CERT_FILE");
        ::unsetenv("SSL_CERT_DIR");
        tirval_error_scope_enter(before);
        tirval_error_scope_destroy(scope);
    }
    static http_peer_options with(const test_certificate &certificate)
    {
        return {certificate.certificate_file(), certificate.key_file(), 0};
    }

    test_certificate trusted;

  private:
    tirval_error_scope_t *scope;
    tirval_error_scope_t *before = nullptr;
};

/* The library active for a while. */
class active_library {
  public:
    active_library() { EXPECT_EQ(tirval_module_activate(&tirval_i_dsi_rest_module), 0); }
    ~active_library() { EXPECT_EQ(tirval_module_deactivate(&tirval_i_dsi_rest_module), 0); }
    active_library(const active_library &) = delete;
    active_library &operator=(const active_library &) = delete;
};

TEST_F(RestTls, AHostWithATrustedCertificateIsSpokenTo)
{
    const active_library active;
    http_peer peer(with(trusted));
    peer.on_request([](const auto &) { return http_peer_answer::json(200, "{}"); });
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    EXPECT_EQ(peer.connections(), 1U);
}

TEST_F(RestTls, AnUntrustedCertificateIsFinal)
{
    const active_library active;
    const test_certificate other;
    http_peer peer(with(other));
    const auto outcome = rest_call("GET", peer.url()).send();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_THAT(outcome.text, HasSubstr("certificate is not trusted"));
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(RestTls, ACertificateForAnotherNameIsFinal)
{
    const test_certificate other("DNS:other.example");
    ::setenv("SSL_CERT_FILE", other.certificate_file().c_str(), 1);
    const active_library active;
    http_peer peer(with(other));
    const auto outcome = rest_call("GET", peer.url()).send();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(RestTls, AnEndWithinTheTlsHandshakeIsRetryable)
{
    const active_library active;
    http_peer plain;
    auto url = plain.url();
    url.replace(0, 4, "https");
    std::thread closer([&] {
        while (plain.connections() == 0) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(50ms);
        plain.close_connections();
    });
    const auto outcome = rest_call("GET", url).send();
    closer.join();
    EXPECT_FALSE(outcome.ok());
    EXPECT_TRUE(outcome.retryable) << outcome.text;
    EXPECT_THAT(outcome.text, HasSubstr("no TLS connection"));
}

TEST_F(RestTls, ATruncatedTlsStreamIsRetryable)
{
    const active_library active;
    http_peer peer(with(trusted));
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nContent-Length: 9\r\n\r\nabc")
                    .pause(50ms)
                    .reset());
    const auto outcome = rest_call("GET", peer.url()).send();
    EXPECT_FALSE(outcome.ok());
    EXPECT_TRUE(outcome.retryable) << outcome.text;
}

TEST_F(RestTls, LargeBodiesPassBothWays)
{
    const active_library active;
    http_peer peer(with(trusted));
    const std::string text(3000000, 't');
    peer.answer(http_peer_answer::complete(200, text));
    tirval_dsi_rest_write_block_arg_t block = {text.data(), text.size()};
    rest_call call("PUT", peer.url());
    call.callbacks.data_write_callback = tirval_dsi_rest_write_block;
    call.callbacks.data_write_callback_arg = &block;
    collected_body body;
    body.attach(call);
    EXPECT_TRUE(call.send().ok());
    EXPECT_TRUE(body.bytes == text);
    EXPECT_TRUE(peer.requests().at(0).body == text);
}

TEST_F(RestTls, ReloadingTakesANewCertificateForNewConnections)
{
    const active_library active;
    const test_certificate renewed;
    http_peer peer(with(renewed));
    peer.on_request([](const auto &) { return http_peer_answer::complete(200); });
    EXPECT_FALSE(rest_call("GET", peer.url()).send().ok());
    ::setenv("SSL_CERT_FILE", renewed.certificate_file().c_str(), 1);
    EXPECT_TRUE(tirval_dsi_rest_reload_certificates());
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
}

TEST_F(RestTls, AFailedReloadKeepsTheStore)
{
    const active_library active;
    ::setenv("SSL_CERT_FILE", "/nonexistent/certificates.pem", 1);
    EXPECT_FALSE(tirval_dsi_rest_reload_certificates());
    http_peer peer(with(trusted));
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
}

TEST_F(RestTls, ActivationFailsWithoutCertificates)
{
    ::setenv("SSL_CERT_FILE", "/nonexistent/certificates.pem", 1);
    EXPECT_NE(tirval_module_activate(&tirval_i_dsi_rest_module), 0);
    ::setenv("SSL_CERT_FILE", trusted.key_file().c_str(), 1);
    EXPECT_NE(tirval_module_activate(&tirval_i_dsi_rest_module), 0);
    ::unsetenv("SSL_CERT_FILE");
    ::setenv("SSL_CERT_DIR", "/nonexistent", 1);
    EXPECT_NE(tirval_module_activate(&tirval_i_dsi_rest_module), 0);
    EXPECT_EQ(tirval_module_reference_count(&tirval_i_dsi_rest_module), 0);

    const auto outcome = rest_call("GET", "https://127.0.0.1:1/").send();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_THAT(outcome.text, HasSubstr("no certificate store"));
}

TEST_F(RestTls, TheSystemsCertificatesAreTakenWhenNothingElseIsSet)
{
    ::unsetenv("SSL_CERT_FILE");
    const active_library active;
    http_peer peer(with(trusted));
    const auto outcome = rest_call("GET", peer.url()).send();
    EXPECT_THAT(outcome.text, HasSubstr("certificate is not trusted"));
}
