#include "service/s_filestore_mm.h"

#include "client/s_filestoreC.h"
#include "cmn/host_owned.h"
#include "cmn/no_throw.h"
#include "service/contexts.h"
#include "store/context_objects.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(107);

const unsigned int FileStore_Module_Version = 1;
const unsigned int FileStore_Module_Build = 1;

namespace {

// Both stubs of this module let go: the second holds the service while a handle of a
// record or of a cipher lives, and the service has such handles itself.
void unbind() {
    FileStoreSrvC = aFileStoreSrv(nullptr);
    CMN_FILESTORE_S = aFileStoreSrv(nullptr);
}

void letGoOfService() {
    if (TFileStoreSrv* const service = CMN_FILESTORE_S.service()) {
        leaveToHost(*service, unbind);
    }
}

void stopModule() {
    ObjectManager.finiAll();
    dropContexts();
    letGoOfService();
    RWLocker::destroy();
}

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    if (manager == nullptr) {
        stopModule();
        return nullptr;
    }
    ModMgr = manager;
    if (flag != 0) {
        return nullptr;
    }
    letGoOfService();  // of one that was made before: that is the host's, too
    // The stub's holder is the first: when it cannot be attached, the service goes.
    CMN_FILESTORE_S = aFileStoreSrv(new FileStoreSrv);
    RWLocker::init();
    return CMN_FILESTORE_S.service();
}

FileStoreSrv::FileStoreSrv() : TFileStoreSrv(0) {}

// A host may delete the service while it is held, by the module's own stubs above all:
// the handles of the service's ciphers let go of theirs when they end, after this body.
FileStoreSrv::~FileStoreSrv() {
    CMN_Reference::addReference();
    (void)own.close();
    dropContexts();
    if (FileStoreSrvC.service() == this) {
        FileStoreSrvC = aFileStoreSrv(nullptr);  // gives back its use of the module, too
    }
    detachAll();
}

unsigned int FileStoreSrv::getModuleID() {
    return 107;
}

unsigned int FileStoreSrv::getVersion() {
    return FileStore_Module_Version;
}

unsigned int FileStoreSrv::getBuild() {
    return FileStore_Module_Build;
}

int FileStoreSrv::isReplaceable() {
    return 1;
}

CMN_GuardedRef* FileStoreSrv::createObject(unsigned int /*type*/) {
    return nullptr;
}

Status FileStoreSrv::addModule(unsigned int /*id*/, BaseModuleInterface* /*module*/) {
    return kIo;
}

CMN_GuardedRef* FileStoreSrv::getService(const TypifiedID& id) {
    return id == ModuleID ? this : nullptr;
}

Status FileStoreSrv::init() {
    return kOk;
}

Status FileStoreSrv::fini() {
    return kOk;
}

CMN_GuardedRef* FileStoreSrv::create(unsigned int kind) {
    switch (kind) {
        case kRecord:
            return newRecord();
        case kRecordList:
            return newList();
        case kCipher:
            return new CryptoCoder;
        default:
            return nullptr;
    }
}

OpenState& FileStoreSrv::state() noexcept {
    OpenState* const entered = enteredState();
    return entered == nullptr ? own : *entered;
}

int FileStoreSrv::isOpen() {
    return state().isOpen();
}

Status FileStoreSrv::open(const char* candidate) {
    return noThrow([&] {
        if (isOpen() != 0) {
            return kAlreadyOpen;
        }
        if (const Status status = checkPwd(candidate); status != kOk) {
            return status;
        }
        aBuf key(candidate);
        if (key.target() == nullptr) {
            return kIo;
        }
        return state().open(key);
    });
}

Status FileStoreSrv::close() {
    return state().close();
}

aCryptoEncoder FileStoreSrv::getEncoder() {
    return state().ownEncoder();
}

aCryptoDecoder FileStoreSrv::getDecoder() {
    return state().ownDecoder();
}

Status FileStoreSrv::encode(aBuf key, aBuf data, aBuf& out) {
    return noThrow([&] {
        aCryptoEncoder coder = key.target() == nullptr ? state().ownEncoder() : aCryptoEncoder();
        if (key.target() != nullptr) {
            if (const Status status = coder.setKey(key); status != kOk) {
                return status;
            }
        }
        out = coder.encrypt(data);
        return out.target() != nullptr ? kOk : kIo;
    });
}

Status FileStoreSrv::decode(aBuf key, aBuf data, aBuf& out) {
    return noThrow([&] {
        aCryptoDecoder coder = key.target() == nullptr ? state().ownDecoder() : aCryptoDecoder();
        if (key.target() != nullptr) {
            if (const Status status = coder.setKey(key); status != kOk) {
                return status;
            }
        }
        out = coder.decrypt(data);
        return out.target() != nullptr ? kOk : kIo;
    });
}
