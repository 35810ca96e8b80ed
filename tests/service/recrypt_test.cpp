// The change of the password: its steps, its failures one by one, and what the
// folders are at each moment. recrypt_fault_test.cpp makes everything fail in turn.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "service/s_filestore_mm.h"
#include "tests/service/recrypt_database.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using fault::Call;
using fault::Calls;
using fault::Mode;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

using Tree = std::map<std::string, std::string>;

Status recrypt(const char* from, const char* to) {
    return CMN_FILESTORE_S.recrypt(from, to);
}

// Calls that change files or their names.
constexpr Calls kChanges{Call::kOpen,  Call::kWrite, Call::kRename, Call::kRemove,
                         Call::kMkdir, Call::kRmdir, Call::kLink};

bool changes(const fault::Event& event) {
    return event.error == 0 && (event.call != Call::kOpen || (event.flags & O_CREAT) != 0);
}

bool isUnder(const std::string& path, const std::string& folder) {
    return path == folder || path.starts_with(folder + "/");
}

std::string plainOf(aCryptoDecoder decoder, aBuf cipher) {
    const aBuf plain = decoder.decrypt(cipher);
    return plain.target() == nullptr ? "<nothing>" : bytesOf(plain.target());
}

aBuf sealed(const char* password) {
    aBuf out(static_cast<TBuf*>(nullptr));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.encode(aBuf(password), aBuf("plain"), out));
    return out;
}

aBuf encrypted(aCryptoEncoder encoder) {
    aBuf plain("plain");
    return encoder.encrypt(plain);
}

bool opensWith(const char* password, aBuf cipher) {
    aBuf out(static_cast<TBuf*>(nullptr));
    return CMN_FILESTORE_S.decode(aBuf(password), cipher, out) == kOk;
}

// The service's ciphers carry this password's key.
void expectCoders(const char* password) {
    EXPECT_TRUE(opensWith(password, encrypted(CMN_FILESTORE_S.getEncoder())));
    EXPECT_EQ("plain", plainOf(CMN_FILESTORE_S.getDecoder(), sealed(password)));
}

TEST(RecryptTest, ChangesThePasswordOpenOrClosed) {
    const struct {
        const char* name;
        void (*arrange)(RecryptDatabase&);
        int isOpen;
    } rows[] = {
        {"open", [](RecryptDatabase&) {}, 1},
        {"closed again", [](RecryptDatabase&) { EXPECT_EQ(kOk, CMN_FILESTORE_S.close()); }, 0},
        {"never opened", [](RecryptDatabase& db) { db.store.restart(nullptr); }, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RecryptDatabase db;
        row.arrange(db);
        const Tree before = support::tree("db");
        ASSERT_EQ(kOk, recrypt("old", "new"));

        EXPECT_EQ(row.isOpen, CMN_FILESTORE_S.isOpen());
        expectCoders("new");
        EXPECT_EQ(kOk, CMN_FILESTORE_S.checkPwd("new"));
        EXPECT_EQ(kWrongPassword, CMN_FILESTORE_S.checkPwd("old"));
        RecryptDatabase::expectUnlocked();
        EXPECT_EQ(before, support::tree("old_db"));
        EXPECT_FALSE(fs::exists("new_db"));
        if (row.isOpen != 0) {
            RecryptDatabase::expectComplete();
        }
        EXPECT_EQ("new", db.expectOneOpens("old", "new"));
    }
}

TEST(RecryptTest, PreviousDatabaseStillOpensWithTheOldPassword) {
    RecryptDatabase db;
    ASSERT_EQ(kOk, recrypt("old", "new"));
    fs::remove_all("db");
    EXPECT_EQ("old", db.expectOneOpens("old", "new"));
}

TEST(RecryptTest, ChangesItAgainAndAgain) {
    RecryptDatabase db;
    const std::vector<const char*> passwords = {"old", "second", "", "third", "third", "old"};
    for (std::size_t i = 1; i < passwords.size(); ++i) {
        SCOPED_TRACE(passwords[i]);
        const Tree before = support::tree("db");
        ASSERT_EQ(kOk, recrypt(passwords[i - 1], passwords[i]));
        EXPECT_EQ(before, support::tree("old_db"));
        RecryptDatabase::expectComplete();
    }
    EXPECT_EQ("old", db.expectOneOpens("old", "third"));
}

TEST(RecryptTest, GivesAPasswordToADatabaseThatHasNone) {
    RecryptDatabase db("");
    ASSERT_FALSE(fs::exists("db/key.dsc"));
    ASSERT_EQ(kOk, recrypt("", "new"));
    EXPECT_TRUE(fs::exists("db/key.dsc"));
    EXPECT_FALSE(fs::exists("old_db/key.dsc"));
    EXPECT_EQ("new", db.expectOneOpens("", "new"));
}

TEST(RecryptTest, EmptyDatabaseToo) {
    TestStore store("old");
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.checkPwd("new"));
}

