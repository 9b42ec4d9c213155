/*
 * A request's address: checked, completed by its query parameters, and named for messages without
 * what must stay secret.
 */
#ifndef TIRVAL_REST_URI_H
#define TIRVAL_REST_URI_H

#include "failure.h"
#include "tirval_dsi_rest.h"

#include <string>
#include <string_view>

namespace tirval::rest {

struct request_uri {
    std::string text; /* what is requested, byte for byte */
    std::string host; /* "scheme://host[:port]", for messages */
    std::string path; /* without the query, for messages about requests that carry credentials */
    bool is_https = false;
};

/*
 * Takes an absolute http or https address apart.  Refused are user names in it, and http to any
 * host but 127.0.0.0/8, ::1 and localhost.
 *
 * uri    null is refused
 * query  appended with keys and values encoded; null and empty append nothing; a null value is
 * empty
 */
problem make_uri(const char *uri, const tirval_dsi_rest_key_array_t *query, request_uri &out);

/* Percent-encodes all but the unreserved characters of RFC 3986, "$" and ",". */
std::string encode_query_text(std::string_view text);

} // namespace tirval::rest

#endif
