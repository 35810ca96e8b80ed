#include "tests/support/doubles/double_pkixkey.h"

#include <utility>

#include "client/cmn_abuf.h"
#include "tests/support/doubles/double_x509cmn.h"
#include "tests/support/doubles/toy_cipher.h"

namespace {

thread_local Status lastError = kOk;

Status ended(Status status) {
    lastError = status;
    return status;
}

// A new buffer with the bytes, unless the operation has failed.
TBuf* give(Status status, const std::string& bytes) {
    TBuf* made = nullptr;
    if (status == kOk) {
        made = createTBuf(reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<unsigned int>(bytes.size()));
        status = made == nullptr ? kNoMemory : kOk;
    }
    (void)ended(status);
    return made;
}

// Puts the buffer's contents in place of `to`, unless the operation has failed.
Status put(Status status, TBuf* from, std::string& to) {
    if (status == kOk && from == nullptr) {
        status = kInvalid;
    }
    if (status == kOk) {
        to = bytesOf(from);
    }
    return ended(status);
}

Status putAt(Status status, TBuf* from, std::map<unsigned int, std::string>& map,
             unsigned int key) {
    std::string bytes;
    status = put(status, from, bytes);
    if (status == kOk) {
        map[key] = bytes;
    }
    return status;
}

TBuf* giveFrom(Status status, const std::map<unsigned int, std::string>& map, unsigned int key) {
    const auto found = map.find(key);
    if (found == map.end()) {
        return give(status != kOk ? status : kEnd, {});
    }
    return give(status, found->second);
}

std::string bytesAt(const unsigned char* data, unsigned int len) {
    return data == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(data), len);
}

}  // namespace

// As for buffers: a doubled key is looked into, another one is asked.
std::string bytesOf(TKey* key) {
    if (const auto* const ours = dynamic_cast<const DoubleKey*>(key)) {
        return ours->value();
    }
    return key == nullptr ? std::string() : bytesOf(aBuf(key->getRaw()).target());
}

std::string tell(TKey* key) {
    return key == nullptr ? "no key" : "key " + bytesOf(key);
}

DoubleKey::DoubleKey(Watch watch, key_type_t keyType, std::string value)
    : TKey(kType), Watched(std::move(watch)), keyType_(keyType), value_(std::move(value)) {}

TKey* DoubleKey::duplicate() const {
    if (ended(watch_->called(*this, "duplicate")) != kOk) {
        return nullptr;
    }
    auto* const copy = new DoubleKey(watch_, keyType_, value_);
    copy->attached_ = attached_;
    return copy;
}

int DoubleKey::compare(TKey* other) const {
    (void)ended(watch_->called(*this, "compare", other));
    return other != nullptr && value_ == bytesOf(other) ? 0 : 1;
}

Status DoubleKey::clear() {
    const Status status = watch_->called(*this, "clear");
    if (status == kOk) {
        value_.clear();
    }
    return ended(status);
}

TKey::key_type_t DoubleKey::getType() const {
    (void)ended(watch_->called(*this, "getType"));
    return keyType_;
}

Status DoubleKey::setAlg(pki_alg_t alg) {
    const Status status = watch_->called(*this, "setAlg", alg);
    if (status == kOk) {
        attached_.alg = alg;
    }
    return ended(status);
}

pki_alg_t DoubleKey::getAlg() const {
    (void)ended(watch_->called(*this, "getAlg"));
    return attached_.alg;
}

Status DoubleKey::setKey(TBuf* value) {
    return put(watch_->called(*this, "setKey", value), value, value_);
}

TBuf* DoubleKey::getKey() const {
    return give(watch_->called(*this, "getKey"), value_);
}

TBuf* DoubleKey::getParam(unsigned char tag) const {
    return giveFrom(watch_->called(*this, "getParam tag", tag), attached_.tags, tag);
}

Status DoubleKey::setParam(unsigned char tag, TBuf* value) {
    return putAt(watch_->called(*this, "setParam tag", tag, value), value, attached_.tags, tag);
}

TBuf* DoubleKey::getParam(aka_t which) const {
    return giveFrom(watch_->called(*this, "getParam aka", which), attached_.texts, which);
}

int DoubleKey::getParam(bka_t which) const {
    const Status status = ended(watch_->called(*this, "getParam bka", which));
    const auto found = attached_.numbers.find(which);
    return status != kOk || found == attached_.numbers.end() ? -1 : found->second;
}

