/*
 * The certificate store, one for the process: loaded before sessions are forked, shared by all
 * connections.  So a new connection reads no certificate file.
 */
#ifndef TIRVAL_REST_CERTIFICATES_H
#define TIRVAL_REST_CERTIFICATES_H

#include <openssl/ssl.h>

namespace tirval::rest {

/* Loads from SSL_CERT_FILE and SSL_CERT_DIR, or from the system's place when neither is set. False,
 * with the store as it was, when nothing can be loaded.  Any thread. */
bool load_certificates();
/* Drops the library's hold on the store. */
void unload_certificates();
bool certificates_loaded();
/* Gives the present store to a TLS context; false when none is loaded. */
bool use_certificates(SSL_CTX *context);

} // namespace tirval::rest

#endif
