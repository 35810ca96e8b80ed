// Which certificate and key serve a host, with the real modules.
#include "lib/work/select.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/work/object_record.h"
#include "tests/lib/pki/made_certificates.h"
#include "tests/support/recording_observer.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Type = Selector::Type;

constexpr const char* kHost = "www.example.com";

class SelectTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        key_ = makeKey();
        root_ = makeKey();
    }

    SelectTest() {
        const Hold hold = database_.enter(Access::kChange, Need::kDatabase);
        database_.changePassword(
            makeKey(SecretText("one"), UnlockSlot::kLeastLn, database_.idForSlots()),
            /*keepOld=*/false);
        store("keys/key", Kind::kKey, pkcs8Of(key_));
    }

    void store(const std::string& address, Kind kind, SecretBytes der, bool encrypt = false) {
        const PkiObject object = readPkiObject(kind, std::move(der));
        Record record(parseNewAddress(address));
        describe(record, object, encrypt);
        record.setBody(object.der, encrypt || kind == Kind::kKey);
        record.write();
    }

    // A certificate of the key, signed by the root, in certificates/local.
    void certificate(const std::string& name, CertificatePlan plan, bool encrypt = false) {
        plan.key = plan.key != nullptr ? plan.key : key_;
        plan.issuer = "Root";
        plan.issuerKey = root_;
        const Hold hold = database_.enter(Access::kChange, Need::kSecrets);
        store("certificates/local/" + name, Kind::kCertificate, makeCertificate(plan), encrypt);
    }

    void object(const std::string& address, Kind kind, SecretBytes der, bool encrypt = false) {
        const Hold hold = database_.enter(Access::kChange, Need::kSecrets);
        store(address, kind, std::move(der), encrypt);
    }

    void damageBody(const Address& address) {
        const Hold hold = database_.enter(Access::kRead);
        const std::string path = RecordHead::read(address).bodyPath();
        std::string bytes = support::readFile(path);
        bytes[bytes.size() / 2] ^= 1;
        support::writeFile(path, bytes);
    }

    // The addresses that the URI means to a program that has opened nothing yet.
    std::vector<std::string> meant(const std::string& uri) {
        Database other({}, other_);
        std::vector<std::string> addresses;
        const Meaning meaning =
            withSecrets(other, Access::kRead, [&] { return meaningOf(other, parseUri(uri)); });
        for (const RecordInfo& info : meaning.records) {
            addresses.push_back(info.address.print());
        }
        return addresses;
    }

    void rootCertificate(const TestKey& key = root_, const std::string& name = "root") {
        object("certificates/remote/" + name, Kind::kCertificate,
               makeCertificate({.subject = "Root", .issuer = "Root", .key = key, .isCa = true}));
    }

    // What is said beside the answer.
    std::vector<std::string> warnings(Type type = Type::kCertificate) {
        const Hold hold = database_.enter(Access::kRead);
        return select(database_, {kHost, type, {}}).warnings;
    }

    // The name of the certificate for the host; the failure's sentence when there is none.
    std::string chosen(const std::string& query = std::string("for=") + kHost) {
        try {
            return meant("fstore:///?" + query + "&type=cert").front().substr(19);
        } catch (const Failure& failure) {
            status_ = failure.status();
            return failure.what();
        }
    }

    static inline TestKey key_, root_;
    const support::TempWorkingDir folder_;
    support::RecordingObserver observer_{"one"}, other_{"one"};
    Database database_{{}, observer_};
    Status status_ = kOk;
};

TEST_F(SelectTest, ExactNameComesBeforeWildcard) {
    certificate("any", {.altNames = "DNS:*.example.com", .fromDays = -1, .toDays = 900});
    EXPECT_EQ("any", chosen());
    certificate("exact", {.altNames = "DNS:other.example,DNS:WWW.Example.COM", .fromDays = -9});
    EXPECT_EQ("exact", chosen());
}

