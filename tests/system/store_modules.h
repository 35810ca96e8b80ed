// The modules that make up a store, for tests that load them: those that ship and,
// in place of the services on OpenSSL, their doubles.
#ifndef TESTS_SYSTEM_STORE_MODULES_H
#define TESTS_SYSTEM_STORE_MODULES_H

#include <dlfcn.h>

#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "host/store_host.h"

struct StoreModules {
    const char* name;
    StoreHost::Setup setup;
};

inline std::ostream& operator<<(std::ostream& out, const StoreModules& modules) {
    return out << modules.name;
}

inline std::string moduleFolder() {
    return (std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "lib")
        .string();
}

inline StoreModules doubledServices() {
    return {"Doubles",
            {moduleFolder(),
             {"x509cmn_double.so", "pkixkey_double.so", "pkcs5_double.so", "filestore.so"}}};
}

inline StoreModules realServices() {
    StoreModules modules{"OpenSsl", {}};
    modules.setup.folder = moduleFolder();
    return modules;
}

// All that this build has: the services on OpenSSL are for native code only.
inline std::vector<StoreModules> allServices() {
    if constexpr (sizeof(void*) == 8) {
        return {doubledServices(), realServices()};
    }
    return {doubledServices()};
}

// Whether the file of a module is in the process's memory.
inline bool isMapped(const std::string& module) {
    void* const found = dlopen((moduleFolder() + "/" + module).c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (found != nullptr) {
        dlclose(found);
    }
    return found != nullptr;
}

#endif  // TESTS_SYSTEM_STORE_MODULES_H
