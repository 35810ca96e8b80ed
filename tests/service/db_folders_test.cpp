// The folder tree: made, kept, and put back when a change of password was cut off.
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "service/s_filestore_mm.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_store.h"

namespace {

namespace fs = std::filesystem;
using fault::Call;
using fault::Mode;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Tree = std::map<std::string, std::string>;

const std::vector<std::string> kFolders = {
    "./db",
    "./db/settings",
    "./db/lsps",
    "./db/keys",
    "./db/crls",
    "./db/crm",
    "./db/certificates",
    "./db/certificates/local",
    "./db/certificates/remote",
};

const Tree kEmptyDatabase = {
    {"certificates", "<folder>"},
    {"certificates/local", "<folder>"},
    {"certificates/remote", "<folder>"},
    {"crls", "<folder>"},
    {"crm", "<folder>"},
    {"keys", "<folder>"},
    {"lsps", "<folder>"},
    {"settings", "<folder>"},
};

class DbFoldersTest : public testing::Test {
protected:
    Status prepare() { return service_.get()->prepareDBFolders(); }

    // What a change of password leaves that was cut off between its renames: the
    // database under its other name, and no "./db".
    static void cutOff() {
        fs::create_directories("old_db/keys");
        support::writeFile("old_db/key.dsc", "digest");
        support::writeFile("old_db/keys/a.dsc", "record");
    }
    static Tree restored() {
        Tree tree = kEmptyDatabase;
        tree["key.dsc"] = "digest";
        tree["keys/a.dsc"] = "record";
        return tree;
    }

    static void startAgain() {
        for (const char* const folder : {"db", "old_db"}) {
            fs::remove_all(folder);
        }
    }

private:
    support::TempWorkingDir dir_;
    const CMN_GRefPtr<FileStoreSrv> service_{new FileStoreSrv};
};

TEST_F(DbFoldersTest, MakesTheWholeTreeInOrder) {
    const mode_t mask = ::umask(0);
    fault::Recorder made({Call::kMkdir});
    EXPECT_EQ(kOk, prepare());
    ::umask(mask);
    std::vector<std::string> paths;
    for (const fault::Event& event : made.events()) {
        paths.push_back(event.path);
        EXPECT_EQ(0750U, event.mode) << event.path;
    }
    EXPECT_THAT(paths, ElementsAreArray(kFolders));
    EXPECT_EQ(kEmptyDatabase, support::tree("db"));
    EXPECT_EQ(fs::perms(0750), fs::status("db/certificates/local").permissions());
}

TEST_F(DbFoldersTest, UmaskHasItsSay) {
    const mode_t mask = ::umask(0077);
    EXPECT_EQ(kOk, prepare());
    ::umask(mask);
    EXPECT_EQ(fs::perms(0700), fs::status("db").permissions());
}

TEST_F(DbFoldersTest, WhatIsThereStays) {
    ASSERT_EQ(kOk, prepare());
    support::writeFile("db/key.dsc", "digest");
    support::writeFile("db/keys/a.dsc", "record");
    fs::permissions("db/keys", fs::perms(0700));
    const Tree before = support::tree(".");
    fault::Recorder changes(
        {Call::kRename, Call::kRemove, Call::kRmdir, Call::kWrite, Call::kMkdir});
    EXPECT_EQ(kOk, prepare());
    EXPECT_EQ(before, support::tree("."));
    EXPECT_EQ(fs::perms(0700), fs::status("db/keys").permissions());
    for (const fault::Event& event : changes.events()) {
        EXPECT_EQ(EEXIST, event.error) << describe(event);
    }
}

TEST_F(DbFoldersTest, MissingFoldersAreAdded) {
    fs::create_directories("db/certificates/local");
    EXPECT_EQ(kOk, prepare());
    EXPECT_EQ(kEmptyDatabase, support::tree("db"));
}

TEST_F(DbFoldersTest, DatabaseThatWasMovedAsideComesBack) {
    cutOff();
    EXPECT_EQ(kOk, prepare());
    EXPECT_EQ(restored(), support::tree("db"));
    EXPECT_FALSE(fs::exists("old_db"));
}

TEST_F(DbFoldersTest, DatabaseInPlaceIsNotReplacedByThePrevious) {
    cutOff();
    fs::create_directory("db");
    const Tree previous = support::tree("old_db");
    EXPECT_EQ(kOk, prepare());
    EXPECT_EQ(kEmptyDatabase, support::tree("db"));
    EXPECT_EQ(previous, support::tree("old_db"));
}

TEST_F(DbFoldersTest, OnlyExistenceCounts) {
    fs::create_directory("db");
    support::writeFile("db/crm", "not a folder");
    EXPECT_EQ(kOk, prepare());
    EXPECT_TRUE(fs::is_regular_file("db/crm"));
    EXPECT_TRUE(fs::is_directory("db/certificates/remote"));
}

TEST_F(DbFoldersTest, FileInPlaceOfTheRootIsAFailure) {
    support::writeFile("db", "not a folder");
    EXPECT_EQ(kIo, prepare());
}

TEST_F(DbFoldersTest, EndsAtTheFirstFolderThatIsMissing) {
    for (std::size_t missing = 0; missing < kFolders.size(); ++missing) {
        SCOPED_TRACE(kFolders[missing]);
        startAgain();
        fault::FailingCall failing(static_cast<int>(missing) + 1, ENOSPC, Mode::kOnce,
                                   {Call::kMkdir});
        const fault::Recorder made({Call::kMkdir});
        EXPECT_EQ(kIo, prepare());
        EXPECT_EQ(missing + 1, made.events().size());
        EXPECT_TRUE(failing.lift());
        EXPECT_EQ(kOk, prepare());
    }
}

// Taken for absent, "./db" would be made anew, and an empty database would hide
// the real one for good.
TEST_F(DbFoldersTest, NameThatCannotBeExaminedIsNotTakenForAbsent) {
    for (const int error : {EIO, EACCES}) {
        for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE("access " + std::to_string(nth) + ", errno " + std::to_string(error));
                startAgain();
                cutOff();
                fault::FailingCall failing(nth, error, mode, {Call::kAccess});
                const Status status = prepare();
                if (!failing.lift()) {
                    EXPECT_EQ(kOk, status);
                    break;
                }
                EXPECT_EQ(kIo, status);
                EXPECT_NE(fs::exists("db/key.dsc"), fs::exists("old_db/key.dsc"));
                EXPECT_EQ(kOk, prepare());
                EXPECT_EQ(restored(), support::tree("db"));
            }
        }
    }
}

