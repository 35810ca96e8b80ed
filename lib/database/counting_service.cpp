#include "lib/database/counting_service.h"

namespace fstore {
namespace {

// A scheme of the module's, whose encryptions and decryptions are counted.
class CountingPbes final : public PBES {
public:
    CountingPbes(PBES* scheme, CountingService& service)
        : PBES(scheme->getType()), scheme_(scheme), service_(service) {}

    Status init() override { return scheme()->init(); }
    Status fini() override { return scheme()->fini(); }
    Status select(param selector) override { return scheme()->select(selector); }
    Status supply(TBuf* bytes) override { return scheme()->supply(bytes); }
    Status supply(unsigned int number) override { return scheme()->supply(number); }
    Status supply(pki_alg_t alg) override { return scheme()->supply(alg); }
    Status setKey(TKey* key) override { return scheme()->setKey(key); }
    TKey* getKey() override { return scheme()->getKey(); }
    TBuf* encrypt(TBuf* plain) override {
        return service_.count() ? scheme()->encrypt(plain) : nullptr;
    }
    TBuf* decrypt(TBuf* cipher) override {
        return service_.count() ? scheme()->decrypt(cipher) : nullptr;
    }
    Status error() override { return scheme()->error(); }

private:
    PBES* scheme() const { return scheme_.get(); }

    CMN_GRefPtr<PBES> scheme_;
    CountingService& service_;
};

}  // namespace

CMN_GuardedRef* CountingService::createObject(objectName_t name) {
    CMN_GuardedRef* const made = service_.createObject(name);
    if (made == nullptr || (name != kPbes0 && name != kPbes1)) {
        return made;
    }
    return new CountingPbes(static_cast<PBES*>(made), *this);
}

bool CountingService::count() noexcept {
    Observer* const observer = observer_;
    if (observer == nullptr) {
        return true;
    }
    observer->step();
    if (observer->isCancelled()) {
        cancelled_ = true;
    }
    return !cancelled_;
}

}  // namespace fstore
