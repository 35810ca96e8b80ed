#include "service/s_filestore_mm.h"

#include "client/s_filestoreC.h"
#include "cmn/host_owned.h"
#include "cmn/no_throw.h"
#include "store/file_store.h"

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
    letGoOfService();
    RWLocker::destroy();
}

aBuf noBuffer() {
    return aBuf(static_cast<TBuf*>(nullptr));
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

FileStoreSrv::FileStoreSrv()
    : TFileStoreSrv(0), encoder(nullptr), decoder(nullptr), password(noBuffer()) {}

// A host may delete the service while it is held, by the module's own stubs above all:
// the handles of the service's ciphers let go of theirs when they end, after this body.
FileStoreSrv::~FileStoreSrv() {
    CMN_Reference::addReference();
    (void)dropKeys();
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
            return new FileStore;
        case kRecordList:
            return new FileStoreList;
        case kCipher:
            return new CryptoCoder;
        default:
            return nullptr;
    }
}

int FileStoreSrv::isOpen() {
    return opened.load(std::memory_order_relaxed);
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
        if (const Status status = setKeys(key); status != kOk) {
            return status;
        }
        opened.store(1, std::memory_order_relaxed);
        return kOk;
    });
}

// Both ciphers get the key, or the encoder loses it again.
Status FileStoreSrv::setKeys(aBuf& key) {
    aCryptoEncoder encrypting = ownEncoder();
    if (const Status status = encrypting.setKey(key); status != kOk) {
        return status;
    }
    const Status status = noThrow([&] { return ownDecoder().setKey(key); });
    if (status != kOk) {
        aBuf none = noBuffer();
        (void)encrypting.setKey(none);  // removing a key cannot fail
    }
    return status;
}

Status FileStoreSrv::close() {
    return dropKeys();
}

Status FileStoreSrv::dropKeys() {
    return noThrow([&] {
        if (opened.load(std::memory_order_relaxed) == 0) {
            return kClosed;
        }
        aBuf none = noBuffer();
        {
            // Not through handles of their own: those need memory.
            const CMN_Locked locked(coders);
            (void)encoder.setKey(none);
            (void)decoder.setKey(none);
        }
        opened.store(0, std::memory_order_relaxed);
        return kOk;
    });
}

aCryptoEncoder FileStoreSrv::getEncoder() {
    return ownEncoder();
}

aCryptoDecoder FileStoreSrv::getDecoder() {
    return ownDecoder();
}

aCryptoEncoder FileStoreSrv::ownEncoder() {
    const CMN_Locked locked(coders);
    if (encoder.target() == nullptr) {
        encoder = aCryptoEncoder();
    }
    return aCryptoEncoder(encoder.target());
}

aCryptoDecoder FileStoreSrv::ownDecoder() {
    const CMN_Locked locked(coders);
    if (decoder.target() == nullptr) {
        decoder = aCryptoDecoder();
    }
    return aCryptoDecoder(decoder.target());
}

// Returns a handle of the cipher that was there before.
aCryptoEncoder FileStoreSrv::setEncoder(const aCryptoEncoder& replacement) {
    const CMN_Locked locked(coders);
    aCryptoEncoder before(encoder.target());
    encoder = replacement;
    return before;
}

void FileStoreSrv::setDecoder(const aCryptoDecoder& replacement) {
    const CMN_Locked locked(coders);
    decoder = replacement;
}

Status FileStoreSrv::encode(aBuf key, aBuf data, aBuf& out) {
    return noThrow([&] {
        aCryptoEncoder coder = key.target() == nullptr ? ownEncoder() : aCryptoEncoder();
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
        aCryptoDecoder coder = key.target() == nullptr ? ownDecoder() : aCryptoDecoder();
        if (key.target() != nullptr) {
            if (const Status status = coder.setKey(key); status != kOk) {
                return status;
            }
        }
        out = coder.decrypt(data);
        return out.target() != nullptr ? kOk : kIo;
    });
}
