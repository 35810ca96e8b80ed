// Commands that name their records look at no others, and neither does the recovery before them,
// which all the same leaves each of these records old or new.
#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/work/change.h"
#include "lib/work/create.h"
#include "lib/work/get.h"
#include "lib/work/put.h"
#include "lib/work/remove.h"
#include "lib/work/rename.h"
#include "tests/support/recording_observer.h"
#include "tests/support/status_of.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

namespace fs = std::filesystem;

using support::RecordingObserver;
using support::statusOf;
using testing::ElementsAre;

const Address kHere{"settings", "a"};
const Address kOther{"settings", "b"};
const Address kSameName{"lsps", "a"};

std::string pathOf(const Address& address) {
    return "db/" + address.folder + "/" + address.name + ".dsc";
}

// As a write leaves it that dies between its two renames.
void moveAside(const Address& address) {
    fs::rename(pathOf(address), pathOf(address) + ".$o$");
}

bool isAside(const Address& address) {
    return fs::exists(pathOf(address) + ".$o$") && !fs::exists(pathOf(address));
}

std::size_t filesIn(const std::string& folder) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

class NamedTest : public testing::Test {
protected:
    NamedTest() {
        (void)createDatabase(database_, Slot::kLeastLn,
                             [this]() -> const SecretText& { return password_; });
        for (const Address& address : {kHere, kOther, kSameName}) {
            put(address, "old", "its label");
        }
    }

    void put(const Address& address, std::string_view body, const std::string& label = {}) {
        const std::array named{AddressText::of(address)};
        changeNamed(database_, named, [&] {
            SecretBytes bytes(body.begin(), body.end());
            putBody(database_, address, bytes, {.label = label, .plain = false});
        });
    }

    void remove(const std::vector<std::string>& texts) {
        const std::vector<AddressText> named = namesIn(texts);
        const Hold hold = database_.enter(accessToChange(named), Need::kRecords, named);
        for (const Removal& removal : removeRecords(resolveAll(texts))) {
            if (removal.failure) {
                throw Failure(*removal.failure);
            }
        }
    }

    std::string read(const std::string& text) {
        return readNamed(database_, {&text, 1}, [&] {
            const Record record = readWhole(database_, database_.resolveToRead(text));
            return record.text(attr::kLabel).value_or("no label") + ": " +
                   std::string(asText(record.body()));
        });
    }

    void label(const std::string& text, std::string_view label) {
        changeNamed(database_, namesIn({&text, 1}), [&] {
            Record record = readForChange(database_, text, /*getsSecret=*/false);
            record.setText(attr::kLabel, label);
            BodyOwners owners;
            record.write(owners);
        });
    }

    const support::TempWorkingDir folder_;
    const SecretText password_{"a password"};
    RecordingObserver observer_{"a password"};
    Database database_{{}, observer_};
};

// Made anew beside it, the record would lose its label, and the first write the old body.
TEST_F(NamedTest, APutOverARecordThatStandsAsideKeepsItsLabel) {
    moveAside(kHere);
    put(kHere, "new");
    EXPECT_EQ("its label: new", read("settings/a"));
    EXPECT_FALSE(fs::exists(pathOf(kHere) + ".$o$"));
    EXPECT_EQ(4U, filesIn("db/settings")) << "two records with a body each";
}

TEST_F(NamedTest, AChangeOfARecordThatStandsAsideIsMadeToIt) {
    for (const char* const text : {"settings/a", "./settings//a"}) {
        moveAside(kHere);
        label(text, text);
        EXPECT_EQ(std::string(text) + ": old", read("settings/a"));
    }
}

TEST_F(NamedTest, ARecordThatStandsAsideIsThereForWhoWantsANewOne) {
    moveAside(kHere);
    const std::array named{AddressText::of(kHere)};
    EXPECT_EQ(kInvalid, statusOf([&] {
                  changeNamed(database_, named, [&] {
                      RecordChange change;
                      change.presence = RecordChange::Presence::kNew;
                      (void)changeRecord(database_, kHere, change);
                  });
              }));
    EXPECT_EQ("its label: old", read("settings/a"));
}

