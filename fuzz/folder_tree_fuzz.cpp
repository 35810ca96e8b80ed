// Any folder of files, links, FIFOs and folders where a database's folder should be:
// listing, reading, writing and removing its records ends with a status, touches
// nothing outside of the folder, and does what the status says.
#include <string>

#include "fuzz/folder_entries.h"
#include "tests/crash/session.h"
#include "tests/crash/tree.h"

namespace {

using crash::Session;
using crash::Tree;

const std::string kFolder = "./db/keys";

// What nobody works on.
Tree others() {
    Tree tree = crash::readBelow("outside");
    tree.merge(crash::readBelow("db/settings"));
    return tree;
}

// A database, made once: an input works on one folder, and may change nothing else.
class Place {
public:
    Place() {
        crash::writeCurrentFolder(
            {{"outside", {true, ""}}, {"outside/file", {false, "untouched"}}});
        const Session session;
        require(CMN_FILESTORE_S.prepareDBFolders() == kOk && CMN_FILESTORE_S.open("") == kOk);
        require(crash::recordOf("settings/s").write() == kOk);
        before_ = others();
    }

    bool isUntouched() const { return others() == before_; }

private:
    crash::Scratch scratch_;
    Tree before_;
};

// What was read whole can be written, is found again, and goes when it is told to. A
// failure is not believed and not asked about: the folder may forbid anything.
void use(aFileStore& record) {
    const bool isRead = record.read() == kOk && record.decrypt() == kOk;
    const Contents contents = contentsOf(record);
    if (record.write() == kOk && isRead) {
        const std::string file = record.getFileName();
        aFileStore again;
        require(again.setFolderName(kFolder.c_str()) == kOk);
        require(again.setFileName(file.c_str()) == kOk);
        require(again.read() == kOk && again.decrypt() == kOk);
        require(contentsOf(again) == contents);
    }
    if (record.remove() == kOk) {
        require(record.isExist() == 0);
        require(record.read() == kMissing);
    }
}

void writeNew(const char* name) {
    const Contents contents{{{3, 1, std::string("x\0", 2), false}}, "body", true};
    aFileStore record;
    require(record.setFolderName(kFolder.c_str()) == kOk && record.setName(name) == kOk);
    fill(record, contents);
    if (record.write() == kOk) {
        aFileStore again;
        require(again.setFolderName(kFolder.c_str()) == kOk);
        require(again.setName(record.getName()) == kOk);
        require(again.read() == kOk && again.decrypt() == kOk && contentsOf(again) == contents);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Place place;
    crash::clearBelow(kFolder);
    const Session session;
    require(CMN_FILESTORE_S.open("") == kOk);

    Input input(data, size);
    while (!input.isEmpty()) {
        makeEntry(input, kFolder);
    }
    writeNew("b");
    writeNew(nullptr);
    aFileStoreList list;
    if (list.readFromFolder(kFolder.c_str()) == kOk) {
        for (aFileStore record = list.getFirst(); record.target() != nullptr;
             record = list.getNext()) {
            use(record);
        }
    }
    require(place.isUntouched());
    return 0;
}
