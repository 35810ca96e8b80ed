// A record's other place, as a program gives it, with the real modules.
#include "lib/work/rename.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::RecordingObserver;
using testing::ElementsAre;

constexpr const char* kPassword = "a password";
const Address kFrom{"settings", "from"};
const Address kTo{"crm", "to"};

std::span<const unsigned char> bytesOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

class RenameTest : public testing::Test {
protected:
    // A record with everything that a record can have.
    RenameTest() {
        const Hold hold = database_.enter(Access::kChange, Need::kDatabase);
        database_.changePassword(
            makeKey(SecretText(kPassword), UnlockSlot::kLeastLn, database_.idForSlots()),
            /*keepOld=*/false);
        Record record(kFrom);
        record.setNumber(attr::kKind, static_cast<std::uint32_t>(Kind::kRaw));
        record.setText(attr::kLabel, "a label");
        record.setString(attr::kFirstOfUser, "a string");
        record.addBinary(attr::kFirstOfUser + 1, bytesOf("secret"), /*encrypted=*/true);
        record.addBinary(attr::kFirstOfUser + 1, bytesOf("plain"), /*encrypted=*/false);
        record.setBody(bytesOf("the body"), /*encrypted=*/true);
        record.write();
    }

    static Renaming rename(Database& database, const std::string& from, const Address& to) {
        return withSecrets(database, Access::kChange,
                           [&] { return renameRecord(database, from, to); });
    }

    // The status of a rename that fails, by a program that has not opened the database.
    Status failureOf(const std::string& from, const Address& to) {
        Database other({}, other_);
        try {
            (void)rename(other, from, to);
        } catch (const Failure& failure) {
            return failure.status();
        }
        return kOk;
    }

    // A line for each attribute of the record, and one for its body.
    std::vector<std::string> contentsOf(const Address& address) {
        const Hold hold = database_.enter(Access::kRead, Need::kSecrets);
        Record record = Record::read(address);
        record.decrypt();
        std::vector<std::string> lines;
        for (unsigned int i = 0; i < record.count(); ++i) {
            lines.push_back(std::to_string(record.type(i)) + " " + std::to_string(record.id(i)) +
                            (record.isEncrypted(i) ? " encrypted " : " ") +
                            std::string(asText(record.bytes(i))));
        }
        lines.push_back((record.isBodyEncrypted() ? "encrypted " : "") +
                        std::string(asText(record.body())));
        return lines;
    }

    std::vector<Address> records() {
        const Hold hold = database_.enter(Access::kRead);
        return allRecords();
    }

    const support::TempWorkingDir folder_;
    RecordingObserver observer_{kPassword}, other_{kPassword};
    Database database_{{}, observer_};
};

TEST_F(RenameTest, KeepsEveryAttributeItsTypeAndItsSecrecy) {
    const std::vector<std::string> before = contentsOf(kFrom);
    const Renaming renaming = rename(database_, "from", kTo);
    EXPECT_EQ(kFrom, renaming.from);
    EXPECT_FALSE(renaming.bodyKept.has_value());
    EXPECT_THAT(records(), ElementsAre(kTo));
    EXPECT_EQ(before, contentsOf(kTo));
}

TEST_F(RenameTest, AsksForNoPasswordWhenThePlaceCannotBeHad) {
    EXPECT_EQ(kInvalid, failureOf("from", kFrom));
    EXPECT_EQ(kInvalid, failureOf("from", {"", std::string(layout::kKdfRecord)}));
    EXPECT_EQ(kMissing, failureOf("from", {"nowhere", "to"}));
    EXPECT_EQ(0, other_.asked);
}

TEST_F(RenameTest, ChangesNothingUnlessTheRecordCanBeRead) {
    const auto before = support::tree("db");
    other_.answer = "wrong";
    EXPECT_EQ(kWrongPassword, failureOf("from", kTo));
    EXPECT_EQ(before, support::tree("db"));
}

TEST_F(RenameTest, GoesThereAndBackAgain) {
    const std::vector<std::string> before = contentsOf(kFrom);
    (void)rename(database_, "from", kTo);
    (void)rename(database_, "to", kFrom);
    EXPECT_THAT(records(), ElementsAre(kFrom));
    EXPECT_EQ(before, contentsOf(kFrom));
}

}  // namespace
}  // namespace fstore
