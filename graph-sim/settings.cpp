// Reading and showing the settings.
#include "settings.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace graph_sim {

namespace {

void take(std::uint64_t &to, object_reader &reader, const char *key, std::int64_t least,
          std::int64_t most)
{
    if (const auto value = reader.integer(key, least, most)) {
        to = static_cast<std::uint64_t>(*value);
    }
}

void take(std::chrono::seconds &to, object_reader &reader, const char *key, std::int64_t least)
{
    if (const auto value = reader.integer(key, least, 1'000'000'000)) {
        to = std::chrono::seconds(*value);
    }
}

void take(bool &to, object_reader &reader, const char *key)
{
    to = reader.boolean(key).value_or(to);
}

void take_uploads(settings &to, object_reader &reader)
{
    constexpr std::int64_t most = std::int64_t{1} << 62;
    take(to.upload_memory, reader, "upload_memory", 0, most);
    take(to.largest_upload, reader, "largest_upload", 0, most);
    take(to.largest_file, reader, "largest_file", 0, most);
    take(to.fragment_limit, reader, "fragment_limit", 1, most);
    take(to.fragment_multiple, reader, "fragment_multiple", 1, most);
    if (const auto seconds = reader.number("session_lifetime_s", 0, 1e9)) {
        to.session_lifetime = std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
    }
    take(to.keep_partial_fragments, reader, "keep_partial_fragments");
    to.expected_ranges = reader.text_or("expected_ranges", to.expected_ranges);
    static constexpr std::array<std::string_view, 5> forms{"auto", "open", "closed", "empty",
                                                           "missing"};
    if (std::ranges::find(forms, to.expected_ranges) == forms.end()) {
        reader.fail("expected_ranges", "is auto, open, closed, empty or missing");
    }
}

void show_uploads(const settings &shown, const json &to)
{
    json(to)
        .set("upload_memory", json::integer(shown.upload_memory))
        .set("largest_upload", json::integer(shown.largest_upload))
        .set("largest_file", json::integer(shown.largest_file))
        .set("fragment_limit", json::integer(shown.fragment_limit))
        .set("fragment_multiple", json::integer(shown.fragment_multiple))
        .set("keep_partial_fragments", json::boolean(shown.keep_partial_fragments))
        .set("expected_ranges", shown.expected_ranges);
    if (shown.session_lifetime) {
        json(to).set(
            "session_lifetime_s",
            json::take(json_real(static_cast<double>(shown.session_lifetime->count()) / 1000)));
    }
}

} // namespace

void settings::read(object_reader reader)
{
    settings changed = *this;
    take(changed.default_page, reader, "default_page", 1, 100'000);
    take(changed.largest_page, reader, "largest_page", 1, 100'000);
    take(changed.chunked_json, reader, "chunked_json");
    changed.download_origin = reader.text_or("download_origin", download_origin);
    take(changed.download_lifetime, reader, "download_lifetime_s", 0);
    take(changed.download_refuses_bearer, reader, "download_refuses_bearer");
    take(changed.upload_refuses_bearer, reader, "upload_refuses_bearer");
    take(changed.hash_limit, reader, "hash_limit", 0, std::int64_t{1} << 62);
    take_uploads(changed, reader);
    take(changed.token_lifetime, reader, "token_lifetime_s", 0);
    take(changed.old_refresh_token_works, reader, "old_refresh_token_works");
    take(changed.device_code_lifetime, reader, "device_code_lifetime_s", 0);
    take(changed.device_code_interval, reader, "device_code_interval_s", 0);
    take(changed.device_code_pending, reader, "device_code_pending", 0, 1'000'000);
    reader.finish();
    *this = changed;
}

json settings::show() const
{
    json shown = json::object();
    shown.set("default_page", json::integer(default_page))
        .set("largest_page", json::integer(largest_page))
        .set("chunked_json", json::boolean(chunked_json))
        .set("download_origin", download_origin)
        .set("download_lifetime_s", json::integer(std::int64_t{download_lifetime.count()}))
        .set("download_refuses_bearer", json::boolean(download_refuses_bearer))
        .set("upload_refuses_bearer", json::boolean(upload_refuses_bearer))
        .set("hash_limit", json::integer(hash_limit))
        .set("token_lifetime_s", json::integer(std::int64_t{token_lifetime.count()}))
        .set("old_refresh_token_works", json::boolean(old_refresh_token_works))
        .set("device_code_lifetime_s", json::integer(std::int64_t{device_code_lifetime.count()}))
        .set("device_code_interval_s", json::integer(std::int64_t{device_code_interval.count()}))
        .set("device_code_pending", json::integer(device_code_pending));
    show_uploads(*this, shown);
    return shown;
}

} // namespace graph_sim
