// The value of an asymmetric key.
#ifndef MODULES_PKIXKEY_PKEY_VALUE_H
#define MODULES_PKIXKEY_PKEY_VALUE_H

#include <memory>
#include <utility>

#include "modules/pkixkey/key_value.h"
#include "modules/pkixkey/pkey_io.h"

class PkeyValue final : public KeyValue {
public:
    explicit PkeyValue(AnyPkey key) noexcept : key_(std::move(key)) {}

    Status encoded(TBuf& into) const override;
    Status raw(TBuf& into) const override;
    Status param(TKey::aka_t which, TBuf& into) const override;
    int number(TKey::bka_t which) const override;
    Status keyId(TBuf& into) const override;
    Status sign(Bytes data, TBuf& into) const override;
    Status verify(Bytes data, Bytes signature) const override;
    Status encrypt(Bytes plain, TBuf& into) const override;
    Status decrypt(Bytes cipher, TBuf& into) const override;
    Status check() const override;

private:
    Status written(PkeyForm form, TBuf& into) const;
    Status bigNumber(const char* name, TBuf& into) const;

    AnyPkey key_;
};

#endif  // MODULES_PKIXKEY_PKEY_VALUE_H