TEST(RecryptTest, OldPasswordIsAskedFirst) {
    const struct {
        const char* name;
        const char* from;
        const char* to;
        const char* record;  // in place of the password record; null: it stays
        Status status;
    } rows[] = {
        {"wrong", "wrong", "new", nullptr, kWrongPassword},
        {"null", nullptr, "new", nullptr, kInvalid},
        {"wrong, and a null new one", "wrong", nullptr, nullptr, kWrongPassword},
        {"unreadable record", "old", "new", "no attribute\n", kNotOpen},
        {"record without digest", "old", "new", "00000003 00000001 text\n", kNoDigest},
        {"null new one", "old", nullptr, nullptr, kInvalid},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RecryptDatabase db;
        fs::create_directory("new_db");
        fs::create_directory("old_db");
        if (row.record != nullptr) {
            support::writeFile("db/key.dsc", row.record);
        }
        const Tree before = support::tree(".");
        EXPECT_EQ(row.status, recrypt(row.from, row.to));
        EXPECT_EQ(before, support::tree("."));
        expectCoders("old");
        RecryptDatabase::expectComplete();
        RecryptDatabase::expectUnlocked();
    }
}

TEST(RecryptTest, LeftoverCopyIsRebuilt) {
    RecryptDatabase db;
    fs::create_directories("new_db/keys/deep");
    support::writeFile("new_db/keys/deep/stray.dsc", "00000003 00000001 stray\n");
    support::writeFile("new_db/keys/00000001", "stray body");
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_FALSE(fs::exists("db/keys/deep"));
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

TEST(RecryptTest, RecordThatDoesNotDecryptIsCopiedAsItIs) {
    RecryptDatabase db;
    // Encrypted under a password of its own.
    CMN_FILESTORE_S.close();
    {
        aBuf foreign("foreign");
        ASSERT_EQ(kOk, CMN_FILESTORE_S.getEncoder().setKey(foreign));
        aFileStore record = TestStore::record("foreign");
        fill(record, {{{2, 1, "attribute", true}}, "body", true});
        ASSERT_EQ(kOk, record.write());
    }
    ASSERT_EQ(kOk, CMN_FILESTORE_S.open("old"));
    const Tree before = support::tree("db/keys");
    ASSERT_EQ(kOk, recrypt("old", "new"));
    Tree after = support::tree("db/keys");
    const std::string descriptor = before.at("foreign.dsc");
    EXPECT_EQ(descriptor, after["foreign.dsc"]);
    const std::string body = descriptor.substr(18, 8);
    EXPECT_EQ(before.at(body), after[body]);
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

// The change says nothing of the records that it left as they were; they do themselves.
TEST(RecryptTest, RecordsThatWereCopiedAsTheyAreAreKnownByTheirDecryption) {
    RecryptDatabase db;
    CMN_FILESTORE_S.close();
    const std::string foreign[] = {"./db/crm/another's", "./db/keys/another's too"};
    {
        aBuf key("foreign");
        ASSERT_EQ(kOk, CMN_FILESTORE_S.getEncoder().setKey(key));
        for (const std::string& path : foreign) {
            aFileStore record;
            ASSERT_EQ(kOk, record.setFolderName(path.substr(0, path.rfind('/')).c_str()));
            ASSERT_EQ(kOk, record.setName(path.substr(path.rfind('/') + 1).c_str()));
            fill(record, {{{2, 1, "attribute", true}}, "body", true});
            ASSERT_EQ(kOk, record.write());
        }
    }
    ASSERT_EQ(kOk, CMN_FILESTORE_S.open("old"));
    ASSERT_EQ(kOk, recrypt("old", "new"));

    aFileStoreList all;
    ASSERT_EQ(kOk, _getFullStoreList("./db", all));
    std::vector<std::string> left;
    for (aFileStore record = all.getFirst(); record.target() != nullptr; record = all.getNext()) {
        ASSERT_EQ(kOk, record.read());
        const Status status = record.decrypt();
        if (status != kOk) {
            EXPECT_EQ(kIo, status);
            left.push_back(std::string(record.getFolderName()) + "/" + record.getName());
        }
    }
    EXPECT_THAT(left, testing::UnorderedElementsAreArray(foreign));
}

// Neither of the two was made by the old key: bytes that no key made, and bytes
// that are damaged.
TEST(RecryptTest, RecordOfWhichAPartIsDamagedIsCopiedAsItIs) {
    RecryptDatabase db;
    const std::string descriptor = "01000002 00000001 0102030405\n00000003 00000002 text\n";
    support::writeFile("db/keys/damaged.dsc", descriptor);
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_EQ(descriptor, support::readFile("db/keys/damaged.dsc"));
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

TEST(RecryptTest, RecordWithoutSecretsIsNotWrittenAnew) {
    RecryptDatabase db;
    const Tree settings = support::tree("db/settings");
    const Tree keys = support::tree("db/keys");
    const fault::Recorder renames({Call::kRename});
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_EQ(settings, support::tree("db/settings"));
    EXPECT_EQ(keys.at("bare.dsc"), support::tree("db/keys").at("bare.dsc"));
    EXPECT_NE(keys.at("secret.dsc"), support::tree("db/keys").at("secret.dsc"));
    for (const fault::Event& event : renames.events()) {
        EXPECT_FALSE(isUnder(event.path, "./new_db/settings")) << describe(event);
    }
}

bool areOneFile(const std::string& one, const std::string& other) {
    return fs::equivalent(one, other);
}

TEST(RecryptTest, RecordWithoutSecretsIsSharedWithThePreviousDatabase) {
    RecryptDatabase db;
    support::writeFile("db/settings/note", "somebody's");
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_TRUE(areOneFile("old_db/settings/plain.dsc", "db/settings/plain.dsc"));
    EXPECT_FALSE(areOneFile("old_db/keys/secret.dsc", "db/keys/secret.dsc"));
    EXPECT_FALSE(areOneFile("old_db/settings/note", "db/settings/note"));  // nobody's record
}

// Records are replaced and never changed in place, so what the two databases share stays what
// it is in the one when it changes in the other.
TEST(RecryptTest, PreviousDatabaseStaysWhatItIsWhateverIsWritten) {
    RecryptDatabase db;
    const Tree before = support::tree("db");
    ASSERT_EQ(kOk, recrypt("old", "new"));
    bool removed = false;
    for (const RecryptDatabase::Row& row : RecryptDatabase::rows()) {
        aFileStore record = RecryptDatabase::handle(row);
        ASSERT_EQ(kOk, record.read());
        removed = !removed;
        if (removed) {
            EXPECT_EQ(kOk, record.remove());
        } else {
            fill(record, {{{3, 9, "another", false}}, "another body", true});
            EXPECT_EQ(kOk, record.write());
        }
    }
    EXPECT_EQ(before, support::tree("old_db"));
}

TEST(RecryptTest, WhereFilesHaveOneNameTheyAreCopied) {
    RecryptDatabase db;
    {
        const fault::NoLinks oneName;
        ASSERT_EQ(kOk, recrypt("old", "new"));
    }
    EXPECT_FALSE(areOneFile("old_db/settings/plain.dsc", "db/settings/plain.dsc"));
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

// The system calls of a second change: it removes what the first has left.
std::size_t callsWith(int records, bool secret) {
    TestStore store("old");
    for (int i = 0; i < records; ++i) {
        EXPECT_EQ(kOk, TestStore::save("record " + std::to_string(i),
                                       {{{2, 7, "an attribute", secret}}, "a body", secret}));
    }
    EXPECT_EQ(kOk, recrypt("old", "new"));
    const fault::Recorder recorder;
    EXPECT_EQ(kOk, recrypt("new", "newer"));
    const std::vector<fault::Event> events = recorder.events();
    return static_cast<std::size_t>(
        std::count_if(events.begin(), events.end(), [](const fault::Event& event) {
            return event.call != Call::kReaddir;  // many entries come with one call
        }));
}

// As docs/performance.md has them: 2 second names, 6 to read, 7 to write the new files, 5 to put
// them in the place of the old ones, 2 removals from the database before the last.
TEST(RecryptTest, CallsOfOneRecord) {
    const auto ofOne = [](bool secret) {
        return static_cast<double>(callsWith(30, secret) - callsWith(10, secret)) / 20;
    };
    EXPECT_EQ(22, ofOne(true));
    EXPECT_EQ(10, ofOne(false));
    const fault::NoLinks copied;
    EXPECT_EQ(38, ofOne(true));
}

TEST(RecryptTest, RecordWhoseReplacementWasCutOffIsConverted) {
    RecryptDatabase db;
    fs::rename("db/keys/secret.dsc", "db/keys/secret.dsc.$o$");
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_TRUE(fs::exists("db/keys/secret.dsc"));
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

TEST(RecryptTest, FoldersOfOthersAreConvertedToo) {
    RecryptDatabase db;
    fs::create_directories("db/keys/a/b");
    aFileStore record;
    ASSERT_EQ(kOk, record.setFolderName("./db/keys/a/b"));
    ASSERT_EQ(kOk, record.setName("deep"));
    fill(record, {{}, "deep body", true});
    ASSERT_EQ(kOk, record.write());
    support::writeFile("db/keys/a/note", "nobody's");
    ASSERT_EQ(kOk, recrypt("old", "new"));
    ASSERT_EQ(kOk, record.read());
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ("deep body", contentsOf(record).body);
    EXPECT_EQ("nobody's", support::readFile("db/keys/a/note"));
}

TEST(RecryptTest, RecordReadBeforeDecryptsAfterwards) {
    RecryptDatabase db;
    aFileStore record = TestStore::record("secret");
    ASSERT_EQ(kOk, record.read());
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ("secret body", contentsOf(record).body);
    EXPECT_EQ(kOk, record.write());
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

TEST(RecryptTest, HandlesTakenBeforeEncryptAnewAndDecryptTheOld) {
    RecryptDatabase db;
    const aCryptoEncoder encoder = CMN_FILESTORE_S.getEncoder();
    const aCryptoDecoder decoder = CMN_FILESTORE_S.getDecoder();
    ASSERT_EQ(kOk, recrypt("old", "new"));
    EXPECT_EQ(encoder.target(), CMN_FILESTORE_S.getEncoder().target());
    EXPECT_TRUE(opensWith("new", encrypted(encoder)));
    EXPECT_NE(decoder.target(), CMN_FILESTORE_S.getDecoder().target());
    EXPECT_EQ("plain", plainOf(decoder, sealed("old")));
    EXPECT_EQ("<nothing>", plainOf(decoder, sealed("new")));
}

// Nobody meanwhile encrypts with the new key what is still kept under the old one.
TEST(RecryptTest, HandlesTakenBeforeKeepTheOldKeyWhileTheCopyIsMade) {
    RecryptDatabase db;
    const aCryptoEncoder encoder = CMN_FILESTORE_S.getEncoder();
    support::writeFile("db/keys/damaged.dsc", "no attribute\n");
    EXPECT_EQ(kMalformed, recrypt("old", "new"));
    EXPECT_EQ(encoder.target(), CMN_FILESTORE_S.getEncoder().target());
    EXPECT_TRUE(opensWith("old", encrypted(encoder)));
}

// --- what the folders are at each step -------------------------------------------

class RecryptOrderTest : public testing::Test {
protected:
    RecryptOrderTest() {
        fs::create_directory("new_db");
        support::writeFile("new_db/left", "over");
        fs::create_directory("old_db");
        support::writeFile("old_db/key.dsc", "the one before");
        const fault::Recorder recorder;
        status_ = recrypt("old", "new");
        events_ = recorder.events();
    }

    using Match = std::function<bool(const fault::Event&)>;
    static Match renames(const char* from, const char* to) {
        return [=](const fault::Event& event) {
            return event.call == Call::kRename && event.path == from && event.to == to;
        };
    }
    static Match calls(Call call, const char* path) {
        return [=](const fault::Event& event) { return event.call == call && event.path == path; };
    }

    // Where the one event that matches stands.
    std::size_t only(const Match& match) const {
        EXPECT_EQ(1, std::count_if(events_.begin(), events_.end(), match));
        return static_cast<std::size_t>(std::find_if(events_.begin(), events_.end(), match) -
                                        events_.begin());
    }

    RecryptDatabase db_;
    Status status_ = kIo;
    std::vector<fault::Event> events_;
};

TEST_F(RecryptOrderTest, OnlyTheCopyIsTouchedUntilItIsDurable) {
    ASSERT_EQ(kOk, status_);
    const std::size_t durable = only(calls(Call::kSyncfs, "./new_db"));
    for (std::size_t i = 0; i < durable; ++i) {
        const fault::Event& event = events_[i];
        if (kChanges.has(event.call) && changes(event)) {
            EXPECT_TRUE(event.call == Call::kLink || isUnder(event.path, "./new_db"))
                << describe(event);
            EXPECT_TRUE(event.to.empty() || isUnder(event.to, "./new_db")) << describe(event);
        }
    }
    EXPECT_EQ(0, events_[durable].error);
}

TEST_F(RecryptOrderTest, CopyIsNotTouchedOnceItIsDurable) {
    ASSERT_EQ(kOk, status_);
    const std::size_t durable = only(calls(Call::kSyncfs, "./new_db"));
    for (std::size_t i = durable + 1; i < events_.size(); ++i) {
        const fault::Event& event = events_[i];
        if (kChanges.has(event.call) && changes(event) && event.call != Call::kRename) {
            EXPECT_TRUE(isUnder(event.path, "./old_db")) << describe(event);
        }
    }
}

TEST_F(RecryptOrderTest, FoldersAreSwappedByTwoRenamesAndASync) {
    ASSERT_EQ(kOk, status_);
    std::vector<std::string> end;
    const std::size_t durable = only(calls(Call::kSyncfs, "./new_db"));
    for (std::size_t i = durable; i < events_.size(); ++i) {
        const Call call = events_[i].call;
        if ((kChanges.has(call) && changes(events_[i])) || call == Call::kSyncfs ||
            call == Call::kFsync) {
            end.push_back(describe(events_[i]));
        }
    }
    EXPECT_THAT(end, ElementsAre("syncfs ./new_db", "remove ./old_db/key.dsc", "rmdir ./old_db",
                                 "rename ./db ./old_db", "rename ./new_db ./db", "fsync ."));
}

// Syncing each would cost a disk's turn a record; nobody sees them yet.
TEST_F(RecryptOrderTest, RecordsOfTheCopyAreNotSyncedOneByOne) {
    ASSERT_EQ(kOk, status_);
    const auto syncs = std::count_if(events_.begin(), events_.end(), [](const auto& event) {
        return event.call == Call::kFsync && event.path != ".";
    });
    EXPECT_EQ(0, syncs);
}

// --- failures, row by row -----------------------------------------------------------

// What a failure leaves: the database as it was, under the old password, and a
// service that goes on with it.
void expectUntouched(RecryptDatabase& db, const Tree& before) {
    EXPECT_EQ(before, support::tree("db"));
    EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
    expectCoders("old");
    RecryptDatabase::expectComplete();
    RecryptDatabase::expectUnlocked();
    EXPECT_THAT(fault::openHandles(), IsEmpty());
    EXPECT_EQ(kOk, recrypt("old", "new"));
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

TEST(RecryptFailureTest, BeforeTheSwapNothingHasChanged) {
    const struct {
        const char* name;
        Calls calls;  // of these the nth fails, and all after it
        int nth;
        int error;
        bool leftovers;  // there is a copy from before
        Status status;
        bool links = true;
    } rows[] = {
        {"the leftover copy cannot be removed", {Call::kRmdir}, 1, EACCES, true, kIo},
        {"the leftover copy cannot be examined", {Call::kOpendir}, 1, EACCES, true, kIo},
        {"the copy cannot be made", {Call::kMkdir}, 1, ENOSPC, false, kIo},
        {"a folder of the copy cannot be made", {Call::kMkdir}, 2, ENOSPC, false, kIo},
        {"the database cannot be listed", {Call::kOpendir}, 1, EMFILE, false, kIo},
        {"a folder of it cannot be listed", {Call::kOpendir}, 2, EACCES, false, kIo},
        {"its listing breaks off", {Call::kReaddir}, 4, EIO, false, kIo},
        {"a record cannot be read", {Call::kRead}, 3, EIO, false, kMalformed},
        {"a file cannot be read for the copy", {Call::kRead}, 3, EIO, false, kIo, false},
        {"a file cannot be copied", {Call::kWrite}, 1, ENOSPC, false, kIo, false},
        {"a record cannot be written", {Call::kWrite}, 1, ENOSPC, false, kIo},
        {"a record cannot be renamed", {Call::kRename}, 1, EIO, false, kIo},
        {"the copy cannot be made durable", {Call::kSyncfs}, 1, EIO, false, kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RecryptDatabase db;
        if (row.leftovers) {
            fs::create_directories("new_db/keys");
        }
        const Tree before = support::tree("db");
        const auto oneName = row.links ? nullptr : std::make_unique<fault::NoLinks>();
        fault::FailingCall failing(row.nth, row.error, Mode::kFromThenOn, row.calls);
        EXPECT_EQ(row.status, recrypt("old", "new"));
        EXPECT_TRUE(failing.lift());
        expectUntouched(db, before);
    }
}

// The calls of a kind that one change makes in such a database.
int countOf(Call call) {
    RecryptDatabase db;
    const fault::Recorder recorder({call});
    EXPECT_EQ(kOk, recrypt("old", "new"));
    return static_cast<int>(recorder.events().size());
}

TEST(RecryptFailureTest, FolderThatCannotBeListedLosesNothing) {
    for (const Call call : {Call::kOpendir, Call::kReaddir}) {
        const int count = countOf(call);
        ASSERT_LT(20, count);
        RecryptDatabase db;
        const Tree before = support::tree("db");
        for (int nth = 1; nth <= count; ++nth) {
            SCOPED_TRACE(std::string(nameOf(call)) + " " + std::to_string(nth));
            fault::FailingCall failing(nth, EIO, Mode::kOnce, {call});
            EXPECT_EQ(kIo, recrypt("old", "new"));
            EXPECT_TRUE(failing.lift());
            ASSERT_EQ(before, support::tree("db"));
            expectCoders("old");
            fs::remove_all("new_db");
        }
    }
}

TEST(RecryptFailureTest, RecordThatCannotBeReadEndsIt) {
    const struct {
        const char* name;
        void (*damage)();
        Status status;
    } rows[] = {
        {"malformed", [] { support::writeFile("db/keys/bad.dsc", "no attribute\n"); }, kMalformed},
        {"without its body",
         [] { support::writeFile("db/keys/bad.dsc", "10000003 00000000 deadbeef\n"); }, kMissing},
        {"with a body elsewhere",
         [] { support::writeFile("db/keys/bad.dsc", "10000003 00000000 ../key.dsc\n"); },
         kMalformed},
        {"with a folder as its body",
         [] {
             support::writeFile("db/keys/bad.dsc", "10000003 00000000 folder\n");
             fs::create_directory("db/keys/folder");
         },
         kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RecryptDatabase db;
        row.damage();
        const Tree before = support::tree("db");
        EXPECT_EQ(row.status, recrypt("old", "new"));
        EXPECT_TRUE(fs::exists("new_db"));
        fs::remove("db/keys/bad.dsc");
        Tree without = before;
        without.erase("keys/bad.dsc");
        expectUntouched(db, without);
    }
}

TEST(RecryptFailureTest, KeyThatCannotBeSet) {
    enum class After { kUntouched, kSwapped, kDone };
    const struct {
        const char* name;
        int nth;  // derivation of the run
        After after;
    } rows[] = {
        {"of the decoder, the old one", 1, After::kUntouched},
        {"of the encoder for the copy", 2, After::kUntouched},
        {"of the encoder before the swap", 3, After::kUntouched},
        {"of the decoder that goes, which is nobody's loss", 4, After::kDone},
        {"of the new decoder", 5, After::kSwapped},
        {"of the encoder after the swap", 6, After::kSwapped},
    };
    for (const auto& row : rows) {
        for (const char* const step : {"createObject", "getKey"}) {
            SCOPED_TRACE(std::string(row.name) + ": " + step);
            RecryptDatabase db;
            const Tree before = support::tree("db");
            CallWatch& watch = db.store.services().pkcs5().watch();
            watch.failAt(step, row.nth, kNoMemory);
            EXPECT_EQ(row.after == After::kDone ? kOk : kIo, recrypt("old", "new"));
            EXPECT_TRUE(watch.lift());
            RecryptDatabase::expectUnlocked();
            if (row.after == After::kUntouched) {
                expectUntouched(db, before);
            } else {
                EXPECT_EQ(before, support::tree("old_db"));
                EXPECT_EQ("new", db.expectOneOpens("old", "new"));
            }
        }
    }
}

// Without a buffer for the password there is no key; a cipher given none would have
// lost its own and told of success.
TEST(RecryptFailureTest, PasswordThatCannotBeKeptIsNoMissingKey) {
    for (int nth = 1; nth <= 2; ++nth) {
        SCOPED_TRACE(nth);
        RecryptDatabase db;
        const Tree before = support::tree("db");
        CallWatch& watch = db.store.services().x509cmn().watch();
        watch.failAt("createTBuf", nth, kNoMemory);
        EXPECT_EQ(kIo, recrypt("old", "new"));
        EXPECT_TRUE(watch.lift());
        expectUntouched(db, before);
    }
}

// It ends the change, under whichever status, also where the module of the cipher does not
// tell why it failed, as long as it does not fail for the bytes of the record alone.
TEST(RecryptFailureTest, RecordThatMemoryIsTooShortForEndsIt) {
    const struct {
        const char* name;
        const char* call;
        bool isPkcs5;
        Status failure;
        Status status;
    } rows[] = {
        {"cipher, told", "decrypt", true, kNoMemory, kNoMemory},
        {"cipher, not told", "decrypt", true, kIo, kIo},
        {"buffer, told", "set", false, kNoMemory, kNoMemory},
        {"buffer, not told", "set", false, kInvalid, kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RecryptDatabase db;
        const Tree before = support::tree("db");
        CallWatch& watch = row.isPkcs5 ? db.store.services().pkcs5().watch()
                                       : db.store.services().x509cmn().watch();
        watch.failAt(row.call, 1, row.failure, CallWatch::kLasting);
        EXPECT_EQ(row.status, recrypt("old", "new"));
        EXPECT_TRUE(watch.lift());
        expectUntouched(db, before);
    }
}

TEST(RecryptFailureTest, PasswordRecordThatCannotBeWritten) {
    const int writes = countOf(Call::kWrite);
    RecryptDatabase db;
    const Tree before = support::tree("db");
    fault::FailingCall failing(writes, ENOSPC, Mode::kOnce, {Call::kWrite});
    const fault::Recorder after({Call::kWrite});
    EXPECT_EQ(kIo, recrypt("old", "new"));
    EXPECT_TRUE(failing.lift());
    EXPECT_EQ("write ./new_db/key.dsc.$n$ failed ENOSPC", after.lines().back());
    expectUntouched(db, before);
}

TEST(RecryptFailureTest, PreviousDatabaseThatCannotBeRemoved) {
    RecryptDatabase db;
    fs::create_directory("old_db");
    const Tree before = support::tree("db");
    fault::FailingCall failing(1, EACCES, Mode::kOnce, {Call::kRmdir});
    EXPECT_EQ(kIo, recrypt("old", "new"));
    EXPECT_TRUE(failing.lift());
    EXPECT_EQ(before, support::tree("db"));
    EXPECT_TRUE(fs::exists("new_db"));
    EXPECT_EQ("old", db.expectOneOpens("old", "new"));
}

TEST(RecryptFailureTest, FirstRenameOfTheSwap) {
    const int renames = countOf(Call::kRename);
    RecryptDatabase db;
    const Tree before = support::tree("db");
    fault::FailingCall failing(renames - 1, EIO, Mode::kOnce, {Call::kRename});
    const fault::Recorder after({Call::kRename});
    EXPECT_EQ(kIo, recrypt("old", "new"));
    EXPECT_TRUE(failing.lift());
    EXPECT_EQ("rename ./db ./old_db failed EIO", after.lines().back());
    EXPECT_EQ(before, support::tree("db"));
    EXPECT_FALSE(fs::exists("old_db"));
    EXPECT_EQ("old", db.expectOneOpens("old", "new"));
}

TEST(RecryptFailureTest, SecondRenameOfTheSwapIsMendedByTheNextStart) {
    const int renames = countOf(Call::kRename);
    RecryptDatabase db;
    const Tree before = support::tree("db");
    fault::FailingCall failing(renames, EIO, Mode::kOnce, {Call::kRename});
    EXPECT_EQ(kIo, recrypt("old", "new"));
    EXPECT_TRUE(failing.lift());
    EXPECT_FALSE(fs::exists("db"));
    EXPECT_EQ(before, support::tree("old_db"));
    EXPECT_TRUE(fs::exists("new_db"));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
    EXPECT_EQ(before, support::tree("db"));
    EXPECT_EQ("old", db.expectOneOpens("old", "new"));
    EXPECT_EQ(kOk, recrypt("old", "new"));
}

TEST(RecryptFailureTest, SwapThatMayNotLastIsNoSuccess) {
    const int syncs = countOf(Call::kFsync);
    RecryptDatabase db;
    fault::FailingCall failing(syncs, EIO, Mode::kOnce, {Call::kFsync});
    EXPECT_EQ(kIo, recrypt("old", "new"));
    EXPECT_TRUE(failing.lift());
    expectCoders("new");
    EXPECT_EQ("new", db.expectOneOpens("old", "new"));
}

// --- the list of all records --------------------------------------------------------

class FullListTest : public testing::Test {
protected:
    static void record(const std::string& folder, const std::string& name) {
        fs::create_directories(folder);
        support::writeFile(folder + "/" + name + ".dsc", "00000003 00000001 x\n");
    }
    static std::vector<std::string> names(aFileStoreList& list) {
        std::vector<std::string> found;
        for (aFileStore item = list.getFirst(); item.target() != nullptr; item = list.getNext()) {
            found.push_back(std::string(item.getFolderName()) + "/" + item.getName());
        }
        return found;
    }

    TestStore store_{""};
};

TEST_F(FullListTest, OwnRecordsComeBeforeThoseOfSubfolders) {
    record("top", "1");
    record("top", "2");
    record("top/a", "3");
    record("top/a/b", "4");
    record("top/a/b/c", "5");
    fs::create_directory("top/a/empty");
    support::writeFile("top/a/no_record", "");
    aFileStoreList list;
    ASSERT_EQ(kOk, _getFullStoreList("top", list));
    std::vector<std::string> found = names(list);
    ASSERT_EQ(5U, found.size());
    std::sort(found.begin(), found.begin() + 2);  // in the order of the system
    EXPECT_THAT(found, ElementsAre("top/1", "top/2", "top/a/3", "top/a/b/4", "top/a/b/c/5"));
}

TEST_F(FullListTest, SubfoldersAreWalkedDepthFirst) {
    for (const char* const folder : {"top/a", "top/a/x", "top/b", "top/b/x"}) {
        record(folder, "r");
    }
    aFileStoreList list;
    ASSERT_EQ(kOk, _getFullStoreList("top", list));
    const std::vector<std::string> found = names(list);
    const bool aFirst = found.at(0) == "top/a/r";
    EXPECT_THAT(found, aFirst ? ElementsAre("top/a/r", "top/a/x/r", "top/b/r", "top/b/x/r")
                              : ElementsAre("top/b/r", "top/b/x/r", "top/a/r", "top/a/x/r"));
}

TEST_F(FullListTest, AddsToWhatIsThere) {
    record("top", "1");
    aFileStoreList list;
    ASSERT_EQ(kOk, _getFullStoreList("top", list));
    ASSERT_EQ(kOk, _getFullStoreList("top", list));
    EXPECT_EQ(2U, names(list).size());
}

TEST_F(FullListTest, TellsWhatItCannotList) {
    aFileStoreList list;
    EXPECT_EQ(kInvalid, _getFullStoreList(nullptr, list));
    EXPECT_EQ(kIo, _getFullStoreList("absent", list));
    record("top/a", "1");
    for (const Call call : {Call::kOpendir, Call::kReaddir}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(std::string(nameOf(call)) + " " + std::to_string(nth));
            fault::FailingCall failing(nth, EIO, Mode::kOnce, {call});
            const Status status = _getFullStoreList("top", list);
            const bool struck = failing.lift();
            EXPECT_EQ(struck ? kIo : kOk, status);
            EXPECT_THAT(fault::openHandles(), IsEmpty());
            if (!struck) {
                break;
            }
        }
    }
}

// It is called with the lock held.
TEST_F(FullListTest, TakesNoLock) {
    record("top", "1");
    aFileStoreList list;
    ASSERT_EQ(0, pthread_rwlock_rdlock(&RWLocker::m_RWMutex));
    EXPECT_EQ(kOk, _getFullStoreList("top", list));
    pthread_rwlock_unlock(&RWLocker::m_RWMutex);
}

}  // namespace
