#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/pki/decode.h"
#include "lib/pki/encode.h"
#include "tests/lib/pki/pki_files.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

const PkiFiles& files() {
    return PkiFiles::get();
}

const SecretText& secret() {
    static const SecretText text("secret");
    return text;
}

std::string textOf(const SecretBytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

// What the openssl program makes of the bytes; the command reads "in".
std::string openssl(const SecretBytes& in, const std::string& command) {
    const support::TempDir folder;
    support::writeFile(folder / "in", textOf(in));
    const std::string line = "cd '" + folder.path() + "' && openssl " + command + " >out 2>&1";
    const int status = std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe): one thread
    return support::readFile(folder / "out") + (status == 0 ? "" : "failed\n");
}

TEST(PemOfTest, IsTheBlockThatOpensslWrites) {
    const struct {
        Kind kind;
        const char* der;
        const char* pem;
    } rows[] = {{Kind::kCertificate, "leaf.der", "leaf.pem"},
                {Kind::kCrl, "crl.der", "crl.pem"},
                {Kind::kRequest, "request.der", "request.pem"},
                {Kind::kKey, "rsa.key.der", "rsa.key"}};
    for (const auto& row : rows) {
        EXPECT_EQ(files().text(row.pem), textOf(pemOf(row.kind, files().bytes(row.der))))
            << row.der;
    }
    EXPECT_THROW((void)pemOf(Kind::kRaw, files().bytes("leaf.der")), Failure);
}

TEST(EncryptedKeyTest, OpensWithItsPasswordOnly) {
    const SecretBytes encrypted = encryptedKey(files().bytes("p256.key.der"), secret());
    EXPECT_EQ(files().text("p256.key"),
              openssl(encrypted, "pkey -inform DER -in in -passin pass:secret"));
    EXPECT_THAT(openssl(encrypted, "pkey -inform DER -in in -passin pass:other"),
                testing::EndsWith("failed\n"));
    EXPECT_EQ(files().text("p256.key"),
              openssl(pemOfEncrypted(encrypted), "pkey -in in -passin pass:secret"));
}

TEST(EncryptedKeyTest, IsMadeToResistGuessing) {
    const std::string form = openssl(encryptedKey(files().bytes("rsa.key.der"), secret()),
                                     "asn1parse -inform DER -in in");
    for (const char* const part : {"PBES2", "PBKDF2", "hmacWithSHA256", "aes-256-cbc", ":0927C0"}) {
        EXPECT_THAT(form, testing::HasSubstr(part));
    }
}

TEST(EncryptedKeyTest, DiffersEachTime) {
    const SecretBytes key = files().bytes("ed25519.key.der");
    EXPECT_NE(encryptedKey(key, secret()), encryptedKey(key, secret()));
}

TEST(EncryptedKeyTest, RefusesWhatIsNoKey) {
    EXPECT_THROW((void)encryptedKey(files().bytes("leaf.der"), secret()), Failure);
}

Pkcs12Content wholeContent(const SecretBytes& key, const SecretBytes& leaf,
                           const SecretBytes& root) {
    return {key, {leaf, root}, "Café"};
}

TEST(Pkcs12OfTest, IsReadByOpenssl) {
    const SecretBytes key = files().bytes("p256.key.der");
    const SecretBytes leaf = files().bytes("leaf.der");
    const SecretBytes root = files().bytes("root.der");
    const SecretBytes file = pkcs12Of(wholeContent(key, leaf, root), &secret());
    EXPECT_THAT(openssl(file, "pkcs12 -in in -passin pass:secret -nocerts -noenc"),
                testing::HasSubstr(files().text("p256.key")));
    EXPECT_THAT(openssl(file, "pkcs12 -in in -passin pass:secret -clcerts -nokeys"),
                testing::HasSubstr(files().text("leaf.pem")));
    EXPECT_THAT(openssl(file, "pkcs12 -in in -passin pass:secret -cacerts -nokeys"),
                testing::HasSubstr(files().text("root.pem")));
    EXPECT_THAT(openssl(file, "pkcs12 -in in -passin pass:other -nokeys"),
                testing::EndsWith("failed\n"));
    EXPECT_THAT(openssl(file, "pkcs12 -in in -passin pass:secret -info -noout"),
                testing::HasSubstr("AES-256-CBC, Iteration 600000, PRF hmacWithSHA256"));
}

TEST(Pkcs12OfTest, ComesBackWhenDecoded) {
    const SecretBytes key = files().bytes("p256.key.der");
    const SecretBytes leaf = files().bytes("leaf.der");
    const SecretBytes root = files().bytes("root.der");
    for (const SecretText* const password : {&secret(), static_cast<const SecretText*>(nullptr)}) {
        SCOPED_TRACE(password != nullptr ? "encrypted" : "plain");
        const auto parts = decodePki(pkcs12Of(wholeContent(key, leaf, root), password),
                                     []() -> const SecretText& { return secret(); });
        ASSERT_EQ(3u, parts.size());
        int found = 0;
        for (const PkiPart& part : parts) {
            const auto& object = std::get<PkiObject>(part.content);
            found += object.der == key ? 1 : object.der == leaf ? 10 : object.der == root ? 100 : 0;
            EXPECT_EQ(object.der == root ? "" : "Café", part.label);
        }
        EXPECT_EQ(111, found);
    }
}

TEST(Pkcs12OfTest, MayHoldCertificatesOnly) {
    const SecretBytes root = files().bytes("root.der");
    const auto parts = decodePki(pkcs12Of({{}, {root}, ""}, &secret()),
                                 []() -> const SecretText& { return secret(); });
    ASSERT_EQ(1u, parts.size());
    EXPECT_EQ(root, std::get<PkiObject>(parts[0].content).der);
}

// Java passes over certificates of its own that lack this mark, and takes one beside a key without.
TEST(Pkcs12OfTest, CertificatesAloneAreMarkedAsTrusted) {
    constexpr const char* kMark = "2.16.840.1.113894.746875.1.1";
    constexpr const char* kPrint = "pkcs12 -in in -passin pass:secret -nokeys";
    const SecretBytes leaf = files().bytes("leaf.der");
    const SecretBytes root = files().bytes("root.der");
    const std::string alone = openssl(pkcs12Of({{}, {leaf, root}, "Café"}, &secret()), kPrint);
    EXPECT_NE(alone.find(kMark), alone.rfind(kMark));
    EXPECT_EQ(alone.find("friendlyName"), alone.rfind("friendlyName"));
    EXPECT_THAT(alone, testing::AllOf(testing::HasSubstr(files().text("leaf.pem")),
                                      testing::HasSubstr(files().text("root.pem"))));
    const SecretBytes key = files().bytes("p256.key.der");
    EXPECT_THAT(openssl(pkcs12Of(wholeContent(key, leaf, root), &secret()), kPrint),
                testing::Not(testing::HasSubstr(kMark)));
}

TEST(Pkcs12OfTest, CertificatesAloneMayBePlain) {
    const SecretBytes root = files().bytes("root.der");
    const auto parts = decodePki(pkcs12Of({{}, {root}, "Café"}, nullptr),
                                 []() -> const SecretText& { return secret(); });
    ASSERT_EQ(1u, parts.size());
    EXPECT_EQ("Café", parts[0].label);
}

TEST(Pkcs12OfTest, RefusesAKeyWithAnothersCertificate) {
    const SecretBytes key = files().bytes("rsa.key.der");
    const SecretBytes leaf = files().bytes("leaf.der");
    EXPECT_THROW((void)pkcs12Of({key, {leaf}, ""}, &secret()), Failure);
}

}  // namespace
}  // namespace fstore
