/* Client paths cut into their pieces, and the URIs made of those below "/My files". */
#include "fuzz.h"

#include "frame_support.h"

#include <algorithm>

namespace {

using text = tirval_i_onedrive_text_t;

std::string joined(const text &piece, const char *before = "")
{
    return piece == nullptr ? "" : std::string(before) + piece.get();
}

void require_uri(const std::string &path, const std::string &below)
{
    tirval_onedrive_handle_t handle = {};
    const error_scope errors;
    const std::string root = std::string(tirval_i_onedrive_graph_url) + "/v1.0/me/drive/root";
    char *raw = nullptr;
    const tirval_result_t result =
        tirval_onedrive_path_to_uri(&handle, path.c_str(), "/children", &raw, false);
    const text uri(raw);
    fuzz::require(result == TIRVAL_SUCCESS && uri != nullptr, "a path below My files has a URI");
    const std::string_view all = uri.get();
    fuzz::require(all.starts_with(root) && all.ends_with("/children"), "the URI is of the drive");
    fuzz::require(
        std::ranges::all_of(
            all, [](char byte) { return byte > ' ' && byte < 0x7F && byte != '#' && byte != '?'; }),
        "a URI holds no blank, control, non-ASCII byte, query or fragment");
    const std::string decoded = fuzz::percent_decoded(all.substr(root.size()));
    fuzz::require(decoded == (below.empty() ? "/children" : ":" + below + ":/children"),
                  "the URI decodes to the path");
}

void parse(std::string_view input)
{
    const std::string path = fuzz::c_text(input);
    const char *base = nullptr;
    char *raw[3] = {};
    fuzz::require(tirval_onedrive_split_path(path.c_str(), &base, &raw[0], &raw[1], &raw[2]) ==
                      TIRVAL_SUCCESS,
                  "every path can be split");
    const text lib(raw[0]);
    const text drive(raw[1]);
    const text below(raw[2]);
    if (base == nullptr) {
        fuzz::require(lib == nullptr && drive == nullptr && below == nullptr,
                      "a path outside of the virtual folders has no pieces");
        return;
    }
    const bool mine = std::string_view(base) == "My files";
    const std::string whole =
        "/" + std::string(base) + joined(lib) + joined(drive, "/") + joined(below, mine ? "" : "/");
    fuzz::require(whole == path || whole + "/" == path, "the pieces make up the path");
    fuzz::require(lib != nullptr || drive == nullptr, "a library is in a site");
    if (mine) {
        require_uri(path, joined(below));
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    Path, (fuzz::entry{parse,
                       {"/", "/My files", "/My files/a/b c#d?.txt", "/My files/100% done%20",
                        "/My files/\xE5\xA0\xB1/[x]", "/Shared", "/Shared/item/a/b",
                        "/Shared/item/", "/Shared libraries", "/Shared libraries/Site/Library/a/b",
                        "/Shared libraries/Site/Library/", "/Shared librariesX//Y", "My files"},
                       60000}))
