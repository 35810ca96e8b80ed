// The doubles as the modules they are loaded as, driven through the real proxies.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "client/cmn_abuf.h"
#include "client/pkcs5C.h"
#include "client/pkixkeyclnt.h"
#include "cmn/objmgrfunc.h"
#include "tests/modules/loaded_module.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/doubles/toy_cipher.h"

namespace {

std::string contents(const aBuf& buf) {
    return bytesOf(buf.target());
}

class DoubleModulesTest : public testing::Test {
protected:
    // The stubs let go before the modules do, and of pkcs5, which calls both others,
    // first.
    ~DoubleModulesTest() override {
        pkcs5srv = PKCS5();
        pkixKeyClnt = aPkixKeyClnt();
        theX509Cmn = X509CmnSrv();
    }

    FakeHost host;
    InstalledHost installed{&host};
    LoadedModule x509cmn{host, "x509cmn_double", 111};
    LoadedModule pkixkey{host, "pkixkey_double", 0x3f0008};
    LoadedModule pkcs5{host, "pkcs5_double", 67};
};

TEST_F(DoubleModulesTest, TellTheirNumbers) {
    EXPECT_EQ(111U, x509cmn.module().getModuleID());
    EXPECT_EQ(0x3f0008U, pkixkey.module().getModuleID());
    EXPECT_EQ(67U, pkcs5.module().getModuleID());
}

TEST_F(DoubleModulesTest, HaveRegistriesOfTheirOwn) {
    const auto registry = [](const LoadedModule& module) {
        return module.symbol<decltype(GetObjectManager)>("GetObjectManager")();
    };
    EXPECT_NE(registry(x509cmn), registry(pkcs5));
    EXPECT_NE(registry(x509cmn), registry(pkixkey));
    EXPECT_NE(registry(x509cmn), pObjMgr);
}

// What the store does: its parameters, its order.
TEST_F(DoubleModulesTest, EncryptWithTheKeyOfTheParameters) {
    mmPBES pbes(PBES::kPbkdf2);
    pbes << PBES::kPassword << aBuf("secret") << PBES::kSalt << aBuf("") << PBES::kIterations
         << 1000U << PBES::kKeyLength << 16U << PBES::kFirstAlg << PKI_ALG_PBKDF2_HMAC_SHA256
         << PBES::kSecondAlg << PKI_ALG_AES_GCM;
    toy::Parameters same;
    same.password = "secret";
    same.iterations = 1000;
    same.length = 16;
    same.firstAlg = 0x20000;
    same.secondAlg = 9;
    const std::string key = toy::derive(same);
    EXPECT_EQ(key, contents(pbes.getKey().getRaw()));

    const aBuf sealed = pbes.encrypt(aBuf("attack at dawn"));
    EXPECT_EQ("attack at dawn", toy::open(key, contents(sealed)));
    EXPECT_EQ("attack at dawn", contents(pbes.decrypt(sealed)));
    EXPECT_EQ(nullptr, pbes.decrypt(aBuf("attack at dawn")).target());
    EXPECT_EQ(kIo, pbes.error());
}

}  // namespace
