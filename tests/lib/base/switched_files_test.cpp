#include "lib/base/switched_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/handles.h"
#include "os/process.h"
#include "tests/support/fs_fault.h"
#include "tests/support/status_of.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::statusOf;
using Files = std::vector<SwitchedFile>;

constexpr mode_t kMode = 0644;

// One file, or the files of one folder, in the process's folder.
struct Form {
    std::vector<std::string> names;

    std::vector<std::string> paths() const {
        std::vector<std::string> all;
        for (const std::string& name : names) {
            all.push_back(std::filesystem::current_path().string() + "/" + name);
        }
        return all;
    }
    Files files(const std::string& text) const {
        Files all;
        for (const std::string& path : paths()) {
            all.push_back({path, SecretBytes(text.begin(), text.end()), kMode});
        }
        return all;
    }
    // What is in all of them; nothing for no files, "mixed" for a mixture.
    std::optional<std::string> contents() const {
        std::optional<std::string> text;
        for (const std::string& name : names) {
            const bool isThere = std::filesystem::exists(name);
            const std::string found = isThere ? support::readFile(name) : "";
            if (&name != &names.front() &&
                (isThere != text.has_value() || text.value_or("") != found)) {
                return "mixed";
            }
            text = isThere ? std::optional(found) : std::nullopt;
        }
        return text;
    }
};

const Form kFolder{{"www/chain", "www/ref"}};
const Form kBundle{{"www"}};

void put(const Form& form, const std::string& text) {
    SwitchedFiles place(form.paths(), 0);
    place.replace(form.files(text));
    place.settle();
}

// The status of what happens when somebody wants to replace the files.
Status refusalOf(const Form& form) {
    return statusOf([&] { const SwitchedFiles place(form.paths(), 0); });
}

TEST(SwitchedFilesTest, FilesComeAndGoTogether) {
    for (const Form& form : {kFolder, kBundle}) {
        const support::TempWorkingDir folder;
        {
            SwitchedFiles place(form.paths(), 0);
            place.replace(form.files("old"));
            EXPECT_TRUE(place.isPending());
            EXPECT_FALSE(place.restore());
            EXPECT_EQ(std::nullopt, form.contents());
            place.settle();
        }
        put(form, "old");
        SwitchedFiles place(form.paths(), 0);
        EXPECT_TRUE(place.hold(form.files("old")));
        EXPECT_FALSE(place.hold(form.files("new")));
        place.replace(form.files("new"));
        EXPECT_EQ("new", form.contents());
        EXPECT_TRUE(place.restore());
        EXPECT_EQ("old", form.contents());
        place.settle();
        EXPECT_FALSE(place.isPending());
    }
}

// Whatever fails, and wherever: the files are the old ones or the new ones, and the next who comes
// finishes it, and leaves nothing.
TEST(SwitchedFilesTest, EachFailingCallLeavesOneOfTheTwo) {
    for (const Form& form : {kFolder, kBundle}) {
        for (const int error : {EIO, ENOSPC, EINTR}) {
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE(form.names.front() + ", call " + std::to_string(nth));
                const support::TempWorkingDir folder;
                put(form, "old");
                fault::FailingCall fault(nth, error);
                const Status status = statusOf([&] { put(form, "new"); });
                const bool hit = fault.lift();
                EXPECT_NE("mixed", form.contents());
                EXPECT_TRUE(form.contents() == (status == kOk ? "new" : "old") ||
                            (status != kOk && form.contents() == "new"));
                EXPECT_TRUE(fault::openHandles().empty());
                put(form, "last");
                EXPECT_EQ("last", form.contents());
                const std::size_t left = form.names.size() == 1 ? 1 : 5;  // link, state, "2", files
                EXPECT_GE(left, support::tree(".").size());
                if (!hit) {
                    EXPECT_EQ(kOk, status);
                    break;
                }
            }
        }
    }
}

TEST(SwitchedFilesTest, EachFailingCallOfAReturnLeavesOneOfTheTwo) {
    for (const Form& form : {kFolder, kBundle}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(form.names.front() + ", call " + std::to_string(nth));
            const support::TempWorkingDir folder;
            put(form, "old");
            auto place = std::make_unique<SwitchedFiles>(form.paths(), 0);
            place->replace(form.files("new"));
            fault::FailingCall fault(nth, EIO);
            const Status status = statusOf([&] {
                (void)place->restore();
                place->settle();
            });
            const bool hit = fault.lift();
            const bool isOld = form.contents() == "old";
            EXPECT_TRUE(isOld || (status != kOk && form.contents() == "new"));
            place.reset();
            SwitchedFiles next(form.paths(), 0);
            if (status != kOk && next.isPending()) {
                EXPECT_TRUE(next.restore());
                EXPECT_EQ("old", form.contents());
            }
            next.settle();
            if (!hit) {
                EXPECT_EQ(kOk, status);
                break;
            }
        }
    }
}

