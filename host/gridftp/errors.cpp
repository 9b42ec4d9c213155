/*
 * Errors that carry an FTP reply: code, symbolic reason and message.  They are what a client is
 * answered with, so each part can be read back.
 */
#include "errors.h"

#include "tirval_gfs_host.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct free_text {
    void operator()(char *text) const { free(text); }
};
using owned_text = std::unique_ptr<char, free_text>;

struct free_object {
    void operator()(tirval_object_t *object) const { tirval_object_free(object); }
};
using owned_object = std::unique_ptr<tirval_object_t, free_object>;

struct ftp_response {
    int code = 0;
    owned_text tag;
    owned_text message;
};

/* False when memory ran out; a null text is copied as null. */
bool copy_text(const char *text, owned_text &copy)
{
    copy.reset(text != nullptr ? strdup(text) : nullptr);
    return text == nullptr || copy != nullptr;
}

void copy_response(void *source, void **copy_out)
{
    *copy_out = nullptr;
    if (source == nullptr) {
        return;
    }
    const auto &response = *static_cast<ftp_response *>(source);
    std::unique_ptr<ftp_response> copy(new (std::nothrow) ftp_response);
    if (copy == nullptr || !copy_text(response.tag.get(), copy->tag) ||
        !copy_text(response.message.get(), copy->message)) {
        return;
    }
    copy->code = response.code;
    *copy_out = copy.release();
}

void free_response(void *data)
{
    delete static_cast<ftp_response *>(data);
}

/* The response that `error` itself carries, borrowed; null when it is of another type. */
const ftp_response *response_of(tirval_object_t *error)
{
    tirval_object_t *own =
        tirval_object_upcast(error, TIRVAL_GFS_ERROR_TYPE_FTP_RESPONSE_DEFINITION);
    return static_cast<const ftp_response *>(tirval_object_get_instance_data(own));
}

/* "451 TAG: message", without the parts that there are none of. */
char *print_response(tirval_object_t *error)
{
    const ftp_response *response = response_of(error);
    if (response == nullptr) {
        return nullptr;
    }
    const char *tag = response->tag.get();
    const char *message = response->message.get();
    return tirval_common_create_string("%d%s%s%s%s", response->code, tag != nullptr ? " " : "",
                                       tag != nullptr ? tag : "", message != nullptr ? ": " : "",
                                       message != nullptr ? message : "");
}

tirval_object_t *construct(const tirval_module_descriptor_t *module, tirval_object_t *cause_in,
                           int code, const char *tag, const char *format, va_list arguments)
{
    owned_object cause(cause_in);
    std::unique_ptr<ftp_response> response(new (std::nothrow) ftp_response);
    if (response == nullptr || !copy_text(tag, response->tag)) {
        return nullptr;
    }
    response->code = code;
    if (format != nullptr) {
        response->message.reset(tirval_common_v_create_string(format, arguments));
        if (response->message == nullptr) {
            return nullptr;
        }
    }
    tirval_object_t *error = tirval_object_construct(TIRVAL_GFS_ERROR_TYPE_FTP_RESPONSE_DEFINITION);
    if (error != nullptr) {
        tirval_object_set_instance_data(error, response.release());
        tirval_error_set_cause(error, module, cause.release());
    }
    return error;
}

template <typename Value> void set(Value *out, Value value)
{
    if (out != nullptr) {
        *out = value;
    }
}

} // namespace

const tirval_object_type_t tirval_i_gfs_error_type_ftp_response = {
    TIRVAL_ERROR_TYPE_BASE_DEFINITION, copy_response, free_response, print_response};

tirval_object_t *tirval_gfs_ftp_response_error_construct(const tirval_module_descriptor_t *module,
                                                         tirval_object_t *cause, int code,
                                                         const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    tirval_object_t *error = construct(module, cause, code, tag, format, arguments);
    va_end(arguments);
    return error;
}

tirval_object_t *tirval_i_gfs_error_system(const tirval_module_descriptor_t *module,
                                           int saved_errno, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    tirval_object_t *error =
        tirval_error_v_construct_errno(module, nullptr, saved_errno, format, arguments);
    va_end(arguments);
    return error;
}

bool tirval_gfs_ftp_response_error_get(tirval_object_t *error, int *code, const char **tag,
                                       const char **message)
{
    const ftp_response *response = response_of(error);
    set(code, response != nullptr ? response->code : 0);
    set(tag, response != nullptr ? static_cast<const char *>(response->tag.get()) : nullptr);
    set(message,
        response != nullptr ? static_cast<const char *>(response->message.get()) : nullptr);
    return response != nullptr;
}

namespace tirval_gfs {

tirval_result_t put_reply(tirval_object_t *cause, int code, const char *tag, const char *format,
                          ...)
{
    va_list arguments;
    va_start(arguments, format);
    tirval_object_t *error =
        construct(&tirval_i_gridftp_server_module, cause, code, tag, format, arguments);
    va_end(arguments);
    return tirval_error_put(error);
}

tirval_result_t put_error(int type, const char *function, int line, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    tirval_object_t *error =
        tirval_error_v_construct_error(&tirval_i_gridftp_server_module, nullptr, type,
                                       "gridftp_server", function, line, format, arguments);
    va_end(arguments);
    return tirval_error_put(error);
}

tirval_result_t as_reply(tirval_result_t result, int code, const char *tag, const char *message)
{
    tirval_object_t *error = tirval_error_peek(result);
    if (response_of(error) != nullptr) {
        return result;
    }
    return put_reply(tirval_object_copy(error), code, tag, "%s", message);
}

} // namespace tirval_gfs
