// A key object: api/t_key.h says what its operations promise.
#ifndef MODULES_PKIXKEY_KEY_H
#define MODULES_PKIXKEY_KEY_H

#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "api/t_key.h"
#include "modules/common/wiped_bytes.h"
#include "modules/pkixkey/key_value.h"
#include "modules/pkixkey/pkey_io.h"

class Key final : public TKey {
public:
    static constexpr unsigned int kType = 0x3F0801;  // module 0x3f0008, kind 1

    static bool isKnown(key_type_t keyType) noexcept;

    explicit Key(key_type_t keyType);  // a known one
    // A key with the value of the raw form, or of what setKey() takes.
    static Status make(key_type_t keyType, Bytes bytes, std::unique_ptr<TKey>& made);

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
    using Value = std::shared_ptr<const KeyValue>;

    template <class Make>
    static TBuf* made(Make make);
    template <class Step>
    TBuf* through(TBuf* in, Step step) const;
    Status take(Bytes encoded);
    Status takeRaw(Bytes raw);
    Status takeFirst(std::initializer_list<PkeyForm> forms, Bytes bytes);

    key_type_t type_;
    pki_alg_t alg_;
    Value value_;  // none, or one that copies of this key share
    int usage_ = 0;
    std::map<unsigned char, WipedBytes> tagged_;
    std::optional<std::pair<unsigned int, unsigned int>> tokenId_;
    WipedBytes id_;  // empty: the one that follows from the value
    pki_vendor vendor_ = 0;
};

#endif  // MODULES_PKIXKEY_KEY_H
