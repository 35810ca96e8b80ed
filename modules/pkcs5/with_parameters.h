// What the objects of this service have in common: parameters that are handed in one by one.
#ifndef MODULES_PKCS5_WITH_PARAMETERS_H
#define MODULES_PKCS5_WITH_PARAMETERS_H

#include "api/pkcs5_i.h"
#include "modules/common/last_status.h"
#include "modules/pkcs5/kdf_parameters.h"

template <class Interface>
class WithParameters : public Interface {
public:
    WithParameters(unsigned int kind, const KdfLimits& limits)
        : Interface(kind), parameters_(limits) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }

    // A key that belongs to other parameters must not be used any more, also when those
    // that were meant instead of them are refused.
    Status select(PBES::param selector) override {
        return recorded([&] {
            const Status status = parameters_.select(selector);
            if (status != kOk) {
                forgetKey();
            }
            return status;
        });
    }
    Status supply(TBuf* bytes) override { return take(bytes); }
    Status supply(unsigned int number) override { return take(number); }
    Status supply(pki_alg_t alg) override { return take(alg); }

protected:
    const KdfParameters& parameters() const noexcept { return parameters_; }

private:
    // For an object that keeps what it has derived.
    virtual void forgetKey() {}

    template <class Value>
    Status take(Value value) {
        return recorded([&] {
            forgetKey();
            return parameters_.supply(value);
        });
    }

    KdfParameters parameters_;
};

#endif  // MODULES_PKCS5_WITH_PARAMETERS_H
