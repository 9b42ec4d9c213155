/* The plug-in's modules: what they register and activate, in which order, and what the library
 * exports. */
#include "frame_support.h"

#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <link.h>

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

/* What the plug-in's modules call, in order, and which module's next activation fails. */
std::vector<std::string> calls;
int depth = 0;
int deepest_noted = 3;
const tirval_module_descriptor_t *failing = nullptr;

/* Modules that the plug-in's own activate in turn are none of its business. */
void note(const std::string &what, const tirval_module_descriptor_t *module)
{
    if (depth <= deepest_noted) {
        calls.push_back(what + (module == &tirval_i_common_module     ? "runtime"
                                : module == &tirval_i_dsi_rest_module ? "REST library"
                                                                      : module->module_name));
    }
}

} // namespace

extern "C" {

TIRVAL_API int tirval_module_activate(tirval_module_descriptor_t *module)
{
    static auto *const next =
        next_definition<int(tirval_module_descriptor_t *)>("tirval_module_activate");
    depth++;
    note("activate ", module);
    const bool fails = module == failing;
    failing = fails ? nullptr : failing;
    const int result = fails ? 42 : next(module);
    depth--;
    return result;
}

TIRVAL_API int tirval_module_deactivate(tirval_module_descriptor_t *module)
{
    static auto *const next =
        next_definition<int(tirval_module_descriptor_t *)>("tirval_module_deactivate");
    depth++;
    note("deactivate ", module);
    const int result = next(module);
    depth--;
    return result;
}

TIRVAL_API int tirval_extension_registry_add(tirval_extension_registry_t *registry, const char *key,
                                             tirval_module_descriptor_t *module, void *data)
{
    static auto *const next =
        next_definition<decltype(tirval_extension_registry_add)>("tirval_extension_registry_add");
    calls.push_back(std::string("add ") + key);
    return next(registry, key, module, data);
}

TIRVAL_API void *tirval_extension_registry_remove(tirval_extension_registry_t *registry,
                                                  const char *key)
{
    static auto *const next = next_definition<decltype(tirval_extension_registry_remove)>(
        "tirval_extension_registry_remove");
    calls.push_back(std::string("remove ") + key);
    return next(registry, key);
}

TIRVAL_API void tirval_debug_init(const char *env_name, const char *level_names,
                                  tirval_debug_handle_t *handle)
{
    static auto *const next = next_definition<decltype(tirval_debug_init)>("tirval_debug_init");
    calls.push_back(std::string("debug channel ") + env_name + " " + level_names);
    next(env_name, level_names, handle);
}

TIRVAL_API int fclose(FILE *stream)
{
    static auto *const next = next_definition<int(FILE *)>("fclose");
    if (stream == tirval_i_TIRVAL_ONEDRIVE_debug_handle.file) {
        calls.emplace_back("close debug stream");
    }
    return next(stream);
}

} /* extern "C" */

namespace {

/* What the registry holds under the plug-in's name; null: nothing. */
const tirval_gfs_storage_iface_t *registered()
{
    const void *found = nullptr;
    tirval_extension_registry_walk(
        &tirval_i_gfs_dsi_registry,
        [](const char *key, void *data, void *argument) {
            if (strcmp(key, "onedrive") == 0) {
                *static_cast<const void **>(argument) = data;
            }
            return true;
        },
        &found);
    return static_cast<const tirval_gfs_storage_iface_t *>(found);
}

class Module : public ::testing::Test {
  protected:
    void SetUp() override
    {
        (void)setenv("TIRVAL_ONEDRIVE_DEBUG", ("levels=ALL;file=" + (folder / "trace")).c_str(), 1);
        calls.clear();
    }
    void TearDown() override
    {
        failing = nullptr;
        (void)unsetenv("TIRVAL_ONEDRIVE_DEBUG");
    }
    static int activate() { return tirval_module_activate(&tirval_gridftp_server_onedrive_module); }
    static int deactivate()
    {
        return tirval_module_deactivate(&tirval_gridftp_server_onedrive_module);
    }
    static bool active(const tirval_module_descriptor_t &module)
    {
        return tirval_module_reference_count(&module) > 0;
    }

