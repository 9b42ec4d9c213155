/*
 * Leaves the question to the JSON library, which takes no other text.
 */
#include "utf8.h"

#include <jansson.h>

#include <memory>

namespace tirval::server {

bool is_utf8(std::string_view text)
{
    const std::unique_ptr<json_t, decltype(&json_decref)> valid{
        json_stringn(text.data(), text.size()), &json_decref};
    return valid != nullptr;
}

} // namespace tirval::server
