// Any sequence of a client's calls: what the store answers is what a map of records
// would, over restarts and changes of password.
#include <unistd.h>

#include <map>
#include <optional>
#include <string>

#include "format/dsc_text.h"
#include "fuzz/input.h"
#include "tests/crash/session.h"
#include "tests/crash/tree.h"

namespace {

using crash::Session;

// Texts as descriptors can hold them: no leading white space, no line feed, no NUL.
std::string textOf(std::string bytes) {
    for (char& c : bytes) {
        c = c > ' ' && c < 0x7f ? c : 'x';
    }
    return bytes;
}

Contents takeContents(Input& input) {
    Contents contents;
    for (std::size_t n = input.below(4); n > 0; --n) {
        const unsigned int type = static_cast<unsigned int>(input.below(4)) + 1;
        const unsigned int id = input.byte();
        std::string data = input.bytes();
        switch (type) {
            case kTypeNumber:
                data.resize(4);
                break;
            case kTypeBinary:
                break;
            case kTypeString:
                data = textOf(data) + '\0';
                break;
            default:
                data = textOf(data);
                break;
        }
        contents.attributes.push_back({type, id, data, type == kTypeBinary && id % 2 != 0});
    }
    if (input.byte() % 3 != 0) {
        contents.body = input.bytes() + "end";
        contents.encrypted = input.byte() % 2 != 0;
    }
    return contents;
}

class Client {
public:
    Client() { restart(); }

    void step(Input& input) {
        const std::string id = takeId(input);
        switch (input.below(8)) {
            case 0:
            case 1:
            case 2:
                return write(id, takeContents(input));
            case 3:
                return remove(id);
            case 4:
                return checkOdd(input, id);
            case 5:
                return checkList(id);
            case 6:
                return restart();
            default:
                return changePassword(textOf(input.bytes()));
        }
    }

    void checkAll() {
        for (const auto& [id, contents] : records_) {
            require(crash::look(id) == crash::whole(contents));
        }
    }

private:
    static std::string takeId(Input& input) {
        static const std::string kIds[] = {"keys/a",
                                           "keys/b",
                                           "keys/a.b",
                                           "settings/a",
                                           "crls/a.dsc",
                                           "lsps/",
                                           "certificates/local/a",
                                           "crm/ "};
        return kIds[input.below(std::size(kIds))];
    }

    void write(const std::string& id, const Contents& contents) {
        aFileStore record = crash::recordOf(id);
        fill(record, contents);
        require(record.write() == kOk);
        const std::string written = crash::nameOf(id).empty() ? id + record.getName() : id;
        require(written != id || !id.ends_with("/"));
        records_[written] = contents;
        require(crash::look(written) == crash::whole(contents));
    }

    void remove(const std::string& id) {
        const bool isThere = records_.erase(id) != 0;
        const Status status = crash::recordOf(id).remove();
        require(status == (isThere ? kOk : crash::nameOf(id).empty() ? kMissing : kIo));
        require(crash::look(id) == crash::kAbsent);
    }

    // Wrong indexes and sizes are answered, and change nothing.
    void checkOdd(Input& input, const std::string& id) {
        aFileStore record = crash::recordOf(id);
        (void)record.read();
        (void)record.decrypt();
        const Contents before = contentsOf(record);
        const unsigned int index = record.getAttrCount() + input.byte();
        require(record.getAttr(index) == nullptr && record.getAttrSize(index) == 0);
        require(record.getAttrType(index) == 0 && record.getAttrID(index) == 0);
        require(record.setAttrFlag(index, 1) == kEnd && record.removeAttr(index) == kInvalid);
        require(record.addAttr(kTypeBinary, 1, nullptr, input.byte()) == kInvalid);
        require(record.setBodyFlag(2 + input.byte()) == kInvalid);
        require(contentsOf(record) == before);
    }

    void checkList(const std::string& id) {
        const std::string folder = crash::folderOf(id);
        aFileStoreList list;
        require(list.readFromFolder(folder.c_str()) == kOk);
        std::map<std::string, Contents> found;
        for (aFileStore record = list.getFirst(); record.target() != nullptr;
             record = list.getNext()) {
            require(record.read() == kOk && record.decrypt() == kOk);
            found[folder.substr(5) + "/" + record.getName()] = contentsOf(record);
        }
        std::map<std::string, Contents> expected;
        for (const auto& [known, contents] : records_) {
            if (crash::folderOf(known) == folder) {
                expected[known] = contents;
            }
        }
        require(found == expected);
    }

    void restart() {
        session_.reset();
        session_.emplace();
        require(CMN_FILESTORE_S.prepareDBFolders() == kOk);
        require(CMN_FILESTORE_S.open((password_ + "?").c_str()) == kWrongPassword);
        require(CMN_FILESTORE_S.open(password_.c_str()) == kOk);
        checkAll();
    }

    void changePassword(const std::string& password) {
        require(CMN_FILESTORE_S.recrypt((password_ + "?").c_str(), "") == kWrongPassword);
        require(CMN_FILESTORE_S.recrypt(password_.c_str(), password.c_str()) == kOk);
        password_ = password;
        checkAll();
    }

    std::optional<Session> session_;
    std::string password_;
    std::map<std::string, Contents> records_;
};

// Making the folders anew takes as long as a few steps: they stay, unless there has been
// a change of password, which has made them by itself.
void clearDatabase() {
    if (::access("old_db", F_OK) == 0) {
        crash::clearCurrentFolder();
    } else {
        crash::clearFiles(".");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const crash::Scratch scratch;
    clearDatabase();
    Input input(data, size);
    Client client;
    while (!input.isEmpty()) {
        client.step(input);
    }
    client.checkAll();
    return 0;
}