    const temporary_folder folder;
};

TEST_F(Module, DescribesItself)
{
    EXPECT_STREQ(tirval_gridftp_server_onedrive_module.module_name,
                 "tirval_gridftp_server_onedrive");
    EXPECT_STREQ(tirval_i_onedrive_common_module.module_name, "tirval_onedrive_common");
    for (const auto *module :
         {&tirval_gridftp_server_onedrive_module, &tirval_i_onedrive_common_module}) {
        EXPECT_NE(module->activation_func, nullptr);
        EXPECT_NE(module->deactivation_func, nullptr);
        EXPECT_EQ(module->atexit_func, nullptr);
        EXPECT_EQ(module->get_pointer_func, nullptr);
        ASSERT_NE(module->version, nullptr);
        EXPECT_EQ(module->version->major, 0);
        EXPECT_EQ(module->version->minor, 16);
        EXPECT_EQ(module->version->timestamp, 0U);
        EXPECT_EQ(module->version->branch_id, 0);
    }
}

TEST_F(Module, ActivatesFromThePluginDownAndRegistersLast)
{
    ASSERT_EQ(activate(), 0);
    EXPECT_THAT(calls,
                ElementsAre("activate tirval_gridftp_server_onedrive",
                            "activate tirval_onedrive_common", "activate runtime",
                            "debug channel TIRVAL_ONEDRIVE_DEBUG TRACE DEBUG INFO WARN ERROR",
                            "activate REST library", "add onedrive"));
    EXPECT_TRUE(active(tirval_i_onedrive_common_module));
    EXPECT_TRUE(active(tirval_i_common_module));
    EXPECT_TRUE(active(tirval_i_dsi_rest_module));
    EXPECT_EQ(deactivate(), 0);
}

TEST_F(Module, DeactivatesInReverseAndClosesTheDebugStreamLast)
{
    ASSERT_EQ(activate(), 0);
    calls.clear();
    EXPECT_EQ(deactivate(), 0);
    EXPECT_THAT(calls, ElementsAre("deactivate tirval_gridftp_server_onedrive", "remove onedrive",
                                   "deactivate tirval_onedrive_common", "deactivate REST library",
                                   "deactivate runtime", "close debug stream"));
    EXPECT_EQ(tirval_i_TIRVAL_ONEDRIVE_debug_handle.file, nullptr);
    EXPECT_FALSE(active(tirval_gridftp_server_onedrive_module));
    EXPECT_FALSE(active(tirval_i_onedrive_common_module));
    EXPECT_FALSE(active(tirval_i_dsi_rest_module));
    EXPECT_EQ(registered(), nullptr);
}

TEST_F(Module, ForgetsAStreamThatIsNotItsOwnWithoutClosingIt)
{
    (void)unsetenv("TIRVAL_ONEDRIVE_DEBUG");
    ASSERT_EQ(activate(), 0);
    tirval_i_TIRVAL_ONEDRIVE_debug_handle.file = stdout;
    calls.clear();
    EXPECT_EQ(deactivate(), 0);
    EXPECT_EQ(calls.back(), "deactivate runtime");
    EXPECT_EQ(tirval_i_TIRVAL_ONEDRIVE_debug_handle.file, nullptr);
}

TEST_F(Module, CanBeActivatedAgain)
{
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(activate(), 0);
        EXPECT_NE(registered(), nullptr);
        EXPECT_NE(tirval_i_TIRVAL_ONEDRIVE_debug_handle.file, nullptr);
        ASSERT_EQ(deactivate(), 0);
        EXPECT_EQ(registered(), nullptr);
    }
}

TEST_F(Module, ActivatesTheRestLibraryAlsoWhenTheRuntimeFails)
{
    failing = &tirval_i_common_module;
    deepest_noted = 2;
    EXPECT_EQ(tirval_module_activate(&tirval_i_onedrive_common_module), 42);
    deepest_noted = 3;
    EXPECT_THAT(calls, ElementsAre("activate tirval_onedrive_common", "activate runtime",
                                   "activate REST library"));
    EXPECT_FALSE(active(tirval_i_onedrive_common_module));
    EXPECT_TRUE(active(tirval_i_dsi_rest_module));
    (void)tirval_module_deactivate(&tirval_i_dsi_rest_module);
}

TEST_F(Module, RegistersWhateverBecameOfItsCommonModule)
{
    failing = &tirval_i_onedrive_common_module;
    EXPECT_EQ(activate(), 0);
    EXPECT_NE(registered(), nullptr);
    EXPECT_EQ(deactivate(), 0) << "although the common module is not active";
}

TEST_F(Module, ActivatesAlsoWhenItsNameIsTaken)
{
    int other = 0;
    ASSERT_EQ(tirval_extension_registry_add(&tirval_i_gfs_dsi_registry, "onedrive",
                                            &tirval_i_common_module, &other),
              0);
    EXPECT_EQ(activate(), 0);
    EXPECT_EQ(static_cast<const void *>(registered()), &other);
    EXPECT_EQ(deactivate(), 0);
    EXPECT_EQ(registered(), nullptr);
}

