// The three sinks of an answer's body: dropped, collected as JSON, handed on as content.
#include "answer_sink.h"

#include "tirval_gfs_stream.h"

#include <string>

namespace tirval::rest {

namespace {

class dropping_sink : public answer_sink {
  public:
    problem take(std::string_view bytes, idle_clock & /*idle*/) override
    {
        dropped += bytes.size();
        return {};
    }
    bool has_enough() const override { return dropped > max_dropped_bytes; }
    problem end(bool /*whole*/, idle_clock & /*idle*/) override { return {}; }

  private:
    std::size_t dropped = 0;
};

class json_sink : public answer_sink {
  public:
    explicit json_sink(const tirval_dsi_rest_callbacks_t &callbacks) : told(callbacks) {}

    problem take(std::string_view bytes, idle_clock & /*idle*/) override
    {
        if (bytes.size() > max_json_bytes - text.size()) {
            return problem::of(failure::body_too_large);
        }
        text += bytes;
        return {};
    }
    problem end(bool whole, idle_clock &idle) override
    {
        if (!whole || text.empty()) {
            return {};
        }
        return problem::of_callback(idle.outside([this] {
            return told.data_read_callback(told.data_read_callback_arg, text.data(), text.size());
        }));
    }

  private:
    const tirval_dsi_rest_callbacks_t &told;
    std::string text;
};

/* Content for a transfer's client or for a callback of the caller's own. */
class content_sink : public answer_sink {
  public:
    content_sink(const tirval_dsi_rest_callbacks_t &callbacks, const content_plan &body_plan)
        : told(callbacks), plan(body_plan)
    {
        if (told.data_read_callback == tirval_dsi_rest_read_gridftp_op) {
            stream = static_cast<tirval_dsi_rest_gridftp_op_arg_t *>(told.data_read_callback_arg);
        }
    }

    problem open()
    {
        if (stream == nullptr) {
            return {};
        }
        return problem::of_callback(
            tirval_gfs_stream_open_write(stream->op, stream->offset, stream->length));
    }

    problem take(std::string_view bytes, idle_clock &idle) override
    {
        const auto size = static_cast<std::int64_t>(bytes.size());
        if (plan.expected >= 0 && size > plan.expected - received) {
            return problem::of(failure::surplus_body);
        }
        received += size;
        return problem::of_callback(idle.outside([&] {
            // The callback's buffer is libcurl's own and may be written to.
            return told.data_read_callback(told.data_read_callback_arg,
                                           const_cast<char *>(bytes.data()), bytes.size());
        }));
    }

    problem end(bool whole, idle_clock &idle) override
    {
        const bool as_announced = whole && (plan.expected < 0 || received == plan.expected);
        if (stream != nullptr) {
            const bool complete = as_announced && plan.marks_complete;
            const auto result =
                idle.outside([&] { return tirval_gfs_stream_close_write(stream->op, complete); });
            if (result != TIRVAL_SUCCESS) {
                return problem::of_callback(result);
            }
        }
        return whole && !as_announced ? problem::of(failure::short_body) : problem{};
    }

    bool caller_keeps_bytes() const override { return stream == nullptr && received > 0; }

  private:
    const tirval_dsi_rest_callbacks_t &told;
    tirval_dsi_rest_gridftp_op_arg_t *stream = nullptr; /* null: a callback of the caller's own */
    content_plan plan;
    std::int64_t received = 0;
};

problem make_content_sink(const sink_choice &choice, const response_head &head,
                          std::unique_ptr<answer_sink> &out)
{
    byte_range wanted = choice.range.value_or(byte_range{});
    bool strict = choice.range.has_value();
    if (choice.callbacks.data_read_callback == tirval_dsi_rest_read_gridftp_op) {
        const auto *const record = static_cast<const tirval_dsi_rest_gridftp_op_arg_t *>(
            choice.callbacks.data_read_callback_arg);
        wanted = {record->offset, record->length};
        strict = true;
    }
    content_plan plan;
    if (auto trouble = plan_content(head, wanted, strict, choice.self_framed, plan)) {
        return trouble;
    }
    auto sink = std::make_unique<content_sink>(choice.callbacks, plan);
    auto trouble = sink->open();
    if (!trouble) {
        out = std::move(sink);
    }
    return trouble;
}

} // namespace

problem make_sink(const sink_choice &choice, const response_head &head,
                  std::unique_ptr<answer_sink> &out)
{
    const auto callback = choice.callbacks.data_read_callback;
    if (callback == tirval_dsi_rest_read_json && !choice.no_body) {
        out = std::make_unique<json_sink>(choice.callbacks);
        return {};
    }
    if (callback == nullptr || head.status() >= 400 || choice.no_body) {
        out = std::make_unique<dropping_sink>();
        return {};
    }
    if (head.status() >= 300) {
        return problem::of(failure::redirect, "status " + std::to_string(head.status()));
    }
    return make_content_sink(choice, head, out);
}

} // namespace tirval::rest
