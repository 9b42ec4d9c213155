/* The Graph service's base URL: taken from the environment and checked, so that no token goes to a
 * place that could not be meant. */
#include "tirval_onedrive_common.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstring>
#include <string_view>
#include <utility>

static constexpr const char *tirval_l_default_url = "https://graph.microsoft.com";

const char *tirval_i_onedrive_graph_url = tirval_l_default_url;

/* What tirval_i_onedrive_graph_url points to when it is not the default. */
static tirval_i_onedrive_text_t tirval_l_url;

/* The machine itself, which plain http may go to. */
static bool tirval_l_is_loopback(std::string_view host)
{
    char name[INET6_ADDRSTRLEN] = {};
    if (host.size() >= sizeof(name)) {
        return false;
    }
    (void)host.copy(name, host.size());
    in_addr v4 = {};
    if (inet_pton(AF_INET, name, &v4) == 1) {
        return ntohl(v4.s_addr) >> 24 == 127;
    }
    return strcasecmp(name, "localhost") == 0;
}

/* Empty (the scheme's own port), or ":" and a number from 1 to 65535. */
static bool tirval_l_is_port(std::string_view text)
{
    if (text.empty()) {
        return true;
    }
    if (text.front() != ':' || text.size() < 2 || text.size() > 6) {
        return false;
    }
    unsigned port = 0;
    for (const char digit : text.substr(1)) {
        if (digit < '0' || digit > '9') {
            return false;
        }
        port = port * 10 + static_cast<unsigned>(digit - '0');
    }
    return port >= 1 && port <= 65535;
}

/* "[address]" with or without a port. */
static bool tirval_l_is_v6_authority(std::string_view authority, bool only_loopback)
{
    const size_t end = authority.find(']');
    char name[INET6_ADDRSTRLEN] = {};
    if (end > sizeof(name)) {
        return false;
    }
    (void)authority.copy(name, end - 1, 1);
    in6_addr address = {};
    return inet_pton(AF_INET6, name, &address) == 1 &&
           (!only_loopback || memcmp(&address, &in6addr_loopback, sizeof(address)) == 0) &&
           tirval_l_is_port(authority.substr(end + 1));
}

static bool tirval_l_is_authority(std::string_view authority, bool only_loopback)
{
    if (!authority.empty() && authority.front() == '[') {
        return tirval_l_is_v6_authority(authority, only_loopback);
    }
    const size_t end = std::min(authority.find(':'), authority.size());
    const std::string_view host = authority.substr(0, end);
    return !host.empty() && host.find('@') == std::string_view::npos &&
           (!only_loopback || tirval_l_is_loopback(host)) &&
           tirval_l_is_port(authority.substr(end));
}

static bool tirval_l_is_usable(std::string_view url)
{
    for (const char byte : url) {
        if (!isgraph(static_cast<unsigned char>(byte)) || strchr("?#\\", byte) != nullptr) {
            return false;
        }
    }
    for (const auto &[scheme, only_loopback] :
         {std::pair<std::string_view, bool>{"https://", false}, {"http://", true}}) {
        if (url.starts_with(scheme)) {
            const std::string_view rest = url.substr(scheme.size());
            return tirval_l_is_authority(rest.substr(0, rest.find('/')), only_loopback);
        }
    }
    return false;
}

extern "C" void tirval_i_onedrive_graph_url_load()
{
    tirval_l_url.reset();
    tirval_i_onedrive_graph_url = tirval_l_default_url;
    const char *const value = getenv("TIRVAL_ONEDRIVE_GRAPH_URL");
    if (value == nullptr) {
        return;
    }
    if (!tirval_l_is_usable(value)) {
        TIRVAL_ONEDRIVE_LOG(TIRVAL_ONEDRIVE_ERROR,
                            "TIRVAL_ONEDRIVE_GRAPH_URL is no usable base URL, %s is taken\n",
                            tirval_l_default_url);
        return;
    }
    const size_t length = strlen(value);
    tirval_l_url.reset(strndup(value, value[length - 1] == '/' ? length - 1 : length));
    if (tirval_l_url != nullptr) {
        tirval_i_onedrive_graph_url = tirval_l_url.get();
    }
}
