// The only source that sets libcurl's options, and the owner of its handles.
#include "curl_handle.h"

#include "tirval_common.h"

#include <unistd.h>

namespace tirval::rest {

namespace {

constexpr long receive_buffer = 256L * 1024;
constexpr long send_buffer = 1024L * 1024;
constexpr long connect_timeout_ms = 30000;
/* HTTP/2 in older versions loses transfers and buffers without bound. */
constexpr unsigned first_version_with_http2 = 0x080600;

thread_local std::unique_ptr<curl_session> session_of_thread;

/* libcurl numbers its options by the type of their argument. */
bool has_type(CURLoption option, int type)
{
    return static_cast<int>(option) / 10000 * 10000 == type;
}

} // namespace

void curl_options::number(CURLoption option, long value)
{
    TIRVAL_ASSERT(has_type(option, CURLOPTTYPE_LONG));
    note(curl_easy_setopt(easy, option, value));
}

void curl_options::size(CURLoption option, curl_off_t value)
{
    TIRVAL_ASSERT(has_type(option, CURLOPTTYPE_OFF_T));
    note(curl_easy_setopt(easy, option, value));
}

void curl_options::text(CURLoption option, const char *value)
{
    TIRVAL_ASSERT(has_type(option, CURLOPTTYPE_STRINGPOINT));
    note(curl_easy_setopt(easy, option, value));
}

void curl_options::list(CURLoption option, curl_slist *value)
{
    TIRVAL_ASSERT(has_type(option, CURLOPTTYPE_SLISTPOINT));
    note(curl_easy_setopt(easy, option, value));
}

void curl_options::pointer(CURLoption option, void *value)
{
    TIRVAL_ASSERT(has_type(option, CURLOPTTYPE_CBPOINT));
    note(curl_easy_setopt(easy, option, value));
}

void curl_options::on_data(CURLoption option, size_t (*function)(char *, size_t, size_t, void *))
{
    TIRVAL_ASSERT(has_type(option, CURLOPTTYPE_FUNCTIONPOINT));
    note(curl_easy_setopt(easy, option, function));
}

void curl_options::on_connected(curl_prereq_callback function)
{
    note(curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, function));
}

void curl_options::on_tls_context(curl_ssl_ctx_callback function)
{
    note(curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, function));
}

void set_common_options(curl_options &options)
{
    options.number(CURLOPT_NOSIGNAL, 1);
    // Without it a name server that does not answer holds a cancelled request for seconds.
    options.number(CURLOPT_QUICK_EXIT, 1);
    const bool http2 = curl_version_info(CURLVERSION_NOW)->version_num >= first_version_with_http2;
    options.number(CURLOPT_HTTP_VERSION, http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1);
    options.text(CURLOPT_PROTOCOLS_STR, "http,https");
    options.text(CURLOPT_REDIR_PROTOCOLS_STR, "https");
    options.number(CURLOPT_FOLLOWLOCATION, 0);
    options.number(CURLOPT_PATH_AS_IS, 1);
    options.number(CURLOPT_BUFFERSIZE, receive_buffer);
    options.number(CURLOPT_UPLOAD_BUFFERSIZE, send_buffer);
    options.number(CURLOPT_TCP_KEEPALIVE, 1);
    options.number(CURLOPT_TCP_NODELAY, 1);
    options.number(CURLOPT_CONNECTTIMEOUT_MS, connect_timeout_ms);
    options.number(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1);
    options.number(CURLOPT_SSL_VERIFYPEER, 1);
    options.number(CURLOPT_SSL_VERIFYHOST, 2);
    // The shared store replaces these; libcurl would read them again for each connection.  Its own
    // cache would give later connections the first one's store, also after a reload.
    options.number(CURLOPT_CA_CACHE_TIMEOUT, 0);
    options.text(CURLOPT_CAINFO, nullptr);
    options.text(CURLOPT_CAPATH, nullptr);
    options.text(CURLOPT_USERAGENT, "tirval");
}

std::unique_ptr<curl_session> curl_session::create()
{
    // libcurl counts these calls, so that the library stays up for as long as a session lives.
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        return nullptr;
    }
    std::unique_ptr<curl_session> session(new curl_session);
    session->process = getpid();
    session->multi_handle.reset(curl_multi_init());
    session->renew();
    return session->usable() ? std::move(session) : nullptr;
}

curl_session::~curl_session()
{
    if (belongs_to_this_process()) {
        easy_handle.reset();
        multi_handle.reset();
        curl_global_cleanup();
        return;
    }
    // After a fork the connections are the parent's: closing them here would end its TLS streams.
    (void)easy_handle.release();
    (void)multi_handle.release();
}

bool curl_session::belongs_to_this_process() const
{
    return process == getpid();
}

bool curl_session::usable() const
{
    return multi_handle != nullptr && easy_handle != nullptr;
}

void curl_session::renew()
{
    easy_handle.reset(curl_easy_init());
}

curl_session *thread_session()
{
    if (session_of_thread != nullptr &&
        !(session_of_thread->belongs_to_this_process() && session_of_thread->usable())) {
        session_of_thread.reset();
    }
    if (session_of_thread == nullptr) {
        session_of_thread = curl_session::create();
    }
    return session_of_thread.get();
}

void end_thread_session()
{
    session_of_thread.reset();
}

} // namespace tirval::rest
