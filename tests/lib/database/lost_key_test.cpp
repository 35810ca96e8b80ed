// The record "key" lost, cut, zeroed or altered: whoever could open the database before opens it
// still, and the record is written again as it was.
#include "lib/database/lost_key.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/database/check.h"
#include "lib/database/database.h"
#include "lib/records/descriptor.h"
#include "lib/records/record.h"
#include "tests/support/recording_observer.h"
#include "tests/support/status_of.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

const std::string kKeyFile = "db/key.dsc";
const Address kFirst{"keys", "first"};  // in the order in which they are read
const Address kSecond{"keys", "second"};

std::span<const unsigned char> asBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

void put(const Address& address, const std::string& body) {
    Record record(address);
    record.setBody(asBytes(body), /*encrypted=*/true);
    record.write();
}

// How the file of the record may look: not there, cut, and so on.
std::vector<std::pair<const char*, void (*)()>> waysToLose() {
    return {
        {"missing", [] { std::filesystem::remove(kKeyFile); }},
        {"empty", [] { support::writeFile(kKeyFile, ""); }},
        {"cut", [] { support::writeFile(kKeyFile, support::readFile(kKeyFile).substr(0, 30)); }},
        {"zeros",
         [] {
             support::writeFile(kKeyFile, std::string(support::readFile(kKeyFile).size(), '\0'));
         }},
        {"another digest",
         [] {
             std::string text = support::readFile(kKeyFile);
             char& digit = text[text.size() - 2];
             digit = digit == '0' ? '1' : '0';
             support::writeFile(kKeyFile, text);
         }},
    };
}

class LostKeyTest : public testing::Test {
protected:
    LostKeyTest() {
        Database database({}, observer_);
        const Hold hold = database.enter(Access::kChange, Need::kDatabase);
        change(database, "one");
        put(kFirst, "the first key");
        put(kSecond, "the second key");
        key_ = support::readFile(kKeyFile);
    }

    static void change(Database& database, const char* password) {
        database.changePassword(
            makeKey(SecretText(password), UnlockSlot::kLeastLn, database.idForSlots()),
            /*keepOld=*/false);
    }

    // Of reading the second record with this password.
    static Status read(const char* password, Access access = Access::kRead) {
        support::RecordingObserver observer(password);
        Database database({}, observer);
        return support::statusOf([&] {
            const Hold hold = database.enter(access, Need::kSecrets);
            Record record = Record::read(kSecond);
            record.decrypt();
            EXPECT_EQ("the second key", asText(record.body()));
        });
    }

    static SlotSet setInForce() {
        support::RecordingObserver observer;
        Database database({}, observer);
        const Hold hold = database.enter(Access::kRead);
        return database.protection().inForce;
    }

    // Both copies, as a change of the password has them that is under way.
    static void writeSets(std::vector<SlotSet> sets) {
        support::RecordingObserver observer;
        Database database({}, observer);
        const Hold hold = database.enter(Access::kChange, Need::kFiles);
        const Protection now = readProtection();
        writeSlots(now, now.record.db, std::move(sets), /*keepOld=*/false);
    }

    static std::vector<SlotSet> setsOfKdf() {
        support::RecordingObserver observer;
        Database database({}, observer);
        const Hold hold = database.enter(Access::kRead, Need::kFiles);
        return readCopies().kdf.record.sets;
    }

    static SlotSet anotherSet(const char* password) {
        return makeKey(SecretText(password), UnlockSlot::kLeastLn, databaseId()).set;
    }

    static DatabaseId databaseId() {
        support::RecordingObserver observer;
        Database database({}, observer);
        const Hold hold = database.enter(Access::kRead);
        return database.protection().record.db;
    }

    const support::TempWorkingDir folder_;
    support::RecordingObserver observer_{"one"};
    std::string key_;
};

TEST_F(LostKeyTest, WhoHasThePasswordWritesItAgain) {
    for (const Access access : {Access::kRead, Access::kChange}) {
        for (const auto& [name, lose] : waysToLose()) {
            SCOPED_TRACE(name);
            lose();
            const std::string lost =
                std::filesystem::exists(kKeyFile) ? support::readFile(kKeyFile) : "";
            EXPECT_EQ(kWrongPassword, read("two", access));
            EXPECT_EQ(lost, std::filesystem::exists(kKeyFile) ? support::readFile(kKeyFile) : "");
            EXPECT_EQ(kOk, read("one", access));
            EXPECT_EQ(key_, support::readFile(kKeyFile));
        }
    }
}