TEST_F(SelectTest, ThenTheOneThatBeganLast) {
    certificate("long", {.altNames = "DNS:www.example.com", .fromDays = -9, .toDays = 900});
    certificate("young", {.altNames = "DNS:www.example.com", .fromDays = -2, .toDays = 10});
    EXPECT_EQ("young", chosen());
}

TEST_F(SelectTest, ThenTheOneThatEndsLast) {
    certificate("short", {.altNames = "DNS:www.example.com", .fromDays = -2, .toDays = 10});
    certificate("long", {.altNames = "DNS:www.example.com", .fromDays = -2, .toDays = 11});
    EXPECT_EQ("long", chosen());
}

TEST_F(SelectTest, ThenTheSmallerDigest) {
    certificate("a", {.altNames = "DNS:www.example.com", .serial = 1});
    certificate("b", {.altNames = "DNS:www.example.com", .serial = 2});
    const Hold hold = database_.enter(Access::kRead);
    const auto digest = [](const char* name) {
        return infoOf(Record::read({"certificates/local", name})).sha256;
    };
    const Selected selected = select(database_, {kHost, Type::kCertificate, {}});
    EXPECT_EQ(std::min(digest("a"), digest("b")), selected.certificate.sha256);
}

TEST_F(SelectTest, NotInForceIsNotTaken) {
    certificate("ended", {.altNames = "DNS:www.example.com", .fromDays = -9, .toDays = -1});
    certificate("future", {.altNames = "DNS:www.example.com", .fromDays = 1});
    EXPECT_EQ("no certificate for www.example.com can be used: 2 not in force", chosen());
    EXPECT_EQ(kMissing, status_);
}

TEST_F(SelectTest, WithoutItsKeyItIsNotTaken) {
    certificate("young", {.key = makeKey(), .altNames = "DNS:www.example.com", .fromDays = -1});
    certificate("old", {.altNames = "DNS:www.example.com", .fromDays = -9});
    EXPECT_EQ("old", chosen());
}

TEST_F(SelectTest, RevokedIsNotTaken) {
    certificate("young", {.altNames = "DNS:www.example.com", .fromDays = -1, .serial = 7});
    certificate("old", {.altNames = "DNS:www.example.com", .fromDays = -9, .serial = 8});
    object("crls/others", Kind::kCrl, makeCrl("Elsewhere", root_, {7, 8}));
    EXPECT_EQ("young", chosen());
    object("crls/root", Kind::kCrl, makeCrl("Root", root_, {7}));
    EXPECT_EQ("old", chosen());
    object("crls/later", Kind::kCrl, makeCrl("Root", root_, {8}));
    EXPECT_EQ("no certificate for www.example.com can be used: 2 revoked by a CRL", chosen());
}

TEST_F(SelectTest, CrlCountsIfTheIssuersKeyVerifiesIt) {
    certificate("young", {.altNames = "DNS:www.example.com", .fromDays = -1, .serial = 7});
    certificate("old", {.altNames = "DNS:www.example.com", .fromDays = -9, .serial = 8});
    object("crls/forged", Kind::kCrl, makeCrl("Root", makeKey(), {7}));
    EXPECT_EQ("old", chosen()) << "nothing to verify it with";
    rootCertificate(makeKey(), "of-the-same-name");
    EXPECT_EQ("old", chosen()) << "nothing to verify it with";
    EXPECT_THAT(warnings(), IsEmpty());
    rootCertificate();
    EXPECT_EQ("young", chosen());
    EXPECT_THAT(warnings(), ElementsAre(HasSubstr("crls/forged does not count")));
    object("crls/root", Kind::kCrl, makeCrl("Root", root_, {7}));
    EXPECT_EQ("old", chosen());
    EXPECT_THAT(warnings(), ElementsAre(HasSubstr("crls/forged does not count")));
}

