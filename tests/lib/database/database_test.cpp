// A database with the real modules: entered, opened, changed, and what other processes see
// and do meanwhile.
#include "lib/database/database.h"

#include <fcntl.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/database/check.h"
#include "lib/database/folders.h"
#include "lib/records/record.h"
#include "os/files.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

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

NewSlot slotFor(const std::string& password) {
    return makeSlot(SecretText(password), Slot::kLeastLn);
}

// In the current folder, with one record that is kept encrypted.
void makeDatabase(const std::string& password) {
    RecordingObserver observer;
    Database database({}, observer);
    const Hold hold = database.enter(Access::kChange, Need::kDatabase);
    database.changePassword(slotFor(password), /*keepOld=*/false);
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

// The status with which `body` fails; kOk when it does not.
template <class Body>
Status statusOf(Body body) {
    try {
        body();
    } catch (const Failure& failure) {
        return failure.status();
    }
    return kOk;
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
            database.changePassword(slotFor("two"), /*keepOld=*/true);
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
            const Status status =
                statusOf([&] { database.changePassword(slotFor("two"), /*keepOld=*/false); });
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
                ElementsAre("note: ./db/crm is missing, and will be created",
                            "note: ./db/settings/a.dsc.$n$ is a leftover of an interrupted "
                            "write, and will be moved to ./db.lost",
                            testing::HasSubstr("--undo")));
    EXPECT_EQ(1u, report.lost.size());
    EXPECT_EQ(2u, report.repaired.size());
    EXPECT_TRUE(report.findings.empty());
    EXPECT_EQ(0, observer.asked);
}

}  // namespace
}  // namespace fstore