TEST(SwitchedFilesTest, ATakenNameStays) {
    const struct {
        const char* what;
        void (*make)();
    } rows[] = {
        {"folder", [] { std::filesystem::create_directory("www"); }},
        {"link", [] { std::filesystem::create_symlink("elsewhere", "www"); }},
        {"FIFO", [] { EXPECT_EQ(0, mkfifo("www", 0600)); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const support::TempWorkingDir folder;
        row.make();
        const auto before = support::tree(".");
        EXPECT_EQ(kInvalid, refusalOf(kFolder));
        EXPECT_EQ(kInvalid, refusalOf(kBundle));
        EXPECT_EQ(before, support::tree("."));
    }
}

TEST(SwitchedFilesTest, TwoDoNotReplaceAtOnce) {
    const support::TempWorkingDir folder;
    const SwitchedFiles place(kBundle.paths(), 0);
    EXPECT_EQ(kAlreadyOpen, refusalOf(kBundle));
}

TEST(SwitchedFilesTest, AFolderThatWasRemovedIsMadeAgain) {
    const support::TempWorkingDir folder;
    put(kFolder, "old");
    std::filesystem::remove_all(".www.fstore");
    {
        SwitchedFiles place(kFolder.paths(), 0);
        EXPECT_FALSE(place.hold(kFolder.files("old")));
        place.replace(kFolder.files("new"));
        EXPECT_EQ("new", kFolder.contents());
        EXPECT_FALSE(place.restore());
        place.settle();
        EXPECT_FALSE(std::filesystem::is_symlink("www"));
    }
    put(kFolder, "last");
    EXPECT_EQ("last", kFolder.contents());
}

// Their owner could change them at any time, or the folder's owner exchange them.
TEST(SwitchedFilesTest, FilesOfSomebodyElseAreReplaced) {
    for (const Form& form : {kFolder, kBundle}) {
        const support::TempWorkingDir folder;
        put(form, "text");
        std::vector<std::string> places = {form.names.back()};
        if (form.names.size() > 1) {
            places.emplace_back(".www.fstore/1");
            SwitchedFiles place(form.paths(), 0);
            ASSERT_EQ(0, chmod(".www.fstore/1", 0777));
            EXPECT_FALSE(place.hold(form.files("text")));
            ASSERT_EQ(0, chmod(".www.fstore/1", 0755));
            EXPECT_TRUE(place.hold(form.files("text")));
        }
        for (const std::string& name : places) {
            if (geteuid() != 0) {
                break;  // only root can give files away
            }
            SCOPED_TRACE(name);
            SwitchedFiles place(form.paths(), 0);
            ASSERT_EQ(0, chown(name.c_str(), 12345, 0));
            EXPECT_FALSE(place.hold(form.files("text")));
            ASSERT_EQ(0, chown(name.c_str(), 0, 0));
            EXPECT_TRUE(place.hold(form.files("text")));
        }
    }
}

// The folder is open to all, and whoever can open it can lock it.
TEST(SwitchedFilesTest, OthersCannotKeepItFromBeingReplaced) {
    const support::TempWorkingDir folder;
    put(kFolder, "old");
    const os::File theirs = os::openFile(".www.fstore", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(os::Locked::kYes, os::lockFile(theirs, os::LockKind::kExclusive, 0));
    {
        const SwitchedFiles place(kFolder.paths(), 0);
        const os::File lock = os::openFile(".www.fstore/lock", O_RDONLY);
        struct stat status {};
        ASSERT_EQ(0, os::fstat(lock.get(), &status));
        EXPECT_EQ(0U, status.st_mode & (S_IRWXG | S_IRWXO));
        EXPECT_EQ(os::Locked::kBusy, os::lockFile(lock, os::LockKind::kShared, 0));
        EXPECT_EQ(kAlreadyOpen, refusalOf(kFolder));
    }
    EXPECT_FALSE(std::filesystem::exists(".www.fstore/lock"));
    put(kFolder, "new");
    EXPECT_EQ("new", kFolder.contents());
}

// Who had the lock before removes it, and an empty folder, in between.
TEST(SwitchedFilesTest, ALockThatVanishesIsMadeAgain) {
    for (const Form& form : {kFolder, kBundle}) {
        for (const int nth : {1, 2}) {
            const support::TempWorkingDir folder;
            fault::FailingCall fault(nth, ENOENT, fault::Mode::kOnce, {fault::Call::kOpen});
            EXPECT_EQ(kOk, refusalOf(form));
            EXPECT_TRUE(fault.lift());
            EXPECT_TRUE(std::filesystem::is_empty("."));
        }
    }
}

TEST(SwitchedFilesTest, OnAReadOnlyFileSystemFilesCanBeCompared) {
    for (const Form& form : {kFolder, kBundle}) {
        const support::TempWorkingDir folder;
        put(form, "old");
        const auto before = support::tree(".");
        // Making the folder fails, and where it is there, opening a new file in it.
        fault::FailingCall mkdir(1, EROFS, fault::Mode::kOnce, {fault::Call::kMkdir});
        if (form.names.size() > 1) {
            mkdir.lift();
        }
        fault::FailingCall open(2, EROFS, fault::Mode::kOnce, {fault::Call::kOpen});
        if (form.names.size() == 1) {
            open.lift();
        }
        SwitchedFiles place(form.paths(), 0);
        EXPECT_TRUE(place.hold(form.files("old")));
        EXPECT_FALSE(place.isPending());
        EXPECT_EQ(kIo, statusOf([&] { place.replace(form.files("new")); }));
        EXPECT_EQ(before, support::tree("."));
    }
}

// Who can rename a folder on the way could have root write elsewhere.
TEST(SwitchedFilesTest, AFolderThatOthersCanRenameIsRefused) {
    namespace fs = std::filesystem;
    const support::TempWorkingDir folder;
    fs::create_directories("a/b");
    const Form form{{"a/b/www"}};
    for (const char* const name : {"a/b", "a"}) {
        for (const mode_t mode : {0777U, 0775U, 0757U}) {
            ASSERT_EQ(0, chmod(name, mode));
            EXPECT_EQ(kInvalid, refusalOf(form)) << name;
        }
        ASSERT_EQ(0, chmod(name, 01777));  // as /tmp
        EXPECT_EQ(kOk, refusalOf(form)) << name;
        ASSERT_EQ(0, chmod(name, 0755));
        if (geteuid() == 0) {
            ASSERT_EQ(0, chown(name, 12345, 0));
            EXPECT_EQ(kInvalid, refusalOf(form)) << name;
            ASSERT_EQ(0, chown(name, 0, 0));
        }
    }
    EXPECT_EQ(kOk, refusalOf(form));
    EXPECT_TRUE(fs::is_empty("a/b"));
}

TEST(SwitchedFilesTest, AFolderByALinkIsTheFolder) {
    const support::TempWorkingDir folder;
    std::filesystem::create_directory("real");
    std::filesystem::create_directory_symlink("real", "link");
    const Form form{{"link/www"}};
    put(form, "text");
    EXPECT_EQ("text", support::readFile("real/www"));
    EXPECT_NE(kOk, refusalOf(Form{{"none/www"}}));
}

// What the link leads to is good; who owns the link could have it lead elsewhere at any time.
TEST(SwitchedFilesTest, ALinkOfSomebodyElseIsNotFollowed) {
    namespace fs = std::filesystem;
    const support::TempWorkingDir folder;
    fs::create_directories("real/below");
    fs::create_directories("links");
    const std::string here = fs::current_path().string();
    fs::create_directory_symlink(here + "/real", "links/absolute");
    fs::create_directory_symlink("../real", "links/relative");
    fs::create_directory_symlink("absolute/below/..", "links/chain");
    for (const std::string link : {"absolute", "relative", "chain"}) {
        SCOPED_TRACE(link);
        const Form form{{"links/" + link + "/www"}};
        put(form, "text");
        EXPECT_EQ("text", support::readFile("real/www"));
        fs::remove("real/www");
        ASSERT_EQ(0, chmod("links", 0777));
        EXPECT_EQ(kInvalid, refusalOf(form));
        ASSERT_EQ(0, chmod("links", 01777));  // as /tmp: the links are ours
        EXPECT_EQ(kOk, refusalOf(form));
        if (geteuid() == 0) {
            ASSERT_EQ(0, lchown("links/absolute", 12345, 0));
            EXPECT_EQ(link == "relative" ? kOk : kInvalid, refusalOf(form));
            ASSERT_EQ(0, lchown("links/absolute", 0, 0));
        }
        ASSERT_EQ(0, chmod("links", 0755));
        if (geteuid() == 0) {
            ASSERT_EQ(0, chown("links", 12345, 0));
            EXPECT_EQ(kInvalid, refusalOf(form));
            ASSERT_EQ(0, chown("links", 0, 0));
        }
        EXPECT_EQ(kOk, refusalOf(form));
    }
    EXPECT_TRUE(fs::is_empty("real/below"));
}

TEST(SwitchedFilesTest, LinksThatLeadNowhereEnd) {
    const support::TempWorkingDir folder;
    std::filesystem::create_directory_symlink("circle", "circle");
    std::filesystem::create_directory_symlink("none", "dangling");
    support::writeFile("file", "text");
    for (const std::string name : {"circle", "dangling", "file"}) {
        SCOPED_TRACE(name);
        const Status status = refusalOf(Form{{name + "/www"}});
        EXPECT_NE(kOk, status);
        EXPECT_NE(kInvalid, status);
    }
}

}  // namespace
}  // namespace fstore
