// The store itself, as a program uses it: through its proxies, the host and the
// modules, with everything secret encrypted.
#include <fstream>
#include <sstream>

#include "bench/contest/files.h"
#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"

namespace {

constexpr const char* kFolder = "./db/keys";

void requireOk(Status status, const char* what) {
    if (status != kOk) {
        throw std::runtime_error(std::string("store: ") + what + " ends with " +
                                 std::to_string(status));
    }
}

const unsigned char* bytesOf(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}

std::string contentsOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    require(!text.str().empty(), "store: no file");
    return text.str();
}

void makeFile(const std::string& path, const std::string& contents) {
    std::ofstream file(path, std::ios::binary);
    file << contents;
    file.close();
    require(file.good(), "store: no file");
}

class Store : public Contender {
public:
    void create() override {
        requireOk(service_.prepareDBFolders(), "the preparation of folders");
        (void)service_.close();
        requireOk(service_.open(""), "the opening of a new database");
        requireOk(service_.recrypt("", kPassword), "the first password");
        open();
    }

    void put(const Record& record) override {
        aFileStore proxy;
        requireOk(proxy.setFolderName(kFolder), "setFolderName");
        requireOk(proxy.setName(record.name.c_str()), "setName");
        requireOk(proxy.addAttr(3, 1, bytesOf(record.subject.c_str()),
                                static_cast<unsigned int>(record.subject.size() + 1)),
                  "addAttr");
        requireOk(proxy.addAttr(1, 2, reinterpret_cast<const unsigned char*>(&record.number),
                                sizeof record.number),
                  "addAttr");
        requireOk(proxy.addAttr(2, 3, record.secret.data(),
                                static_cast<unsigned int>(record.secret.size())),
                  "addAttr");
        requireOk(proxy.setAttrFlag(2, 1), "setAttrFlag");
        requireOk(proxy.setBody(record.body.data(), static_cast<unsigned int>(record.body.size())),
                  "setBody");
        requireOk(proxy.setBodyFlag(1), "setBodyFlag");
        requireOk(proxy.write(), "write");
    }

    void remove(const std::string& name) override {
        aFileStore proxy = recordOf(name);
        requireOk(proxy.remove(), "remove");
    }

    void read(const std::string& name, Record& into) override {
        aFileStore proxy = recordOf(name);
        requireOk(proxy.read(), "read");
        requireOk(proxy.decrypt(), "decrypt");
        into.subject = reinterpret_cast<const char*>(proxy.getAttr(0));
        const unsigned char* const secret = proxy.getAttr(2);
        into.secret.assign(secret, secret + proxy.getAttrSize(2));
        const unsigned char* const body = proxy.getBody();
        into.body.assign(body, body + proxy.getBodySize());
    }

    std::size_t list() override {
        aFileStoreList records;
        requireOk(records.readFromFolder(kFolder), "readFromFolder");
        std::size_t count = 0;
        for (aFileStore record = records.getFirst(); record.target() != nullptr;
             record = records.getNext()) {
            count += *record.getName() != '\0' ? 1 : 0;
        }
        return count;
    }

    // Copies of one record, which the store itself has written: under each name a
    // descriptor that differs in the name of its body file alone, and the body.
    void fill(std::size_t first, std::size_t end) override {
        if (first == end) {
            return;
        }
        put(makeRecord(first, 0));
        const std::string folder = std::string(kFolder) + "/";
        const std::string descriptor = contentsOf(folder + nameOfRecord(first) + ".dsc");
        const std::size_t at = descriptor.find(' ', 9) + 1;
        const std::string body = contentsOf(folder + descriptor.substr(at, 8));
        for (std::size_t index = first + 1; index < end; ++index) {
            char name[16];
            std::snprintf(name, sizeof name, "%08x", kFirstBody + static_cast<unsigned>(index));
            makeFile(folder + name, body);
            makeFile(folder + nameOfRecord(index) + ".dsc",
                     std::string(descriptor).replace(at, 8, name));
        }
        syncDisk();
    }

    void open() override {
        (void)service_.close();
        requireOk(service_.open(kPassword), "open");
    }

    void changePassword(const char* from, const char* to) override {
        requireOk(service_.recrypt(from, to), "recrypt");
    }

private:
    // Out of the way of the names that the store gives.
    static constexpr unsigned int kFirstBody = 0x10000000;

    static aFileStore recordOf(const std::string& name) {
        aFileStore proxy;
        requireOk(proxy.setFolderName(kFolder), "setFolderName");
        requireOk(proxy.setName(name.c_str()), "setName");
        return proxy;
    }

    aFileStoreSrv service_;
};

}  // namespace

std::unique_ptr<Contender> makeStore() {
    return std::make_unique<Store>();
}
