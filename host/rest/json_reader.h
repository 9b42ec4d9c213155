/*
 * Reads a body as JSON within bounds of memory.
 */
#ifndef TIRVAL_REST_JSON_READER_H
#define TIRVAL_REST_JSON_READER_H

#include "failure.h"

#include <jansson.h>
#include <string_view>

namespace tirval::rest {

/* A value costs some 200 bytes in memory, however short its text: a page of a listing has a few
 * thousand. */
constexpr std::size_t max_json_values = 262144;

/* Sets `*out` to a new reference, or to null when the text is no JSON.  A text beyond the bounds of
 * size, number of values or depth is a problem. */
problem read_json(std::string_view text, json_t **out);

} // namespace tirval::rest

#endif
