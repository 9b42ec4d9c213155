/*
 * Storage libraries: loading one by name, with its module activated and its registry entry held.
 */
#include "tirval_gfs_host.h"

#include <cctype>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <dlfcn.h>

namespace {

struct close_library {
    void operator()(void *library) const { dlclose(library); }
};
using owned_library = std::unique_ptr<void, close_library>;

/* The name becomes part of a file name and of a symbol. */
bool is_name(const char *name)
{
    if (name == nullptr || *name == '\0') {
        return false;
    }
    for (; *name != '\0'; ++name) {
        if (isalnum(static_cast<unsigned char>(*name)) == 0 && *name != '_') {
            return false;
        }
    }
    return true;
}

void copy_error(char **error_out, const std::string &text)
{
    if (error_out != nullptr) {
        *error_out = strdup(text.c_str());
    }
}

} // namespace

struct tirval_gfs_storage_s {
    owned_library library;
    tirval_module_descriptor_t *module = nullptr;
    bool active = false;
    tirval_extension_handle_t hold = {};
    const tirval_gfs_storage_iface_t *iface = nullptr;

    tirval_gfs_storage_s() = default;
    tirval_gfs_storage_s(const tirval_gfs_storage_s &) = delete;
    tirval_gfs_storage_s &operator=(const tirval_gfs_storage_s &) = delete;
    ~tirval_gfs_storage_s()
    {
        tirval_extension_release(&hold);
        if (active) {
            tirval_module_deactivate(module);
            if (module->atexit_func != nullptr) {
                (void)library.release(); /* its code is still called when the process ends */
            }
        }
    }

    /* Returns what went wrong, or an empty text. */
    std::string load(const std::string &dir, const std::string &name)
    {
        std::string path = dir + "/libtirval_gridftp_server_" + name + ".so";
        library.reset(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
        if (library == nullptr) {
            return "cannot load the storage \"" + name + "\": " + dlerror();
        }
        std::string symbol = "tirval_gridftp_server_" + name + "_module";
        module = static_cast<tirval_module_descriptor_t *>(dlsym(library.get(), symbol.c_str()));
        if (module == nullptr) {
            return path + ": there is no symbol " + symbol;
        }
        int code = tirval_module_activate(module);
        active = code == 0;
        if (!active) {
            return path + ": activating " + symbol + " failed with " + std::to_string(code);
        }
        iface = static_cast<const tirval_gfs_storage_iface_t *>(
            tirval_extension_lookup(&hold, &tirval_i_gfs_dsi_registry, name.c_str()));
        return iface != nullptr ? ""
                                : path + ": " + symbol + " registers no storage \"" + name + "\"";
    }
};

namespace {

tirval_gfs_storage_t *load(const char *dir, const char *name, char **error_out)
{
    if (dir == nullptr || !is_name(name)) {
        copy_error(error_out, std::string("\"") + (name != nullptr ? name : "") +
                                  "\" is no name of a storage (letters, digits and \"_\")");
        return nullptr;
    }
    auto storage = std::make_unique<tirval_gfs_storage_s>();
    std::string error = storage->load(dir, name);
    if (!error.empty()) {
        copy_error(error_out, error);
        return nullptr;
    }
    return storage.release();
}

} // namespace

tirval_gfs_storage_t *tirval_gfs_storage_load(const char *dir, const char *name, char **error_out)
{
    if (error_out != nullptr) {
        *error_out = nullptr;
    }
    try {
        return load(dir, name, error_out);
    } catch (const std::bad_alloc &) {
        if (error_out != nullptr) {
            *error_out = strdup("there is no memory to load a storage");
        }
        return nullptr;
    }
}

const tirval_gfs_storage_iface_t *tirval_gfs_storage_iface(const tirval_gfs_storage_t *storage)
{
    return storage->iface;
}

void tirval_gfs_storage_unload(tirval_gfs_storage_t *storage)
{
    delete storage;
}
