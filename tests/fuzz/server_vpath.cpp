/* Client paths and their canonical form.  An input is the current folder and, from the next line
 * on, the argument. */
#include "fuzz.h"

#include "vpath.h"

using namespace tirval::server;

namespace {

void parse(std::string_view input)
{
    const auto cwd = resolve_path("/", fuzz::take_line(input));
    if (!cwd) {
        return;
    }
    const auto path = resolve_path(*cwd, input);
    const bool forbidden =
        input.find_first_of(std::string_view("\0\r\n", 3)) != std::string_view::npos;
    fuzz::require(path.has_value() != forbidden, "NUL, CR and LF are refused, and nothing else");
    if (!path) {
        return;
    }
    fuzz::require(is_canonical_path(*cwd) && is_canonical_path(*path), "the result is canonical");
    fuzz::require(resolve_path(*cwd, *path) == path, "a canonical path means itself");
    fuzz::require(resolve_path("/", input) == path || !input.starts_with('/'),
                  "an absolute path means the same everywhere");
    fuzz::require(is_canonical_path(parent_path(*path)), "a folder's path is canonical");
    if (*path != "/") {
        fuzz::require(is_plain_name(base_name(*path)), "a last component is a name");
        fuzz::require(child_path(parent_path(*path), base_name(*path)) == *path,
                      "a path is its folder and its name");
    }
    fuzz::require(is_plain_name(input) == is_canonical_path("/" + std::string(input)) ||
                      input.empty() || input.find('/') != std::string_view::npos,
                  "a name makes a canonical path of one component");
}

} // namespace

TIRVAL_FUZZ_ENTRY(Vpath, (fuzz::entry{parse,
                                      {"/a/b\n../c/./d//", "\n/", "/a\n", "/\n../../..", "/x\n...",
                                       "/My files\n/Shared/\xC3\xA4/../..b/ ", "a//./\n./.././a/"},
                                      80000}))
