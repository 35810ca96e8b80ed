// What the operations of lib/work say when they cannot do what is asked, and what is there
// afterwards, with the real modules.
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "lib/work/create.h"
#include "lib/work/export.h"
#include "lib/work/find.h"
#include "lib/work/get.h"
#include "lib/work/put.h"
#include "lib/work/remove.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using support::RecordingObserver;
using testing::ElementsAre;
using testing::IsEmpty;

const Address kHere{"settings", "a"};

SecretBytes bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

class WorkTest : public testing::Test {
protected:
    // What step() fails with in the database, entered for changes; kOk when it does not.
    template <class Step>
    Status failureOf(Step step) {
        try {
            withSecrets(database_, Access::kChange, step);
            return kOk;
        } catch (const Failure& failure) {
            return failure.status();
        }
    }

    bool create() {
        return createDatabase(database_, Slot::kLeastLn,
                              [this]() -> const SecretText& { return password_; });
    }
    void put(const Address& address, std::string_view body, bool plain = false) {
        withSecrets(database_, Access::kChange, [&] {
            SecretBytes bytes = bytesOf(body);
            putBody(database_, address, bytes, {.label = {}, .plain = plain});
        });
    }
    std::string bodyOf(const Address& address) {
        return withSecrets(database_, Access::kRead, [&] {
            const Record record = readWhole(database_, address);
            return std::string(asText(record.body()));
        });
    }
    std::vector<Address> records() {
        const Hold hold = database_.enter(Access::kRead);
        return allRecords();
    }

    const support::TempWorkingDir folder_;
    const SecretText password_{"a password"};
    RecordingObserver observer_{"a password"};
    Database database_{{}, observer_};
};

TEST_F(WorkTest, ADatabaseIsCreatedOnce) {
    EXPECT_TRUE(create());
    put(kHere, "body");
    EXPECT_FALSE(create());
    EXPECT_EQ("body", bodyOf(kHere));
}

TEST_F(WorkTest, NothingIsCreatedWithoutAPassword) {
    const NewPassword refuses = []() -> const SecretText& { throw Failure(kUsage, "none"); };
    EXPECT_THROW((void)createDatabase(database_, Slot::kLeastLn, refuses), Failure);
    EXPECT_FALSE(std::filesystem::exists("db"));
}

TEST_F(WorkTest, APutThatIsRefusedLeavesTheRecord) {
    (void)create();
    put(kHere, "body");
    const struct {
        const char* what;
        Address address;
        std::string body;
        PutRules rules;
        Status status;
    } rows[] = {
        {"no such folder", {"nowhere", "a"}, "b", {}, kMissing},
        {"of the password", {"", "kdf"}, "b", {}, kInvalid},
        {"nothing in plain form", kHere, "", {.label = {}, .plain = true}, kInvalid},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.status, failureOf([&] {
                      SecretBytes bytes = bytesOf(row.body);
                      putBody(database_, row.address, bytes, row.rules);
                  }))
            << row.what;
        EXPECT_EQ("body", bodyOf(kHere)) << row.what;
    }
    EXPECT_THAT(records(), ElementsAre(kHere));
}

TEST_F(WorkTest, AnyLabelIsKept) {
    (void)create();
    for (const std::string& label : {std::string("two\nlines"), std::string("a\0b", 3),
                                     std::string(" x "), std::string("\\0A")}) {
        SecretBytes bytes = bytesOf("body");
        const Hold hold = database_.enter(Access::kChange, Need::kSecrets);
        putBody(database_, kHere, bytes, {.label = label, .plain = false});
        EXPECT_EQ(label, infoOf(Record::read(kHere)).label);
    }
}

TEST_F(WorkTest, ABodyThatIsNotTheRecordsOwnIsNotHandedOut) {
    (void)create();
    put(kHere, "body", /*plain=*/true);
    for (const auto& file : std::filesystem::directory_iterator("db/settings")) {
        if (file.path().extension().empty()) {
            support::writeFile(file.path().string(), "ydob");
        }
    }
    EXPECT_EQ(kMalformed, failureOf([&] { (void)readWhole(database_, kHere); }));
    EXPECT_EQ(kMalformed, failureOf([&] { (void)readBody(database_, "a"); }));
    EXPECT_EQ(kMissing, failureOf([&] { (void)readBody(database_, "settings/b"); }));
}

TEST_F(WorkTest, NothingIsRemovedUnlessAllAreThere) {
    (void)create();
    put(kHere, "body");
    put({"settings", "b"}, "body");
    EXPECT_EQ(kMissing, failureOf([&] { (void)resolveAll({"settings/a", "settings/c"}); }));
    EXPECT_EQ(kInvalid, failureOf([&] { (void)resolveAll({"settings/a", "./kdf"}); }));
    const Hold hold = database_.enter(Access::kChange);
    EXPECT_THAT(resolveAll({"a", "settings/a"}), ElementsAre(kHere));
}

TEST_F(WorkTest, ARemovalThatFailsEndsNoOther) {
    (void)create();
    put(kHere, "body");
    put({"settings", "b"}, "body");
    const std::vector<Address> addresses = {{"settings", "none"}, {"settings", "b"}};
    withSecrets(database_, Access::kChange, [&] {
        const std::vector<Removal> done = removeRecords(addresses);
        ASSERT_EQ(2U, done.size());
        EXPECT_TRUE(done[0].failure);
        EXPECT_FALSE(done[1].failure);
    });
    EXPECT_THAT(records(), ElementsAre(kHere));
}

TEST_F(WorkTest, WhatCannotBeLookedAtIsFoundToo) {
    (void)create();
    put(kHere, "body");
    support::writeFile("db/settings/damaged.dsc", "this is no descriptor\n");
    const Listing found =
        withSecrets(database_, Access::kRead, [&] { return findRecords(database_, {}); });
    ASSERT_EQ(1U, found.records.size());
    EXPECT_EQ(kHere, found.records[0].address);
    ASSERT_EQ(1U, found.damaged.size());
    EXPECT_EQ((Address{"settings", "damaged"}), found.damaged[0].first);
    EXPECT_TRUE(found.hasDamage());
    EXPECT_FALSE(found.isComplete());
    FindRules elsewhere;
    elsewhere.folder = "nowhere";
    EXPECT_EQ(kMissing, failureOf([&] { (void)findRecords(database_, elsewhere); }));
}

TEST_F(WorkTest, WhatIsNoObjectIsNotExported) {
    (void)create();
    put(kHere, "body");
    EXPECT_EQ(kInvalid, failureOf([&] { (void)selectForExport(database_, resolve("a"), {}); }));
    EXPECT_EQ(kMissing, failureOf([&] {
                  (void)selectForExport(database_, {"settings", "none"}, {});
              }));
    EXPECT_THROW(refuseRules({.format = ExportRules::Format::kDer, .chain = true, .plain = false}),
                 Failure);
}

}  // namespace
}  // namespace fstore