TEST_F(NamedTest, ARecordThatStandsAsideIsRemovedForGood) {
    moveAside(kHere);
    remove({"settings/a"});
    EXPECT_EQ(2U, filesIn("db/settings"));
    const Hold hold = database_.enter(Access::kRead);
    EXPECT_FALSE(Record::isThere(kHere));
}

TEST_F(NamedTest, NothingIsMovedOntoARecordThatStandsAside) {
    moveAside(kHere);
    EXPECT_EQ(kInvalid, statusOf([&] {
                  changeNamed(database_, namesForRenaming("settings/b", kHere),
                              [&] { (void)renameRecord(database_, "settings/b", kHere); });
              }));
    EXPECT_EQ("its label: old", read("settings/a"));
    EXPECT_EQ("its label: old", read("settings/b"));
}

TEST_F(NamedTest, ARecordThatStandsAsideIsMoved) {
    moveAside(kHere);
    const Address to{"keys", "moved"};
    changeNamed(database_, namesForRenaming("settings/a", to),
                [&] { (void)renameRecord(database_, "settings/a", to); });
    EXPECT_EQ("its label: old", read("keys/moved"));
    EXPECT_EQ(2U, filesIn("db/settings"));
}

// As a write leaves it that dies after its second rename.
TEST_F(NamedTest, ASavedDescriptorBesideTheNewOneIsNotPutBack) {
    label("settings/a", "new");
    std::ofstream(pathOf(kHere) + ".$o$") << "00000004 00000001 an older one\n";
    put(kHere, "newer");
    EXPECT_EQ("new: newer", read("settings/a"));
}

TEST_F(NamedTest, OthersWaitForWhoLooksAtThem) {
    moveAside(kOther);
    put(kHere, "new");
    label("settings/a", "another");
    EXPECT_EQ("another: new", read("settings/a"));
    remove({"settings/a"});
    EXPECT_TRUE(isAside(kOther));
    EXPECT_EQ("its label: old", read("settings/b"));
    EXPECT_FALSE(isAside(kOther));
}

// The body of what stands aside is still its own.
TEST_F(NamedTest, ACopyOfADescriptorThatStandsAsideKeepsTheBody) {
    const Address copy{"settings", "copy"};
    fs::copy(pathOf(kHere), pathOf(copy));
    moveAside(copy);
    EXPECT_EQ(kMalformed, statusOf([&] { put(kHere, "new"); }));
    remove({"settings/a"});
    EXPECT_EQ("its label: old", read("settings/copy"));
}

TEST_F(NamedTest, ABareNameMeansWhatStandsAsideAsWell) {
    moveAside(kSameName);
    EXPECT_EQ(kInvalid, statusOf([&] { (void)read("a"); })) << "there are two of the name";
    EXPECT_EQ(kInvalid, statusOf([&] { label("a", "another"); }));
    remove({"settings/a"});
    moveAside(kSameName);
    EXPECT_EQ("its label: old", read("a"));
    moveAside(kSameName);
    label("a", "another");
    EXPECT_EQ("another: old", read("lsps/a"));
}

TEST_F(NamedTest, ABareNameInNoFolderIsMissing) {
    EXPECT_EQ(kMissing, statusOf([&] { (void)read("c"); }));
    EXPECT_EQ(kMissing, statusOf([&] { label("c", "x"); }));
    EXPECT_EQ(kMissing, statusOf([&] { (void)read("key"); })) << "that of the password";
}

