#include <cstring>
#include <optional>

#include "api/base_module.h"
#include "client/cmn_abuf.h"
#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "modules/common/module_entry.h"
#include "tests/system/client_module/client.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(300);

namespace {

constexpr const char* kFolder = "./db/keys";
constexpr unsigned int kBytes = 2;
constexpr unsigned int kId = 1;

const unsigned char* bytes(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}
unsigned int size(const char* text) {
    return static_cast<unsigned int>(std::strlen(text));
}
bool same(const unsigned char* data, unsigned int length, const char* text) {
    return data != nullptr && length == size(text) && std::memcmp(data, text, length) == 0;
}

Status name(aFileStore& record, const char* text) {
    const Status status = record.setFolderName(kFolder);
    return status != kOk ? status : record.setName(text);
}

Status compare(aFileStore& record, const char* text) {
    if (const Status status = record.read(); status != kOk) {
        return status;
    }
    if (const Status status = record.decrypt(); status != kOk) {
        return status;
    }
    const unsigned int index = record.findAttr(kBytes, kId, nullptr, 0);
    return same(record.getAttr(index), record.getAttrSize(index), text) &&
                   same(record.getBody(), record.getBodySize(), text)
               ? kOk
               : kMalformed;
}

// The stub is local wherever it is used: the store is in use only as long as that.
class Client final : public ServiceModule<TClient> {
public:
    Client() : ServiceModule(kClientID.value() << 16) {}

    Status openStore(const char* password) override {
        aFileStoreSrv store;
        const Status status = store.prepareDBFolders();
        return status != kOk ? status : store.open(password);
    }

    Status closeStore() override { return aFileStoreSrv().close(); }

    Status changePassword(const char* from, const char* to) override {
        return aFileStoreSrv().recrypt(from, to);
    }

    Status put(const char* record, const char* text) override {
        aFileStore made;
        for (const Status status :
             {name(made, record), made.addAttr(kBytes, kId, bytes(text), size(text)),
              made.setAttrFlag(0, 1), made.setBody(bytes(text), size(text)), made.setBodyFlag(1)}) {
            if (status != kOk) {
                return status;
            }
        }
        return made.write();
    }

    Status get(const char* record, const char* text) override {
        aFileStore read;
        const Status status = name(read, record);
        return status != kOk ? status : compare(read, text);
    }

    Status drop(const char* record) override {
        aFileStore gone;
        const Status status = name(gone, record);
        return status != kOk ? status : gone.remove();
    }

    Status count(unsigned int& records) override {
        records = 0;
        aFileStoreList list;
        if (const Status status = list.readFromFolder(kFolder); status != kOk) {
            return status;
        }
        for (aFileStore item = list.getFirst(); item.target() != nullptr; item = list.getNext()) {
            ++records;
        }
        return kOk;
    }

    Status seal(const char* text) override {
        aFileStoreSrv store;
        for (const aBuf& key : {aBuf(static_cast<TBuf*>(nullptr)), aBuf("a key of its own")}) {
            aBuf cipher(static_cast<TBuf*>(nullptr));
            aBuf plain(static_cast<TBuf*>(nullptr));
            if (const Status status = store.encode(key, aBuf(text), cipher); status != kOk) {
                return status;
            }
            if (const Status status = store.decode(key, cipher, plain); status != kOk) {
                return status;
            }
            if (plain != aBuf(text)) {
                return kMalformed;
            }
        }
        return kOk;
    }

    Status keep(const char* record) override {
        kept_.emplace();
        return name(*kept_, record);
    }
    Status getKept(const char* text) override { return kept_ ? compare(*kept_, text) : kNoObject; }
    void letGo() override { kept_.reset(); }

private:
    std::optional<aFileStore> kept_;
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    return serveEntry<Client>(manager, flag, [] {
        FileStoreSrvC = aFileStoreSrv(nullptr);
        theX509Cmn = X509CmnSrv();
    });
}
