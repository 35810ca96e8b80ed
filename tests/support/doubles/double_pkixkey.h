// Doubles of the PKIX key service and its keys: a key is bytes and what its owner
// attached to them, whatever its type; it signs and encrypts with the toy cipher.
// New buffers come from the X.509 common service.
#ifndef TESTS_SUPPORT_DOUBLES_DOUBLE_PKIXKEY_H
#define TESTS_SUPPORT_DOUBLES_DOUBLE_PKIXKEY_H

#include <map>
#include <string>

#include "api/t_key.h"
#include "tests/support/doubles/call_watch.h"

std::string tell(TKey* key);  // "key abc", or "no key"

// The raw form of any key; none for null.
std::string bytesOf(TKey* key);

class DoubleKey final : public TKey, private Watched {
public:
    static constexpr unsigned int kType = 0x080001;

    DoubleKey(Watch watch, key_type_t keyType, std::string value);

    // The value, without a call being recorded.
    const std::string& value() const { return value_; }

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    TKey* duplicate() const override;
    int compare(TKey* other) const override;
    Status clear() override;
    key_type_t getType() const override;
    Status setAlg(pki_alg_t alg) override;
    pki_alg_t getAlg() const override;
    Status setKey(TBuf* value) override;
    TBuf* getKey() const override;
    TBuf* getParam(unsigned char tag) const override;
    Status setParam(unsigned char tag, TBuf* value) override;
    TBuf* getParam(aka_t which) const override;
    int getParam(bka_t which) const override;
    Status setParam(aka_t which, TBuf* value) override;
    Status setParam(bka_t which, int value) override;
    TBuf* getRaw() const override;
    Status setRaw(const unsigned char* data, unsigned int len) override;
    Status setTokenId(unsigned int slot, unsigned int object) override;
    Status getTokenId(unsigned int& slot, unsigned int& object) const override;
    Status setRaw(TBuf* value) override;
    TBuf* getKeyId() const override;
    Status setKeyId(TBuf* id) override;
    TBuf* sign(TBuf* data) const override;
    Status verify(TBuf* data, TBuf* signature) const override;
    TBuf* encrypt(TBuf* plain) const override;
    TBuf* decrypt(TBuf* cipher) const override;
    Status isConsistent(TKey* other, int deep) const override;
    Status setVendor(pki_vendor vendor) override;
    pki_vendor getVendor() const override;
    Status getError() const override;

private:
    // Everything of a key but its place in the framework.
    struct Attached {
        std::map<unsigned int, std::string> tags;
        std::map<unsigned int, std::string> texts;
        std::map<unsigned int, int> numbers;
        std::string id;
        pki_alg_t alg = PKI_ALG_NONE;
        pki_vendor vendor = 0;
        unsigned int slot = 0;
        unsigned int object = 0;
    };

    key_type_t keyType_;
    std::string value_;
    Attached attached_;
};

// Its operations are all recorded, and made to fail, under the name "createTKey".
class DoubleKeyService : public TPkixKeyService, private Watched {
public:
    static constexpr unsigned int kType = 0x080000;

    explicit DoubleKeyService(unsigned int objectType = kType);

    CallWatch& watch() { return *watch_; }

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    TKey* createTKey() override;
    TKey* createTKey(TKey::key_type_t keyType) override;
    TKey* createTKey(TKey::key_type_t keyType, const unsigned char* data,
                     unsigned int len) override;
};

#endif  // TESTS_SUPPORT_DOUBLES_DOUBLE_PKIXKEY_H
