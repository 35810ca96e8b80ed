#include "lib/database/store_modules.h"

#include <cstddef>

#include <fmt/format.h>

#include "client/s_filestoreC.h"
#include "cmn/cmn_rmutex.h"
#include "lib/base/error.h"

namespace fstore {
namespace {

constexpr unsigned int kStore = 107;

// Held while modules are loaded and unloaded: the next ones come only when the last are gone.
constinit CMN_Mutex loading;
StoreModules* loaded CMN_GUARDED_BY(loading) = nullptr;
std::size_t users CMN_GUARDED_BY(loading) = 0;  // pointers that get() has handed out, and keepOwn()

StoreModules* use(bool own, const std::string& folder) {
    const CMN_Locked locked(loading);
    if (loaded == nullptr) {
        loaded = new StoreModules(own, folder);
    }
    ++users;
    return loaded;
}

void letGo() noexcept {
    const CMN_Locked locked(loading);
    if (--users == 0) {
        delete loaded;
        loaded = nullptr;
    }
}

template <class Function>
void find(ModuleManager& manager, const char* name, Function& function) {
    function = reinterpret_cast<Function>(manager.symbol(kStore, name));
    if (function == nullptr) {
        throw Failure(kNoObject, fmt::format("the store's module is too old: it has no {}", name));
    }
}

}  // namespace

std::shared_ptr<StoreModules> StoreModules::get() {
    // When there is no memory for the pointer, it counts down again.
    return {use(/*own=*/false, {}), [](StoreModules*) noexcept { letGo(); }};
}

void StoreModules::keepOwn(const std::string& folder) {
    (void)use(/*own=*/true, folder);  // and nobody lets go
}

StoreModules::StoreModules(bool own, const std::string& folder) {
    StoreHost::Setup setup;
    setup.folder = folder;
    setup.own = own;
    if (const Result started = host_.start(setup); !started.ok()) {
        failWithStatus(started.status == kNoMemory ? kNoMemory : kNoObject,
                       fmt::format("the store's modules cannot be loaded: {}", started.message));
    }
    ModuleManager& manager = host_.manager();
    const unsigned int id = pkcs5ID.value();
    if (CMN_GuardedRef* const service = manager.moduleService(id)) {
        counting_ = new CountingService(static_cast<PKCS5_Interface&>(*service));
        manager.setService(id, counting_.get());
    }
    find(manager, "filestore_contextMake", contexts_.make);
    find(manager, "filestore_contextEnter", contexts_.enter);
    find(manager, "filestore_contextLeave", contexts_.leave);
    find(manager, "filestore_contextWatch", contexts_.watch);
    find(manager, "filestore_contextDelete", contexts_.end);
}

StoreModules::~StoreModules() {
    (void)host_.stop();  // nobody is left to report to
}

}  // namespace fstore
