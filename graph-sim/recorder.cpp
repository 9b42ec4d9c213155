// The ring of recorded requests.
#include "recorder.h"

#include <algorithm>

namespace graph_sim {

namespace {

std::int64_t monotonic_us()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string_view outcome_name(outcome how)
{
    switch (how) {
    case outcome::running:
        return "running";
    case outcome::complete:
        return "complete";
    case outcome::cut:
        return "cut";
    case outcome::peer_closed:
        break;
    }
    return "peer_closed";
}

bool wanted(const std::string &filter, std::string_view value)
{
    return filter.empty() || filter == value;
}

} // namespace

std::uint64_t recorder::begin(const request &got, request_kind kind, const std::string &account)
{
    if (capacity_ == 0) {
        return 0;
    }
    using namespace std::chrono;
    entry made;
    made.monotonic_us = monotonic_us();
    made.wall_us = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    made.method = got.method;
    made.target = got.target;
    made.headers = got.headers;
    made.kind = kind;
    made.account = account;
    made.connection = got.connection;
    made.tls = got.tls;
    made.resumed = got.resumed;

    const std::lock_guard lock(mutex_);
    made.number = ++last_;
    const std::uint64_t number = made.number;
    const size_t at = (number - 1) % capacity_;
    if (at < ring_.size()) {
        ring_[at] = std::move(made);
    } else {
        ring_.push_back(std::move(made));
    }
    return number;
}

recorder::entry *recorder::find(std::uint64_t number)
{
    if (number == 0) {
        return nullptr;
    }
    const size_t at = (number - 1) % capacity_;
    return at < ring_.size() && ring_[at].number == number ? &ring_[at] : nullptr;
}

void recorder::received(std::uint64_t number, std::uint64_t bytes)
{
    const std::lock_guard lock(mutex_);
    if (entry *found = find(number)) {
        found->body_size = bytes;
    }
}

void recorder::status(std::uint64_t number, unsigned status, const std::string &fault)
{
    const std::lock_guard lock(mutex_);
    if (entry *found = find(number)) {
        found->status = status;
        found->fault = fault;
    }
}

void recorder::sent(std::uint64_t number, std::uint64_t bytes, outcome how)
{
    const std::lock_guard lock(mutex_);
    if (entry *found = find(number)) {
        found->bytes_sent = bytes;
        found->how = how;
        found->duration_us = monotonic_us() - found->monotonic_us;
    }
}

json recorder::show(const entry &shown, const std::string &path)
{
    json headers = json::object();
    for (const auto &[name, value] : shown.headers) {
        headers.set(name, value);
    }
    const size_t mark = shown.target.find('?');
    json made = json::object();
    made.set("number", json::integer(shown.number))
        .set("monotonic_us", json::integer(shown.monotonic_us))
        .set("wall_us", json::integer(shown.wall_us))
        .set("duration_us", json::integer(shown.duration_us))
        .set("method", shown.method)
        .set("target", shown.target)
        .set("path", path)
        .set("query", mark == std::string::npos ? "" : shown.target.substr(mark + 1))
        .set("headers", headers)
        .set("body_size", json::integer(shown.body_size))
        .set("kind", kind_name(shown.kind))
        .set("account", shown.account)
        .set("connection", json::integer(shown.connection))
        .set("tls", json::boolean(shown.tls))
        .set("tls_resumed", json::boolean(shown.resumed))
        .set("status", json::integer(std::int64_t{shown.status}))
        .set("fault", shown.fault)
        .set("bytes_sent", json::integer(shown.bytes_sent))
        .set("outcome", outcome_name(shown.how));
    return made;
}

json recorder::list(const record_filter &filter) const
{
    const std::lock_guard lock(mutex_);
    json shown = json::array();
    std::uint64_t count = 0;
    const std::uint64_t oldest = last_ - ring_.size();
    for (std::uint64_t n = std::max({oldest, cleared_, filter.since});
         n < last_ && count < filter.limit; ++n) {
        const entry &candidate = ring_[n % capacity_];
        const std::string path =
            percent_decode(std::string_view(candidate.target).substr(0, candidate.target.find('?')))
                .value_or(candidate.target);
        if (wanted(filter.kind, kind_name(candidate.kind)) &&
            wanted(filter.account, candidate.account) && wanted(filter.method, candidate.method) &&
            path.find(filter.path_part) != std::string::npos) {
            shown.append(show(candidate, path));
            ++count;
        }
    }
    json made = json::object();
    made.set("requests", shown)
        .set("last", json::integer(last_))
        .set("forgotten", json::integer(oldest > cleared_ ? oldest - cleared_ : std::uint64_t{0}));
    return made;
}

void recorder::clear()
{
    const std::lock_guard lock(mutex_);
    cleared_ = last_;
}

} // namespace graph_sim
