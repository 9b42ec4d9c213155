// Runs one request with libcurl's multi interface on the calling thread.
#include "exchange.h"

#include "certificates.h"
#include "rest_error.h"
#include "tirval_gfs_host.h"
#include "tirval_gfs_stream.h"

#include <algorithm>
#include <linux/sockios.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <vector>

namespace tirval::rest {

namespace {

/* Together these make at least four progress reports a second. */
constexpr auto report_interval = std::chrono::milliseconds(150);
constexpr int longest_wait_ms = 75;

/* Keeps an easy handle attached to its multi handle; detaching closes an unfinished transfer. */
class attachment {
  public:
    attachment(CURLM *to, CURL *what) : multi(to), easy(what)
    {
        attached = curl_multi_add_handle(multi, easy) == CURLM_OK;
    }
    ~attachment() { curl_multi_remove_handle(multi, easy); }
    attachment(const attachment &) = delete;
    attachment &operator=(const attachment &) = delete;
    bool succeeded() const { return attached; }

  private:
    CURLM *multi;
    CURL *easy;
    bool attached;
};

/* What libcurl tells beyond its code, as far as it can hold no secret. */
std::string safe_detail(CURLcode code, const char *text)
{
    std::string detail = judge(code).detail_is_safe ? text : "";
    std::replace_if(
        detail.begin(), detail.end(), [](unsigned char c) { return c < ' ' || c == 127; }, ' ');
    return detail;
}

/* What the kernel has not delivered yet on the sockets of the running transfer. */
int unsent_bytes(CURLM *multi)
{
    fd_set readable, writable, exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_ZERO(&exceptional);
    int last = -1;
    int total = 0;
    curl_multi_fdset(multi, &readable, &writable, &exceptional, &last);
    for (int socket = 0; socket <= last; ++socket) {
        int unsent = 0;
        const bool in_use = FD_ISSET(socket, &readable) || FD_ISSET(socket, &writable);
        if (in_use && ioctl(socket, SIOCOUTQ, &unsent) == 0) {
            total += unsent;
        }
    }
    return total;
}

bool expects_a_body(const std::string &method)
{
    return method == "POST" || method == "PUT" || method == "PATCH";
}

} // namespace

exchange::exchange(curl_session &handles, const std::string &verb, const request_uri &address,
                   const request_headers &fields, const tirval_dsi_rest_callbacks_t &callbacks)
    : session(handles), method(verb), uri(address), headers(fields), told(callbacks),
      body(callbacks)
{
    session.busy = true;
}

exchange::~exchange()
{
    if (handle_is_spoilt) {
        session.renew();
    } else {
        curl_easy_reset(session.easy());
    }
    session.busy = false;
}

/* Runs a step of a libcurl callback; false when it failed, now or before. */
template <typename Step> bool exchange::attempt(Step &&step) noexcept
{
    try {
        fail(step());
    } catch (const std::bad_alloc &) {
        first_problem.what = failure::out_of_memory;
    }
    return !first_problem;
}

void exchange::fail(problem trouble) noexcept
{
    if (first_problem) {
        drop_result(trouble.result);
    } else {
        first_problem = std::move(trouble);
    }
}

size_t exchange::on_header(char *data, size_t size, size_t count, void *self) noexcept
{
    auto &me = *static_cast<exchange *>(self);
    const std::string_view line(data, size * count);
    return me.attempt([&] { return me.take_header(line); }) ? line.size() : 0;
}

size_t exchange::on_body(char *data, size_t size, size_t count, void *self) noexcept
{
    auto &me = *static_cast<exchange *>(self);
    const std::string_view bytes(data, size * count);
    const bool taken = me.attempt([&] { return me.take_body(bytes); });
    return taken && !me.has_enough ? bytes.size() : CURL_WRITEFUNC_ERROR;
}

size_t exchange::on_read(char *data, size_t size, size_t count, void *self) noexcept
{
    auto &me = *static_cast<exchange *>(self);
    size_t filled = 0;
    const bool read =
        me.attempt([&] { return me.body.read(data, size * count, me.idle, &filled); });
    return read ? filled : CURL_READFUNC_ABORT;
}

int exchange::on_send(void *self, char * /*peer*/, char * /*local*/, int /*peer_port*/,
                      int /*local_port*/) noexcept
{
    auto &me = *static_cast<exchange *>(self);
    me.idle.moved();
    if (++me.sendings == 1) {
        return CURL_PREREQFUNC_OK;
    }
    me.fail(problem::of(failure::sent_twice));
    return CURL_PREREQFUNC_ABORT;
}

CURLcode exchange::on_tls_context(CURL * /*easy*/, void *context, void * /*self*/) noexcept
{
    return use_certificates(static_cast<SSL_CTX *>(context)) ? CURLE_OK : CURLE_SSL_CACERT_BADFILE;
}

problem exchange::take_header(std::string_view line)
{
    idle.moved();
    auto trouble = head.add(line);
    if (!trouble && head.complete() && sink == nullptr) {
        return begin_answer();
    }
    return trouble;
}

problem exchange::begin_answer()
{
    if (told.response_callback != nullptr) {
        std::vector<tirval_dsi_rest_key_value_t> fields;
        for (const auto &[name, value] : head.fields()) {
            fields.push_back({name.c_str(), value.c_str()});
        }
        const tirval_dsi_rest_key_array_t array = {fields.size(), fields.data()};
        const auto result = idle.outside([&] {
            return told.response_callback(told.response_callback_arg, head.status(),
                                          head.reason().c_str(), &array);
        });
        if (result != TIRVAL_SUCCESS) {
            return problem::of_callback(result);
        }
    }
    long version = 0;
    curl_easy_getinfo(session.easy(), CURLINFO_HTTP_VERSION, &version);
    const sink_choice choice = {told, headers.range, method == "HEAD",
                                version >= CURL_HTTP_VERSION_2_0};
    return make_sink(choice, head, sink);
}

problem exchange::take_body(std::string_view bytes)
{
    idle.moved();
    received += bytes.size();
    if (sink == nullptr) {
        return problem::of(failure::malformed_answer, "a body without headers");
    }
    auto trouble = sink->take(bytes, idle);
    has_enough = sink->has_enough();
    return trouble;
}

void exchange::configure_method(curl_options &options)
{
    if (body.present() || expects_a_body(method)) {
        options.number(CURLOPT_UPLOAD, 1);
        options.size(CURLOPT_INFILESIZE_LARGE, body.length());
    } else if (method == "HEAD") {
        options.number(CURLOPT_NOBODY, 1);
    } else {
        options.number(CURLOPT_HTTPGET, 1);
    }
    options.text(CURLOPT_CUSTOMREQUEST, method.c_str());
}

problem exchange::configure()
{
    curl_easy_reset(session.easy());
    curl_options options(session.easy());
    set_common_options(options);
    options.text(CURLOPT_URL, uri.text.c_str());
    if (!uri.is_https) {
        // What is said in the clear to this machine must not go through a proxy elsewhere.
        options.text(CURLOPT_NOPROXY, "*");
    }
    configure_method(options);
    options.list(CURLOPT_HTTPHEADER, headers.list.get());
    options.pointer(CURLOPT_ERRORBUFFER, error_text.data());
    options.on_data(CURLOPT_HEADERFUNCTION, on_header);
    options.pointer(CURLOPT_HEADERDATA, this);
    options.on_data(CURLOPT_WRITEFUNCTION, on_body);
    options.pointer(CURLOPT_WRITEDATA, this);
    options.on_data(CURLOPT_READFUNCTION, on_read);
    options.pointer(CURLOPT_READDATA, this);
    options.on_connected(on_send);
    options.pointer(CURLOPT_PREREQDATA, this);
    options.on_tls_context(on_tls_context);
    return options.all_taken() ? problem{} : problem::of(failure::internal);
}

problem exchange::run()
{
    if (auto trouble = body.open(headers)) {
        return trouble;
    }
    if (auto trouble = configure()) {
        return trouble;
    }
    idle.moved();
    return finish(transfer());
}

problem exchange::transfer()
{
    const attachment attached(session.multi(), session.easy());
    if (!attached.succeeded()) {
        return problem::of(failure::internal);
    }
    for (;;) {
        int running = 0;
        if (curl_multi_perform(session.multi(), &running) != CURLM_OK) {
            return problem::of(failure::internal);
        }
        note_progress();
        if (first_problem) {
            return first_problem;
        }
        if (running == 0) {
            int left = 0;
            const CURLMsg *const message = curl_multi_info_read(session.multi(), &left);
            return message == nullptr ? problem::of(failure::internal)
                                      : conclude(message->data.result);
        }
        if (tirval_gfs_cancelled() != TIRVAL_GFS_CANCEL_NONE) {
            return problem::of(failure::cancelled);
        }
        if (auto trouble = report_progress()) {
            return trouble;
        }
        wait();
    }
}

problem exchange::conclude(CURLcode code)
{
    // Versions of libcurl keep the need to rewind beyond a reset, and fail the next body for it.
    handle_is_spoilt = code == CURLE_SEND_FAIL_REWIND;
    if (has_enough) {
        return {};
    }
    if (code != CURLE_OK) {
        return {failure::none, code, TIRVAL_SUCCESS, safe_detail(code, error_text.data())};
    }
    // libcurl takes a connection that ends within the headers for an answer without a body.
    return sink != nullptr ? problem{} : problem::of(failure::short_head);
}

problem exchange::finish(problem outcome)
{
    if (sink != nullptr) {
        problem at_end;
        try {
            at_end = sink->end(!outcome && !has_enough, idle);
        } catch (const std::bad_alloc &) {
            at_end = problem::of(failure::out_of_memory);
        }
        if (outcome) {
            drop_result(at_end.result);
        } else {
            outcome = std::move(at_end);
        }
    }
    body.close();
    return outcome;
}

void exchange::note_progress()
{
    curl_off_t now = 0;
    curl_easy_getinfo(session.easy(), CURLINFO_SIZE_UPLOAD_T, &now);
    if (now != sent) {
        sent = now;
        idle.moved();
    }
}

/* The last megabytes of a body wait in the kernel: the peer takes them though nothing is sent. */
bool exchange::peer_took_unsent_bytes()
{
    if (sent == 0) {
        return false;
    }
    const int now = unsent_bytes(session.multi());
    const bool fewer = now < unsent;
    unsent = now;
    return fewer;
}

problem exchange::report_progress()
{
    const auto now = std::chrono::steady_clock::now();
    if (now - last_report < report_interval) {
        return {};
    }
    last_report = now;
    if (peer_took_unsent_bytes()) {
        idle.moved();
    }
    if (told.progress_callback == nullptr) {
        return {};
    }
    const auto idle_ms = idle.idle_ms();
    return problem::of_callback(idle.outside([&] {
        return told.progress_callback(told.progress_callback_arg, static_cast<std::uint64_t>(sent),
                                      received, idle_ms);
    }));
}

void exchange::wait()
{
    std::array<curl_waitfd, 2> extra{};
    unsigned count = 0;
    const int cancel = tirval_gfs_cancel_descriptor();
    if (cancel >= 0) {
        extra[count++] = {cancel, CURL_WAIT_POLLIN, 0};
    }
    // The service takes longest over its answer: receive the next body's bytes meanwhile.
    auto *const operation = body.read_completely() ? body.operation() : nullptr;
    const int ahead = operation == nullptr ? -1 : tirval_gfs_stream_ahead_descriptor(operation);
    const unsigned ahead_index = count;
    if (ahead >= 0) {
        extra[count++] = {ahead, CURL_WAIT_POLLIN, 0};
    }
    curl_multi_poll(session.multi(), extra.data(), count, longest_wait_ms, nullptr);
    if (ahead >= 0 && extra[ahead_index].revents != 0) {
        idle.outside([&] { tirval_gfs_stream_receive_ahead(operation); });
    }
}

} // namespace tirval::rest