TEST_F(LostKeyTest, OnlyAChangeOfPlainPartsNeedsThePassword) {
    for (const auto& [name, lose] : waysToLose()) {
        SCOPED_TRACE(name);
        lose();
        support::RecordingObserver reader;
        Database database({}, reader);
        {
            const Hold hold = database.enter(Access::kRead);
            EXPECT_TRUE(Record::isThere(kFirst));
        }
        ASSERT_EQ(1U, reader.heard.size());
        EXPECT_TRUE(reader.heard.front().starts_with("warning: the record ./key"));
        support::RecordingObserver stranger("two");
        Database other({}, stranger);
        EXPECT_EQ(kWrongPassword, support::statusOf([&] { (void)other.enter(Access::kChange); }));
        Database own({}, observer_);
        (void)own.enter(Access::kChange);
        EXPECT_EQ(key_, support::readFile(kKeyFile));
    }
}

TEST_F(LostKeyTest, DuringAChangeTheRecordsTellWhichSetIsInForce) {
    const SlotSet own = setInForce();
    const SlotSet other = anotherSet("one");  // the same password opens both
    const std::vector<std::vector<SlotSet>> changes{{own, other}, {other, own}};
    for (const std::vector<SlotSet>& sets : changes) {
        for (const auto& [name, lose] : waysToLose()) {
            SCOPED_TRACE(name);
            writeSets(sets);
            lose();
            EXPECT_EQ(kOk, read("one", Access::kChange));
            EXPECT_EQ(key_, support::readFile(kKeyFile));
            EXPECT_EQ(own, setInForce());
        }
    }
}

// One that comes from a backup, or from a disk that lost its last writes.
TEST_F(LostKeyTest, AKeyFromBeforeAChangeDropsNoSetThatOpensTheRecords) {
    const SlotSet own = setInForce();
    const SlotSet other = anotherSet("two");
    writeSets({other, own});  // as if "one" were the new password
    {
        support::RecordingObserver observer;
        Database database({}, observer);
        const Hold hold = database.enter(Access::kChange, Need::kFiles);
        writeKey(*other.key());
    }
    const std::string older = support::readFile(kKeyFile);
    EXPECT_EQ(kIo, read("two"));
    EXPECT_EQ(kNoDigest, read("two", Access::kChange));
    EXPECT_EQ(std::vector({other, own}), setsOfKdf());
    EXPECT_EQ(older, support::readFile(kKeyFile));
    std::filesystem::rename(kKeyFile, "older key");  // as the message says
    EXPECT_EQ(kOk, read("one", Access::kChange));
    EXPECT_EQ(key_, support::readFile(kKeyFile));
    EXPECT_EQ(own, setInForce());
}

TEST_F(LostKeyTest, ThePasswordOfTheOtherSetProvesNothing) {
    writeSets({setInForce(), anotherSet("two")});
    std::filesystem::remove(kKeyFile);
    EXPECT_EQ(kWrongPassword, read("two", Access::kChange));
    EXPECT_FALSE(std::filesystem::exists(kKeyFile));
    EXPECT_EQ(kOk, read("one", Access::kChange));
}

TEST_F(LostKeyTest, ADamagedRecordDecidesNothing) {
    for (const auto& [name, lose] : waysToLose()) {
        SCOPED_TRACE(name);
        lose();
        const std::string file = descriptorPath(kFirst);
        const std::string before = support::readFile(file);
        support::writeFile(file, before.substr(0, before.size() / 2));
        // A digest that fits nothing may be that of another program, which some record may follow.
        const Status expected = std::string(name) == "another digest" ? kNoDigest : kOk;
        EXPECT_EQ(expected, read("one"));
        support::writeFile(file, before);
        EXPECT_EQ(kOk, read("one"));
        EXPECT_EQ(key_, support::readFile(kKeyFile));
    }
}

TEST_F(LostKeyTest, WithNothingEncryptedTheNewestSetIsInForce) {
    {
        Database database({}, observer_);
        const Hold hold = database.enter(Access::kChange, Need::kSecrets);
        BodyOwners owners;
        (void)Record::read(kFirst).remove(owners);
        (void)Record::read(kSecond).remove(owners);
    }
    const SlotSet own = setInForce();
    writeSets({own, anotherSet("two")});
    std::filesystem::remove(kKeyFile);
    EXPECT_EQ(kWrongPassword, read("one", Access::kChange));
    EXPECT_EQ(kMissing, read("two", Access::kChange));  // it opens, and the record is gone
    EXPECT_EQ(kMissing, read("two"));
}

TEST_F(LostKeyTest, NoneIsInForceOnlyIfTheRecordsSaySo) {
    Slot none;
    none.form = Slot::Form::kNone;
    writeSets({{.line = none, .slots = {}}, setInForce()});
    std::filesystem::remove(kKeyFile);
    EXPECT_EQ(kWrongPassword, read("two"));
    EXPECT_EQ(kOk, read("one", Access::kChange));
    EXPECT_EQ(key_, support::readFile(kKeyFile));
    EXPECT_FALSE(setInForce().line);
}

TEST_F(LostKeyTest, WithoutSlotsThereIsNothingToTry) {
    std::filesystem::remove(kKeyFile);
    std::filesystem::remove("db/kdf.dsc");
    std::filesystem::remove("db/kdf-copy.dsc");
    EXPECT_EQ(kNoDigest, read("one"));
    support::writeFile(kKeyFile, "");
    EXPECT_EQ(kNoDigest, read("one"));
}

