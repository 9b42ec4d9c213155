/* Request targets at the local Graph service: paths and queries. */
#include "fuzz.h"

#include "routing.h"

#include <algorithm>

using namespace graph_sim;

namespace {

void require_route(std::string_view method, std::string_view path)
{
    try {
        const route found = parse_route(method, path);
        const auto decoded = percent_decode(path);
        fuzz::require(decoded && is_utf8(*decoded), "an accepted path is UTF-8");
        fuzz::require(std::ranges::none_of(found.item.path,
                                           [](const std::string &name) {
                                               return name.empty() || name == "." || name == ".." ||
                                                      name.find('/') != std::string::npos;
                                           }),
                      "an item's path is names");
        request_kind kind{};
        fuzz::require(kind_by_name(kind_name(found.kind), kind) && kind == found.kind,
                      "every kind has its name");
    } catch (const api_error &error) {
        fuzz::require(error.status() == 400 || error.status() == 405,
                      "an address that is refused is the client's mistake");
    }
}

void parse(std::string_view input)
{
    const std::size_t mark = std::min(input.find('?'), input.size());
    for (const std::string_view method : {"GET", "PUT", "POST"}) {
        require_route(method, input.substr(0, mark));
    }
    const std::string_view query = input.substr(std::min(mark + 1, input.size()));
    fuzz::require(parse_query(query).size() <=
                      static_cast<std::size_t>(std::ranges::count(query, '&')) + 1,
                  "a query has a pair between two ampersands");
    fuzz::require(percent_decode(percent_encode(input)) == std::string(input),
                  "decoding what was encoded gives it back");
    const std::string folded = fold_case(input);
    fuzz::require(fold_case(folded) == folded, "folded names stay as they are");
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    Target,
    (fuzz::entry{parse,
                 {"/v1.0/me/drive/root:/a/b%20c:/children?$top=300&$select=name,size",
                  "/v1.0/drives/D/items/I:/x%2Fy:/content",
                  "/v1.0/me/drive/root:/a/../b:", "/v1.0/sites/host:/sites/team:/drives",
                  "/v1.0/users/u/drive/root:/%C3%A4/./", "/v1.0/me/followedSites",
                  "/v1.0/sites/s/drive/items/i/content", "/v1.0/me/drive/",
                  "/v1.0/me/drive/root/createUploadSession", "/v1.0/", "/_download/x?a=+%zz&&=b"},
                 25000}))