TEST_F(SelectTest, HoldEndsWithANewerCrl) {
    constexpr long kHold = 6, kTakenOff = 8, kKeyCompromise = 1;
    certificate("leaf", {.altNames = "DNS:www.example.com", .serial = 7});
    rootCertificate();
    const auto crl = [&](const char* name, const std::vector<long>& serials, const CrlPlan& plan) {
        object(std::string("crls/") + name, Kind::kCrl, makeCrl("Root", root_, serials, plan));
    };
    const std::string revoked =
        "no certificate for www.example.com can be used: 1 revoked by a CRL";
    crl("hold", {7}, {.number = 5, .fromDays = -9, .reason = kHold});
    EXPECT_EQ(revoked, chosen());
    crl("older", {}, {.number = 4, .fromDays = -1});
    EXPECT_EQ(revoked, chosen()) << "the number decides";
    crl("delta", {}, {.number = 6, .isDelta = true});
    EXPECT_EQ(revoked, chosen()) << "it has changes only";
    crl("part", {}, {.number = 6, .scope = "http://part.example"});
    EXPECT_EQ(revoked, chosen()) << "it has other certificates";
    crl("off", {7}, {.number = 7, .reason = kTakenOff, .isDelta = true});
    EXPECT_EQ("leaf", chosen());
    crl("again", {7}, {.number = 8, .reason = kHold});
    EXPECT_EQ(revoked, chosen());
    crl("full", {}, {.number = 9, .fromDays = -20});
    EXPECT_EQ("leaf", chosen());
    crl("unnumbered", {7}, {.fromDays = 0, .reason = kHold});
    EXPECT_EQ(revoked, chosen()) << "the time decides";
    crl("last", {}, {.fromDays = 1});
    EXPECT_EQ("leaf", chosen());
    crl("compromised", {7}, {.number = 1, .fromDays = -50, .reason = kKeyCompromise});
    EXPECT_EQ(revoked, chosen()) << "a revocation does not lapse";
}

TEST_F(SelectTest, DamagedCrlOfTheIssuerFails) {
    certificate("young", {.altNames = "DNS:www.example.com", .serial = 7});
    object("crls/root", Kind::kCrl, makeCrl("Root", root_, {1}));
    damageBody({"crls", "root"});
    EXPECT_THAT(chosen(), HasSubstr("crls/root"));
    EXPECT_EQ(kMalformed, status_);
}

TEST_F(SelectTest, WildcardStandsForOneLabelBeforeTwo) {
    certificate("any", {.altNames = "DNS:*.example.com,DNS:*.com"});
    EXPECT_EQ("any", chosen("for=a.example.com"));
    EXPECT_EQ("any", chosen("for=*.example.com"));
    for (const char* const host : {"example.com", "a.b.example.com", "aexample.com", "com"}) {
        EXPECT_EQ(std::string("no certificate for ") + host + " in the database",
                  chosen(std::string("for=") + host));
    }
}

TEST_F(SelectTest, AddressesOfHostsAreNames) {
    certificate("addresses", {.altNames = "IP:192.0.2.1,IP:2001:db8::1"});
    EXPECT_EQ("addresses", chosen("for=192.0.2.1"));
    EXPECT_EQ("addresses", chosen("for=2001:DB8:0:0::1"));
}

TEST_F(SelectTest, DnsNameThatLooksLikeAnAddressIsNone) {
    certificate("names", {.altNames = "DNS:10.9.9.9,DNS:*.9.9.9"});
    EXPECT_EQ("no certificate for 10.9.9.9 in the database", chosen("for=10.9.9.9"));
}

TEST_F(SelectTest, CommonNameDoesNotCount) {
    certificate("old", {.subject = kHost});
    EXPECT_EQ("no certificate for www.example.com in the database", chosen());
}

TEST_F(SelectTest, AlgorithmChoosesBetweenTwo) {
    const TestKey ec = makeKey("EC");
    object("keys/ec", Kind::kKey, pkcs8Of(ec));
    certificate("ed", {.altNames = "DNS:www.example.com", .fromDays = -1});
    certificate("ec", {.key = ec, .altNames = "DNS:www.example.com", .fromDays = -2});
    EXPECT_EQ("ed", chosen());
    EXPECT_EQ("ec", chosen("for=www.example.com&alg=EC"));
    EXPECT_EQ("no certificate for www.example.com with a key of RSA in the database",
              chosen("for=www.example.com&alg=RSA"));
}

