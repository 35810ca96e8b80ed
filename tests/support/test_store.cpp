#include "tests/support/test_store.h"

#include <stdexcept>

#include "api/base_module.h"
#include "format/dsc_text.h"
#include "service/md5.h"

namespace {

void require(Status status, const std::string& what) {
    if (status != kOk) {
        throw std::runtime_error(what + ": status " + std::to_string(status));
    }
}

void savePasswordDigest(const std::string& password) {
    std::string digest(16, '\0');
    (void)rk5_MD5Compute(nullptr, reinterpret_cast<unsigned char*>(digest.data()), password.data(),
                         sizeOf(password));
    aFileStore key = TestStore::record("key");
    require(key.setFolderName("./db"), "password record");
    require(key.addAttr(kTypeBinary, 1, dataOf(digest), sizeOf(digest)), "password digest");
    require(key.write(), "write password record");
}

}  // namespace

TestStore::TestStore(const std::string& password) {
    start();
    require(CMN_FILESTORE_S.prepareDBFolders(), "prepareDBFolders");
    if (!password.empty()) {
        savePasswordDigest(password);
    }
    require(CMN_FILESTORE_S.open(password.c_str()), "open");
}

TestStore::~TestStore() {
    stop();
}

void TestStore::start() {
    BaseModuleInterface* const module = GetInterfaceClass(&host(), 0);
    service_ = module->getService(FILESTORE_ID);
    service_->addReference();
    host().offer(kModule, service_);
}

// The service's own ciphers count as uses of FileStoreSrvC, which would keep the
// service: the stub lets go before the last reference does.
void TestStore::stop() {
    GetInterfaceClass(nullptr, 0);
    host().withdraw(kModule);
    FileStoreSrvC = aFileStoreSrv(nullptr);
    service_->remReference();
}

void TestStore::restart(const char* password) {
    stop();
    start();
    if (password != nullptr) {
        require(CMN_FILESTORE_S.open(password), "open");
    }
}

aFileStore TestStore::record(const std::string& name) {
    aFileStore made;
    require(made.setFolderName(kFolder), "setFolderName");
    require(made.setName(name.empty() ? nullptr : name.c_str()), "setName");
    return made;
}

Status TestStore::save(const std::string& name, const Contents& contents) {
    aFileStore saved = record(name);
    fill(saved, contents);
    return saved.write();
}

Status TestStore::tryLoad(const std::string& name, Contents& contents) {
    aFileStore loaded = record(name);
    if (const Status status = loaded.read(); status != kOk) {
        return status;
    }
    if (const Status status = loaded.decrypt(); status != kOk) {
        return status;
    }
    contents = contentsOf(loaded);
    return kOk;
}

Contents TestStore::load(const std::string& name) {
    Contents contents;
    require(tryLoad(name, contents), "load " + name);
    return contents;
}

Status TestStore::erase(const std::string& name) {
    return record(name).remove();
}
