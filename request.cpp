/*
 * The cycle that every request runs through: the bearer header, the pacing before each attempt, one
 * call of the REST library, the judgement of the answer, and the decision to send again.
 */
#include "tirval_onedrive_common.h"

#include <cstdint>

namespace {

/* What the last attempt brought. */
struct tirval_l_onedrive_answer_t {
    tirval_dsi_rest_key_value_t wanted[2] = {{"Retry-After", nullptr}, {"Location", nullptr}};
    tirval_dsi_rest_response_arg_t response = {0, {1, wanted}};
    json_t *json = nullptr;
    bool retryable = true;
    uint64_t retry_after = 0; /* seconds */

    tirval_l_onedrive_answer_t() = default;
    tirval_l_onedrive_answer_t(const tirval_l_onedrive_answer_t &) = delete;
    tirval_l_onedrive_answer_t &operator=(const tirval_l_onedrive_answer_t &) = delete;
    ~tirval_l_onedrive_answer_t() { forget(); }

    void forget()
    {
        for (tirval_dsi_rest_key_value_t &header : wanted) {
            std::free(const_cast<char *>(header.value));
            header.value = nullptr;
        }
        json_decref(json);
        json = nullptr;
        response.response_code = 0;
    }
};

using tirval_l_onedrive_headers_t =
    std::unique_ptr<tirval_dsi_rest_key_value_t, decltype(&std::free)>;

} // namespace

/* The bearer header, if any, and the operation's own behind it.  Null when memory ran out. */
static tirval_l_onedrive_headers_t
tirval_l_onedrive_headers(const tirval_i_onedrive_request_t *request, size_t *count)
{
    const size_t own = request->headers == nullptr ? 0 : request->headers->count;
    auto *headers = static_cast<tirval_dsi_rest_key_value_t *>(
        std::calloc(own + 1, sizeof(tirval_dsi_rest_key_value_t)));
    *count = 0;
    if (headers != nullptr) {
        if (request->bearer != nullptr) {
            headers[(*count)++] = {"Authorization", request->bearer};
        }
        for (size_t i = 0; i < own; ++i) {
            headers[(*count)++] = request->headers->key_value[i];
        }
    }
    return {headers, &std::free};
}

static tirval_dsi_rest_callbacks_t
tirval_l_onedrive_callbacks(const tirval_i_onedrive_request_t *request,
                            tirval_l_onedrive_answer_t *answer)
{
    tirval_dsi_rest_callbacks_t callbacks = {};
    callbacks.response_callback = tirval_dsi_rest_response;
    callbacks.response_callback_arg = &answer->response;
    callbacks.data_write_callback = request->write_callback;
    callbacks.data_write_callback_arg = request->write_arg;
    callbacks.data_read_callback = request->read_callback;
    callbacks.data_read_callback_arg = request->read_arg;
    if (request->read_callback == nullptr &&
        (request->json_out != nullptr || request->json_explains)) {
        callbacks.data_read_callback = tirval_dsi_rest_read_json;
        callbacks.data_read_callback_arg = &answer->json;
    }
    const intptr_t idle_ms =
        static_cast<intptr_t>(tirval_i_onedrive_progress_timeout_ms) * request->idle_factor;
    callbacks.progress_callback = tirval_dsi_rest_progress_idle_timeout;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the callback's argument is the number itself
    callbacks.progress_callback_arg = reinterpret_cast<void *>(idle_ms);
    return callbacks;
}

/* Whether the answer is what the operation asked for; if not, the error, and what it tells about
 * sending again. */
static tirval_result_t tirval_l_onedrive_judge(const tirval_i_onedrive_request_t *request,
                                               tirval_l_onedrive_answer_t *answer)
{
    const int status = answer->response.response_code;
    const bool good = request->success == TIRVAL_I_ONEDRIVE_ONLY_302 ? status == 302 : status < 400;
    if (good) {
        return TIRVAL_SUCCESS;
    }
    const tirval_result_t result = tirval_onedrive_translate_response(
        &answer->response, request->json_explains ? answer->json : nullptr, &answer->retryable,
        &answer->retry_after);
    if (request->success == TIRVAL_I_ONEDRIVE_ANY_ANSWERED) {
        answer->retryable = false;
    }
    return result;
}

/* Sends the request until it succeeds or may not be sent again. */
static tirval_result_t tirval_l_onedrive_attempts(tirval_onedrive_handle_t *handle,
                                                  const tirval_i_onedrive_request_t *request,
                                                  const tirval_dsi_rest_key_array_t *headers,
                                                  tirval_l_onedrive_answer_t *answer)
{
    const tirval_dsi_rest_callbacks_t callbacks = tirval_l_onedrive_callbacks(request, answer);
    for (;;) {
        answer->forget();
        if (request->before_attempt != nullptr) {
            request->before_attempt(request->attempt_arg);
        }
        TIRVAL_ONEDRIVE_LOG(TIRVAL_ONEDRIVE_DEBUG, "API CALL!\n");
        if (request->paced) {
            tirval_i_onedrive_retry_delay(answer->retry_after, &handle->retry_state);
        }
        tirval_result_t result = tirval_dsi_rest_request(request->method, request->uri,
                                                         request->query, headers, &callbacks);
        if (result != TIRVAL_SUCCESS) {
            answer->retryable = tirval_dsi_rest_error_is_retryable(result);
        } else {
            result = tirval_l_onedrive_judge(request, answer);
        }
        if (result == TIRVAL_SUCCESS || !answer->retryable || *request->repetitions <= 0) {
            return result;
        }
        --*request->repetitions;
    }
}

tirval_result_t tirval_i_onedrive_request(tirval_onedrive_handle_t *handle,
                                          const tirval_i_onedrive_request_t *request)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    tirval_l_onedrive_answer_t answer;
    tirval_dsi_rest_key_array_t headers = {};
    const tirval_l_onedrive_headers_t owner = tirval_l_onedrive_headers(request, &headers.count);
    headers.key_value = owner.get();
    if (request->location_out != nullptr) {
        answer.response.desired_headers.count = 2;
    }

    const tirval_result_t result =
        owner == nullptr ? tirval_i_onedrive_malloc_error()
                         : tirval_l_onedrive_attempts(handle, request, &headers, &answer);

    if (request->json_out != nullptr) {
        *request->json_out = answer.json;
        answer.json = nullptr;
    }
    if (request->location_out != nullptr) {
        *request->location_out = const_cast<char *>(answer.wanted[1].value);
        answer.wanted[1].value = nullptr;
    }
    return TIRVAL_ONEDRIVE_LOG_RESULT(result);
}

char *tirval_i_onedrive_bearer(const tirval_onedrive_handle_t *handle)
{
    return tirval_common_create_string("Bearer %s", handle->access_token);
}