TEST_F(Module, FillsTheSlotsOfItsInterfaceTable)
{
    ASSERT_EQ(activate(), 0);
    const tirval_gfs_storage_iface_t *const iface = registered();
    ASSERT_NE(iface, nullptr);
    EXPECT_EQ(iface->descriptor, 0x2B);
    EXPECT_EQ(iface->init_func, tirval_i_onedrive_start);
    EXPECT_EQ(iface->destroy_func, tirval_i_onedrive_destroy);
    EXPECT_EQ(iface->list_func, nullptr);
    EXPECT_EQ(iface->send_func, tirval_i_onedrive_send);
    EXPECT_EQ(iface->recv_func, tirval_i_onedrive_recv);
    EXPECT_EQ(iface->trev_func, nullptr);
    EXPECT_EQ(iface->active_func, nullptr);
    EXPECT_EQ(iface->passive_func, nullptr);
    EXPECT_EQ(iface->data_destroy_func, nullptr);
    EXPECT_EQ(iface->command_func, tirval_i_onedrive_command);
    EXPECT_EQ(iface->stat_func, tirval_i_onedrive_stat);
    EXPECT_EQ(iface->set_cred_func, nullptr);
    EXPECT_EQ(iface->buffer_send_func, nullptr);
    EXPECT_EQ(iface->realpath_func, nullptr);
    ASSERT_EQ(deactivate(), 0);
}

TEST_F(Module, ALookUpKeepsThePluginActive)
{
    ASSERT_EQ(activate(), 0);
    tirval_extension_handle_t hold = {};
    ASSERT_NE(tirval_extension_lookup(&hold, &tirval_i_gfs_dsi_registry, "onedrive"), nullptr);
    ASSERT_EQ(deactivate(), 0);
    EXPECT_TRUE(active(tirval_gridftp_server_onedrive_module));
    tirval_extension_release(&hold);
    EXPECT_FALSE(active(tirval_gridftp_server_onedrive_module));
}

TEST(Tunables, StartWithTheirPublishedValues)
{
    EXPECT_EQ(tirval_i_onedrive_max_delay, 25);
    EXPECT_EQ(tirval_i_onedrive_api_per_second, 15);
    EXPECT_EQ(tirval_i_onedrive_max_retries, 3);
    EXPECT_EQ(tirval_i_onedrive_progress_timeout_ms, 30000);
    EXPECT_EQ(tirval_i_onedrive_chunked_minimum, 0);
    EXPECT_STREQ(tirval_i_onedrive_upload_path, "$HOME/.tirval/onedrive-u");
    EXPECT_STREQ(tirval_i_onedrive_retry_path, "$HOME/.tirval/onedrive-r");
}

/* ---- Exported names ---- */

/* All that may be reached from outside.  A name that is added or taken away here changes what
 * programs can link against. */
