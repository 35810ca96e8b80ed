#include "lib/database/store_service.h"

#include <utility>

#include <fmt/format.h>

#include "cmn/cmn_gref.h"
#include "host/store_host.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/counting_service.h"

namespace fstore {

// The modules, with the service that counts in front of the module's.
class StoreService::Modules {
public:
    Modules() {
        if (const Result started = host_.start(); !started.ok()) {
            failWithStatus(
                started.status == kNoMemory ? kNoMemory : kNoObject,
                fmt::format("the store's modules cannot be loaded: {}", started.message));
        }
        ModuleManager& manager = host_.manager();
        const unsigned int id = pkcs5ID.value();
        if (CMN_GuardedRef* const service = manager.moduleService(id)) {
            counting_ = new CountingService(static_cast<PKCS5_Interface&>(*service));
            manager.setService(id, counting_.get());
        }
    }
    Modules(const Modules&) = delete;
    Modules& operator=(const Modules&) = delete;
    ~Modules() { (void)host_.stop(); }  // nobody is left to be told

    CountingService& counting() { return *counting_.get(); }

private:
    CMN_GRefPtr<CountingService> counting_;  // outlives the modules
    StoreHost host_;
};

StoreService::StoreService(const Place& place) : place_(place) {}

// The service goes before the modules that it comes from.
StoreService::~StoreService() {
    (void)service_.close();  // it may be closed
    service_ = aFileStoreSrv(nullptr);
}

void StoreService::start() {
    if (!modules_) {
        modules_ = std::make_unique<Modules>();
    }
}

void StoreService::open(SecretText p) {
    close();
    const Status status = service_.open(p.c_str());
    if (status == kWrongPassword) {
        throw Failure(kWrongPassword,
                      fmt::format("wrong password for the database in {}", place_.describe()),
                      place_.folder);
    }
    check(status, fmt::format("cannot open the database in {}", place_.describe()), place_.folder);
    p_ = std::move(p);
}

void StoreService::close() {
    (void)service_.close();  // it may be closed
    p_ = SecretText();
}

void StoreService::makeFolders() {
    // The store goes on after a folder that it could not make, so errno tells of another.
    if (service_.prepareDBFolders() != kOk) {
        throw Failure(kIo,
                      fmt::format("cannot create the folders of the database in {} (disk full? "
                                  "no permission?)",
                                  place_.describe()),
                      place_.folder);
    }
    syncFolder(".");
}

Status StoreService::recrypt(const SecretText& p, Observer& observer) {
    const CountingService::Counting counting(modules_->counting(), observer);
    const Status status = service_.recrypt(p_.c_str(), p.c_str());
    return counting.wasCancelled() ? kInterrupted : status;
}

}  // namespace fstore
