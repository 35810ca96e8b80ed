// A password-based encryption scheme: api/pkcs5_i.h says what it promises.
#ifndef MODULES_PKCS5_PBES_H
#define MODULES_PKCS5_PBES_H

#include <atomic>
#include <memory>
#include <mutex>

#include "api/pkcs5_i.h"
#include "modules/common/gcm_frame.h"
#include "modules/pkcs5/with_parameters.h"

class Pbes final : public WithParameters<PBES> {
public:
    static constexpr unsigned int kType = 0x430001;  // module 67, kind 1

    explicit Pbes(pbes_type scheme);

    Status setKey(TKey* key) override;
    TKey* getKey() override;
    TBuf* encrypt(TBuf* plain) override;
    TBuf* decrypt(TBuf* cipher) override;
    Status error() override;

private:
    void forgetKey() override { use(nullptr); }
    void use(std::unique_ptr<GcmFrame> key);
    Status obtainKey(const GcmFrame*& key);
    template <class Step>
    TBuf* through(TBuf* in, Step step);

    const pbes_type scheme_;
    std::mutex deriving_;            // guards key_ against two threads that both need it first
    std::unique_ptr<GcmFrame> key_;  // derived or set
    std::atomic<const GcmFrame*> ready_{nullptr};  // key_ when it is there, for reading unlocked
};

#endif  // MODULES_PKCS5_PBES_H
