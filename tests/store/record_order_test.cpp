// The order of file-system calls, from which follows what a crash can leave behind.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "store/file_store.h"
#include "tests/support/fs_fault.h"
#include "tests/support/test_store.h"

namespace {

using fault::Call;
using fault::Recorder;
using support::writeFile;

bool isDigit(char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0 || (c >= 'a' && c <= 'f');
}

// Body files and unnamed records by their role: those that are there `before` are
// OLD, others NEW. The folder is F.
std::string readable(std::string line, const std::vector<std::string>& before) {
    const std::string folder = TestStore::kFolder;
    for (auto at = line.find(folder); at != std::string::npos; at = line.find(folder)) {
        line.replace(at, folder.size(), "F");
    }
    for (std::size_t at = 0; at + 8 <= line.size(); ++at) {
        const std::string name = line.substr(at, 8);
        if (std::all_of(name.begin(), name.end(), isDigit)) {
            const bool isOld = std::find(before.begin(), before.end(), name) != before.end();
            line.replace(at, 8, isOld ? "OLD" : "NEW");
        }
    }
    return line;
}

const Contents kWithBody{{{kTypeText, 1, "x", false}}, "body", false};
const Contents kEncrypted{{{kTypeBinary, 1, "x", true}}, "body", true};
const Contents kWithoutBody{{{kTypeText, 1, "x", false}}, {}, false};

// All but the listing of entries, whose order is the file system's.
constexpr fault::Calls kWithoutEntries{
    Call::kOpen,  Call::kClose,   Call::kRead,     Call::kWrite,
    Call::kFstat, Call::kFsync,   Call::kSyncfs,   Call::kAccess,
    Call::kLstat, Call::kRename,  Call::kRemove,   Call::kMkdir,
    Call::kRmdir, Call::kOpendir, Call::kClosedir, Call::kStartWriteback};

struct Order {
    const char* name;
    std::function<void()> arrange;
    std::function<void()> operation;
    const char* calls;
};

std::ostream& operator<<(std::ostream& out, const Order& order) {
    return out << order.name;
}

class RecordOrderTest : public testing::TestWithParam<Order> {
protected:
    static std::string callsOf(const std::function<void()>& operation) {
        std::vector<std::string> before;
        for (const auto& [name, content] : TestStore::files()) {
            before.push_back(name.substr(0, 8));
        }
        const Recorder recorder(kWithoutEntries);
        operation();
        std::string lines = "\n";
        for (const std::string& line : recorder.lines()) {
            lines += readable(line, before) + '\n';
        }
        return lines;
    }

