#include "lib/database/store_modules.h"

#include <mutex>

#include <fmt/format.h>

#include "client/s_filestoreC.h"
#include "lib/base/error.h"

namespace fstore {
namespace {

constexpr unsigned int kStore = 107;

template <class Function>
void find(ModuleManager& manager, const char* name, Function& function) {
    function = reinterpret_cast<Function>(manager.symbol(kStore, name));
    if (function == nullptr) {
        throw Failure(kNoObject, fmt::format("the store's module is too old: it has no {}", name));
    }
}

}  // namespace

std::shared_ptr<StoreModules> StoreModules::get() {
    static std::mutex lock;
    static std::weak_ptr<StoreModules> loaded;
    const std::lock_guard<std::mutex> locked(lock);
    std::shared_ptr<StoreModules> modules = loaded.lock();
    if (!modules) {
        modules = std::make_shared<StoreModules>();
        loaded = modules;
    }
    return modules;
}

StoreModules::StoreModules() {
    if (const Result started = host_.start(); !started.ok()) {
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
    find(manager, "filestore_contextDelete", contexts_.end);
}

StoreModules::~StoreModules() {
    (void)host_.stop();  // nobody is left to report to
}

}  // namespace fstore
