#include "tests/crash/session.h"

#include "api/base_module.h"
#include "tests/support/raw_object.h"

namespace crash {

Session::Session() {
    BaseModuleInterface* const module = GetInterfaceClass(&services_.host(), 0);
    service_ = module->getService(FILESTORE_ID);
    service_->addReference();
    services_.host().offer(TestStore::kModule, service_);
}

// The service's own ciphers count as uses of FileStoreSrvC, which would keep the
// service: the stub lets go before the last reference does.
Session::~Session() {
    GetInterfaceClass(nullptr, 0);
    services_.host().withdraw(TestStore::kModule);
    FileStoreSrvC = aFileStoreSrv(nullptr);
    service_->remReference();
}

std::string folderOf(const std::string& id) {
    const std::size_t slash = id.rfind('/');
    return slash == std::string::npos ? "./db" : "./db/" + id.substr(0, slash);
}

std::string nameOf(const std::string& id) {
    return id.substr(id.rfind('/') + 1);
}

aFileStore recordOf(const std::string& id) {
    aFileStore record;
    const std::string name = nameOf(id);
    if (record.setFolderName(folderOf(id).c_str()) != kOk ||
        record.setName(name.empty() ? nullptr : name.c_str()) != kOk) {
        throw std::runtime_error("no record " + id);
    }
    return record;
}

std::ostream& operator<<(std::ostream& out, const Found& found) {
    if (found == kAbsent) {
        return out << "absent";
    }
    out << "read " << found.read;
    if (found.read != kOk) {
        return out << (found.exists ? ", exists" : ", does not exist");
    }
    return out << ", decrypt " << found.decrypted << ", " << found.contents;
}

Found whole(const Contents& contents) {
    return {kOk, true, kOk, contents};
}

Found look(aFileStore& record) {
    Found found;
    found.read = record.read();
    found.exists = record.isExist() != 0;
    if (found.read == kOk) {
        found.decrypted = record.decrypt();
        found.contents = contentsOf(record);
    }
    return found;
}

Found look(const std::string& id) {
    aFileStore record = recordOf(id);
    return look(record);
}

}  // namespace crash
