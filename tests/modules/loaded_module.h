// A service module in its own shared object, loaded and started as a host does it.
#ifndef TESTS_MODULES_LOADED_MODULE_H
#define TESTS_MODULES_LOADED_MODULE_H

#include <string>

#include "api/base_module.h"
#include "tests/support/fake_host.h"

// Throws when the module cannot be loaded or started. Whatever the program holds
// of the module must be gone when this goes.
class LoadedModule {
public:
    // Loads lib/<name>.so and offers its service, number `id`, through `host`.
    LoadedModule(FakeHost& host, const std::string& name, unsigned int id);
    LoadedModule(const LoadedModule&) = delete;
    LoadedModule& operator=(const LoadedModule&) = delete;
    // Stops the module, deletes its object, which is its service, and unloads it.
    ~LoadedModule();

    BaseModuleInterface& module() const { return *module_; }
    CMN_GuardedRef* service() const { return service_; }

    template <class Function>
    Function* symbol(const char* name) const {
        return reinterpret_cast<Function*>(find(name));
    }

    // Whether lib/<name>.so is in the process's memory.
    static bool isMapped(const std::string& name);

private:
    void* find(const char* name) const;

    FakeHost& host_;
    unsigned int id_;
    void* library_;
    BaseModuleInterface* module_ = nullptr;
    CMN_GuardedRef* service_ = nullptr;
};

#endif  // TESTS_MODULES_LOADED_MODULE_H