// It is found by looking at all records.
TEST_F(NamedTest, ADigestNamesNothing) {
    EXPECT_TRUE(namesIn(std::vector<std::string>{"settings/a", "sha256:00"}).empty());
    EXPECT_EQ(2U, namesIn(std::vector<std::string>{"settings/a", "b"}).size());
    EXPECT_EQ(Access::kChange, accessToChange({}));
}

TEST_F(NamedTest, WhatConcernsTheWholeDatabaseIsRepairedFirst) {
    fs::copy("db", "new_db", fs::copy_options::recursive);
    for (const char* const name : {"key", "kdf", "kdf-copy"}) {
        SCOPED_TRACE(name);
        moveAside({".", name});
        put(kHere, "new");
        EXPECT_FALSE(isAside({".", name}));
        EXPECT_EQ("its label: new", read("settings/a"));
    }
    EXPECT_FALSE(fs::exists("new_db"));
    fs::remove("db/kdf-copy.dsc");
    fs::rename("db", "old_db");
    EXPECT_EQ("its label: new", read("settings/a"));
    fs::rename("db", "old_db");
    put(kHere, "newer");
    EXPECT_EQ("its label: newer", read("settings/a"));
    EXPECT_TRUE(fs::exists("db/kdf-copy.dsc"));
}

TEST_F(NamedTest, ALinkInPlaceOfAFolderLeadsNowhere) {
    fs::create_directory("outside");
    fs::rename(pathOf(kHere), "outside/a.dsc.$o$");
    fs::create_directory_symlink("../outside", "db/linked");
    EXPECT_EQ(kMissing, statusOf([&] { label("linked/a", "x"); }));
    EXPECT_EQ(kMissing, statusOf([&] { (void)read("linked/a"); }));
    EXPECT_TRUE(fs::exists("outside/a.dsc.$o$"));
}

// Nobody reads it as a record, and its body may have become another's since.
TEST_F(NamedTest, WhatADeathLeavesOfAnotherRecordIsNobodys) {
    const Address gone{"settings", "gone"};
    for (const char* const marker : {".$n$", ".$d$"}) {
        fs::copy(pathOf(kHere), pathOf(gone) + marker);
        put(kHere, "new");
        fs::remove(pathOf(gone) + marker);
        std::ofstream(pathOf(gone) + marker) << "half of a descriptor";
        label("settings/a", marker);
        EXPECT_EQ(std::string(marker) + ": new", read("settings/a"));
    }
}

// Who knows the names of bodies is asked, and nothing is read.
class KnownNames final : public BodyNames {
public:
    std::optional<Answer> ask(const std::string& folder, const std::string& body) override {
        asked.push_back(folder + "/" + body);
        return answer;
    }

    std::optional<Answer> answer;
    std::vector<std::string> asked;
};

TEST_F(NamedTest, WhoseABodyIsIsAskedOfWhoKnows) {
    const Hold hold = database_.enter(Access::kChange);
    KnownNames names;
    BodyOwners owners(&names);
    names.answer = BodyNames::Answer{{"a.dsc", "a.dsc.$o$"}, {}};
    EXPECT_EQ(std::nullopt, owners.doubtAbout(kHere));
    EXPECT_EQ(1U, names.asked.size());
    names.answer->namedBy.emplace_back("a.dsc2");
    EXPECT_EQ("is also named by a.dsc2", owners.doubtAbout(kHere));
    names.answer = BodyNames::Answer{{"a.dsc"}, {"a.dsc", "other.dsc"}};
    EXPECT_EQ("may be that of other.dsc, which cannot be read", owners.doubtAbout(kHere));
}

TEST_F(NamedTest, WhereNobodyKnowsTheFolderIsRead) {
    fs::copy(pathOf(kHere), "db/settings/copy.dsc.$o$");
    const Hold hold = database_.enter(Access::kChangeNamed);
    KnownNames names;
    BodyOwners owners(&names);
    EXPECT_EQ("is also named by copy.dsc.$o$", owners.doubtAbout(kHere));
}

}  // namespace
}  // namespace fstore
