// SPDX-License-Identifier: Apache-2.0
// A module of one's own that uses the store: counts, in a record, how often it was
// loaded. The host starts it, and keeps the store loaded while it is in use.
//
// Built into visit_counter.so, with a copy of the framework of its own;
// load_client_module.cpp loads it.
#include <cstdint>
#include <cstring>

#include "api/base_module.h"
#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "cmn/cmn_obj_mgr.h"

// Every module has a number of its own; its holders record it.
CMN_BUILT_FIRST constinit Tuint32ID ModuleID(1000);

namespace {

constexpr unsigned int kNumber = 1;  // the data type
constexpr unsigned int kVisits = 7;  // the attribute's id, ours to choose

Status countVisit() {
    aFileStoreSrv store;
    if (const Status status = store.prepareDBFolders(); status != kOk) {
        return status;
    }
    if (const Status status = store.open(""); status != kOk && status != kAlreadyOpen) {
        return status;
    }
    aFileStore record;
    if (record.setFolderName("./db/settings") != kOk || record.setName("visits") != kOk) {
        return kNoMemory;
    }
    std::uint32_t visits = 0;
    if (record.isExist() != 0) {
        if (const Status status = record.read(); status != kOk) {
            return status;
        }
        const unsigned int index = record.findAttr(kNumber, kVisits, nullptr, 0);
        if (record.getAttrSize(index) == sizeof visits) {
            std::memcpy(&visits, record.getAttr(index), sizeof visits);
        }
    }
    ++visits;
    unsigned char bytes[sizeof visits];
    std::memcpy(bytes, &visits, sizeof visits);
    if (const Status status = record.setAttr(kNumber, kVisits, bytes, sizeof bytes);
        status != kOk) {
        return status;
    }
    return record.write();
}

// The module object answers the host; it is the module's service as well, which the
// host starts with init().
class VisitCounter final : public BaseModuleInterface, public CMN_GuardedRef {
public:
    VisitCounter() : CMN_GuardedRef(0) {}

    unsigned int getModuleID() override { return ModuleID.value(); }
    unsigned int getVersion() override { return 1; }
    unsigned int getBuild() override { return 1; }
    int isReplaceable() override { return 0; }
    CMN_GuardedRef* createObject(unsigned int /*type*/) override { return nullptr; }
    Status addModule(unsigned int /*id*/, BaseModuleInterface* /*module*/) override { return kIo; }
    CMN_GuardedRef* getService(const TypifiedID& id) override {
        return id == ModuleID ? this : nullptr;
    }

    Status init() override { return countVisit(); }
    Status fini() override { return kOk; }
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    if (manager == nullptr) {
        ObjectManager.finiAll();
        FileStoreSrvC = aFileStoreSrv(nullptr);  // gives the store back
        return nullptr;
    }
    ModMgr = manager;
    return flag == 0 ? new VisitCounter : nullptr;
}
