// The three services that the store calls, doubled and offered by a host of their
// own, for the time of a test.
#ifndef TESTS_SUPPORT_DOUBLES_DOUBLE_SERVICES_H
#define TESTS_SUPPORT_DOUBLES_DOUBLE_SERVICES_H

#include "tests/support/doubles/double_pkcs5.h"
#include "tests/support/doubles/double_pkixkey.h"
#include "tests/support/doubles/double_x509cmn.h"
#include "tests/support/fake_host.h"

// Installs the host, which gives every object, the services included, a guard of
// its own. At the end all module-wide stubs are unbound, and the next test finds
// nothing of this one. Declare it before every proxy.
class DoubleServices {
public:
    static constexpr unsigned int kX509CmnId = 111;
    static constexpr unsigned int kPkcs5Id = 67;
    static constexpr unsigned int kPkixKeyId = 0x3f0008;

    DoubleServices();
    DoubleServices(const DoubleServices&) = delete;
    DoubleServices& operator=(const DoubleServices&) = delete;
    ~DoubleServices();

    FakeHost& host() { return host_; }

    // The services' objects, which live until the end of this one, also when they
    // are withdrawn from the host.
    DoubleX509Cmn& x509cmn() { return *x509cmn_.get(); }
    DoublePkcs5& pkcs5() { return *pkcs5_.get(); }
    DoubleKeyService& pkixkey() { return *pkixkey_.get(); }

private:
    FakeHost host_;
    InstalledHost installed_{&host_};
    CMN_GRefPtr<DoubleX509Cmn> x509cmn_;
    CMN_GRefPtr<DoublePkcs5> pkcs5_;
    CMN_GRefPtr<DoubleKeyService> pkixkey_;
};

#endif  // TESTS_SUPPORT_DOUBLES_DOUBLE_SERVICES_H
