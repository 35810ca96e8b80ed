// Where each object of an import goes, what becomes of those that are there, and what is refused.
#include "lib/work/import.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/pki/object.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "tests/lib/pki/made_certificates.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Outcome = Importer::Outcome;

PkiObject keyObject(const TestKey& key) {
    return readPkiObject(Kind::kKey, pkcs8Of(key));
}

PkiObject certificateOf(const TestKey& key, const std::string& name, long serial = 1) {
    return readPkiObject(
        Kind::kCertificate,
        makeCertificate(
            {.subject = name, .issuer = "root", .key = key, .issuerKey = key, .serial = serial}));
}

// In a database with a password, entered for changes.
class ImportTest : public testing::Test {
protected:
    ImportTest() {
        database_.changePassword(
            makeKey(SecretText("one"), UnlockSlot::kLeastLn, database_.idForSlots()),
            /*keepOld=*/false);
    }

    std::vector<Importer::Result> import(const ImportRules& rules,
                                         const std::vector<const PkiObject*>& objects,
                                         const std::string& fileLabel = {}) {
        requireName(rules);
        Importer importer(database_, rules, objects);
        std::vector<Importer::Result> results;
        for (const PkiObject* const object : objects) {
            results.push_back(importer.import(*object, fileLabel));
        }
        return results;
    }
    Importer::Result importOne(const PkiObject& object, const ImportRules& rules = {},
                               const std::string& fileLabel = {}) {
        return import(rules, {&object}, fileLabel).front();
    }

    struct Refusal {
        Status status;
        std::string message;
    };
    Refusal refusalOf(const ImportRules& rules, const std::vector<const PkiObject*>& objects) {
        try {
            (void)import(rules, objects);
        } catch (const Failure& failure) {
            return {failure.status(), std::string(failure.withoutAdvice())};
        }
        return {kOk, {}};
    }

    static std::vector<std::string> addresses() {
        std::vector<std::string> all;
        for (const Address& address : allRecords(nullptr)) {
            all.push_back(address.print());
        }
        return all;
    }

    const TestKey one_ = makeKey(), two_ = makeKey();
    const PkiObject key_ = keyObject(one_), otherKey_ = keyObject(two_);
    const PkiObject certificate_ = certificateOf(one_, "server");
    const PkiObject otherCertificate_ = certificateOf(two_, "other");
    const PkiObject crl_ = readPkiObject(Kind::kCrl, makeCrl("root", one_, {1, 2}));

    const support::TempWorkingDir folder_;
    support::RecordingObserver observer_{"one"};
    BodyOwners owners_;
    Database database_{{}, observer_};
    const Hold hold_ = database_.enter(Access::kChange, Need::kDatabase);
};

TEST_F(ImportTest, EachKindHasItsFolder) {
    const auto results = import({}, {&key_, &certificate_, &otherCertificate_, &crl_});
    const char* const folders[] = {"keys", "certificates/local", "certificates/remote", "crls"};
    for (std::size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(folders[i], results[i].record.address.folder);
        EXPECT_EQ(Outcome::kAdded, results[i].outcome);
    }
}

TEST_F(ImportTest, KeysAreEncryptedAndOthersWhenThatIsAskedFor) {
    for (const auto& [object, encrypt, encrypted] :
         std::vector<std::tuple<const PkiObject*, bool, bool>>{
             {&key_, false, true}, {&certificate_, false, false}, {&crl_, true, true}}) {
        ImportRules rules;
        rules.encrypt = encrypt;
        EXPECT_EQ(encrypted, wantsSecrecy(*object, rules));
        const Record record = Record::read(importOne(*object, rules).record.address);
        EXPECT_EQ(encrypted, record.isBodyEncrypted()) << record.address().print();
    }
}

