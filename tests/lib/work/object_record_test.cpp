#include "lib/work/object_record.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "lib/database/check.h"
#include "lib/database/database.h"
#include "lib/records/record_info.h"
#include "tests/lib/pki/pki_files.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

struct Sample {
    Kind kind;
    const char* file;
    bool encrypt;
};

void PrintTo(const Sample& sample, std::ostream* out) {
    *out << sample.file << (sample.encrypt ? ", encrypted" : "");
}

PkiObject objectOf(Kind kind, const std::string& file) {
    return readPkiObject(kind, PkiFiles::get().bytes(file));
}

std::span<const unsigned char> asBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// In an entered database with a password.
class ObjectRecordTest : public testing::Test {
protected:
    static Record make(const Sample& sample) {
        const PkiObject object = objectOf(sample.kind, sample.file);
        Record record({"settings", "object"});
        describe(record, object, sample.encrypt);
        record.setBody(object.der, sample.encrypt || sample.kind == Kind::kKey);
        return record;
    }

    Database& withPassword() {
        database_.changePassword(
            makeKey(SecretText("one"), UnlockSlot::kLeastLn, database_.idForSlots()),
            /*keepOld=*/false);
        return database_;
    }

    const PkiFiles& files_ = PkiFiles::get();  // outlive the folder of one test
    const support::TempWorkingDir folder_;
    support::RecordingObserver observer_{"one"};
    Database database_{{}, observer_};
    const Hold hold_ = database_.enter(Access::kChange, Need::kDatabase);
};

class EachObjectTest : public ObjectRecordTest, public testing::WithParamInterface<Sample> {};

INSTANTIATE_TEST_SUITE_P(Samples, EachObjectTest,
                         testing::Values(Sample{Kind::kCertificate, "root.der", false},
                                         Sample{Kind::kCertificate, "leaf.der", false},
                                         Sample{Kind::kCertificate, "leaf.der", true},
                                         Sample{Kind::kCertificate, "nameless.der", false},
                                         Sample{Kind::kCrl, "crl.der", false},
                                         Sample{Kind::kCrl, "crl.der", true},
                                         Sample{Kind::kRequest, "request.der", false},
                                         Sample{Kind::kRequest, "request.der", true},
                                         Sample{Kind::kKey, "rsa.key.der", false},
                                         Sample{Kind::kKey, "rsa.key.der", true},
                                         Sample{Kind::kKey, "explicit.key.der", false},
                                         Sample{Kind::kKey, "ed25519.key.der", false}));

// Another value of the same type, as an editor of the descriptor would write it.
Record withAltered(const Record& record, unsigned int index) {
    Record altered(record.address());
    for (unsigned int i = 0; i < record.count(); ++i) {
        std::vector<unsigned char> bytes(record.bytes(i).begin(), record.bytes(i).end());
        const bool isTime = record.id(i) == attr::kNotBefore || record.id(i) == attr::kNotAfter;
        if (i == index) {
            // The third digit of the year: 2027 becomes 2037.
            bytes[isTime ? 2 : 0] = static_cast<unsigned char>(bytes[isTime ? 2 : 0] ^ 1);
        }
        if (const auto number = asNumber(record.type(i), bytes)) {
            altered.setNumber(record.id(i), *number);
        } else if (record.type(i) == kTypeText) {
            altered.addText(record.id(i), asText(bytes));
        } else {
            altered.addBinary(record.id(i), bytes, record.isEncrypted(i));
        }
    }
    altered.setBody(record.body(), record.isBodyEncrypted());
    return altered;
}

TEST_P(EachObjectTest, AsImportedContradictsNothing) {
    EXPECT_THAT(contradictionsIn(make(GetParam())), IsEmpty());
}

TEST_P(EachObjectTest, EachAlteredAttributeIsNamed) {
    const Record record = make(GetParam());
    unsigned int tried = 0;
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) == attr::kSchema) {
            continue;  // says how to read the others
        }
        const std::string name(attributeName(record.id(i)));
        SCOPED_TRACE(name);
        const Record altered = withAltered(record, i);
        EXPECT_THAT(contradictionsIn(altered), ElementsAre(HasSubstr(name)));
        EXPECT_THROW(checkObject(altered), Failure);
        ++tried;
    }
    EXPECT_GE(tried, 3u);
}

TEST_P(EachObjectTest, EachMissingAttributeIsNoDamage) {
    for (unsigned int id = attr::kSchema; id < attr::kImported; ++id) {
        Record record = make(GetParam());
        (void)record.removeAll(id);
        EXPECT_THAT(contradictionsIn(record), IsEmpty()) << attributeName(id);
    }
}

TEST_P(EachObjectTest, EachAttributeOfAnotherTypeIsNamed) {
    const Record record = make(GetParam());
    for (const unsigned int id : {attr::kKind, attr::kSerial, attr::kNotAfter, attr::kKeySha256}) {
        Record other = record.copyTo(record.address());
        if (other.removeAll(id) != 0) {
            other.setNumber(attr::kKind, static_cast<unsigned int>(GetParam().kind));
            other.setString(id, "of another type");
            EXPECT_THAT(contradictionsIn(other), SizeIs(1)) << attributeName(id);
        }
    }
}

