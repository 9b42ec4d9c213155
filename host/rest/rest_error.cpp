// Error objects of this library: made, printed, and asked whether the request may be repeated.
#include "rest_error.h"

#include "tirval_dsi_rest.h"
#include "tirval_gfs_host.h"

#include <cstring>
#include <memory>
#include <new>

namespace tirval::rest {

namespace {

struct request_error {
    bool retryable;
    std::string text;
};

thread_local const std::string *label_of_thread = nullptr;

void copy_request_error(void *src, void **dst_out)
{
    *dst_out = new (std::nothrow) request_error(*static_cast<request_error *>(src));
}

void free_request_error(void *data)
{
    delete static_cast<request_error *>(data);
}

char *print_request_error(tirval_object_t *error)
{
    const auto *const data =
        static_cast<const request_error *>(tirval_object_get_instance_data(error));
    return data == nullptr ? nullptr : strdup(data->text.c_str());
}

const tirval_object_type_t request_error_type = {
    TIRVAL_ERROR_TYPE_BASE_DEFINITION, copy_request_error, free_request_error, print_request_error};

const request_error *find_request_error(tirval_result_t result)
{
    return static_cast<const request_error *>(tirval_object_get_instance_data(
        tirval_object_upcast(tirval_error_peek(result), &request_error_type)));
}

std::unique_ptr<request_error> make_request_error(bool retryable)
{
    try {
        const bool labelled = label_of_thread != nullptr && !label_of_thread->empty();
        return std::make_unique<request_error>(
            request_error{retryable, (labelled ? *label_of_thread : "The request") + " failed"});
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

} // namespace

request_label::request_label(std::string text) : label(std::move(text))
{
    label_of_thread = &label;
}

request_label::~request_label()
{
    label_of_thread = nullptr;
}

tirval_result_t put_error(const verdict &judged, const std::string &reason,
                          tirval_object_t *cause) noexcept
{
    tirval_object_t *const generic =
        tirval_error_construct_error(&tirval_i_dsi_rest_module, cause, judged.type, "rest",
                                     "tirval_dsi_rest_request", 0, "%s", reason.c_str());
    auto data = make_request_error(judged.retryable);
    tirval_object_t *const error =
        data == nullptr ? nullptr : tirval_object_construct(&request_error_type);
    if (error == nullptr) {
        return tirval_error_put(generic);
    }
    tirval_object_set_instance_data(error, data.release());
    tirval_error_set_cause(error, &tirval_i_dsi_rest_module, generic);
    return tirval_error_put(error);
}

tirval_result_t put_error(const problem &trouble) noexcept
{
    if (trouble.what == failure::callback_failed) {
        return trouble.result;
    }
    if (trouble.what == failure::cancelled) {
        return tirval_gfs_cancel_error();
    }
    const verdict &judged =
        trouble.code != CURLE_OK ? judge(trouble.code).judged : judge(trouble.what);
    try {
        std::string reason = judged.text;
        if (!trouble.detail.empty()) {
            reason += " (" + trouble.detail + ")";
        }
        return put_error(judged, reason);
    } catch (const std::bad_alloc &) {
        return TIRVAL_FAILURE;
    }
}

tirval_result_t forbid_retry(tirval_result_t result) noexcept
{
    const verdict &judged = judge(failure::partial_body_taken);
    return put_error(judged, judged.text, tirval_error_get(result));
}

void drop_result(tirval_result_t result) noexcept
{
    tirval_object_free(tirval_error_get(result));
}

} // namespace tirval::rest

bool tirval_dsi_rest_error_is_retryable(tirval_result_t result)
{
    const auto *const data = tirval::rest::find_request_error(result);
    return data != nullptr && data->retryable;
}
