#include "tests/support/test_store.h"

#include <filesystem>
#include <ostream>
#include <stdexcept>

#include "api/base_module.h"
#include "client/cmn_abuf.h"
#include "service/md5.h"
#include "store/dsc_text.h"

namespace {

void require(Status status, const std::string& what) {
    if (status != kOk) {
        throw std::runtime_error(what + ": status " + std::to_string(status));
    }
}

std::string printable(const std::string& text) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const char* const digits = "0123456789abcdef";
        shown += byte < 0x20 || byte > 0x7e
                     ? std::string("\\x") + digits[byte >> 4] + digits[byte & 15]
                     : std::string(1, c);
    }
    return shown;
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

std::ostream& operator<<(std::ostream& out, const Contents& contents) {
    for (const Contents::Attribute& attribute : contents.attributes) {
        out << "attribute " << attribute.type << ' ' << attribute.id
            << (attribute.encrypted ? " encrypted \"" : " \"") << printable(attribute.data)
            << "\"; ";
    }
    if (!contents.body) {
        return out << "no body";
    }
    return out << (contents.encrypted ? "encrypted body \"" : "body \"")
               << printable(*contents.body) << '"';
}

// A handle cannot take a body away: that takes a record without one.
void fill(aFileStore& record, const Contents& contents) {
    if (!contents.body && record.hasBody() != 0) {
        throw std::runtime_error("fill: the record has a body and cannot lose it");
    }
    record.removeAttrs();
    for (const Contents::Attribute& attribute : contents.attributes) {
        require(record.addAttr(attribute.type, attribute.id, dataOf(attribute.data),
                               sizeOf(attribute.data)),
                "addAttr");
        require(record.setAttrFlag(record.getAttrCount() - 1, attribute.encrypted ? 1 : 0),
                "setAttrFlag");
    }
    if (contents.body) {
        require(record.setBody(dataOf(*contents.body), sizeOf(*contents.body)), "setBody");
    }
    require(record.setBodyFlag(contents.encrypted ? 1 : 0), "setBodyFlag");
}

Contents contentsOf(const aFileStore& record) {
    Contents contents;
    for (unsigned int i = 0; i < record.getAttrCount(); ++i) {
        const auto* const data = reinterpret_cast<const char*>(record.getAttr(i));
        contents.attributes.push_back({record.getAttrType(i), record.getAttrID(i),
                                       std::string(data, record.getAttrSize(i)),
                                       record.getAttrFlag(i) != 0});
    }
    if (record.hasBody() != 0) {
        const auto* const data = reinterpret_cast<const char*>(record.getBody());
        contents.body = data == nullptr ? std::string() : std::string(data, record.getBodySize());
    }
    contents.encrypted = record.getBodyFlag() != 0;
    return contents;
}

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