TEST_P(EachObjectTest, BodyThatIsNoObject) {
    for (const char* const text : {"no DER", "0", "\x30\x80", "\x30\x03\x02\x01"}) {
        Record record = make(GetParam());
        record.setBody(asBytes(text), record.isBodyEncrypted());
        EXPECT_THAT(contradictionsIn(record),
                    ElementsAre(HasSubstr(std::string("has the kind ") + nameOf(GetParam().kind))));
    }
}

TEST_P(EachObjectTest, EachOtherKindIsNamed) {
    for (const unsigned int kind : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 0xFFFFFFFFu}) {
        Record record = make(GetParam());
        record.setNumber(attr::kKind, kind);
        const bool isTrue = kind == static_cast<unsigned int>(GetParam().kind);
        EXPECT_THAT(contradictionsIn(record), SizeIs(isTrue ? 0 : 1)) << kind;
    }
}

TEST_P(EachObjectTest, WhatUsersNoteIsTheirs) {
    Record record = make(GetParam());
    record.setText(attr::kLabel, "any text");
    record.setText(attr::kImported, "2001-01-01T00:00:00Z");
    record.setText(attr::kFirstOfUser, "CN=mine");
    record.setBinary(attr::kFirstOfUser + 1, asBytes("secret"), /*encrypted=*/true);
    record.setNumber(attr::kSchema, 2);
    EXPECT_THAT(contradictionsIn(record), IsEmpty());
}

TEST_F(ObjectRecordTest, BodyOfAnotherObjectOfItsKind) {
    const std::pair<Sample, const char*> rows[] = {
        {{Kind::kCertificate, "leaf.der", false}, "deep.der"},
        {{Kind::kCertificate, "leaf.der", true}, "deep.der"},
        {{Kind::kKey, "p256.key.der", false}, "p384.key.der"},
        {{Kind::kKey, "p256.key.der", true}, "p384.key.der"}};
    for (const auto& [sample, other] : rows) {
        Record record = make(sample);
        record.setBody(objectOf(sample.kind, other).der, record.isBodyEncrypted());
        EXPECT_THAT(contradictionsIn(record), Contains(HasSubstr("key-sha256"))) << other;
    }
}

TEST_F(ObjectRecordTest, SaysWhatStandsThereAndWhatTheObjectSays) {
    Record record = make({Kind::kCertificate, "root.der", false});
    const std::string notAfter = *record.text(attr::kNotAfter);
    record.setText(attr::kNotAfter, "2101-01-01T00:00:00Z");
    EXPECT_THAT(contradictionsIn(record),
                ElementsAre("has the not-after 2101-01-01T00:00:00Z, but the certificate in its "
                            "body says " +
                            notAfter + "; `fstore import --replace` of the object sets it right"));
    record.setNumber(attr::kKind, 3);
    EXPECT_THAT(contradictionsIn(record),
                ElementsAre("has the kind 3 (key), but its body is a certificate; "
                            "`fstore import --replace` of the object sets it right"));
}

TEST_F(ObjectRecordTest, SaysWhatAnObjectDoesNotHave) {
    Record record = make({Kind::kCertificate, "nameless.der", false});
    record.setText(attr::kSubject, "CN=somebody");
    EXPECT_THAT(contradictionsIn(record),
                ElementsAre(HasSubstr("has the subject CN=somebody, but the certificate in its "
                                      "body has none")));
}

TEST_F(ObjectRecordTest, NothingThatIsKeptEncryptedIsInAMessage) {
    Record record = make({Kind::kCertificate, "root.der", true});
    (void)record.removeAll(attr::kSubject);
    record.setText(attr::kSubject, "CN=shown");
    EXPECT_THAT(contradictionsIn(record),
                ElementsAre(AllOf(HasSubstr("another subject"), Not(HasSubstr("Example")),
                                  HasSubstr("--replace --encrypt"))));
}

TEST_F(ObjectRecordTest, OneNameOfManyTakenAwayIsNamed) {
    Record record = make({Kind::kCertificate, "leaf.der", false});
    const auto names = record.texts(attr::kAltName);
    (void)record.removeAll(attr::kAltName);
    for (std::size_t i = 1; i < names.size(); ++i) {
        record.addText(attr::kAltName, names[i]);
    }
    EXPECT_THAT(contradictionsIn(record), ElementsAre(HasSubstr("alt-name")));
}

TEST_F(ObjectRecordTest, SecondValueIsNamed) {
    Record record = make({Kind::kCertificate, "leaf.der", false});
    record.addText(attr::kNotAfter, "2101-01-01T00:00:00Z");
    EXPECT_THAT(contradictionsIn(record), ElementsAre(HasSubstr("not-after")));
}

TEST_F(ObjectRecordTest, SameTimeInAnotherFormIsTheSame) {
    Record record = make({Kind::kCertificate, "leaf.der", false});
    std::string notAfter = *record.text(attr::kNotAfter);
    notAfter.replace(notAfter.size() - 1, 1, "+00:00");
    record.setText(attr::kNotAfter, notAfter);
    EXPECT_THAT(contradictionsIn(record), IsEmpty());
}

