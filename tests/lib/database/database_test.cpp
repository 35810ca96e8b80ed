// A database with the real modules: entered, opened, changed, and what other processes see
// and do meanwhile.
#include "lib/database/database.h"

#include <fcntl.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/database/check.h"
#include "lib/database/folders.h"
#include "lib/database/stamp.h"
#include "lib/database/unlock.h"
#include "lib/records/record.h"
#include "os/files.h"
#include "tests/support/recording_observer.h"
#include "tests/support/status_of.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::statusOf;

using support::RecordingObserver;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;

const Address kSecret{"keys", "secret"};

// What another process would get of the folder's lock at once.
bool canLock(os::LockKind kind) {
    const os::File folder = os::openFile(".", O_RDONLY | O_DIRECTORY);
    return os::lockFile(folder, kind, 0) == os::Locked::kYes;
}

NewKey keyFor(const Database& database, const std::string& password) {
    return makeKey(SecretText(password), UnlockSlot::kLeastLn, database.idForSlots());
}

// In the current folder, with one record that is kept encrypted.
void makeDatabase(const std::string& password) {
    RecordingObserver observer;
    Database database({}, observer);
    const Hold hold = database.enter(Access::kChange, Need::kDatabase);
    database.changePassword(keyFor(database, password), /*keepOld=*/false);
    Record record(kSecret);
    const std::string body = "the body";
    record.setBody({reinterpret_cast<const unsigned char*>(body.data()), body.size()},
                   /*encrypted=*/true);
    record.write();
}

std::string bodyOf(Database& database) {
    Record record = Record::read(kSecret);
    if (record.hasSecrets()) {
        database.needSecrets();
        record.decrypt();
    }
    return {record.body().begin(), record.body().end()};
}

// The body by this password, or the status of the failure.
std::string openedBy(const std::string& password) {
    RecordingObserver observer(password);
    Database database({}, observer);
    try {
        const Hold hold = database.enter(Access::kRead, Need::kSecrets);
        return bodyOf(database);
    } catch (const Failure& failure) {
        return nameOf(failure.exitCode());
    }
}

class DatabaseTest : public testing::Test {
protected:
    const support::TempWorkingDir folder_;
};

TEST_F(DatabaseTest, NothingIsEnteredWhereNothingIs) {
    RecordingObserver observer;
    Database database({}, observer);
    for (const Need need : {Need::kFiles, Need::kRecords, Need::kSecrets}) {
        EXPECT_EQ(kMissing, statusOf([&] { (void)database.enter(Access::kRead, need); }));
    }
    EXPECT_TRUE(canLock(os::LockKind::kExclusive));
    Database elsewhere({.folder = "no/such"}, observer);
    EXPECT_EQ(kMissing, statusOf([&] { (void)elsewhere.enter(Access::kRead); }));
    EXPECT_EQ(0, observer.asked);
}

TEST_F(DatabaseTest, IsMadeWithItsFolder) {
    RecordingObserver observer;
    Database database({.folder = "new"}, observer);
    {
        const Hold hold = database.enter(Access::kChange, Need::kDatabase);
        EXPECT_FALSE(database.protection().hasPassword());
        EXPECT_EQ(kNotOpen, statusOf([&] { database.requireSecrecy(); }));
    }
    EXPECT_TRUE(std::filesystem::is_directory(folder_.path() + "/new/db/certificates/local"));
}

TEST_F(DatabaseTest, AHoldKeepsOthersOutAsItsAccessSays) {
    makeDatabase("one");
    RecordingObserver observer("one");
    Database database({.lockSeconds = 0}, observer);
    const struct {
        Access access;
        Need need;
        bool sharable;
    } rows[] = {
        {Access::kRead, Need::kFiles, true},      {Access::kRead, Need::kRecords, true},
        {Access::kRead, Need::kSecrets, true},    {Access::kChange, Need::kFolder, false},
        {Access::kChange, Need::kFiles, false},   {Access::kChange, Need::kDatabase, false},
        {Access::kChange, Need::kRecords, false}, {Access::kChange, Need::kSecrets, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.need));
        {
            const Hold hold = database.enter(row.access, row.need);
            EXPECT_EQ(row.sharable, canLock(os::LockKind::kShared));
            EXPECT_FALSE(canLock(os::LockKind::kExclusive));
        }
        EXPECT_TRUE(canLock(os::LockKind::kExclusive));
    }
}

