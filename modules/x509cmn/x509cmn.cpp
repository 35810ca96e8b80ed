// The X.509 common service, module 111: makes byte buffers.
#include <memory>

#include "api/t_buf.h"
#include "cmn/export.h"
#include "modules/common/module_entry.h"
#include "modules/x509cmn/buf.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(111);

namespace {

// A new buffer that `fill` has filled; null when that, or making it, fails.
template <class Fill>
TBuf* filled(Fill fill) noexcept {
    std::unique_ptr<Buf> made;
    const Status status = noThrow([&] {
        made = std::make_unique<Buf>();
        return fill(*made);
    });
    return status == kOk ? made.release() : nullptr;
}

class X509CmnService final : public ServiceModule<X509CmnSrv_I> {
public:
    X509CmnService() : ServiceModule(0x6F0000) {}

    TBuf* createTBuf() override {
        return filled([](const Buf&) { return kOk; });
    }
    TBuf* createTBuf(const char* s) override {
        return filled([&](Buf& buf) { return buf.set(s); });
    }
    TBuf* createTBuf(const unsigned char* data, unsigned int len) override {
        return filled([&](Buf& buf) { return buf.set(data, len); });
    }
    TBuf* createTBuf(TBuf* src) override {
        return filled([&](Buf& buf) { return buf.duplicate(src); });
    }
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    return serveEntry<X509CmnService>(manager, flag, [] {});  // it calls no other module
}
