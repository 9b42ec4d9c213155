/* The error types of the runtime, generic and errno, and the printing of errors of any type. */
#include "object.h"
#include "text.h"

#include <cstring>
#include <new>
#include <string>
#include <utility>

namespace {

using tirval::common::copy_text;
using tirval::common::format_text;
using tirval::common::owned_object;
using tirval::common::owned_text;

constexpr char no_object_text[] = "unknown error";

struct generic_facts {
    int type;
    const char *source_file;
    const char *source_func;
    int source_line;
};

struct errno_facts {
    int saved_errno;
};

/* Instance data of both types: what a program asks for, and the text for people. */
template <class Facts> struct error_data {
    Facts facts;
    owned_text message;
};

template <class Facts> void copy_data(void *src, void **dst_out)
{
    const auto &from = *static_cast<const error_data<Facts> *>(src);
    *dst_out = nullptr;
    if (owned_text message = copy_text(from.message.get()); message != nullptr) {
        *dst_out = new (std::nothrow) error_data<Facts>{from.facts, std::move(message)};
    }
}

template <class Facts> void free_data(void *data)
{
    delete static_cast<error_data<Facts> *>(data);
}

/* The error's data when it is of exactly this type, else null: a derived type has its own data. */
template <class Facts>
const error_data<Facts> *data_of(const tirval_object_t *error, const tirval_object_type_t &type)
{
    if (error == nullptr || error->type != &type) {
        return nullptr;
    }
    return static_cast<const error_data<Facts> *>(error->data);
}

const error_data<generic_facts> *generic_data_of(const tirval_object_t *error)
{
    return data_of<generic_facts>(error, tirval_i_error_type_generic);
}

const error_data<errno_facts> *errno_data_of(const tirval_object_t *error)
{
    return data_of<errno_facts>(error, tirval_i_error_type_errno);
}

char *print_generic(tirval_object_t *error)
{
    const auto *data = generic_data_of(error);
    return data == nullptr ? nullptr : copy_text(data->message.get()).release();
}

char *print_errno(tirval_object_t *error)
{
    const auto *data = errno_data_of(error);
    return data == nullptr ? nullptr : copy_text(data->message.get()).release();
}

/* An error with this data; null, and the cause freed, when memory ran out or there is no message.
 */
template <class Facts>
tirval_object_t *make_error(const tirval_object_type_t *type,
                            const tirval_module_descriptor_t *source, tirval_object_t *cause,
                            const Facts &facts, owned_text message)
{
    owned_object owned_cause(cause);
    owned_object error(tirval_object_construct(type));
    if (error == nullptr || message == nullptr) {
        return nullptr;
    }
    error->data = new (std::nothrow) error_data<Facts>{facts, std::move(message)};
    if (error->data == nullptr) {
        return nullptr;
    }
    error->source = source;
    error->cause = owned_cause.release();
    return error.release();
}

/* "MESSAGE: STRERROR"; each part stands alone when the other is missing. */
owned_text errno_text(int saved_errno, owned_text message)
{
    if (message == nullptr || saved_errno == 0) {
        return message;
    }
    const char *reason = std::strerror(saved_errno);
    if (*message == '\0') {
        return copy_text(reason);
    }
    return owned_text(tirval_common_create_string("%s: %s", message.get(), reason));
}

tirval_error_printable_func_t printable_of(const tirval_object_t *error)
{
    for (const auto *type = error->type; type != nullptr; type = type->parent) {
        if (type->printable_func != nullptr) {
            return type->printable_func;
        }
    }
    return nullptr;
}

/* Empty texts leave no empty line behind. */
void append_line(std::string &chain, const char *text)
{
    if (*text == '\0') {
        return;
    }
    if (!chain.empty() && chain.back() != '\n') {
        chain += '\n';
    }
    chain += text;
}

} // namespace

extern "C" {

const tirval_object_type_t tirval_i_error_type_base = {&tirval_i_object_type_base, nullptr, nullptr,
                                                       nullptr};
const tirval_object_type_t tirval_i_error_type_generic = {
    &tirval_i_error_type_base, copy_data<generic_facts>, free_data<generic_facts>, print_generic};
const tirval_object_type_t tirval_i_error_type_errno = {
    &tirval_i_error_type_base, copy_data<errno_facts>, free_data<errno_facts>, print_errno};

tirval_object_t *tirval_error_construct_error(const tirval_module_descriptor_t *source,
                                              tirval_object_t *cause, int type,
                                              const char *source_file, const char *source_func,
                                              int source_line, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    tirval_object_t *error = tirval_error_v_construct_error(
        source, cause, type, source_file, source_func, source_line, format, arguments);
    va_end(arguments);
    return error;
}

tirval_object_t *tirval_error_v_construct_error(const tirval_module_descriptor_t *source,
                                                tirval_object_t *cause, int type,
                                                const char *source_file, const char *source_func,
                                                int source_line, const char *format,
                                                va_list arguments)
{
    return make_error(&tirval_i_error_type_generic, source, cause,
                      generic_facts{type, source_file, source_func, source_line},
                      format_text(format, arguments));
}

tirval_object_t *tirval_error_v_construct_errno(const tirval_module_descriptor_t *source,
                                                tirval_object_t *cause, int saved_errno,
                                                const char *format, va_list arguments)
{
    return make_error(&tirval_i_error_type_errno, source, cause, errno_facts{saved_errno},
                      errno_text(saved_errno, format_text(format, arguments)));
}

void tirval_error_set_cause(tirval_object_t *error, const tirval_module_descriptor_t *source,
                            tirval_object_t *cause)
{
    owned_object owned_cause(cause);
    if (tirval_object_upcast(error, &tirval_i_error_type_base) == nullptr) {
        return;
    }
    error->source = source;
    owned_object earlier(std::exchange(error->cause, owned_cause.release()));
    if (earlier.get() == error->cause) {
        (void)earlier.release();
    }
}

tirval_object_t *tirval_error_get_cause(const tirval_object_t *error)
{
    return error == nullptr ? nullptr : error->cause;
}

const tirval_module_descriptor_t *tirval_error_get_source(const tirval_object_t *error)
{
    return error == nullptr ? nullptr : error->source;
}

int tirval_error_get_type(const tirval_object_t *error)
{
    const auto *data = generic_data_of(error);
    return data == nullptr ? TIRVAL_ERROR_TYPE_UNKNOWN : data->facts.type;
}

bool tirval_error_get_location(const tirval_object_t *error, const char **source_file,
                               const char **source_func, int *source_line)
{
    const auto *data = generic_data_of(error);
    const generic_facts facts = data == nullptr ? generic_facts{} : data->facts;
    *source_file = facts.source_file;
    *source_func = facts.source_func;
    *source_line = facts.source_line;
    return data != nullptr;
}

int tirval_error_get_errno(const tirval_object_t *error)
{
    const auto *data = errno_data_of(error);
    return data == nullptr ? 0 : data->facts.saved_errno;
}

char *tirval_error_print(tirval_object_t *error)
{
    const auto print = error == nullptr ? nullptr : printable_of(error);
    if (print == nullptr) {
        return copy_text(no_object_text).release();
    }
    char *text = print(error);
    return text != nullptr ? text : copy_text("").release();
}

char *tirval_error_print_chain(tirval_object_t *error)
{
    if (error == nullptr) {
        return tirval_error_print(nullptr);
    }
    try {
        std::string chain;
        for (; error != nullptr; error = error->cause) {
            const owned_text text(tirval_error_print(error));
            if (text == nullptr) {
                return nullptr;
            }
            append_line(chain, text.get());
        }
        return copy_text(chain.c_str()).release();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}
}
