// Doubles of the PKCS#5 service and its objects. They take their parameters as
// strictly as the real ones and encrypt with the toy cipher. New buffers come from
// the X.509 common service, new keys from the PKIX key service.
#ifndef TESTS_SUPPORT_DOUBLES_DOUBLE_PKCS5_H
#define TESTS_SUPPORT_DOUBLES_DOUBLE_PKCS5_H

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "api/pkcs5_i.h"
#include "cmn/cmn_gref.h"
#include "tests/support/doubles/call_watch.h"
#include "tests/support/doubles/toy_cipher.h"

std::string tell(HashMap* map);  // "map", or "no map"

// Parameters as they come in, selector by selector.
class DoubleParameters {
public:
    // kInvalid for an unknown selector, or a value that does not fit the present one.
    Status select(PBES::param selector);
    Status supply(TBuf* bytes);
    Status supply(unsigned int number);
    Status supply(pki_alg_t alg);

    // As the real ones, they make no key once one was refused, also when the test made
    // the service refuse it.
    Status noted(Status taken) {
        refused_ = refused_ || taken != kOk;
        return taken;
    }

    // Whether they are complete and make sense; kInvalid if not.
    Status check() const;

    const toy::Parameters& values() const { return values_; }

private:
    toy::Parameters values_;
    bool hasPassword_ = false;
    bool refused_ = false;
    PBES::param selector_{};  // 0: none yet
};

// What it is called with is recorded as "select: 1", "supply: buffer secret",
// "supply: number 1000" and "supply: alg 131072".
class DoublePbes final : public PBES, private Watched {
public:
    DoublePbes(Watch watch, pbes_type scheme);

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    Status select(param selector) override;
    Status supply(TBuf* bytes) override;
    Status supply(unsigned int number) override;
    Status supply(pki_alg_t alg) override;
    Status setKey(TKey* key) override;
    TKey* getKey() override;  // "getKey"; kInvalid when parameters are missing
    TBuf* encrypt(TBuf* plain) override;
    TBuf* decrypt(TBuf* cipher) override;
    Status error() override;

private:
    Status parameter(Status status);
    Status derive(std::string& key);
    template <class Step>
    TBuf* through(Status told, TBuf* in, Step step);

    const pbes_type scheme_;
    DoubleParameters parameters_;
    std::mutex mutex_;                // for key_
    std::optional<std::string> key_;  // once derived or set
    std::atomic<std::uint64_t> nonce_{0};
};

class DoubleHashMap final : public HashMap, private Watched {
public:
    explicit DoubleHashMap(Watch watch);

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    Status add(TBuf* key, TBuf* value) override;
    TBuf* find(TBuf* key) override;

private:
    std::mutex mutex_;  // for values_
    std::map<std::string, std::string> values_;
};

class DoubleP12Pbkdf final : public P12PBKDF, private Watched {
public:
    explicit DoubleP12Pbkdf(Watch watch);

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    Status select(param selector) override;
    Status supply(TBuf* bytes) override;
    Status supply(unsigned int number) override;
    Status supply(pki_alg_t alg) override;
    TKey* getKey(target purpose) override;
    Status error() override;
    Status setHashMap(HashMap* map) override;

private:
    std::string deriveOrFind(target purpose);

    DoubleParameters parameters_;
    CMN_GRefPtr<HashMap> map_;
};

class DoublePkcs5 : public PKCS5_Interface, private Watched {
public:
    static constexpr unsigned int kType = 0x430000;  // and the objects' names below it, from 1

    explicit DoublePkcs5(unsigned int objectType = kType);

    CallWatch& watch() { return *watch_; }

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    CMN_GuardedRef* createObject(objectName_t name) override;
};

#endif  // TESTS_SUPPORT_DOUBLES_DOUBLE_PKCS5_H