TEST_F(DatabaseTest, WaitsForNobodyLongerThanItsPlaceSays) {
    makeDatabase("one");
    RecordingObserver observer;
    Database database({.lockSeconds = 0}, observer);
    const os::File folder = os::openFile(".", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(os::Locked::kYes, os::lockFile(folder, os::LockKind::kExclusive, 0));
    EXPECT_EQ(kAlreadyOpen, statusOf([&] { (void)database.enter(Access::kRead); }));
}

TEST_F(DatabaseTest, AsksForThePasswordOnceAndWhileNothingIsLocked) {
    makeDatabase("one");
    RecordingObserver observer("one");
    Database database({}, observer);
    observer.whileAsked = [] { EXPECT_TRUE(canLock(os::LockKind::kExclusive)); };
    {
        const Hold hold = database.enter(Access::kRead);
        EXPECT_FALSE(database.isOpen());
    }
    EXPECT_EQ(0, observer.asked);
    for (const Access access : {Access::kRead, Access::kChange, Access::kRead}) {
        const Hold hold = database.enter(access, Need::kSecrets);
        EXPECT_EQ("the body", bodyOf(database));
    }
    EXPECT_EQ(1, observer.asked);
    EXPECT_THAT(observer.heard, ElementsAre());
}

TEST_F(DatabaseTest, AWrongPasswordIsReportedAndHoldsNothing) {
    makeDatabase("one");
    RecordingObserver observer("another");
    Database database({}, observer);
    EXPECT_EQ(kWrongPassword,
              statusOf([&] { (void)database.enter(Access::kChange, Need::kSecrets); }));
    EXPECT_TRUE(canLock(os::LockKind::kExclusive));
    EXPECT_FALSE(database.isOpen());
    observer.answer = "one";
    const Hold hold = database.enter(Access::kRead, Need::kSecrets);
    EXPECT_EQ("the body", bodyOf(database));
}

TEST_F(DatabaseTest, WhatADatabaseWithoutPasswordSaysIsAWarning) {
    RecordingObserver observer;
    Database database({}, observer);
    { const Hold hold = database.enter(Access::kChange, Need::kDatabase); }
    const Hold hold = database.enter(Access::kRead, Need::kSecrets);
    EXPECT_TRUE(database.isOpen());
    EXPECT_EQ(0, observer.asked);
    EXPECT_THAT(observer.heard, ElementsAre(HasSubstr("has no password")));
}

// Another process: it replaces the database by the one that is kept in the folder `from`.
void replaceBy(const std::string& from) {
    std::filesystem::remove_all("db");
    std::filesystem::copy(from, "db", std::filesystem::copy_options::recursive);
}

// Databases with the passwords "one", as "./db" and "./one", and "two", as "./two".
void makeTwo() {
    makeDatabase("two");
    std::filesystem::rename("db", "two");
    makeDatabase("one");
    std::filesystem::copy("db", "one", std::filesystem::copy_options::recursive);
}

TEST_F(DatabaseTest, APasswordThatAnotherProcessChangesMeanwhileIsAskedForAgain) {
    makeTwo();
    RecordingObserver observer("one");
    Database database({}, observer);
    observer.whileAsked = [&] {
        if (observer.asked == 1) {
            replaceBy("two");
        } else {
            observer.answer = "two";
        }
    };
    const Hold hold = database.enter(Access::kRead, Need::kSecrets);
    EXPECT_EQ(2, observer.asked);
    EXPECT_EQ("the body", bodyOf(database));
}

TEST_F(DatabaseTest, IsClosedWhenAnotherProcessHasChangedThePassword) {
    makeTwo();
    RecordingObserver observer("one");
    Database database({}, observer);
    { const Hold hold = database.enter(Access::kRead, Need::kSecrets); }
    {
        const Hold hold = database.enter(Access::kRead);
        EXPECT_TRUE(database.isOpen());
    }
    replaceBy("two");
    {
        const Hold hold = database.enter(Access::kRead);
        EXPECT_FALSE(database.isOpen());
    }
    observer.answer = "two";
    const Hold hold = database.enter(Access::kRead, Need::kSecrets);
    EXPECT_EQ("the body", bodyOf(database));
    EXPECT_EQ(2, observer.asked);
}

TEST_F(DatabaseTest, AStepThatNeedsNoSecretRunsOnceAndNobodyIsAsked) {
    makeDatabase("one");
    RecordingObserver observer;
    Database database({}, observer);
    int runs = 0;
    const int answer = withSecrets(database, Access::kRead, [&] { return ++runs; });
    EXPECT_EQ(1, answer);
    EXPECT_EQ(0, observer.asked);
    EXPECT_TRUE(canLock(os::LockKind::kExclusive));
}

// What it read before the password was asked for may be another's by then.
TEST_F(DatabaseTest, AStepThatAsksForSecretsRunsAnewFromItsBeginning) {
    makeDatabase("one");
    RecordingObserver observer("one");
    Database database({}, observer);
    observer.whileAsked = [] { support::writeFile("db/settings/later.dsc", ""); };
    std::vector<bool> seen;
    const std::string body = withSecrets(database, Access::kChange, [&] {
        EXPECT_FALSE(canLock(os::LockKind::kShared));
        seen.push_back(Record::isThere({"settings", "later"}));
        return bodyOf(database);
    });
    EXPECT_EQ("the body", body);
    EXPECT_THAT(seen, ElementsAre(false, true));
    EXPECT_EQ(1, observer.asked);
    EXPECT_TRUE(canLock(os::LockKind::kExclusive));
}

TEST_F(DatabaseTest, AStepOfAnOpenDatabaseRunsOnce) {
    makeDatabase("one");
    RecordingObserver observer("one");
    Database database({}, observer);
    for (const Need need : {Need::kSecrets, Need::kRecords}) {
        int runs = 0;
        withSecrets(
            database, Access::kRead, [&] { runs += bodyOf(database).empty() ? 0 : 1; }, need);
        EXPECT_EQ(1, runs);
    }
    EXPECT_EQ(1, observer.asked);
}

TEST_F(DatabaseTest, AFailureOfAStepIsTheCallers) {
    makeDatabase("one");
    RecordingObserver observer("one");
    Database database({}, observer);
    EXPECT_EQ(kEnd, statusOf([&] {
                  withSecrets(database, Access::kRead,
                              [] { throw Failure(kEnd, "no such thing"); });
              }));
    EXPECT_EQ(0, observer.asked);
    EXPECT_TRUE(canLock(os::LockKind::kExclusive));
}

TEST_F(DatabaseTest, AChangedPasswordIsInForceAtOnce) {
    makeDatabase("one");
    {
        RecordingObserver observer("one");
        Database database({}, observer);
        {
            const Hold hold = database.enter(Access::kChange, Need::kSecrets);
            database.changePassword(keyFor(database, "two"), /*keepOld=*/true);
            EXPECT_EQ("the body", bodyOf(database));
            EXPECT_FALSE(database.protection().isUnfinished());
        }
        const Hold hold = database.enter(Access::kRead, Need::kSecrets);
        EXPECT_EQ(1, observer.asked);
        EXPECT_THAT(observer.heard,
                    ElementsAre("Checking", "Re-encrypting", "Verifying",
                                testing::HasSubstr("kept the previous database as ./db-")));
        EXPECT_EQ(3, observer.ended);
    }
    EXPECT_FALSE(folderState().previous);
    EXPECT_EQ(1u, keptDatabases().size());
    EXPECT_EQ("wrong-password", openedBy("one"));
    EXPECT_EQ("the body", openedBy("two"));
}

// As after a kill: one of the two passwords is in force, and nothing is left of the other.
TEST_F(DatabaseTest, AChangeThatIsCancelledAnywhereLeavesOnePassword) {
    bool cancelled = true;
    int undone = 0;
    for (std::uint64_t steps = 0; cancelled; ++steps) {
        SCOPED_TRACE("cancelled after " + std::to_string(steps));
        const support::TempWorkingDir folder;
        makeDatabase("one");
        {
            RecordingObserver observer("one");
            Database database({}, observer);
            const Hold hold = database.enter(Access::kChange, Need::kSecrets);
            observer.cancelAfter = steps;
            const Status status = statusOf(
                [&] { database.changePassword(keyFor(database, "two"), /*keepOld=*/false); });
            EXPECT_THAT(status, AnyOf(kOk, kInterrupted));
            cancelled = status != kOk;
        }
        if (openedBy("two") == "the body") {
            EXPECT_EQ("wrong-password", openedBy("one"));
        } else {
            EXPECT_EQ("the body", openedBy("one"));
            ++undone;
        }
        const FolderState state = folderState();
        EXPECT_TRUE(state.live && !state.copy && !state.previous);
    }
    EXPECT_GE(undone, 2);  // while everything is checked, and while it is re-encrypted
}

TEST_F(DatabaseTest, ADeepCheckIsCancelled) {
    makeDatabase("one");
    RecordingObserver observer("one");
    Database database({}, observer);
    observer.cancelAfter = 0;
    EXPECT_EQ(kInterrupted, statusOf([&] { (void)checkDatabase(database, {.deep = true}); }));
    EXPECT_TRUE(canLock(os::LockKind::kExclusive));
    observer.cancelAfter = RecordingObserver::kNever;
    const CheckReport report = checkDatabase(database, {.deep = true});
    EXPECT_TRUE(report.isSound());
    ASSERT_TRUE(report.deep);
    EXPECT_EQ(1u, report.deep->records);
    EXPECT_EQ(1u, report.deep->secrets);
    EXPECT_EQ(1, observer.asked);
}

TEST_F(DatabaseTest, ARepairIsANoteFirstAndInTheReport) {
    makeDatabase("one");
    support::writeFile("db/settings/a.dsc.$n$", "");
    std::filesystem::remove_all("db/crm");
    RecordingObserver observer;
    Database database({}, observer);
    const CheckReport report = checkDatabase(database, {.repair = true});
    EXPECT_THAT(observer.heard,
                ElementsAre("Checking", "note: ./db/crm is missing, and will be created",
                            "note: ./db/settings/a.dsc.$n$ is a leftover of an interrupted "
                            "write, and will be moved to ./db.lost",
                            testing::HasSubstr("--undo"), "Checking"));
    EXPECT_EQ(1u, report.lost.size());
    EXPECT_EQ(2u, report.repaired.size());
    EXPECT_TRUE(report.findings.empty());
    EXPECT_EQ(0, observer.asked);
}

// A program's P: known from before, or worked out while nothing is locked.
class Keys final : public KeySource {
public:
    std::optional<Unlocked> known(const Protection& protection) override {
        EXPECT_FALSE(canLock(os::LockKind::kExclusive));
        return isKnown ? std::optional(open(protection)) : std::nullopt;
    }
    Unlocked obtain(const Protection& protection) override {
        ++obtained;
        EXPECT_TRUE(canLock(os::LockKind::kExclusive));
        whileObtaining();
        return open(protection);
    }

    std::string password = "old";
    bool isKnown = false;
    int obtained = 0;
    std::function<void()> whileObtaining = [] {};

private:
    Unlocked open(const Protection& protection) const {
        UnlockSecret secret;
        secret.text = SecretText(password);
        return unlock(protection, secret, {});
    }
};

class KeySourceTest : public DatabaseTest {
protected:
    KeySourceTest() { makeDatabase("old"); }

    static void changePassword() {
        RecordingObserver observer("old");
        Database database({}, observer);
        const Hold hold = database.enter(Access::kChange, Need::kSecrets);
        database.changePassword(keyFor(database, "new"), /*keepOld=*/false);
    }

    std::string read() {
        const Hold hold = database_.enter(Access::kReadNamed, Need::kSecrets);
        return bodyOf(database_);
    }

    RecordingObserver observer_;
    Keys keys_;
    Database database_{{}, observer_, &keys_};
};

TEST_F(KeySourceTest, AKnownKeyOpensAndNobodyIsAsked) {
    keys_.isKnown = true;
    EXPECT_EQ("the body", read());
    EXPECT_EQ(0, keys_.obtained);
    EXPECT_EQ(0, observer_.asked);
}

TEST_F(KeySourceTest, AnUnknownKeyIsObtainedOnceWhileNothingIsLocked) {
    EXPECT_EQ("the body", read());
    EXPECT_EQ("the body", read());
    EXPECT_EQ(1, keys_.obtained);
    EXPECT_EQ(0, observer_.asked);
}

TEST_F(KeySourceTest, AWrongKeyOpensNothing) {
    for (const bool isKnown : {true, false}) {
        keys_.isKnown = isKnown;
        keys_.password = "wrong";
        EXPECT_EQ(kWrongPassword, statusOf([&] { (void)read(); }));
        EXPECT_FALSE(database_.isOpen());
    }
}

TEST_F(KeySourceTest, APasswordThatChangesMeanwhileIsObtainedAgain) {
    keys_.whileObtaining = [&] {
        if (keys_.obtained == 1) {
            changePassword();
        } else {
            keys_.password = "new";
        }
    };
    EXPECT_EQ("the body", read());
    EXPECT_EQ(2, keys_.obtained);
}

TEST_F(KeySourceTest, ANamedReadSeesThatThePasswordHasChanged) {
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ("the body", read());
    EXPECT_EQ("the body", read());  // by what is known of "./db"
    changePassword();
    EXPECT_EQ(kWrongPassword, statusOf([&] { (void)read(); }));
    keys_.password = "new";
    EXPECT_EQ("the body", read());
}

class StampTest : public DatabaseTest {
protected:
    StampTest() {
        std::filesystem::create_directory("db");
        support::writeFile("db/a", "a");
    }

    // Longer than what counts as lately.
    static std::optional<Stamp> takeSettled() {
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        return Stamp::take();
    }
};

TEST_F(StampTest, IsTheSameUntilSomethingChanges) {
    EXPECT_FALSE(Stamp::take());  // it was made just now
    const auto before = takeSettled();
    ASSERT_TRUE(before);
    support::writeFile("db/a", "b");  // in place, which shows in no folder
    EXPECT_EQ(before, takeSettled());
}

TEST_F(StampTest, ShowsEachChangeOfAName) {
    const struct {
        const char* what;
        void (*change)();
    } changes[] = {
        {"created", [] { support::writeFile("db/b", "b"); }},
        {"renamed", [] { std::filesystem::rename("db/b", "db/a"); }},
        {"removed", [] { std::filesystem::remove("db/a"); }},
        {"another folder",
         [] {
             std::filesystem::rename("db", "old_db");
             std::filesystem::create_directory("db");
         }},
    };
    for (const auto& each : changes) {
        const auto before = takeSettled();
        ASSERT_TRUE(before) << each.what;
        each.change();
        EXPECT_FALSE(Stamp::take()) << each.what;
        const auto after = takeSettled();
        ASSERT_TRUE(after) << each.what;
        EXPECT_NE(before, after) << each.what;
    }
}

TEST_F(StampTest, ThereIsNoneOfTheFutureAndNoneOfAnotherKind) {
    std::filesystem::last_write_time(
        "db", std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
    EXPECT_FALSE(takeSettled());
    std::filesystem::remove_all("db");
    EXPECT_FALSE(takeSettled());
    std::filesystem::create_directory("elsewhere");
    std::filesystem::create_directory_symlink("elsewhere", "db");
    EXPECT_FALSE(takeSettled());
}

}  // namespace
}  // namespace fstore