TEST_F(ImportTest, TheNameComesFromTheTitleTheLabelOrTheUser) {
    const std::string digits = toHex(certificate_.sha256).substr(0, 8);
    const struct {
        const char* name;
        ImportRules rules;
        std::string fileLabel, expected, label;
    } rows[] = {
        {"the title", {}, "", "server-" + digits, ""},
        {"the file's label", {}, "from file", "from-file-" + digits, "from file"},
        {"the given label", {.label = "mine"}, "from file", "mine-" + digits, "mine"},
        {"the given name", {.name = "chosen"}, "", "chosen", ""},
        {"nothing that it is encrypted for",
         {.encrypt = true},
         "from file",
         "certificate-" + digits,
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Importer::Result result = importOne(certificate_, row.rules, row.fileLabel);
        EXPECT_EQ(row.expected, result.record.address.name);
        EXPECT_EQ(row.label, result.record.label);
        Record::read(result.record.address).remove(owners_);
    }
}

TEST_F(ImportTest, OneNameIsForAKeyAndWhatBelongsToIt) {
    (void)import({.name = "web"}, {&key_, &certificate_, &otherCertificate_});
    EXPECT_THAT(addresses(), ElementsAre("certificates/local/web",
                                         StartsWith("certificates/remote/other-"), "keys/web"));
}

TEST_F(ImportTest, TheSameObjectIsPresentAndNothingIsWritten) {
    const Importer::Result added = importOne(certificate_, {.label = "first"});
    const auto before = support::tree(".");
    const Importer::Result again = importOne(certificate_, {.label = "second"});
    EXPECT_EQ(Outcome::kPresent, again.outcome);
    EXPECT_EQ(added.record.address, again.record.address);
    EXPECT_EQ("first", again.record.label);
    EXPECT_EQ(before, support::tree("."));
}

TEST_F(ImportTest, ACertificateMovesToItsKey) {
    const Importer::Result alone = importOne(certificate_, {.label = "kept"});
    EXPECT_EQ("certificates/remote", alone.record.address.folder);
    const auto results = import({}, {&key_, &certificate_});
    EXPECT_EQ(Outcome::kMoved, results[1].outcome);
    EXPECT_EQ("certificates/local", results[1].record.address.folder);
    EXPECT_EQ(alone.record.address.name, results[1].record.address.name);
    EXPECT_EQ("kept", results[1].record.label);
    EXPECT_FALSE(Record::isThere(alone.record.address));
}

TEST_F(ImportTest, ACertificateStaysWhereAFolderIsGivenOrItsPlaceIsTaken) {
    const Address alone = importOne(certificate_, {.name = "web"}).record.address;
    EXPECT_EQ(Outcome::kPresent,
              import({.folder = "certificates/remote"}, {&key_, &certificate_})[1].outcome);
    Record taken(Address{"certificates/local", "web"});
    taken.setNumber(attr::kSchema, 1);
    taken.write();
    EXPECT_EQ(Outcome::kPresent, importOne(certificate_).outcome);
    EXPECT_TRUE(Record::isThere(alone));
}

TEST_F(ImportTest, ReplacingKeepsWhatTheUserHasNoted) {
    const Address place = importOne(certificate_, {.name = "web"}).record.address;
    Record noted = Record::read(place);
    noted.setText(0x8001, "note");
    noted.setText(attr::kLabel, "label");
    noted.write(owners_);
    const PkiObject renewed = certificateOf(one_, "server", 2);
    const Importer::Result replaced = importOne(renewed, {.name = "web", .replace = true});
    EXPECT_EQ(Outcome::kReplaced, replaced.outcome);
    const Record now = Record::read(place);
    EXPECT_EQ("note", now.text(0x8001));
    EXPECT_EQ("label", now.text(attr::kLabel));
    EXPECT_EQ(renewed.sha256, now.binary(attr::kSha256));
    EXPECT_EQ(Outcome::kReplaced, importOne(renewed, {.replace = true}).outcome);
}

TEST_F(ImportTest, ADamagedRecordIsReplacedAndHidesNothing) {
    const Address place = importOne(key_, {.name = "k"}).record.address;
    support::writeFile(descriptorPath(place), "not a descriptor\n");
    EXPECT_EQ(Outcome::kReplaced, importOne(key_, {.name = "k", .replace = true}).outcome);
    Record record = Record::read(place);
    record.decrypt();
    EXPECT_TRUE(std::ranges::equal(key_.der, record.body()));
}

TEST_F(ImportTest, ARecordWithoutItsBodyIsRecognisedAndRestored) {
    const Address place = importOne(certificate_, {.name = "web"}).record.address;
    Record noted = Record::read(place);
    noted.setText(0x8001, "note");
    noted.write(owners_);
    std::filesystem::remove(RecordHead::read(place).bodyPath());
    for (const ImportRules& rules : {ImportRules{}, ImportRules{.name = "web"}}) {
        const Refusal refusal = refusalOf(rules, {&certificate_});
        EXPECT_EQ(kInvalid, refusal.status);
        EXPECT_THAT(refusal.message, StartsWith("certificates/remote/web is the record of this "
                                                "certificate, but its body is missing"));
    }
    const Importer::Result restored = importOne(certificate_, {.replace = true});
    EXPECT_EQ(Outcome::kReplaced, restored.outcome);
    EXPECT_EQ(place, restored.record.address);
    const Record now = Record::read(place);
    EXPECT_EQ("note", now.text(0x8001));
    EXPECT_TRUE(std::ranges::equal(certificate_.der, now.body()));
    EXPECT_EQ(Outcome::kPresent, importOne(certificate_).outcome);
}

TEST_F(ImportTest, ADamagedCopyOfWhatIsThereIsAWarning) {
    const Address copy = importOne(certificate_, {.name = "web"}).record.address;
    Record::read(copy).copyTo({"certificates", "whole"}).write();
    std::filesystem::remove(RecordHead::read(copy).bodyPath());
    observer_.heard.clear();
    const Importer::Result present = importOne(certificate_);
    EXPECT_EQ(Outcome::kPresent, present.outcome);
    EXPECT_EQ("certificates/whole", present.record.address.print());
    EXPECT_THAT(observer_.heard, ElementsAre(HasSubstr("remote/web is another record of this")));
    EXPECT_EQ(copy, importOne(certificate_, {.replace = true}).record.address);
}

TEST_F(ImportTest, WhatWasEncryptedIsRestoredEncrypted) {
    const Address place = importOne(certificate_, {.name = "web", .encrypt = true}).record.address;
    std::filesystem::remove(RecordHead::read(place).bodyPath());
    EXPECT_EQ(Outcome::kReplaced,
              importOne(certificate_, {.name = "web", .replace = true}).outcome);
    const RecordHead head = RecordHead::read(place);
    EXPECT_TRUE(head.isBodyEncrypted());
    EXPECT_TRUE(hidesItsDescription(head));
}

// As an index does that somebody has written to.
class Forgetful : public Lookup {
public:
    bool offer(std::size_t) override { return false; }
    Addresses withDigest(std::string_view) override { return std::vector<Address>(); }
    Addresses withObject(Kind, std::string_view) override { return std::vector<Address>(); }
    Addresses keysWith(std::string_view) override { return std::vector<Address>(); }
    std::optional<std::set<std::string>> keys() override { return std::nullopt; }
    std::optional<AddressList> matching(const Filter&, const std::string&, bool) override {
        return std::nullopt;
    }
    Addresses unsure(bool) override { return std::vector<Address>(); }
    std::optional<std::vector<std::string>> folders() override { return std::nullopt; }
    void willChange(const Address&) noexcept override {}
    void changed(const Address&) noexcept override {}
    std::optional<Answer> ask(const std::string&, const std::string&) override {
        return std::nullopt;
    }
};

TEST_F(ImportTest, ARecordThatAnIndexLacksIsRecognisedByItsName) {
    const Address place = importOne(certificate_).record.address;
    Forgetful index;
    const Lookup::Use use(index);
    const Importer::Result again = importOne(certificate_);
    EXPECT_EQ(Outcome::kPresent, again.outcome);
    EXPECT_EQ(place, again.record.address);
}

TEST_F(ImportTest, WhatIsAtTheNameIsNotCalledAnotherObjectWhereNobodyKnows) {
    const Address place = importOne(certificate_, {.name = "web"}).record.address;
    support::writeFile(descriptorPath(place), "not a descriptor\n");
    EXPECT_THAT(refusalOf({.name = "web"}, {&certificate_}).message,
                HasSubstr("web already exists and cannot be read, so it may be this object"));
}

TEST_F(ImportTest, Refuses) {
    (void)importOne(certificate_, {.name = "taken"});
    const struct {
        const char* name;
        ImportRules rules;
        std::vector<const PkiObject*> objects;
        Status status;
        const char* message;
    } rows[] = {
        {"a name with a folder", {.name = "a/b"}, {&key_}, kInvalid, "no folder in it"},
        {"a name that cannot be one", {.name = ""}, {&key_}, kInvalid, "has no name"},
        {"one name for two objects without a key",
         {.name = "n"},
         {&otherCertificate_, &crl_},
         kInvalid,
         "there are 2 objects"},
        {"one name for two keys",
         {.name = "n"},
         {&key_, &otherKey_, &crl_},
         kInvalid,
         "there are 3 objects"},
        {"a name that another object has",
         {.name = "taken"},
         {&otherCertificate_},
         kInvalid,
         "already exists and is another object"},
        {"a folder that is not there",
         {.folder = "nowhere"},
         {&otherCertificate_},
         kMissing,
         "there is no folder nowhere"},
    };
    const auto before = addresses();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Refusal refusal = refusalOf(row.rules, row.objects);
        EXPECT_EQ(row.status, refusal.status);
        EXPECT_THAT(refusal.message, HasSubstr(row.message));
        EXPECT_THAT(refusal.message, testing::Not(HasSubstr("--")));
        EXPECT_EQ(before, addresses());
    }
}

