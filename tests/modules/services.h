// The three service modules, loaded, with this program's proxies on top.
#ifndef TESTS_MODULES_SERVICES_H
#define TESTS_MODULES_SERVICES_H

#include <string>

#include "client/cmn_abuf.h"
#include "client/pkcs5C.h"
#include "client/pkixakey.h"
#include "client/pkixkeyclnt.h"
#include "cmn/host_mgr.h"
#include "tests/modules/loaded_module.h"
#include "tests/support/fake_host.h"

// One may live at a time; proxies live and go while it does.
class Services {
public:
    Services() {
        host.giveNewGuards();
        ModMgr = &host;
    }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;
    ~Services() {
        pkcs5srv = PKCS5();
        pkixKeyClnt = aPkixKeyClnt();
        x509cmn_fini();
        ModMgr = nullptr;
    }

    FakeHost host;

private:
    // A module is unloaded before those that it calls.
    LoadedModule x509cmn_{host, "x509cmn", 111};
    LoadedModule pkixkey_{host, "pkixkey", 0x3f0008};
    LoadedModule pkcs5_{host, "pkcs5", 67};
};

inline aBuf bufOf(const std::string& bytes) {
    return aBuf(reinterpret_cast<const unsigned char*>(bytes.data()),
                static_cast<unsigned int>(bytes.size()));
}

// The bytes of a buffer; those of none read "<none>".
inline std::string textOf(const aBuf& buf) {
    if (buf.target() == nullptr) {
        return "<none>";
    }
    return {buf.datap(), buf.datap() + buf.len()};
}

#endif  // TESTS_MODULES_SERVICES_H
