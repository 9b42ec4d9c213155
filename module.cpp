/* The plug-in's common module: what its sources stand on (runtime, debug channel, REST client
 * library), the process-wide tunables, and how a line of the debug channel is written. */
#include "tirval_onedrive_common.h"

#include <cstdarg>
#include <sys/time.h>
#include <unistd.h>

/* ---- Tunables ---- */

int32_t tirval_i_onedrive_max_delay = 25;
int32_t tirval_i_onedrive_api_per_second = 15;
int32_t tirval_i_onedrive_max_retries = 3;
int32_t tirval_i_onedrive_chunked_minimum = 0;
int32_t tirval_i_onedrive_progress_timeout_ms = 30000;
const char *tirval_i_onedrive_upload_path = "$HOME/.tirval/onedrive-u";
const char *tirval_i_onedrive_retry_path = "$HOME/.tirval/onedrive-r";

/* ---- Debug channel ---- */

tirval_debug_handle_t tirval_i_TIRVAL_ONEDRIVE_debug_handle = {};

const char *tirval_i_onedrive_debug_level_names[17] = {
    nullptr, "TRACE", "DEBUG", nullptr, "INFO",  nullptr, nullptr, nullptr, "WARN",
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, "ERROR"};

/* A prefix makes the format a new one, which is cut to this many bytes with its final null. */
static constexpr size_t tirval_l_format_size = 4096;

extern "C" void tirval_i_TIRVAL_ONEDRIVE_debug_printf(const char *format, ...)
{
    const tirval_debug_handle_t *const handle = &tirval_i_TIRVAL_ONEDRIVE_debug_handle;
    if (handle->file == nullptr) {
        return;
    }
    char prefixed[tirval_l_format_size] = {};
    if (handle->thread_ids) {
        (void)snprintf(prefixed, sizeof(prefixed), "%lu::%s", tirval_thread_self(), format);
        format = prefixed;
    }
    va_list arguments;
    va_start(arguments, format);
    (void)vfprintf(handle->file, format, arguments);
    va_end(arguments);
}

extern "C" void tirval_i_TIRVAL_ONEDRIVE_debug_time_printf(const char *format, ...)
{
    const tirval_debug_handle_t *const handle = &tirval_i_TIRVAL_ONEDRIVE_debug_handle;
    if (handle->file == nullptr) {
        return;
    }
    timeval now = {};
    (void)gettimeofday(&now, nullptr);
    const auto seconds = static_cast<unsigned long>(now.tv_sec);
    const auto nanoseconds = static_cast<unsigned long>(now.tv_usec) * 1000;
    char prefixed[tirval_l_format_size] = {};
    if (handle->thread_ids) {
        (void)snprintf(prefixed, sizeof(prefixed), "%lu:%lu.%.9lu::%s", tirval_thread_self(),
                       seconds, nanoseconds, format);
    } else {
        (void)snprintf(prefixed, sizeof(prefixed), "%lu.%.9lu::%s", seconds, nanoseconds, format);
    }
    va_list arguments;
    va_start(arguments, format);
    (void)vfprintf(handle->file, prefixed, arguments);
    va_end(arguments);
}

extern "C" void tirval_i_TIRVAL_ONEDRIVE_debug_fwrite(const void *data, size_t size, size_t count)
{
    if (tirval_i_TIRVAL_ONEDRIVE_debug_handle.file != nullptr) {
        (void)fwrite(data, size, count, tirval_i_TIRVAL_ONEDRIVE_debug_handle.file);
    }
}

extern "C" bool tirval_i_onedrive_log_begin(uint32_t level, const char *function)
{
    const tirval_debug_handle_t *const handle = &tirval_i_TIRVAL_ONEDRIVE_debug_handle;
    if ((handle->levels & level) == 0 || handle->file == nullptr) {
        return false;
    }
    flockfile(handle->file);
    if ((handle->levels & level) != 0) {
        const auto print = (handle->timestamp_levels & level) != 0
                               ? tirval_i_TIRVAL_ONEDRIVE_debug_time_printf
                               : tirval_i_TIRVAL_ONEDRIVE_debug_printf;
        print("OneDrive: %5s: %li: %s: ", tirval_i_onedrive_debug_level_names[level],
              static_cast<long>(getpid()), function);
    }
    return true;
}

extern "C" void tirval_i_onedrive_log_end()
{
    funlockfile(tirval_i_TIRVAL_ONEDRIVE_debug_handle.file);
}

extern "C" tirval_result_t tirval_i_onedrive_log_result(tirval_result_t result,
                                                        const char *function)
{
    if (result == TIRVAL_SUCCESS) {
        TIRVAL_ONEDRIVE_LOG_AS(TIRVAL_ONEDRIVE_TRACE, function, "exit: result=TIRVAL_SUCCESS\n");
        return result;
    }
    const uint32_t level = tirval_i_onedrive_debug_level_names[TIRVAL_ONEDRIVE_ERROR] != nullptr
                               ? TIRVAL_ONEDRIVE_ERROR
                               : TIRVAL_ONEDRIVE_TRACE;
    const tirval_i_onedrive_text_t chain(tirval_error_print_chain(tirval_error_peek(result)));
    TIRVAL_ONEDRIVE_LOG_AS(level, function, "exit: result=%#x message=%s\n", result, chain.get());
    return result;
}

/* ---- Module ---- */

/* The REST client library is activated also when the runtime was not: deactivation pairs with it.
 */
static int tirval_l_onedrive_common_activate()
{
    const int activated = tirval_module_activate(&tirval_i_common_module);
    if (activated == 0) {
        tirval_debug_init("TIRVAL_ONEDRIVE_DEBUG", "TRACE DEBUG INFO WARN ERROR",
                          &tirval_i_TIRVAL_ONEDRIVE_debug_handle);
    }
    tirval_i_onedrive_graph_url_load();
    (void)tirval_module_activate(&tirval_i_dsi_rest_module);
    return activated;
}

static int tirval_l_onedrive_common_deactivate()
{
    (void)tirval_module_deactivate(&tirval_i_dsi_rest_module);
    (void)tirval_module_deactivate(&tirval_i_common_module);
    tirval_debug_handle_t *const handle = &tirval_i_TIRVAL_ONEDRIVE_debug_handle;
    if (handle->using_file && handle->file != nullptr) {
        (void)fclose(handle->file);
    }
    handle->file = nullptr;
    return 0;
}

static const tirval_version_t tirval_l_version = {0, 16, 0, 0};

tirval_module_descriptor_t tirval_i_onedrive_common_module = {
    .module_name = "tirval_onedrive_common",
    .activation_func = tirval_l_onedrive_common_activate,
    .deactivation_func = tirval_l_onedrive_common_deactivate,
    .atexit_func = nullptr,
    .get_pointer_func = nullptr,
    .version = &tirval_l_version,
};
