#include "modules/pkixkey/key.h"

#include <algorithm>

#include "client/cmn_abuf.h"
#include "cmn/cmn_stub.h"
#include "modules/common/last_status.h"
#include "modules/pkixkey/pkey_type.h"
#include "modules/pkixkey/pkey_value.h"
#include "modules/pkixkey/symmetric_value.h"

namespace {

constexpr pki_alg_t kAlgs[] = {PKI_ALG_NONE,    PKI_ALG_RSA,     PKI_ALG_EC_P256, PKI_ALG_EC_P384,
                               PKI_ALG_EC_P521, PKI_ALG_ED25519, PKI_ALG_AES_GCM};

// The algorithm that a type of key is for.
pki_alg_t algOf(TKey::key_type_t type) {
    if (type == TKey::kSymmetric) {
        return PKI_ALG_AES_GCM;
    }
    const PkeyType* const known = findPkeyType(type);
    return known == nullptr ? PKI_ALG_NONE : known->alg;
}

bool isParameter(TKey::aka_t which) {
    return which >= TKey::kPublicKeyInfo && which <= TKey::kCurveName;
}

bool isParameter(TKey::bka_t which) {
    return which >= TKey::kBits && which <= TKey::kUsage;
}

// Runs `body` with the bytes of a buffer that the caller owns; kInvalid for null.
template <class Body>
Status withBytes(TBuf* buf, Body body) {
    if (buf == nullptr) {
        return kInvalid;
    }
    const GuardLock inUse(buf->getGuard());
    return body(Bytes(buf->data(), buf->length()));
}

TBuf* bufferOf(const WipedBytes& bytes) {
    return createTBuf(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

}  // namespace

bool Key::isKnown(key_type_t keyType) noexcept {
    return keyType == kNone || keyType == kSymmetric || findPkeyType(keyType) != nullptr;
}

Key::Key(key_type_t keyType) : TKey(kType), type_(keyType), alg_(algOf(keyType)) {}

Status Key::make(key_type_t keyType, Bytes bytes, std::unique_ptr<TKey>& made) {
    auto key = std::make_unique<Key>(keyType);
    Status status = key->take(bytes);
    if (status == kMalformed && keyType != kNone) {
        status = key->takeRaw(bytes);
    }
    if (status == kOk) {
        made = std::move(key);
    }
    return status;
}

// Takes the value in the first of the forms that it has. A key without type gets
// the value's.
Status Key::takeFirst(std::initializer_list<PkeyForm> forms, Bytes bytes) {
    Status status = kInvalid;
    for (const PkeyForm form : forms) {
        AnyPkey read;
        status = readPkey(form, type_, bytes, read);
        if (status == kOk) {
            const key_type_t found = read.type;
            value_ = std::make_shared<PkeyValue>(std::move(read));
            if (type_ == kNone) {
                type_ = found;
                alg_ = algOf(found);
            }
        }
        if (status != kMalformed) {
            break;
        }
    }
    return status;
}

Status Key::take(Bytes encoded) {
    return type_ == kSymmetric
               ? SymmetricValue::make(encoded, value_)
               : takeFirst({PkeyForm::kPrivateKeyInfo, PkeyForm::kPublicKeyInfo}, encoded);
}

Status Key::takeRaw(Bytes raw) {
    return type_ == kSymmetric ? SymmetricValue::make(raw, value_)
                               : takeFirst({PkeyForm::kRaw}, raw);
}

TKey* Key::duplicate() const {
    return recordedObject<TKey>([&](std::unique_ptr<TKey>& copy) {
        auto key = std::make_unique<Key>(type_);
        key->alg_ = alg_;
        key->value_ = value_;
        key->usage_ = usage_;
        key->tokenId_ = tokenId_;
        key->vendor_ = vendor_;
        for (const auto& [tag, bytes] : tagged_) {
            if (!key->tagged_[tag].assign(bytes.view())) {
                return kNoMemory;
            }
        }
        if (!key->id_.assign(id_.view())) {
            return kNoMemory;
        }
        copy = std::move(key);
        return kOk;
    });
}

int Key::compare(TKey* other) const {
    int differ = 1;
    (void)recorded([&] {
        if (other == nullptr) {
            return kInvalid;
        }
        const GuardLock inUse(other->getGuard());
        if (other->getType() != type_) {
            return kOk;
        }
        const aBuf theirs(other->getKey());
        const Status lacking = theirs.target() == nullptr ? other->getError() : kOk;
        if (lacking != kOk && lacking != kEnd) {
            return lacking;
        }
        if (value_ == nullptr || lacking == kEnd) {
            differ = value_ == nullptr && lacking == kEnd ? 0 : 1;
            return kOk;
        }
        // What a key gives is always the same, in whatever form it came.
        const aBuf ours(getKey());
        if (ours.target() == nullptr) {
            return lastStatus;
        }
        differ = ours != theirs ? 1 : 0;
        return kOk;
    });
    return differ;
}

Status Key::clear() {
    value_.reset();
    return recorded([] { return kOk; });
}

TKey::key_type_t Key::getType() const {
    (void)recorded([] { return kOk; });
    return type_;
}

Status Key::setAlg(pki_alg_t alg) {
    return recorded([&] {
        if (std::find(std::begin(kAlgs), std::end(kAlgs), alg) == std::end(kAlgs) ||
            (type_ != kNone && alg != PKI_ALG_NONE && alg != algOf(type_))) {
            return kInvalid;
        }
        alg_ = alg;
        return kOk;
    });
}

pki_alg_t Key::getAlg() const {
    (void)recorded([] { return kOk; });
    return alg_;
}

// A new buffer that `make` has filled.
template <class Make>
TBuf* Key::made(Make make) {
    return recordedObject<TBuf>([&](std::unique_ptr<TBuf>& buf) {
        buf.reset(createTBuf());
        return buf == nullptr ? kNoObject : make(*buf);
    });
}

Status Key::setKey(TBuf* value) {
    return recorded([&] { return withBytes(value, [&](Bytes bytes) { return take(bytes); }); });
}

TBuf* Key::getKey() const {
    return made([&](TBuf& into) { return value_ == nullptr ? kEnd : value_->encoded(into); });
}

TBuf* Key::getParam(unsigned char tag) const {
    return recordedObject<TBuf>([&](std::unique_ptr<TBuf>& buf) {
        const auto found = tagged_.find(tag);
        if (found == tagged_.end()) {
            return kEnd;
        }
        buf.reset(bufferOf(found->second));
        return buf == nullptr ? kNoObject : kOk;
    });
}

Status Key::setParam(unsigned char tag, TBuf* value) {
    return recorded([&] {
        return withBytes(value, [&](Bytes bytes) {
            WipedBytes copy;
            if (!copy.assign(bytes)) {
                return kNoMemory;
            }
            tagged_.insert_or_assign(tag, std::move(copy));
            return kOk;
        });
    });
}

TBuf* Key::getParam(aka_t which) const {
    return made([&](TBuf& into) {
        if (!isParameter(which)) {
            return kInvalid;
        }
        return value_ == nullptr ? kEnd : value_->param(which, into);
    });
}

int Key::getParam(bka_t which) const {
    int number = -1;
    (void)recorded([&] {
        if (!isParameter(which)) {
            return kInvalid;
        }
        if (which == kUsage) {
            number = usage_;
            return kOk;
        }
        number = value_ == nullptr ? -1 : value_->number(which);
        return number < 0 ? kEnd : kOk;
    });
    return number;
}

Status Key::setParam(aka_t which, TBuf* value) {
    return recorded([&] {
        if (type_ == kSymmetric || (which != kPublicKeyInfo && which != kPrivateKeyInfo)) {
            return kInvalid;
        }
        const PkeyForm form =
            which == kPublicKeyInfo ? PkeyForm::kPublicKeyInfo : PkeyForm::kPrivateKeyInfo;
        return withBytes(value, [&](Bytes bytes) { return takeFirst({form}, bytes); });
    });
}

Status Key::setParam(bka_t which, int value) {
    return recorded([&] {
        if (which != kUsage) {
            return kInvalid;
        }
        usage_ = value;
        return kOk;
    });
}

TBuf* Key::getRaw() const {
    return made([&](TBuf& into) { return value_ == nullptr ? kEnd : value_->raw(into); });
}

Status Key::setRaw(const unsigned char* data, unsigned int len) {
    return recorded([&] { return data == nullptr ? kInvalid : takeRaw({data, len}); });
}

Status Key::setRaw(TBuf* value) {
    return recorded([&] { return withBytes(value, [&](Bytes bytes) { return takeRaw(bytes); }); });
}

Status Key::setTokenId(unsigned int slot, unsigned int object) {
    return recorded([&] {
        tokenId_.emplace(slot, object);
        return kOk;
    });
}

Status Key::getTokenId(unsigned int& slot, unsigned int& object) const {
    return recorded([&] {
        if (!tokenId_) {
            return kEnd;
        }
        slot = tokenId_->first;
        object = tokenId_->second;
        return kOk;
    });
}

TBuf* Key::getKeyId() const {
    return recordedObject<TBuf>([&](std::unique_ptr<TBuf>& buf) {
        buf.reset(bufferOf(id_));
        if (buf == nullptr) {
            return kNoObject;
        }
        if (!id_.empty()) {
            return kOk;
        }
        return value_ == nullptr ? kEnd : value_->keyId(*buf);
    });
}

Status Key::setKeyId(TBuf* id) {
    return recorded([&] {
        return withBytes(id, [&](Bytes bytes) { return id_.assign(bytes) ? kOk : kNoMemory; });
    });
}

// A new buffer that `step` of the value makes of the bytes of `in`.
template <class Step>
TBuf* Key::through(TBuf* in, Step step) const {
    return made([&](TBuf& into) {
        return withBytes(in, [&](Bytes bytes) {
            return value_ == nullptr ? kEnd : (value_.get()->*step)(bytes, into);
        });
    });
}

TBuf* Key::sign(TBuf* data) const {
    return through(data, &KeyValue::sign);
}

Status Key::verify(TBuf* data, TBuf* signature) const {
    return recorded([&] {
        return withBytes(data, [&](Bytes bytes) {
            return withBytes(signature, [&](Bytes proof) {
                return value_ == nullptr ? kEnd : value_->verify(bytes, proof);
            });
        });
    });
}

TBuf* Key::encrypt(TBuf* plain) const {
    return through(plain, &KeyValue::encrypt);
}

TBuf* Key::decrypt(TBuf* cipher) const {
    return through(cipher, &KeyValue::decrypt);
}

Status Key::isConsistent(TKey* other, int deep) const {
    return recorded([&] {
        if (value_ == nullptr) {
            return kEnd;
        }
        if (other != nullptr) {
            const GuardLock inUse(other->getGuard());
            if (other->getType() != type_) {
                return kIo;
            }
            const auto pairedPart = [](const TKey& key) {
                return std::unique_ptr<TBuf>(
                    key.getType() == kSymmetric ? key.getRaw() : key.getParam(kPublicKeyInfo));
            };
            const auto ours = pairedPart(*this);
            if (ours == nullptr) {
                return lastStatus;
            }
            const auto theirs = pairedPart(*other);
            if (ours->compare(theirs.get()) != 0) {
                return kIo;
            }
        }
        return deep != 0 ? value_->check() : kOk;
    });
}

Status Key::setVendor(pki_vendor vendor) {
    vendor_ = vendor;
    return recorded([] { return kOk; });
}

pki_vendor Key::getVendor() const {
    (void)recorded([] { return kOk; });
    return vendor_;
}

Status Key::getError() const {
    return lastStatus;
}
