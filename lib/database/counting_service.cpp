#include "lib/database/counting_service.h"

namespace fstore {
namespace {

thread_local CountingService::Counting* counting = nullptr;

bool goesOn() noexcept {
    return counting == nullptr || counting->count();
}

// A scheme of the module's, whose encryptions and decryptions are counted.
class CountingPbes final : public PBES {
public:
    explicit CountingPbes(PBES* scheme) : PBES(scheme->getType()), scheme_(scheme) {}

    Status init() override { return scheme()->init(); }
    Status fini() override { return scheme()->fini(); }
    Status select(param selector) override { return scheme()->select(selector); }
    Status supply(TBuf* bytes) override { return scheme()->supply(bytes); }
    Status supply(unsigned int number) override { return scheme()->supply(number); }
    Status supply(pki_alg_t alg) override { return scheme()->supply(alg); }
    Status setKey(TKey* key) override { return scheme()->setKey(key); }
    TKey* getKey() override { return scheme()->getKey(); }
    TBuf* encrypt(TBuf* plain) override { return goesOn() ? scheme()->encrypt(plain) : nullptr; }
    TBuf* decrypt(TBuf* cipher) override { return goesOn() ? scheme()->decrypt(cipher) : nullptr; }
    Status error() override { return scheme()->error(); }

private:
    PBES* scheme() const { return scheme_.get(); }

    CMN_GRefPtr<PBES> scheme_;
};

}  // namespace

CMN_GuardedRef* CountingService::createObject(objectName_t name) {
    CMN_GuardedRef* const made = service_.createObject(name);
    if (made == nullptr || (name != kPbes0 && name != kPbes1)) {
        return made;
    }
    return new CountingPbes(static_cast<PBES*>(made));
}

CountingService::Counting::Counting(Observer& observer) noexcept : observer_(observer) {
    counting = this;
}

CountingService::Counting::~Counting() {
    counting = nullptr;
}

bool CountingService::Counting::count() noexcept {
    observer_.step();
    cancelled_ = cancelled_ || observer_.isCancelled();
    return !cancelled_;
}

}  // namespace fstore
