// The library's module: libcurl and the certificate store come up with it, and nothing else.
#include "certificates.h"
#include "curl_handle.h"
#include "tirval_dsi_rest.h"

#include <csignal>

namespace {

constexpr int activation_failed = 1;

/* A TLS write to a peer that has gone must end in an error, not end the process; OpenSSL has no
 * other way to ask for that.  A program's own choice stays. */
void ignore_broken_pipes()
{
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
        action.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &action, nullptr);
    }
}

int activate()
{
    if (tirval_module_activate(&tirval_i_common_module) != TIRVAL_SUCCESS) {
        return activation_failed;
    }
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        tirval_module_deactivate(&tirval_i_common_module);
        return activation_failed;
    }
    if (!tirval::rest::load_certificates()) {
        curl_global_cleanup();
        tirval_module_deactivate(&tirval_i_common_module);
        return activation_failed;
    }
    ignore_broken_pipes();
    return TIRVAL_SUCCESS;
}

int deactivate()
{
    tirval::rest::end_thread_session();
    tirval::rest::unload_certificates();
    curl_global_cleanup();
    return tirval_module_deactivate(&tirval_i_common_module);
}

const tirval_version_t version = {0, 16, 0, 0};

} // namespace

tirval_module_descriptor_t tirval_i_dsi_rest_module = {
    "tirval_dsi_rest", activate, deactivate, nullptr, nullptr, &version,
};

bool tirval_dsi_rest_reload_certificates(void)
{
    return tirval::rest::load_certificates();
}
