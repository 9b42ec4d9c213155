/*
 * What the tests of the REST library share: the library active, an error scope that releases what
 * the tests put, and requests written as one expression.
 */
#ifndef TIRVAL_TESTS_REST_FIXTURE_H
#define TIRVAL_TESTS_REST_FIXTURE_H

#include "http_peer.h"
#include "tirval_dsi_rest.h"
#include "tirval_gfs_host.h"

#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using namespace std::chrono_literals;

class rest_test : public testing::Test {
  protected:
    rest_test() : scope(tirval_error_scope_create())
    {
        before = tirval_error_scope_enter(scope);
        EXPECT_EQ(tirval_module_activate(&tirval_i_dsi_rest_module), 0);
    }
    ~rest_test() override
    {
        tirval_gfs_cancel_clear();
        EXPECT_EQ(tirval_module_deactivate(&tirval_i_dsi_rest_module), 0);
        tirval_error_scope_enter(before);
        tirval_error_scope_destroy(scope);
    }

  private:
    tirval_error_scope_t *scope;
    tirval_error_scope_t *before;
};

using rest_pairs = std::vector<std::pair<std::string, std::string>>;

/* A key array over texts that it owns. */
class rest_array {
  public:
    explicit rest_array(const rest_pairs &from) : texts(from)
    {
        for (auto &[key, value] : texts) {
            pairs.push_back({key.c_str(), value.c_str()});
        }
    }
    tirval_dsi_rest_key_array_t array() { return {pairs.size(), pairs.data()}; }

  private:
    rest_pairs texts;
    std::vector<tirval_dsi_rest_key_value_t> pairs;
};

/* How a call ended. */
struct rest_outcome {
    tirval_result_t result = TIRVAL_SUCCESS;
    bool retryable = false;
    int type = 0;     /* of the first generic error in the chain */
    std::string text; /* the chain, printed */

    bool ok() const { return result == TIRVAL_SUCCESS; }
};

inline rest_outcome rest_outcome_of(tirval_result_t result)
{
    rest_outcome outcome;
    outcome.result = result;
    outcome.retryable = tirval_dsi_rest_error_is_retryable(result);
    for (auto *error = tirval_error_peek(result); error != nullptr && outcome.type == 0;
         error = tirval_error_get_cause(error)) {
        outcome.type = tirval_error_get_type(error);
    }
    if (result != TIRVAL_SUCCESS) {
        const std::unique_ptr<char, decltype(&std::free)> text(
            tirval_error_print_chain(tirval_error_peek(result)), &std::free);
        outcome.text = text.get();
    }
    return outcome;
}

/* One request in the making. */
struct rest_call {
    std::string method = "GET";
    std::string uri;
    rest_pairs query;
    rest_pairs headers;
    tirval_dsi_rest_callbacks_t callbacks{};

    rest_call(std::string verb, std::string address)
        : method(std::move(verb)), uri(std::move(address))
    {
    }

    rest_outcome send()
    {
        rest_array query_array(query), header_array(headers);
        const auto query_view = query_array.array(), header_view = header_array.array();
        return rest_outcome_of(tirval_dsi_rest_request(method.c_str(), uri.c_str(), &query_view,
                                                       &header_view, &callbacks));
    }
};

/* Collects what a data read callback is given. */
struct collected_body {
    std::string bytes;
    std::function<tirval_result_t()> after_each;

    static tirval_result_t take(void *self, void *buffer, size_t length)
    {
        auto *const me = static_cast<collected_body *>(self);
        me->bytes.append(static_cast<const char *>(buffer), length);
        return me->after_each ? me->after_each() : TIRVAL_SUCCESS;
    }
    void attach(rest_call &call)
    {
        call.callbacks.data_read_callback = take;
        call.callbacks.data_read_callback_arg = this;
    }
};

/* Gives a text as a body, in blocks. */
struct given_body {
    std::string bytes;
    size_t block = 1000;
    std::function<tirval_result_t()> before_each;
    size_t position = 0;

    static tirval_result_t give(void *self, void *buffer, size_t length, size_t *copied)
    {
        auto *const me = static_cast<given_body *>(self);
        *copied = std::min({length, me->block, me->bytes.size() - me->position});
        me->bytes.copy(static_cast<char *>(buffer), *copied, me->position);
        me->position += *copied;
        return me->before_each ? me->before_each() : TIRVAL_SUCCESS;
    }
    void attach(rest_call &call)
    {
        call.callbacks.data_write_callback = give;
        call.callbacks.data_write_callback_arg = this;
    }
};

/* The status and wanted headers of an answer. */
class wanted_headers {
  public:
    explicit wanted_headers(const std::vector<std::string> &names) : keys(names)
    {
        for (const auto &name : keys) {
            pairs.push_back({name.c_str(), nullptr});
        }
        arg.desired_headers = {pairs.size(), pairs.data()};
    }
    ~wanted_headers() { release(); }
    wanted_headers(const wanted_headers &) = delete;
    wanted_headers &operator=(const wanted_headers &) = delete;

    void attach(rest_call &call)
    {
        call.callbacks.response_callback = tirval_dsi_rest_response;
        call.callbacks.response_callback_arg = &arg;
    }
    int status() const { return arg.response_code; }
    /* "(null)" when the header was not set. */
    std::string value(size_t index) const
    {
        return pairs[index].value == nullptr ? "(null)" : pairs[index].value;
    }
    void release()
    {
        for (auto &pair : pairs) {
            std::free(const_cast<char *>(pair.value));
            pair.value = nullptr;
        }
    }
    void preset(size_t index, const char *value) { pairs[index].value = value; }

  private:
    std::vector<std::string> keys;
    std::vector<tirval_dsi_rest_key_value_t> pairs;
    tirval_dsi_rest_response_arg_t arg{};
};

/* The JSON of an answer. */
class json_answer {
  public:
    json_answer() = default;
    ~json_answer() { json_decref(json); }
    json_answer(const json_answer &) = delete;
    json_answer &operator=(const json_answer &) = delete;

    void attach(rest_call &call)
    {
        call.callbacks.data_read_callback = tirval_dsi_rest_read_json;
        call.callbacks.data_read_callback_arg = &json;
    }
    json_t *json = nullptr;
};

#endif