// Whichever call fails, success means that all is there, and the next attempt
// succeeds. Each kind of call fails with all that it can fail with, the others with EIO.
TEST_F(DbFoldersTest, EveryCallMayFail) {
    for (const bool wasCutOff : {false, true}) {
        const auto begin = [&] {
            startAgain();
            if (wasCutOff) {
                cutOff();
            }
        };
        const Tree whole = wasCutOff ? restored() : kEmptyDatabase;
        begin();
        const fault::Recorder all;
        ASSERT_EQ(kOk, prepare());
        const std::vector<fault::Event> calls = all.events();
        fault::Calls seen{};
        for (std::size_t nth = 0; nth < calls.size(); ++nth) {
            const Call call = calls[nth].call;
            const bool known = seen.has(call);
            seen.add(call);
            for (const int error : known ? std::vector<int>{EIO} : fault::errnosOf(call)) {
                for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
                    SCOPED_TRACE(std::string(nameOf(call)) + ", call " + std::to_string(nth + 1) +
                                 ", errno " + std::to_string(error));
                    begin();
                    fault::FailingCall failing(static_cast<int>(nth) + 1, error, mode);
                    const Status status = prepare();
                    ASSERT_TRUE(failing.lift());
                    EXPECT_THAT(fault::openHandles(), IsEmpty());
                    EXPECT_TRUE(status == kIo || status == kOk) << status;
                    EXPECT_TRUE(status == kIo || whole == support::tree("db"));
                    EXPECT_EQ(kOk, prepare());
                    EXPECT_EQ(whole, support::tree("db"));
                }
            }
        }
    }
}

// A name is durable when its folder was synced after it was made.
TEST_F(DbFoldersTest, NamesAreDurableWhenItSucceeds) {
    for (const bool wasCutOff : {false, true}) {
        SCOPED_TRACE(wasCutOff);
        startAgain();
        if (wasCutOff) {
            cutOff();
        }
        const fault::Recorder calls({Call::kMkdir, Call::kRename, Call::kFsync});
        ASSERT_EQ(kOk, prepare());
        std::vector<std::string> unsynced;
        for (const fault::Event& event : calls.events()) {
            if (event.error != 0) {
                continue;
            }
            if (event.call == Call::kFsync) {
                std::erase(unsynced, event.path);
            } else {
                const std::string& path = event.call == Call::kMkdir ? event.path : event.to;
                unsynced.push_back(fs::path(path).parent_path().string());
            }
        }
        EXPECT_THAT(unsynced, IsEmpty());
    }
}

TEST_F(DbFoldersTest, UnsyncedTreeIsAFailure) {
    ASSERT_EQ(kOk, prepare());
    for (int nth = 1; nth <= 3; ++nth) {
        const fault::FailingCall failing(nth, EIO, Mode::kOnce, {Call::kFsync});
        EXPECT_EQ(kIo, prepare()) << "sync " << nth;
    }
}

TEST_F(DbFoldersTest, SurvivesDeathAtEveryCall) {
    int deaths = 0;
    for (const bool wasCutOff : {false, true}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE("death at call " + std::to_string(nth));
            startAgain();
            if (wasCutOff) {
                cutOff();
            }
            const int code = fault::inChild([&] {
                const fault::DyingCall dying(nth);
                return prepare() == kOk ? 0 : 1;
            });
            if (code != fault::kDeath) {
                EXPECT_EQ(0, code);
                break;
            }
            ++deaths;
            EXPECT_EQ(kOk, prepare());
            EXPECT_EQ(wasCutOff ? restored() : kEmptyDatabase, support::tree("db"));
        }
    }
    EXPECT_LT(40, deaths);
}

// It asks nothing of the open state.
TEST(DbFoldersOpenTest, WorksOpenAndClosed) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", {{}, "body", true}));
    fs::remove("db/crm");
    EXPECT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
    EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
    EXPECT_TRUE(fs::is_directory("db/crm"));
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    EXPECT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
    EXPECT_EQ(0, CMN_FILESTORE_S.isOpen());
}

}  // namespace