    TestStore store;
};

TEST_P(RecordOrderTest, IsAsDocumented) {
    GetParam().arrange();
    EXPECT_EQ(GetParam().calls, callsOf(GetParam().operation));
}

void nothing() {}

void save(const Contents& contents) {
    ASSERT_EQ(kOk, TestStore::save("a", contents));
}

void saveUnnamed() {
    aFileStore record = TestStore::record();
    fill(record, kWithBody);
    ASSERT_EQ(kOk, record.write());
}

void saveForLater() {
    aFileStore record = TestStore::record("a");
    fill(record, kWithBody);
    auto& implementation = dynamic_cast<FileStore&>(*record.target());
    ASSERT_EQ(kOk, implementation.store(FileStore::Sync::kLater));
}

void rename(const char* from, const char* to) {
    const std::string folder = std::string(TestStore::kFolder) + "/";
    std::filesystem::rename(folder + from, folder + to);
}

void place(const char* name) {
    writeFile(std::string(TestStore::kFolder) + "/" + name, "");
}

void read() {
    aFileStore record = TestStore::record("a");
    ASSERT_EQ(kOk, record.read());
}

void erase() {
    ASSERT_EQ(kOk, TestStore::erase("a"));
}

void scan() {
    aFileStoreList list;
    ASSERT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
}

const Order kOrders[] = {
    {"FirstWrite", nothing, [] { save(kWithBody); }, R"(
access F/NEW failed ENOENT
open F/NEW wronly|creat|excl
write F/NEW 4
startWriteback F/NEW
open F/a.dsc.$n$ wronly|creat|excl
write F/a.dsc.$n$ 47
startWriteback F/a.dsc.$n$
fsync F/NEW
close F/NEW
fsync F/a.dsc.$n$
close F/a.dsc.$n$
access F/a.dsc failed ENOENT
rename F/a.dsc.$n$ F/a.dsc
open F rdonly|directory
fsync F
close F
open F/a.dsc.$o$ rdonly failed ENOENT
)"},
    {"WriteOverAnOldRecord", [] { save(kWithBody); }, [] { save(kEncrypted); }, R"(
access F/NEW failed ENOENT
open F/NEW wronly|creat|excl
write F/NEW 33
startWriteback F/NEW
open F/a.dsc.$n$ wronly|creat|excl
write F/a.dsc.$n$ 106
startWriteback F/a.dsc.$n$
fsync F/NEW
close F/NEW
fsync F/a.dsc.$n$
close F/a.dsc.$n$
access F/a.dsc
rename F/a.dsc F/a.dsc.$o$
rename F/a.dsc.$n$ F/a.dsc
open F rdonly|directory
fsync F
close F
open F/a.dsc.$o$ rdonly
read F/a.dsc.$o$ 47
close F/a.dsc.$o$
remove F/a.dsc.$o$
remove F/OLD
)"},
    {"WriteWithoutBody", nothing, [] { save(kWithoutBody); }, R"(
open F/a.dsc.$n$ wronly|creat|excl
write F/a.dsc.$n$ 20
fsync F/a.dsc.$n$
close F/a.dsc.$n$
access F/a.dsc failed ENOENT
rename F/a.dsc.$n$ F/a.dsc
open F rdonly|directory
fsync F
close F
open F/a.dsc.$o$ rdonly failed ENOENT
)"},
    {"WriteWithoutBodyOverOneWithBody", [] { save(kWithBody); }, [] { save(kWithoutBody); }, R"(
open F/a.dsc.$n$ wronly|creat|excl
write F/a.dsc.$n$ 20
fsync F/a.dsc.$n$
close F/a.dsc.$n$
access F/a.dsc
rename F/a.dsc F/a.dsc.$o$
rename F/a.dsc.$n$ F/a.dsc
open F rdonly|directory
fsync F
close F
open F/a.dsc.$o$ rdonly
read F/a.dsc.$o$ 47
close F/a.dsc.$o$
remove F/a.dsc.$o$
remove F/OLD
)"},
    {"UnnamedWrite", nothing, saveUnnamed, R"(
access F/NEW failed ENOENT
open F/NEW wronly|creat|excl
write F/NEW 4
startWriteback F/NEW
access F/NEW.dsc failed ENOENT
access F/NEW.dsc.$o$ failed ENOENT
open F/NEW.dsc.$n$ wronly|creat|excl
write F/NEW.dsc.$n$ 47
startWriteback F/NEW.dsc.$n$
fsync F/NEW
close F/NEW
fsync F/NEW.dsc.$n$
close F/NEW.dsc.$n$
access F/NEW.dsc failed ENOENT
rename F/NEW.dsc.$n$ F/NEW.dsc
open F rdonly|directory
fsync F
close F
open F/NEW.dsc.$o$ rdonly failed ENOENT
)"},
    // Of a tree that becomes durable as a whole: nothing is synced by itself.
    {"WriteWhoseDurabilityComesLater", [] { save(kWithBody); }, saveForLater, R"(
access F/NEW failed ENOENT
open F/NEW wronly|creat|excl
write F/NEW 4
open F/a.dsc.$n$ wronly|creat|excl
write F/a.dsc.$n$ 47
close F/NEW
close F/a.dsc.$n$
open F/a.dsc rdonly
read F/a.dsc 47
close F/a.dsc
rename F/a.dsc.$n$ F/a.dsc
remove F/OLD
)"},
    {"Read", [] { save(kWithBody); }, read, R"(
open F/a.dsc rdonly
read F/a.dsc 47
close F/a.dsc
open F/OLD rdonly
read F/OLD 4
close F/OLD
)"},
    {"ReadWithRepair",
     [] {
         save(kWithBody);
         rename("a.dsc", "a.dsc.$o$");
     },
     read, R"(
open F/a.dsc rdonly failed ENOENT
access F/a.dsc.$o$
access F/a.dsc failed ENOENT
rename F/a.dsc.$o$ F/a.dsc
open F rdonly|directory
fsync F
close F
open F/a.dsc rdonly
read F/a.dsc 47
close F/a.dsc
open F/OLD rdonly
read F/OLD 4
close F/OLD
)"},
    // The body's name first. By way of the saved name: a saved descriptor that a write before
    // has deleted must not outlive the removal. One sync, after which nothing has to be
    // durable any more.
    {"Remove", [] { save(kWithBody); }, erase, R"(
open F/a.dsc rdonly
read F/a.dsc 47
close F/a.dsc
rename F/a.dsc F/a.dsc.$o$
rename F/a.dsc.$o$ F/a.dsc.$d$
open F rdonly|directory
fsync F
close F
remove F/a.dsc.$d$
remove F/OLD
)"},
    {"RemoveWithoutBody", [] { save(kWithoutBody); }, erase, R"(
open F/a.dsc rdonly
read F/a.dsc 20
close F/a.dsc
rename F/a.dsc F/a.dsc.$o$
rename F/a.dsc.$o$ F/a.dsc.$d$
open F rdonly|directory
fsync F
close F
remove F/a.dsc.$d$
)"},
    {"RemoveWithSavedDescriptorBesideIt",
     [] {
         save(kWithoutBody);
         place("a.dsc.$o$");
     },
     erase, R"(
open F/a.dsc rdonly
read F/a.dsc 20
close F/a.dsc
rename F/a.dsc F/a.dsc.$o$
rename F/a.dsc.$o$ F/a.dsc.$d$
open F rdonly|directory
fsync F
close F
remove F/a.dsc.$d$
)"},
    {"RemoveOfAWriteThatWasBrokenOff",
     [] {
         save(kWithBody);
         rename("a.dsc", "a.dsc.$o$");
     },
     erase, R"(
open F/a.dsc rdonly failed ENOENT
access F/a.dsc failed ENOENT
open F/a.dsc.$o$ rdonly
read F/a.dsc.$o$ 47
close F/a.dsc.$o$
rename F/a.dsc F/a.dsc.$o$ failed ENOENT
rename F/a.dsc.$o$ F/a.dsc.$d$
open F rdonly|directory
fsync F
close F
remove F/a.dsc.$d$
remove F/OLD
)"},
    {"RemoveOverAFolderInPlaceOfTheSavedDescriptor",
     [] {
         save(kWithoutBody);
         std::filesystem::create_directory(std::string(TestStore::kFolder) + "/a.dsc.$o$");
     },
     erase, R"(
open F/a.dsc rdonly
read F/a.dsc 20
close F/a.dsc
rename F/a.dsc F/a.dsc.$o$ failed EISDIR
access F/a.dsc
rename F/a.dsc F/a.dsc.$o$ failed EISDIR
remove F/a.dsc.$o$
rename F/a.dsc F/a.dsc.$o$
rename F/a.dsc.$o$ F/a.dsc.$d$
open F rdonly|directory
fsync F
close F
remove F/a.dsc.$d$
)"},
    {"RemoveOverAStaleRemoval",
     [] {
         save(kWithoutBody);
         std::filesystem::create_directory(std::string(TestStore::kFolder) + "/a.dsc.$d$");
     },
     erase, R"(
open F/a.dsc rdonly
read F/a.dsc 20
close F/a.dsc
rename F/a.dsc F/a.dsc.$o$
rename F/a.dsc.$o$ F/a.dsc.$d$ failed EISDIR
remove F/a.dsc.$d$
rename F/a.dsc.$o$ F/a.dsc.$d$
open F rdonly|directory
fsync F
close F
remove F/a.dsc.$d$
)"},
    {"IsExist", [] { save(kWithBody); }, [] { EXPECT_EQ(1, TestStore::record("a").isExist()); }, R"(
access F/a.dsc
)"},
    // No entry is asked for its type: the listing tells.
    {"Scan",
     [] {
         save(kWithBody);
         place("b.dsc");
     },
     scan, R"(
opendir F
closedir F
)"},
    {"ScanWithRepair", [] { place("b.dsc.$o$"); }, scan, R"(
opendir F
closedir F
rename F/b.dsc.$o$ F/b.dsc
open F rdonly|directory
fsync F
close F
)"},
    {"ScanWithoutRepairOfWhatHasItsDescriptor",
     [] {
         place("b.dsc");
         place("b.dsc.$o$");
     },
     scan, R"(
opendir F
closedir F
)"},
};

INSTANTIATE_TEST_SUITE_P(, RecordOrderTest, testing::ValuesIn(kOrders),
                         [](const auto& param) { return param.param.name; });

// Some listings do not tell types; then every entry that may tell of a record is asked
// for its own, once.
TEST(ScanOrderTest, EntriesWithoutTypeAreExamined) {
    const TestStore store;
    place("a.dsc");
    place("b.dsc.$o$");
    place("00000001");
    const fault::UntypedEntries untyped;
    const Recorder recorder({Call::kReaddir, Call::kLstat});
    scan();
    std::vector<std::string> listed;
    std::vector<std::string> examined;
    for (const fault::Event& event : recorder.events()) {
        if (event.call == Call::kLstat) {
            examined.push_back(event.path);
        } else if (!event.to.empty()) {
            listed.push_back(std::string(TestStore::kFolder) + "/" + event.to);
        }
    }
    EXPECT_EQ(5U, listed.size());
    std::erase_if(listed, [](const std::string& path) { return path.find("dsc") == path.npos; });
    EXPECT_EQ(2U, listed.size());
    EXPECT_EQ(listed, examined);
}

}  // namespace
