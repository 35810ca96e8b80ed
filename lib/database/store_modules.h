// The store's modules, loaded once for all databases of the process, while any of them lives.
#ifndef LIB_DATABASE_STORE_MODULES_H
#define LIB_DATABASE_STORE_MODULES_H

#include <memory>
#include <string>

#include "api/filestore_context.h"
#include "cmn/cmn_gref.h"
#include "host/store_host.h"
#include "lib/database/counting_service.h"

namespace fstore {

class StoreModules {
public:
    // Those that are loaded, or else loads them. Throws kNoObject. Any thread may call it.
    static std::shared_ptr<StoreModules> get();

    // Loads them until the process ends, for a library whose program may host the store itself:
    // they are not the program's (StoreHost::Setup::own). `folder` is as StoreHost::Setup has it.
    // Statuses and threads as get().
    static void keepOwn(const std::string& folder);

    // Loads them; for get().
    StoreModules(bool own, const std::string& folder);
    StoreModules(const StoreModules&) = delete;
    StoreModules& operator=(const StoreModules&) = delete;
    ~StoreModules();

    // The functions of api/filestore_context.h in the store's module.
    struct Contexts {
        decltype(&filestore_contextMake) make = nullptr;
        decltype(&filestore_contextEnter) enter = nullptr;
        decltype(&filestore_contextLeave) leave = nullptr;
        decltype(&filestore_contextWatch) watch = nullptr;
        decltype(&filestore_contextDelete) end = nullptr;
    };
    const Contexts& contexts() const noexcept { return contexts_; }

private:
    CMN_GRefPtr<CountingService> counting_;  // outlives the modules
    StoreHost host_;
    Contexts contexts_;
};

}  // namespace fstore

#endif  // LIB_DATABASE_STORE_MODULES_H