TEST_F(ObjectRecordTest, IdentifierOfTheAlgorithmIsAsGoodAsItsName) {
    Record record = make({Kind::kCertificate, "leaf.der", false});
    record.setText(attr::kKeyAlgorithm, "1.2.840.10045.2.1");
    EXPECT_THAT(contradictionsIn(record), IsEmpty());
    record.setText(attr::kKeyAlgorithm, "1.2.840.113549.1.1.1");
    EXPECT_THAT(contradictionsIn(record), ElementsAre(HasSubstr("key-algorithm")));
}

// PKCS#8 of version 0 with the algorithm 1.2.3.4 and a key of one byte.
TEST_F(ObjectRecordTest, KeyThatThisOpensslDoesNotKnowIsNoDamage) {
    const std::string der("\x30\x0F\x02\x01\x00\x30\x07\x06\x03\x2A\x03\x04\x05\x00\x04\x01\x07",
                          17);
    Record record({"keys", "new"});
    record.setNumber(attr::kKind, static_cast<unsigned int>(Kind::kKey));
    record.setText(attr::kKeyAlgorithm, "of the next century");
    record.setBody(asBytes(der), true);
    EXPECT_THAT(contradictionsIn(record), IsEmpty());
}

TEST_F(ObjectRecordTest, OtherRecordsAreTheUsers) {
    Record raw({"settings", "raw"});
    raw.setNumber(attr::kKind, static_cast<unsigned int>(Kind::kRaw));
    raw.setText(attr::kNotAfter, "2101-01-01T00:00:00Z");
    raw.setText(attr::kSubject, "what I call it");
    raw.setBody(PkiFiles::get().bytes("leaf.der"), false);
    EXPECT_THAT(contradictionsIn(raw), IsEmpty()) << "a certificate as mere bytes";
    raw.setBinary(attr::kSerial, asBytes("my own"));
    EXPECT_THAT(contradictionsIn(raw), IsEmpty());
    (void)raw.removeAll(attr::kKind);
    EXPECT_THAT(contradictionsIn(raw), IsEmpty());
    Record empty({"certificates/remote", "none"});
    empty.setNumber(attr::kKind, static_cast<unsigned int>(Kind::kCertificate));
    EXPECT_THAT(contradictionsIn(empty), IsEmpty());
}

class DeepCheckTest : public ObjectRecordTest {
protected:
    std::vector<Finding> deep() {
        return checkDatabase(database_, {.deep = true, .examiner = &objectExaminer()}).findings;
    }

    static Record stored(const char* folder, const Sample& sample) {
        Record record = make(sample).copyTo({folder, sample.encrypt ? "encrypted" : "plain"});
        record.write();
        return record;
    }
};

TEST_F(DeepCheckTest, FindsWhatWasAlteredOnTheDisk) {
    withPassword();
    const std::pair<const char*, Sample> samples[] = {
        {"certificates/remote", {Kind::kCertificate, "leaf.der", false}},
        {"certificates/remote", {Kind::kCertificate, "leaf.der", true}},
        {"crls", {Kind::kCrl, "crl.der", false}},
        {"crls", {Kind::kCrl, "crl.der", true}},
        {"crm", {Kind::kRequest, "request.der", false}},
        {"crm", {Kind::kRequest, "request.der", true}},
        {"keys", {Kind::kKey, "rsa.key.der", false}},
        {"keys", {Kind::kKey, "rsa.key.der", true}}};
    BodyOwners owners;
    for (const auto& [folder, sample] : samples) {
        Record sound = stored(folder, sample);
        EXPECT_THAT(deep(), IsEmpty());
        for (unsigned int i = 0; i < sound.count(); ++i) {
            if (sound.id(i) == attr::kSchema || sound.id(i) == attr::kSha256) {
                continue;  // the digest is compared for every record
            }
            withAltered(sound, i).write(owners);
            const auto findings = deep();
            ASSERT_THAT(findings, SizeIs(1));
            EXPECT_EQ(Finding::Kind::kContradicted, findings[0].kind);
            EXPECT_TRUE(findings[0].isDamage());
            EXPECT_EQ(descriptorPath(sound.address()), findings[0].path);
            EXPECT_THAT(findings[0].message, HasSubstr(std::string(attributeName(sound.id(i)))));
        }
        sound.write(owners);
    }
    EXPECT_THAT(deep(), IsEmpty());
}

TEST_F(DeepCheckTest, LooksAtNothingWithoutAnExaminer) {
    withPassword();
    stored("crm", {Kind::kRequest, "request.der", false});
    BodyOwners owners;
    Record record = Record::read({"crm", "plain"});
    record.setText(attr::kSubject, "CN=other");
    record.write(owners);
    EXPECT_THAT(deep(), SizeIs(1));
    EXPECT_TRUE(checkDatabase(database_, {.deep = true}).isSound());
}

}  // namespace
}  // namespace fstore