Status DoubleKey::setParam(aka_t which, TBuf* value) {
    return putAt(watch_->called(*this, "setParam aka", which, value), value, attached_.texts,
                 which);
}

Status DoubleKey::setParam(bka_t which, int value) {
    const Status status = watch_->called(*this, "setParam bka", which, value);
    if (status == kOk) {
        attached_.numbers[which] = value;
    }
    return ended(status);
}

TBuf* DoubleKey::getRaw() const {
    return give(watch_->called(*this, "getRaw"), value_);
}

Status DoubleKey::setRaw(const unsigned char* data, unsigned int len) {
    const std::string bytes = bytesAt(data, len);
    const Status status = watch_->called(*this, "setRaw", std::string_view(bytes));
    if (status == kOk) {
        value_ = bytes;
    }
    return ended(status);
}

Status DoubleKey::setTokenId(unsigned int slot, unsigned int object) {
    const Status status = watch_->called(*this, "setTokenId", slot, object);
    if (status == kOk) {
        attached_.slot = slot;
        attached_.object = object;
    }
    return ended(status);
}

Status DoubleKey::getTokenId(unsigned int& slot, unsigned int& object) const {
    const Status status = watch_->called(*this, "getTokenId");
    if (status == kOk) {
        slot = attached_.slot;
        object = attached_.object;
    }
    return ended(status);
}

Status DoubleKey::setRaw(TBuf* value) {
    return put(watch_->called(*this, "setRaw", value), value, value_);
}

TBuf* DoubleKey::getKeyId() const {
    return give(watch_->called(*this, "getKeyId"), attached_.id);
}

Status DoubleKey::setKeyId(TBuf* id) {
    return put(watch_->called(*this, "setKeyId", id), id, attached_.id);
}

TBuf* DoubleKey::sign(TBuf* data) const {
    return give(watch_->called(*this, "sign", data), toy::tag(value_, bytesOf(data)));
}

Status DoubleKey::verify(TBuf* data, TBuf* signature) const {
    Status status = watch_->called(*this, "verify", data, signature);
    if (status == kOk && bytesOf(signature) != toy::tag(value_, bytesOf(data))) {
        status = kIo;
    }
    return ended(status);
}

TBuf* DoubleKey::encrypt(TBuf* plain) const {
    return give(watch_->called(*this, "encrypt", plain), toy::seal(value_, 1, bytesOf(plain)));
}

TBuf* DoubleKey::decrypt(TBuf* cipher) const {
    const Status status = watch_->called(*this, "decrypt", cipher);
    const auto plain = toy::open(value_, bytesOf(cipher));
    return plain ? give(status, *plain) : give(status != kOk ? status : kIo, {});
}

Status DoubleKey::isConsistent(TKey* other, int deep) const {
    Status status = watch_->called(*this, "isConsistent", other, deep);
    if (status == kOk && other != nullptr && bytesOf(other) != value_) {
        status = kIo;
    }
    return ended(status);
}

Status DoubleKey::setVendor(pki_vendor vendor) {
    const Status status = watch_->called(*this, "setVendor", vendor);
    if (status == kOk) {
        attached_.vendor = vendor;
    }
    return ended(status);
}

pki_vendor DoubleKey::getVendor() const {
    (void)ended(watch_->called(*this, "getVendor"));
    return attached_.vendor;
}

Status DoubleKey::getError() const {
    (void)watch_->called(*this, "getError");
    return lastError;
}

DoubleKeyService::DoubleKeyService(unsigned int objectType)
    : TPkixKeyService(objectType), Watched(std::make_shared<CallWatch>()) {}

TKey* DoubleKeyService::createTKey() {
    const bool fails = ended(watch_->called(*this, "createTKey")) != kOk;
    return fails ? nullptr : new DoubleKey(watch_, TKey::kNone, {});
}

TKey* DoubleKeyService::createTKey(TKey::key_type_t keyType) {
    const bool fails = ended(watch_->called(*this, "createTKey", keyType)) != kOk;
    return fails ? nullptr : new DoubleKey(watch_, keyType, {});
}

TKey* DoubleKeyService::createTKey(TKey::key_type_t keyType, const unsigned char* data,
                                   unsigned int len) {
    const std::string bytes = bytesAt(data, len);
    const bool fails =
        ended(watch_->called(*this, "createTKey", keyType, std::string_view(bytes))) != kOk;
    return fails ? nullptr : new DoubleKey(watch_, keyType, bytes);
}
