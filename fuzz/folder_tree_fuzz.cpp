// Any folder of files, links, FIFOs and folders where a database's folder should be:
// listing, reading, writing and removing its records ends with a status, touches
// nothing outside of the folder, and does what the status says.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz/input.h"
#include "tests/crash/session.h"
#include "tests/crash/tree.h"

namespace {

using crash::Session;
using crash::Tree;

const std::string kFolder = "./db/keys";

void writeFile(const std::string& path, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
        require(::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
        ::close(fd);
    }
}

// A name that means something to the store, or any other.
std::string takeName(Input& input) {
    static const std::vector<std::string> kNames{
        "a.dsc",           "a.dsc.$o$", "a.dsc.$n$",     "a.dsc.$d$",    "b.dsc",
        "b.dsc.$o$",       "00000001",  "00000002",      "00000003",     "00000004",
        "c.dsc",           ".dsc",      "a.dsc.$o$.$o$", "00000001.dsc", "00000001.dsc.$o$",
        "00000001.dsc.$n$"};
    const std::size_t choice = input.below(kNames.size() + 4);
    return choice < kNames.size() ? kNames[choice] : input.bytes();
}

// Entries that the system refuses are left out.
void makeEntry(Input& input) {
    static const std::vector<std::string> kTargets{"../../outside/file", "../../outside", "a.dsc",
                                                   "00000001",           "nowhere",       "."};
    const std::size_t kind = input.below(8);
    const std::string path = kFolder + "/" + takeName(input);
    if (path.find('\0') != std::string::npos || path.find("..") != std::string::npos) {
        return;
    }
    switch (kind) {
        case 0:
            (void)!::symlink(kTargets[input.below(kTargets.size())].c_str(), path.c_str());
            break;
        case 1:
            (void)::mkfifo(path.c_str(), 0666);
            break;
        case 2:
            (void)::mkdir(path.c_str(), 0777);
            break;
        case 3: {  // a descriptor with a body, most often
            static const std::vector<std::string> kBodies{
                "00000001", "00000002", "a.dsc", "../../outside/file", "b.dsc.$o$", ""};
            writeFile(path, "10000003 00000000 " + kBodies[input.below(kBodies.size())] + "\n" +
                                input.bytes());
            break;
        }
        default:
            writeFile(path, input.bytes());
            break;
    }
}

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
        makeEntry(input);
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
