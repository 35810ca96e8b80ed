// A change of the password whose result is not the database that was there is taken back.
#include "lib/database/password_change.h"

#include <string>

#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/records/record.h"
#include "tests/support/fs_fault.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

constexpr const char* kBody = "what everybody may know";
const Address kSecret{"keys", "secret"};
const Address kPlain{"settings", "plain"};

std::span<const unsigned char> asBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

class PasswordChangeTest : public testing::Test {
protected:
    PasswordChangeTest() {
        Database database({}, observer_);
        const Hold hold = database.enter(Access::kChange, Need::kDatabase);
        change(database, "one");
        Record secret(kSecret);
        secret.setBody(asBytes("the key"), /*encrypted=*/true);
        secret.write();
        Record plain(kPlain);
        plain.setBody(asBytes(kBody), /*encrypted=*/false);
        plain.write();
    }

    static void change(Database& database, const char* password) {
        database.changePassword(
            makeKey(SecretText(password), UnlockSlot::kLeastLn, database.idForSlots()),
            /*keepOld=*/false);
    }

    // Of a change to "two"; the status that it ends with.
    Status tryToChange() {
        Database database({}, observer_);
        const Hold hold = database.enter(Access::kChange, Need::kSecrets);
        try {
            change(database, "two");
        } catch (const Failure& failure) {
            return failure.status();
        }
        return kOk;
    }

    static Status open(const char* password) {
        support::RecordingObserver observer(password);
        Database database({}, observer);
        try {
            (void)database.enter(Access::kChange, Need::kSecrets);
        } catch (const Failure& failure) {
            return failure.status();
        }
        return kOk;
    }

    // Everything is there, and the first password opens it.
    static void expectAsBefore() {
        support::RecordingObserver observer("one");
        Database database({}, observer);
        const Hold hold = database.enter(Access::kRead, Need::kSecrets);
        Record secret = Record::read(kSecret);
        secret.decrypt();
        EXPECT_EQ("the key", asText(secret.body()));
        EXPECT_EQ(kBody, asText(Record::read(kPlain).body()));
        EXPECT_FALSE(std::filesystem::exists("old_db"));
    }

    // The change is done, but for the last look and the end of the old folder.
    void breakOff() {
        const fault::FailingCall failing(1, EIO, fault::Mode::kOnce, {fault::Call::kRename});
        ASSERT_EQ(kIo, tryToChange());
        ASSERT_TRUE(std::filesystem::exists("old_db"));
    }

    const support::TempWorkingDir folder_;
    support::RecordingObserver observer_{"one"};
};

TEST_F(PasswordChangeTest, ContentsThatBecameOthersAreNoticed) {
    observer_.whenBegun = [](const std::string& what) {
        if (what == "Verifying") {
            for (const auto& [path, bytes] : support::tree("db/settings")) {
                if (bytes == kBody) {
                    // In a file of its own: the one that is there is the old database's, too.
                    std::filesystem::remove("db/settings/" + path);
                    support::writeFile("db/settings/" + path, "what NOBODY may know...");
                }
            }
        }
    };
    EXPECT_EQ(kIo, tryToChange());
    expectAsBefore();
    EXPECT_EQ(kWrongPassword, open("two"));
}

TEST_F(PasswordChangeTest, ARecordThatIsGoneIsNoticed) {
    observer_.whenBegun = [](const std::string& what) {
        if (what == "Verifying") {
            std::filesystem::remove("db/keys/secret.dsc");
        }
    };
    EXPECT_EQ(kIo, tryToChange());
    expectAsBefore();
}

TEST_F(PasswordChangeTest, ARecordThatIsGoneWhenAChangeIsFinishedIsNoticed) {
    breakOff();
    std::filesystem::remove("db/keys/secret.dsc");
    EXPECT_EQ(kMissing, open("two"));
    expectAsBefore();
}

TEST_F(PasswordChangeTest, ADamagedRecordWhenAChangeIsFinishedIsNoticed) {
    breakOff();
    support::writeFile("db/keys/secret.dsc", "damaged");
    EXPECT_EQ(kIo, open("two"));
    expectAsBefore();
}

TEST_F(PasswordChangeTest, OneThatWasBrokenOffIsFinished) {
    breakOff();
    EXPECT_EQ(kOk, open("two"));
    EXPECT_FALSE(std::filesystem::exists("old_db"));
    EXPECT_EQ(kWrongPassword, open("one"));
}

}  // namespace
}  // namespace fstore
