#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/pki/object.h"
#include "tests/lib/pki/pki_files.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const PkiFiles& files() {
    return PkiFiles::get();
}

PkiObject read(Kind kind, const std::string& name) {
    return readPkiObject(kind, files().bytes(name));
}

std::vector<std::string> textsOf(const PkiObject& object, unsigned int id) {
    std::vector<std::string> texts;
    for (const PkiAttribute& attribute : object.attributes) {
        if (attribute.id == id) {
            texts.push_back(std::get<std::string>(attribute.value));
        }
    }
    return texts;
}

std::string textOf(const PkiObject& object, unsigned int id) {
    const auto texts = textsOf(object, id);
    return texts.size() == 1 ? texts[0] : std::to_string(texts.size()) + " texts";
}

std::optional<std::uint32_t> numberOf(const PkiObject& object, unsigned int id) {
    for (const PkiAttribute& attribute : object.attributes) {
        if (attribute.id == id) {
            return std::get<std::uint32_t>(attribute.value);
        }
    }
    return std::nullopt;
}

std::string hexOf(const PkiObject& object, unsigned int id) {
    for (const PkiAttribute& attribute : object.attributes) {
        if (attribute.id == id) {
            return toHex(std::get<std::vector<unsigned char>>(attribute.value));
        }
    }
    return "none";
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

TEST(PkiObjectTest, CertificateTellsWhatOpensslSays) {
    const struct {
        const char* name;
        const char* key;
        std::uint32_t bits;
    } rows[] = {{"root", "rsa", attr::kIsCa | attr::kIsSelfIssued},
                {"leaf", "p256", 0},
                {"ended", "ed25519", 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto said = files().said(row.name);
        const PkiObject object = read(Kind::kCertificate, std::string(row.name) + ".der");
        EXPECT_EQ(said["subject"], textOf(object, attr::kSubject));
        EXPECT_EQ(said["issuer"], textOf(object, attr::kIssuer));
        EXPECT_EQ(said["serial"], hexOf(object, attr::kSerial));
        EXPECT_EQ(said["notBefore"], textOf(object, attr::kNotBefore));
        EXPECT_EQ(said["notAfter"], textOf(object, attr::kNotAfter));
        EXPECT_EQ(said["sha256 Fingerprint"], hexOf(object, attr::kSha256));
        EXPECT_EQ(said["sha256 Fingerprint"], toHex(object.sha256));
        EXPECT_EQ(said["X509v3 Subject Key Identifier"], hexOf(object, attr::kSubjectKeyId));
        EXPECT_EQ(firstLine(files().text(std::string(row.key) + ".key.spki")),
                  hexOf(object, attr::kKeySha256));
        EXPECT_EQ(row.bits, numberOf(object, attr::kBits));
        EXPECT_EQ(1u, numberOf(object, attr::kSchema));
        EXPECT_EQ(1u, numberOf(object, attr::kKind));
    }
}

TEST(PkiObjectTest, CertificateNamesItsIssuer) {
    const PkiObject root = read(Kind::kCertificate, "root.der");
    const PkiObject leaf = read(Kind::kCertificate, "leaf.der");
    EXPECT_EQ(hexOf(root, attr::kSubjectKeyId), hexOf(leaf, attr::kAuthorityKeyId));
    EXPECT_EQ("none", hexOf(root, attr::kAuthorityKeyId));
    EXPECT_EQ(textOf(root, attr::kSubject), textOf(leaf, attr::kIssuer));
}

TEST(PkiObjectTest, SerialIsItsBytesWithoutLeadingZeros) {
    EXPECT_EQ("ff10", hexOf(read(Kind::kCertificate, "root.der"), attr::kSerial));
    EXPECT_EQ("00", hexOf(read(Kind::kCertificate, "nameless.der"), attr::kSerial));
}

TEST(PkiObjectTest, SubjectKeepsLettersAndEscapesTheRest) {
    EXPECT_EQ("CN=\\ www,L=Kln 東京+OU=first,O=M/#\\\\\\;ller\\, \\\"GmbH\\\",C=DE",
              textOf(read(Kind::kCertificate, "leaf.der"), attr::kSubject));
}

TEST(PkiObjectTest, EmptySubjectIsLeftOut) {
    EXPECT_THAT(textsOf(read(Kind::kCertificate, "nameless.der"), attr::kSubject), IsEmpty());
}

TEST(PkiObjectTest, EachAlternativeNameIsAnAttribute) {
    EXPECT_THAT(
        textsOf(read(Kind::kCertificate, "leaf.der"), attr::kAltName),
        ElementsAre("DNS:www.example.com", "DNS:*.example.org", "IP:192.0.2.1", "IP:2001:db8::1",
                    "email:admin@example.com", "URI:https://example.com/path", "RID:1.2.3.4",
                    "otherName:1.3.6.1.4.1.311.20.2.3;user@example.com", "dirName:O=Elsewhere"));
}

TEST(PkiObjectTest, AttributesStandInTheOrderOfTheirIds) {
    for (const char* const name : {"root", "leaf", "nameless", "ended"}) {
        const PkiObject object = read(Kind::kCertificate, std::string(name) + ".der");
        EXPECT_TRUE(std::is_sorted(
            object.attributes.begin(), object.attributes.end(),
            [](const PkiAttribute& a, const PkiAttribute& b) { return a.id < b.id; }))
            << name;
    }
}

TEST(PkiObjectTest, AttributesHaveTheTypesOfTheTable) {
    constexpr unsigned int kTypes[] = {kTypeNumber, kTypeText, kTypeBinary};  // by the variant
    const std::pair<Kind, const char*> rows[] = {{Kind::kCertificate, "leaf.der"},
                                                 {Kind::kCrl, "crl.der"},
                                                 {Kind::kRequest, "request.der"},
                                                 {Kind::kKey, "rsa.key.der"}};
    for (const auto& [kind, name] : rows) {
        for (const PkiAttribute& attribute : read(kind, name).attributes) {
            const attr::Known* const known = attr::find(attribute.id);
            ASSERT_NE(nullptr, known) << attribute.id;
            EXPECT_EQ(known->type, kTypes[attribute.value.index()]) << known->name;
        }
    }
}

TEST(PkiObjectTest, CrlTellsWhatOpensslSays) {
    auto said = files().said("crl");
    const PkiObject object = read(Kind::kCrl, "crl.der");
    EXPECT_EQ(said["issuer"], textOf(object, attr::kIssuer));
    EXPECT_EQ(said["lastUpdate"], textOf(object, attr::kNotBefore));
    EXPECT_EQ(said["nextUpdate"], textOf(object, attr::kNotAfter));
    EXPECT_EQ(said["crlNumber"], hexOf(object, attr::kCrlNumber));
    EXPECT_EQ(said["SHA2-256 Fingerprint"], hexOf(object, attr::kSha256));
    EXPECT_EQ(hexOf(read(Kind::kCertificate, "root.der"), attr::kSubjectKeyId),
              hexOf(object, attr::kAuthorityKeyId));
    EXPECT_EQ(2u, numberOf(object, attr::kKind));
}

TEST(PkiObjectTest, RequestTellsWhatOpensslSays) {
    const PkiObject object = read(Kind::kRequest, "request.der");
    EXPECT_EQ(files().said("request")["subject"], textOf(object, attr::kSubject));
    EXPECT_THAT(textsOf(object, attr::kAltName), ElementsAre("DNS:asker.example.com"));
    EXPECT_EQ(firstLine(files().text("ed25519.key.spki")), hexOf(object, attr::kKeySha256));
    EXPECT_EQ("Ed25519", textOf(object, attr::kKeyAlgorithm));
    EXPECT_EQ(4u, numberOf(object, attr::kKind));
}

TEST(PkiObjectTest, KeysAreNamedByAlgorithmAndSize) {
    const struct {
        const char* name;
        const char* algorithm;
    } rows[] = {{"rsa", "RSA-2048"},    {"pss", "RSA-PSS-2048"},     {"p256", "EC-P-256"},
                {"p384", "EC-P-384"},   {"koblitz", "EC-secp256k1"}, {"explicit", "EC-P-256"},
                {"ed25519", "Ed25519"}, {"ed448", "Ed448"},          {"x25519", "X25519"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string name = row.name;
        const PkiObject object = read(Kind::kKey, name + ".key.der");
        EXPECT_EQ(row.algorithm, textOf(object, attr::kKeyAlgorithm));
        EXPECT_EQ(firstLine(files().text(name + ".key.spki")), hexOf(object, attr::kKeySha256));
        EXPECT_EQ(toHex(object.keySha256), hexOf(object, attr::kKeySha256));
        EXPECT_EQ(3u, numberOf(object, attr::kKind));
    }
}

TEST(PkiObjectTest, RefusesWhatIsNotTheWholeObject) {
    const struct {
        Kind kind;
        const char* name;
    } rows[] = {{Kind::kCertificate, "leaf.der"},
                {Kind::kCrl, "crl.der"},
                {Kind::kRequest, "request.der"},
                {Kind::kKey, "rsa.key.der"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const SecretBytes whole = files().bytes(row.name);
        EXPECT_NO_THROW(readPkiObject(row.kind, whole));
        SecretBytes longer = whole;
        longer.push_back(0);
        EXPECT_THROW(readPkiObject(row.kind, longer), Failure);
        for (std::size_t size = 0; size < whole.size(); size += 1 + whole.size() / 100) {
            const SecretBytes part(whole.data(), whole.data() + size);
            EXPECT_THROW(readPkiObject(row.kind, part), Failure) << size;
        }
        for (const auto& other : rows) {
            if (other.kind != row.kind) {
                EXPECT_THROW(readPkiObject(other.kind, whole), Failure) << other.name;
            }
        }
    }
}

TEST(PkiObjectTest, RefusesAnObjectThatIsTooLarge) {
    try {
        (void)readPkiObject(Kind::kCertificate, SecretBytes(kMostObject + 1, 0x30));
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(kMalformed, failure.status());
        EXPECT_THAT(failure.what(), testing::HasSubstr("too large"));
    }
}

TEST(PkiObjectTest, RefusesAnObjectOfTooManyElements) {
    SecretBytes elements(2 * (kMostElements + 1), 0);
    for (std::size_t i = 0; i < elements.size(); i += 2) {
        elements[i] = 0x05;  // NULL
    }
    try {
        (void)readPkiObject(Kind::kCrl, elements);
        FAIL() << "was read";
    } catch (const Failure& failure) {
        EXPECT_THAT(failure.what(), testing::HasSubstr("elements of ASN.1"));
    }
}

TEST(RecordNameForTest, IsLabelOrTitleReducedWithDigits) {
    const PkiObject root = read(Kind::kCertificate, "root.der");
    const std::string digits = "-" + toHex(root.sha256).substr(0, 8);
    const struct {
        const char* label;
        const char* name;
    } rows[] = {{"", "Example-Root"},
                {"server", "server"},
                {"My Server", "My-Server"},
                {"  a // b  ", "a-b"},
                {"../../etc/passwd", "etc-passwd"},
                {".hidden", "hidden"},
                {"-option", "option"},
                {"a_b.c-d", "a_b.c-d"},
                {"Café", "Caf"},
                {"東京", "Example-Root"},
                {"line\nfeed", "line-feed"}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.name + digits, recordNameFor(root, row.label)) << row.label;
    }
    EXPECT_EQ(64 + digits.size(), recordNameFor(root, std::string(500, 'x')).size());
}

TEST(RecordNameForTest, FallsBackOnOtherNamesAndTheKind) {
    const auto nameOfFile = [](Kind kind, const char* file) {
        const std::string name = recordNameFor(read(kind, file), "");
        return name.substr(0, name.size() - 9);
    };
    EXPECT_EQ("www", nameOfFile(Kind::kCertificate, "leaf.der"));
    EXPECT_EQ("nameless.example.com", nameOfFile(Kind::kCertificate, "nameless.der"));
    EXPECT_EQ("Example-Root", nameOfFile(Kind::kCrl, "crl.der"));
    EXPECT_EQ("asker", nameOfFile(Kind::kRequest, "request.der"));
    EXPECT_EQ("key", nameOfFile(Kind::kKey, "rsa.key.der"));
}

TEST(FolderForTest, FollowsTheKindAndTheKey) {
    EXPECT_EQ("certificates/local", folderFor(Kind::kCertificate, true));
    EXPECT_EQ("certificates/remote", folderFor(Kind::kCertificate, false));
    EXPECT_EQ("crls", folderFor(Kind::kCrl, false));
    EXPECT_EQ("keys", folderFor(Kind::kKey, true));
    EXPECT_EQ("crm", folderFor(Kind::kRequest, true));
}

}  // namespace
}  // namespace fstore
