/*
 * Loading storage libraries by name, and the texts for everything that may be wrong with one.
 */
#include "tirval_gfs_host.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

#include <dlfcn.h>

namespace {

using testing::HasSubstr;

/* Loads a storage that cannot be loaded and returns why. */
std::string error_of(const char *dir, const char *name)
{
    char *error = nullptr;
    tirval_gfs_storage_t *storage = tirval_gfs_storage_load(dir, name, &error);
    EXPECT_EQ(storage, nullptr);
    tirval_gfs_storage_unload(storage);
    std::string text = error != nullptr ? error : "";
    free(error);
    return text;
}

bool is_loaded(const char *name)
{
    std::string path =
        std::string(TIRVAL_TEST_STORAGES) + "/libtirval_gridftp_server_" + name + ".so";
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}

TEST(Storage, AnActivatedModulesInterfaceTableIsFoundByName)
{
    char *error = nullptr;
    tirval_gfs_storage_t *storage = tirval_gfs_storage_load(TIRVAL_TEST_STORAGES, "good", &error);
    ASSERT_NE(storage, nullptr) << error;
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(tirval_gfs_storage_iface(storage)->descriptor, TIRVAL_GFS_DSI_DESCRIPTOR_BLOCKING);
    EXPECT_TRUE(is_loaded("good"));
    tirval_gfs_storage_unload(storage);
}

TEST(Storage, UnloadingLeavesNothingBehindAndLoadingAgainWorks)
{
    for (int round = 0; round < 2; ++round) {
        tirval_gfs_storage_t *storage =
            tirval_gfs_storage_load(TIRVAL_TEST_STORAGES, "good", nullptr);
        ASSERT_NE(storage, nullptr);
        tirval_gfs_storage_unload(storage);
        tirval_extension_handle_t hold = {};
        EXPECT_EQ(tirval_extension_lookup(&hold, &tirval_i_gfs_dsi_registry, "good"), nullptr);
        EXPECT_FALSE(is_loaded("good"));
    }
    tirval_gfs_storage_unload(nullptr);
}

TEST(Storage, AMissingLibraryIsNamedWithItsPath)
{
    std::string error = error_of("/nowhere", "onedrive");
    EXPECT_THAT(error, HasSubstr("cannot load the storage \"onedrive\""));
    EXPECT_THAT(error, HasSubstr("/nowhere/libtirval_gridftp_server_onedrive.so"));
}

TEST(Storage, AMissingModuleIsNamed)
{
    std::string error = error_of(TIRVAL_TEST_STORAGES, "nosymbol");
    EXPECT_THAT(error, HasSubstr("there is no symbol tirval_gridftp_server_nosymbol_module"));
    EXPECT_THAT(error, HasSubstr("libtirval_gridftp_server_nosymbol.so"));
    EXPECT_FALSE(is_loaded("nosymbol"));
}

TEST(Storage, AnUnresolvedFunctionIsFoundWhenLoading)
{
    EXPECT_THAT(error_of(TIRVAL_TEST_STORAGES, "unresolved"), HasSubstr("tirval_nobody_has_this"));
}

TEST(Storage, AFailedActivationIsToldWithItsCode)
{
    EXPECT_THAT(error_of(TIRVAL_TEST_STORAGES, "refusing"),
                HasSubstr("activating tirval_gridftp_server_refusing_module failed with 17"));
    EXPECT_FALSE(is_loaded("refusing"));
}

TEST(Storage, AModuleThatRegistersNothingIsTold)
{
    EXPECT_THAT(error_of(TIRVAL_TEST_STORAGES, "silent"),
                HasSubstr("registers no storage \"silent\""));
    EXPECT_FALSE(is_loaded("silent"));
}

TEST(Storage, ANameThatIsNoNameLoadsNothing)
{
    for (const char *name : {"", "../good", "good.so", "a/b", "a b"}) {
        EXPECT_THAT(error_of(TIRVAL_TEST_STORAGES, name), HasSubstr("is no name of a storage"));
    }
    EXPECT_NE(error_of(TIRVAL_TEST_STORAGES, nullptr), "");
    EXPECT_NE(error_of(nullptr, "good"), "");
}

TEST(HostModule, ActivatesTheRuntimesModuleWithIt)
{
    int before = tirval_module_reference_count(&tirval_i_common_module);
    ASSERT_EQ(tirval_module_activate(&tirval_i_gridftp_server_module), 0);
    EXPECT_EQ(tirval_module_reference_count(&tirval_i_common_module), before + 1);
    EXPECT_EQ(tirval_module_deactivate(&tirval_i_gridftp_server_module), 0);
    EXPECT_EQ(tirval_module_reference_count(&tirval_i_common_module), before);
}

} // namespace
