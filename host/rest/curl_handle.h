/*
 * libcurl's handles.  Each thread has one easy and one multi handle, made with its first request
 * and kept for the next ones, since they hold the connections, TLS sessions and names.  Options are
 * set through the typed functions here only: libcurl takes any argument type in C++ without a word.
 */
#ifndef TIRVAL_REST_CURL_HANDLE_H
#define TIRVAL_REST_CURL_HANDLE_H

#include <curl/curl.h>
#include <memory>
#include <string>
#include <sys/types.h>

namespace tirval::rest {

struct easy_free {
    void operator()(CURL *easy) const { curl_easy_cleanup(easy); }
};
struct multi_free {
    void operator()(CURLM *multi) const { curl_multi_cleanup(multi); }
};
struct list_free {
    void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};
using easy_ptr = std::unique_ptr<CURL, easy_free>;
using multi_ptr = std::unique_ptr<CURLM, multi_free>;
using list_ptr = std::unique_ptr<curl_slist, list_free>;

/* Sets options of one easy handle and remembers whether each was taken. */
class curl_options {
  public:
    explicit curl_options(CURL *handle) : easy(handle) {}

    void number(CURLoption option, long value);
    void size(CURLoption option, curl_off_t value);
    void text(CURLoption option, const char *value); /* copied by libcurl; may be null */
    void list(CURLoption option, curl_slist *value); /* borrowed until the request has ended */
    void pointer(CURLoption option, void *value);    /* borrowed likewise */
    void on_data(CURLoption option, size_t (*function)(char *, size_t, size_t, void *));
    void on_connected(curl_prereq_callback function);
    void on_tls_context(curl_ssl_ctx_callback function);

    bool all_taken() const { return taken; }

  private:
    void note(CURLcode code) { taken = taken && code == CURLE_OK; }

    CURL *easy;
    bool taken = true;
};

/* What every request of this library has in common. */
void set_common_options(curl_options &options);

/* One thread's handles. */
class curl_session {
  public:
    /* Null when libcurl could not be started. */
    static std::unique_ptr<curl_session> create();
    ~curl_session();
    curl_session(const curl_session &) = delete;
    curl_session &operator=(const curl_session &) = delete;

    CURL *easy() const { return easy_handle.get(); }
    CURLM *multi() const { return multi_handle.get(); }
    bool belongs_to_this_process() const;
    bool usable() const;
    /* Takes a fresh easy handle, since some failures stay with the old one. */
    void renew();

    /* A request is running; a callback of its own must not start another. */
    bool busy = false;

  private:
    curl_session() = default;

    pid_t process = 0;
    multi_ptr multi_handle;
    easy_ptr easy_handle;
};

/* The calling thread's session, made on first use; null when it cannot be made. */
curl_session *thread_session();
/* Ends the calling thread's session, if there is one. */
void end_thread_session();

} // namespace tirval::rest

#endif
