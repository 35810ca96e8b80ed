// The value of a symmetric key.
#ifndef MODULES_PKIXKEY_SYMMETRIC_VALUE_H
#define MODULES_PKIXKEY_SYMMETRIC_VALUE_H

#include <memory>

#include "modules/common/gcm_frame.h"
#include "modules/common/wiped_bytes.h"
#include "modules/pkixkey/key_value.h"

class SymmetricValue final : public KeyValue {
public:
    static constexpr std::size_t kMostBytes = 1024;

    // kMalformed for no bytes, or for more than a key may have.
    static Status make(Bytes bytes, std::shared_ptr<const KeyValue>& made);

    Status encoded(TBuf& into) const override { return raw(into); }
    Status raw(TBuf& into) const override;
    int number(TKey::bka_t which) const override;
    Status encrypt(Bytes plain, TBuf& into) const override;
    Status decrypt(Bytes cipher, TBuf& into) const override;
    Status check() const override;

private:
    WipedBytes bytes_;
    std::unique_ptr<GcmFrame> frame_;  // none when the size is not one of AES
};

#endif  // MODULES_PKIXKEY_SYMMETRIC_VALUE_H
