// A password-based encryption scheme: api/pkcs5_i.h says what it promises.
#ifndef MODULES_PKCS5_PBES_H
#define MODULES_PKCS5_PBES_H

#include <atomic>
#include <memory>
#include <mutex>

#include "api/pkcs5_i.h"
#include "modules/common/gcm_frame.h"
#include "modules/pkcs5/kdf_parameters.h"

class Pbes final : public PBES {
public:
    static constexpr unsigned int kType = 0x430001;  // module 67, kind 1

    explicit Pbes(pbes_type scheme);

    Status init() override { return kOk; }
    Status fini() override { return kOk; }

    Status select(param selector) override;
    Status supply(TBuf* bytes) override;
    Status supply(unsigned int number) override;
    Status supply(pki_alg_t alg) override;
    Status setKey(TKey* key) override;
    TKey* getKey() override;
    TBuf* encrypt(TBuf* plain) override;
    TBuf* decrypt(TBuf* cipher) override;
    Status error() override;

private:
    template <class Value>
    Status supplied(Value value);
    void use(std::unique_ptr<GcmFrame> key);
    Status obtainKey(const GcmFrame*& key);
    template <class Step>
    TBuf* through(TBuf* in, Step step);

    const pbes_type scheme_;
    KdfParameters parameters_;
    std::mutex deriving_;            // guards key_ against two threads that both need it first
    std::unique_ptr<GcmFrame> key_;  // derived or set
    std::atomic<const GcmFrame*> ready_{nullptr};  // key_ when it is there, for reading unlocked
};

#endif  // MODULES_PKCS5_PBES_H