TEST_F(ImportTest, WhatCannotBeLookedAtIsAWarning) {
    (void)importOne(crl_);
    observer_.heard.clear();
    std::filesystem::remove_all("db/crm");
    std::filesystem::create_directory("db/crm");
    support::writeFile("db/crm/huge.dsc", std::string(kMostDescriptor + 1, 'x'));
    (void)importOne(certificate_);
    EXPECT_THAT(observer_.heard,
                ElementsAre(testing::AllOf(StartsWith("warning: "), HasSubstr("huge.dsc"))));
}

TEST(ImportRankTest, KeysComeFirstAndWhatIsNoObjectLast) {
    std::vector<int> ranks;
    for (const Kind kind : {Kind::kKey, Kind::kCertificate, Kind::kCrl, Kind::kRequest}) {
        PkiObject object;
        object.kind = kind;
        ranks.push_back(importRank({0, {}, std::move(object)}));
    }
    EXPECT_TRUE(std::ranges::is_sorted(ranks));
    EXPECT_EQ(ranks.end(), std::ranges::adjacent_find(ranks));
    EXPECT_LT(ranks.back(), importRank({0, {}, Failure(kMalformed, "none")}));
}

// Keys need a password; what is plain does not, and is not asked for one.
TEST(ImportSecrecyTest, ADatabaseWithoutAPasswordTakesNoKey) {
    const support::TempWorkingDir folder;
    support::RecordingObserver observer{"one"};
    Database database{{}, observer};
    (void)database.enter(Access::kChange, Need::kDatabase);
    const PkiObject key = keyObject(makeKey());
    const PkiObject crl = readPkiObject(Kind::kCrl, makeCrl("root", makeKey(), {1}));
    try {
        (void)enterForImport(database, {}, {&crl, &key});
        FAIL() << "a key is taken";
    } catch (const Failure& failure) {
        EXPECT_EQ(kNotOpen, failure.status());
    }
    const Hold hold = enterForImport(database, {}, {&crl});
    EXPECT_EQ(Outcome::kAdded, Importer(database, {}, {&crl}).import(crl, {}).outcome);
}

TEST(ImportOutcomeTest, HasAWordForEach) {
    EXPECT_STREQ("added", nameOf(Outcome::kAdded));
    EXPECT_STREQ("present", nameOf(Outcome::kPresent));
    EXPECT_STREQ("moved", nameOf(Outcome::kMoved));
    EXPECT_STREQ("replaced", nameOf(Outcome::kReplaced));
}

}  // namespace
}  // namespace fstore
