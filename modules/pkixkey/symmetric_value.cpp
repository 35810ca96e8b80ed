#include "modules/pkixkey/symmetric_value.h"

#include <utility>

Status SymmetricValue::make(Bytes bytes, std::shared_ptr<const KeyValue>& made) {
    if (bytes.empty() || bytes.size() > kMostBytes) {
        return kMalformed;
    }
    auto value = std::make_shared<SymmetricValue>();
    if (!value->bytes_.assign(bytes)) {
        return kNoMemory;
    }
    if (GcmFrame::isKeySize(bytes.size())) {
        if (const Status status = GcmFrame::make(bytes, value->frame_); status != kOk) {
            return status;
        }
    }
    made = std::move(value);
    return kOk;
}

Status SymmetricValue::raw(TBuf& into) const {
    return into.append(bytes_.data(), static_cast<unsigned int>(bytes_.size()));
}

int SymmetricValue::number(TKey::bka_t which) const {
    switch (which) {
        case TKey::kBits:
            return static_cast<int>(bytes_.size() * 8);
        case TKey::kIsPrivate:
            return 1;
        default:
            return -1;
    }
}

Status SymmetricValue::encrypt(Bytes plain, TBuf& into) const {
    return frame_ == nullptr ? kInvalid : frame_->encrypt(plain, into);
}

Status SymmetricValue::decrypt(Bytes cipher, TBuf& into) const {
    return frame_ == nullptr ? kInvalid : frame_->decrypt(cipher, into);
}

Status SymmetricValue::check() const {
    return kOk;
}