TEST_F(LostKeyTest, NoCopyIsWrittenWhileTheKeyFitsNeither) {
    const std::string older = support::readFile("db/kdf-copy.dsc");
    writeSets({setInForce()});
    support::writeFile("db/kdf-copy.dsc", older);
    for (const auto& [name, lose] : waysToLose()) {
        SCOPED_TRACE(name);
        lose();
        EXPECT_EQ(kWrongPassword, read("two", Access::kChange));
        {
            Database database({}, observer_);  // whoever creates a database asks for nothing yet
            (void)database.enter(Access::kChange, Need::kDatabase);
        }
        EXPECT_EQ(older, support::readFile("db/kdf-copy.dsc"));
        EXPECT_EQ(kOk, read("one", Access::kChange));
        EXPECT_EQ(support::readFile("db/kdf.dsc"), support::readFile("db/kdf-copy.dsc"));
        support::writeFile("db/kdf-copy.dsc", older);
    }
}

// A host that knows of no slots may encrypt with the empty password.
TEST_F(LostKeyTest, AFirstChangeThatWasBrokenOffIsUndoneThoughARecordIsDamaged) {
    const support::TempWorkingDir other;
    support::RecordingObserver observer;
    Database database({}, observer);
    (void)database.enter(Access::kChange, Need::kDatabase);
    {
        const Hold hold = database.enter(Access::kChange, Need::kSecrets);
        put(kFirst, "the first key");
        put(kSecond, "the second key");
        const DatabaseId id = makeDatabaseId();
        Slot none;
        none.form = Slot::Form::kNone;
        writeSlots(
            {}, id,
            {{.line = none, .slots = {}}, makeKey(SecretText("new"), UnlockSlot::kLeastLn, id).set},
            /*keepOld=*/false);
    }
    const std::string file = descriptorPath(kFirst);
    const std::string before = support::readFile(file);
    support::writeFile(file, before.substr(0, before.size() / 2));
    EXPECT_EQ(kOk, read(""));
    EXPECT_EQ(kOk, read("", Access::kChange));
    EXPECT_FALSE(std::filesystem::exists("db/kdf.dsc"));
}

TEST_F(LostKeyTest, CheckFindsAndRepairsIt) {
    for (const auto& [name, lose] : waysToLose()) {
        SCOPED_TRACE(name);
        lose();
        Database database({}, observer_);
        const CheckReport found = checkDatabase(database, {.deep = false, .repair = false});
        EXPECT_EQ(kFound, found.status());
        EXPECT_EQ(1, std::ranges::count(found.findings, Finding::Kind::kKeyRecord, &Finding::kind));
        (void)checkDatabase(database, {.deep = false, .repair = true});
        EXPECT_EQ(key_, support::readFile(kKeyFile));
        const CheckReport after = checkDatabase(database, {.deep = true, .repair = false});
        EXPECT_EQ(kOk, after.status());
        std::filesystem::remove_all("db.lost");
    }
}

TEST_F(LostKeyTest, WhoHasItOpenWritesItAgain) {
    Database database({}, observer_);
    (void)database.enter(Access::kChange, Need::kSecrets);
    for (const auto& [name, lose] : waysToLose()) {
        SCOPED_TRACE(name);
        lose();
        (void)checkDatabase(database, {.deep = false, .repair = true});
        EXPECT_EQ(key_, support::readFile(kKeyFile));
        std::filesystem::remove_all("db.lost");
        lose();
        (void)database.enter(Access::kRead, Need::kSecrets);
        (void)database.enter(Access::kChange);
        EXPECT_EQ(key_, support::readFile(kKeyFile));
    }
}

TEST_F(LostKeyTest, PItselfProvesIt) {
    SecretText p;
    {
        Database database({}, observer_);
        const Hold hold = database.enter(Access::kRead, Need::kSecrets);
        p = database.p();
    }
    for (const auto& [name, lose] : waysToLose()) {
        SCOPED_TRACE(name);
        lose();
        Database database({}, observer_);
        const Hold hold = database.enter(Access::kChange, Need::kFiles);
        NewKey wrong = makeKey(SecretText("one"), UnlockSlot::kLeastLn, makeDatabaseId());
        EXPECT_THROW(database.resetSlots(wrong), Failure);
        const NewSlot fresh{
            .secret = {.text = SecretText("one"), .bytes = {}}, .label = {}, .ln = 14};
        NewKey key{.set = {}, .db = makeDatabaseId(), .p = p};
        key.set.slots.push_back(makeSlot(fresh, 1, {}, key.db, p));
        database.resetSlots(std::move(key));
        EXPECT_EQ(key_, support::readFile(kKeyFile));
    }
    EXPECT_EQ(kOk, read("one"));
}

}  // namespace
}  // namespace fstore