TEST_F(SelectTest, PairHasKeyCertificateAndIssuers) {
    certificate("leaf", {.altNames = "DNS:www.example.com"});
    object("certificates/remote/root", Kind::kCertificate,
           makeCertificate({.subject = "Root", .issuer = "Root", .key = root_, .isCa = true}));
    const std::string key = "keys/key", leaf = "certificates/local/leaf",
                      root = "certificates/remote/root", uri = "fstore:///?for=www.example.com";
    EXPECT_THAT(meant(uri), ElementsAre(key, leaf, root));
    EXPECT_THAT(meant(uri + "&type=key"), ElementsAre(key));
    EXPECT_THAT(meant(uri + "&type=cert"), ElementsAre(leaf));
    EXPECT_THAT(meant(uri + "&type=chain"), ElementsAre(leaf, root));
    EXPECT_EQ(0, other_.asked);
}

TEST_F(SelectTest, ChainTakesTheIssuerThatIsGood) {
    certificate("leaf", {.altNames = "DNS:www.example.com"});
    const auto issuer = [&](const char* name, long from, long to, long serial) {
        object(std::string("certificates/remote/") + name, Kind::kCertificate,
               makeCertificate({.subject = "Root",
                                .issuer = "Top",
                                .key = root_,
                                .issuerKey = key_,
                                .fromDays = from,
                                .toDays = to,
                                .serial = serial,
                                .isCa = true}));
    };
    const std::string query = std::string("fstore:///?type=chain&for=") + kHost;
    const auto taken = [&] { return meant(query).at(1).substr(20); };
    issuer("ended", -900, -1, 1);
    EXPECT_EQ("ended", taken());
    EXPECT_THAT(warnings(Type::kChain),
                ElementsAre("certificates/remote/ended is in the chain and "
                            "not in force: the database has no better one"));
    issuer("future", 1, 9000, 2);
    EXPECT_THAT(warnings(Type::kChain), ElementsAre(HasSubstr("not in force")));
    issuer("revoked", -1, 900, 3);
    object("crls/top", Kind::kCrl, makeCrl("Top", key_, {3}));
    EXPECT_EQ("revoked", taken());
    EXPECT_THAT(warnings(Type::kChain),
                ElementsAre(HasSubstr("revoked is in the chain and revoked")));
    issuer("good", -90, 90, 4);
    EXPECT_EQ("good", taken());
    EXPECT_THAT(warnings(Type::kChain), IsEmpty());
    issuer("longer", -90, 91, 5);
    EXPECT_EQ("longer", taken());
    issuer("younger", -80, 10, 6);
    EXPECT_EQ("younger", taken());
    damageBody({"crls", "top"});
    EXPECT_THAT(warnings(Type::kChain), ElementsAre(HasSubstr("it is not known whether")));
}

TEST_F(SelectTest, EncryptedOnesTakePart) {
    certificate("plain", {.altNames = "DNS:www.example.com", .fromDays = -9});
    certificate("encrypted", {.altNames = "DNS:www.example.com", .fromDays = -1}, /*encrypt=*/true);
    EXPECT_EQ("encrypted", chosen());
    EXPECT_EQ(1, other_.asked);
}

TEST_F(SelectTest, PathMeansARecordOrAFolder) {
    certificate("leaf", {.altNames = "DNS:www.example.com"});
    EXPECT_THAT(meant("fstore:///certificates/local/leaf"), ElementsAre("certificates/local/leaf"));
    EXPECT_THAT(meant("fstore:///leaf"), ElementsAre("certificates/local/leaf"));
    EXPECT_THAT(meant("fstore:///keys"), ElementsAre("keys/key"));
    EXPECT_THAT(meant("fstore:///"), ElementsAre("certificates/local/leaf", "keys/key"));
    EXPECT_THROW((void)meant("fstore:///keys/none"), Failure);
    EXPECT_THROW((void)meant("fstore:///none/"), Failure);
}

}  // namespace
}  // namespace fstore
