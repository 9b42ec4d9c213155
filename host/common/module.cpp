/*
 * Modules: who is active, how often, and what is left to do at process exit.  Descriptors belong to
 * their modules, so the counts stand in a table beside them.  One recursive lock is held while an
 * activation or deactivation function runs: these nest on their own thread, and other threads see
 * a module either ready or not there.
 */
#include "immortal.h"
#include "tirval_common.h"

#include <cstdlib>
#include <mutex>
#include <new>
#include <unordered_map>

namespace {

using tirval::common::immortal;

struct module_record {
    int users = 0;
    unsigned exit_turn = 0; /* 0: nothing is left to do at exit; later turns come first */
    bool exit_done = false;
};

struct module_table {
    std::recursive_mutex lock;
    std::unordered_map<const tirval_module_descriptor_t *, module_record> records;
    unsigned last_turn = 0;
    bool exit_hooked = false;
};

/* The exit function whose turn it is, taken out; null when all are done. */
void (*take_exit_function())(void)
{
    auto &modules = immortal<module_table>();
    const std::lock_guard guard(modules.lock);
    module_record *chosen = nullptr;
    void (*exit_function)(void) = nullptr;
    for (auto &[module, record] : modules.records) {
        if (record.exit_turn > (chosen == nullptr ? 0 : chosen->exit_turn)) {
            chosen = &record;
            exit_function = module->atexit_func;
        }
    }
    if (chosen != nullptr) {
        chosen->exit_turn = 0;
        chosen->exit_done = true;
    }
    return exit_function;
}

void run_exit_functions()
{
    while (auto *exit_function = take_exit_function()) {
        exit_function();
    }
}

/* A module that activated another comes after it here, and before it at exit. */
void note_exit_function(module_table &modules, const tirval_module_descriptor_t &module,
                        module_record &record)
{
    if (module.atexit_func != nullptr && record.exit_turn == 0 && !record.exit_done) {
        record.exit_turn = ++modules.last_turn;
    }
}

bool hook_exit(module_table &modules)
{
    if (!modules.exit_hooked) {
        modules.exit_hooked = std::atexit(run_exit_functions) == 0;
    }
    return modules.exit_hooked;
}

/* Null when memory ran out. */
module_record *record_of(module_table &modules, const tirval_module_descriptor_t *module)
{
    try {
        return &modules.records[module];
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

int do_nothing()
{
    return 0;
}

constexpr tirval_version_t common_version = {0, 16, 0, 0};

} // namespace

extern "C" {

tirval_module_descriptor_t tirval_i_common_module = {"tirval_common", do_nothing, do_nothing,
                                                     nullptr,         nullptr,    &common_version};

int tirval_module_activate(tirval_module_descriptor_t *module)
{
    if (module == nullptr) {
        return -1;
    }
    auto &modules = immortal<module_table>();
    const std::lock_guard guard(modules.lock);
    module_record *record = record_of(modules, module);
    if (record == nullptr || (module->atexit_func != nullptr && !hook_exit(modules))) {
        return -1;
    }
    if (++record->users > 1) {
        return 0;
    }
    const int result = module->activation_func == nullptr ? 0 : module->activation_func();
    if (result != 0) {
        record->users = 0;
        return result;
    }
    note_exit_function(modules, *module, *record);
    return 0;
}

int tirval_module_deactivate(tirval_module_descriptor_t *module)
{
    auto &modules = immortal<module_table>();
    const std::lock_guard guard(modules.lock);
    const auto found = modules.records.find(module);
    if (found == modules.records.end() || found->second.users == 0) {
        return -1;
    }
    if (--found->second.users > 0 || module->deactivation_func == nullptr) {
        return 0;
    }
    return module->deactivation_func();
}

int tirval_module_reference_count(const tirval_module_descriptor_t *module)
{
    auto &modules = immortal<module_table>();
    const std::lock_guard guard(modules.lock);
    const auto found = modules.records.find(module);
    return found == modules.records.end() ? 0 : found->second.users;
}
}