constexpr std::array exported_names = {
    "tirval_gridftp_server_onedrive_module",
    "tirval_i_TIRVAL_ONEDRIVE_debug_fwrite",
    "tirval_i_TIRVAL_ONEDRIVE_debug_handle",
    "tirval_i_TIRVAL_ONEDRIVE_debug_printf",
    "tirval_i_TIRVAL_ONEDRIVE_debug_time_printf",
    "tirval_i_onedrive_answer_error",
    "tirval_i_onedrive_api_per_second",
    "tirval_i_onedrive_bearer",
    "tirval_i_onedrive_chunked_minimum",
    "tirval_i_onedrive_cksm",
    "tirval_i_onedrive_cksm_cb",
    "tirval_i_onedrive_command",
    "tirval_i_onedrive_common_module",
    "tirval_i_onedrive_create_upload_session",
    "tirval_i_onedrive_debug_level_names",
    "tirval_i_onedrive_delete",
    "tirval_i_onedrive_delete_object",
    "tirval_i_onedrive_destroy",
    "tirval_i_onedrive_ensure_folder",
    "tirval_i_onedrive_error_type",
    "tirval_i_onedrive_fetch_content",
    "tirval_i_onedrive_graph_url",
    "tirval_i_onedrive_graph_url_load",
    "tirval_i_onedrive_log_begin",
    "tirval_i_onedrive_log_end",
    "tirval_i_onedrive_log_result",
    "tirval_i_onedrive_malloc_error",
    "tirval_i_onedrive_max_delay",
    "tirval_i_onedrive_max_retries",
    "tirval_i_onedrive_mkdir",
    "tirval_i_onedrive_path_error",
    "tirval_i_onedrive_path_info_addressable",
    "tirval_i_onedrive_path_table_init",
    "tirval_i_onedrive_progress_timeout_ms",
    "tirval_i_onedrive_recv",
    "tirval_i_onedrive_recv_chunked",
    "tirval_i_onedrive_recv_simple",
    "tirval_i_onedrive_rename",
    "tirval_i_onedrive_request",
    "tirval_i_onedrive_retry_delay",
    "tirval_i_onedrive_retry_path",
    "tirval_i_onedrive_retry_state_create",
    "tirval_i_onedrive_retry_state_destroy",
    "tirval_i_onedrive_retry_state_lock",
    "tirval_i_onedrive_retry_state_unlock",
    "tirval_i_onedrive_send",
    "tirval_i_onedrive_start",
    "tirval_i_onedrive_stat",
    "tirval_i_onedrive_stat_multi",
    "tirval_i_onedrive_stat_single",
    "tirval_i_onedrive_state_attach",
    "tirval_i_onedrive_state_detach",
    "tirval_i_onedrive_state_file_open",
    "tirval_i_onedrive_state_lock",
    "tirval_i_onedrive_state_unlock",
    "tirval_i_onedrive_system_error",
    "tirval_i_onedrive_unpack_error",
    "tirval_i_onedrive_update_metadata",
    "tirval_i_onedrive_upload_parts",
    "tirval_i_onedrive_upload_path",
    "tirval_i_onedrive_upload_state_create",
    "tirval_i_onedrive_upload_state_destroy",
    "tirval_i_onedrive_upload_state_lock",
    "tirval_i_onedrive_upload_state_unlock",
    "tirval_i_onedrive_vfs_libs_info",
    "tirval_i_onedrive_vfs_myfiles_info",
    "tirval_i_onedrive_vfs_root_info",
    "tirval_i_onedrive_vfs_shared_info",
    "tirval_i_onedrive_write_refusal",
    "tirval_onedrive_config_parse_json",
    "tirval_onedrive_error_add_info",
    "tirval_onedrive_error_construct",
    "tirval_onedrive_error_get_info",
    "tirval_onedrive_error_initialize",
    "tirval_onedrive_evaluate_path",
    "tirval_onedrive_get_folder_items",
    "tirval_onedrive_info_to_stat",
    "tirval_onedrive_object_info_parse",
    "tirval_onedrive_path_cache_init",
    "tirval_onedrive_path_cache_query",
    "tirval_onedrive_path_cache_remove",
    "tirval_onedrive_path_cache_update",
    "tirval_onedrive_path_info_copy",
    "tirval_onedrive_path_info_free",
    "tirval_onedrive_path_resolve",
    "tirval_onedrive_path_to_uri",
    "tirval_onedrive_split_path",
    "tirval_onedrive_stat_entry",
    "tirval_onedrive_translate_response",
    "tirval_onedrive_update_token",
    "tirval_onedrive_upload_session_free",
    "tirval_onedrive_upload_session_parse",
    "tirval_onedrive_upload_state_init",
    "tirval_onedrive_upload_state_query",
    "tirval_onedrive_upload_state_remove",
    "tirval_onedrive_upload_state_update",
};

/* The names that the built library defines for others. */
std::vector<std::string> defined_names()
{
    void *const library = dlopen("libtirval_gridftp_server_onedrive.so", RTLD_NOW | RTLD_NOLOAD);
    link_map *map = nullptr;
    if (library == nullptr || dlinfo(library, RTLD_DI_LINKMAP, &map) != 0) {
        return {};
    }
    const std::string command = std::string("nm -D --defined-only --format=posix ") + map->l_name;
    (void)dlclose(library);
    std::vector<std::string> names;
    FILE *const output = popen(command.c_str(), "r");
    char line[1024] = {};
    while (fgets(line, sizeof(line), output) != nullptr) {
        const std::string name(line, strcspn(line, " "));
        names.push_back(name.substr(0, name.find('@')));
    }
    EXPECT_EQ(pclose(output), 0);
    std::sort(names.begin(), names.end());
    return names;
}

TEST(Library, ExportsItsSharedNamesAndNothingElse)
{
    EXPECT_THAT(defined_names(), ElementsAreArray(exported_names));
}

} // namespace
