#include "tests/support/doubles/double_pkcs5.h"

#include <utility>

#include "client/cmn_abuf.h"
#include "client/pkixakey.h"
#include "cmn/no_throw.h"
#include "tests/support/doubles/double_pkixkey.h"
#include "tests/support/doubles/double_x509cmn.h"

namespace {

constexpr unsigned int kLongestKey = 32;

thread_local Status lastError = kOk;

Status ended(Status status) {
    lastError = status;
    return status;
}

constexpr unsigned int typeOf(PKCS5_Interface::objectName_t name) {
    return DoublePkcs5::kType + 1 + name;
}

const unsigned char* start(const std::string& bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

unsigned int size(const std::string& bytes) {
    return static_cast<unsigned int>(bytes.size());
}

TBuf* newBuf(const std::string& bytes) {
    TBuf* const made = createTBuf(start(bytes), size(bytes));
    (void)ended(made == nullptr ? kNoMemory : kOk);
    return made;
}

TKey* newKey(const std::string& bytes) {
    TKey* const made = pkixKeyClnt.createTKey(TKey::kSymmetric, start(bytes), size(bytes));
    (void)ended(made == nullptr ? kNoMemory : kOk);
    return made;
}

std::string tellNumber(unsigned int number) {
    return "number " + std::to_string(number);
}

std::string tellAlg(pki_alg_t alg) {
    return "alg " + std::to_string(alg);
}

}  // namespace

std::string tell(HashMap* map) {
    return map == nullptr ? "no map" : "map";
}

Status DoubleParameters::select(PBES::param selector) {
    if (selector < PBES::kPassword || selector > PBES::kSecondAlg) {
        return kInvalid;
    }
    selector_ = selector;
    return kOk;
}

Status DoubleParameters::supply(TBuf* bytes) {
    if (bytes == nullptr || (selector_ != PBES::kPassword && selector_ != PBES::kSalt)) {
        return kInvalid;
    }
    const bool isPassword = selector_ == PBES::kPassword;
    (isPassword ? values_.password : values_.salt) = bytesOf(bytes);
    hasPassword_ = hasPassword_ || isPassword;
    return kOk;
}

Status DoubleParameters::supply(unsigned int number) {
    if (number == 0 || (selector_ != PBES::kIterations && selector_ != PBES::kKeyLength)) {
        return kInvalid;
    }
    (selector_ == PBES::kIterations ? values_.iterations : values_.length) = number;
    return kOk;
}

Status DoubleParameters::supply(pki_alg_t alg) {
    if (selector_ != PBES::kFirstAlg && selector_ != PBES::kSecondAlg) {
        return kInvalid;
    }
    (selector_ == PBES::kFirstAlg ? values_.firstAlg : values_.secondAlg) = alg;
    return kOk;
}

Status DoubleParameters::check() const {
    const bool complete = !refused_ && hasPassword_ && values_.iterations != 0 &&
                          values_.length != 0 && values_.length <= kLongestKey &&
                          values_.firstAlg != PKI_ALG_NONE;
    return complete ? kOk : kInvalid;
}

DoublePbes::DoublePbes(Watch watch, pbes_type scheme)
    : PBES(typeOf(scheme == kPbkdf2 ? PKCS5_Interface::kPbes0 : PKCS5_Interface::kPbes1)),
      Watched(std::move(watch)),
      scheme_(scheme) {}

Status DoublePbes::parameter(Status status) {
    const std::lock_guard locked(mutex_);
    key_.reset();
    return ended(parameters_.noted(status));
}

Status DoublePbes::select(param selector) {
    const Status told = watch_->called(*this, "select", selector);
    return ended(parameters_.noted(told != kOk ? told : parameters_.select(selector)));
}

Status DoublePbes::supply(TBuf* bytes) {
    const Status told = watch_->called(*this, "supply", bytes);
    return parameter(told != kOk ? told : parameters_.supply(bytes));
}

Status DoublePbes::supply(unsigned int number) {
    const Status told = watch_->called(*this, "supply", tellNumber(number));
    return parameter(told != kOk ? told : parameters_.supply(number));
}

Status DoublePbes::supply(pki_alg_t alg) {
    const Status told = watch_->called(*this, "supply", tellAlg(alg));
    return parameter(told != kOk ? told : parameters_.supply(alg));
}

Status DoublePbes::setKey(TKey* key) {
    const Status told = watch_->called(*this, "setKey", key);
    if (told != kOk || key == nullptr) {
        return ended(told != kOk ? told : kInvalid);
    }
    const std::lock_guard locked(mutex_);
    key_ = bytesOf(key);
    return ended(kOk);
}

// The key that is there, else the one that the parameters make.
Status DoublePbes::derive(std::string& key) {
    const std::lock_guard locked(mutex_);
    if (!key_) {
        if (parameters_.check() != kOk || parameters_.values().secondAlg != PKI_ALG_AES_GCM) {
            return kInvalid;
        }
        toy::Parameters values = parameters_.values();
        values.purpose = scheme_;
        key_ = toy::derive(values);
    }
    key = *key_;
    return kOk;
}

TKey* DoublePbes::getKey() {
    std::string key;
    Status status = watch_->called(*this, "getKey");
    if (status == kOk) {
        status = derive(key);
    }
    return ended(status) == kOk ? newKey(key) : nullptr;
}

// A new buffer of what `step` makes of the key and the bytes of `in`. As the service
// promises, want of memory is a status.
template <class Step>
TBuf* DoublePbes::through(Status told, TBuf* in, Step step) {
    TBuf* made = nullptr;
    const Status status = told != kOk ? told : noThrow([&] {
        std::string key;
        if (const Status bad = in == nullptr ? kInvalid : derive(key); bad != kOk) {
            return bad;
        }
        const std::optional<std::string> out = step(key, bytesOf(in));
        if (!out) {
            return kIo;
        }
        made = newBuf(*out);
        return lastError;
    });
    (void)ended(status);
    return made;
}

TBuf* DoublePbes::encrypt(TBuf* plain) {
    return through(watch_->called(*this, "encrypt", plain), plain,
                   [&](const std::string& key, const std::string& bytes) {
                       return std::optional(toy::seal(key, ++nonce_, bytes));
                   });
}

TBuf* DoublePbes::decrypt(TBuf* cipher) {
    return through(watch_->called(*this, "decrypt", cipher), cipher, toy::open);
}

Status DoublePbes::error() {
    const Status told = watch_->called(*this, "error");
    return told != kOk ? told : lastError;
}

DoubleHashMap::DoubleHashMap(Watch watch)
    : HashMap(typeOf(PKCS5_Interface::kHashMap)), Watched(std::move(watch)) {}

Status DoubleHashMap::add(TBuf* key, TBuf* value) {
    if (const Status told = watch_->called(*this, "add", key, value); told != kOk) {
        return ended(told);
    }
    if (key == nullptr || value == nullptr) {
        return ended(kInvalid);
    }
    const std::lock_guard locked(mutex_);
    values_[bytesOf(key)] = bytesOf(value);
    return ended(kOk);
}

TBuf* DoubleHashMap::find(TBuf* key) {
    if (ended(watch_->called(*this, "find", key)) != kOk) {
        return nullptr;
    }
    const std::lock_guard locked(mutex_);
    const auto found = values_.find(bytesOf(key));
    if (key == nullptr || found == values_.end()) {
        (void)ended(kEnd);
        return nullptr;
    }
    return newBuf(found->second);
}

DoubleP12Pbkdf::DoubleP12Pbkdf(Watch watch)
    : P12PBKDF(typeOf(PKCS5_Interface::kP12Pbkdf)), Watched(std::move(watch)) {}

Status DoubleP12Pbkdf::select(param selector) {
    const Status told = watch_->called(*this, "select", selector);
    return ended(parameters_.noted(told != kOk ? told : parameters_.select(selector)));
}

Status DoubleP12Pbkdf::supply(TBuf* bytes) {
    const Status told = watch_->called(*this, "supply", bytes);
    return ended(parameters_.noted(told != kOk ? told : parameters_.supply(bytes)));
}

Status DoubleP12Pbkdf::supply(unsigned int number) {
    const Status told = watch_->called(*this, "supply", tellNumber(number));
    return ended(parameters_.noted(told != kOk ? told : parameters_.supply(number)));
}

Status DoubleP12Pbkdf::supply(pki_alg_t alg) {
    const Status told = watch_->called(*this, "supply", tellAlg(alg));
    return ended(parameters_.noted(told != kOk ? told : parameters_.supply(alg)));
}

TKey* DoubleP12Pbkdf::getKey(target purpose) {
    Status status = watch_->called(*this, "getKey", purpose);
    if (status == kOk) {
        status = parameters_.check();
    }
    return ended(status) == kOk ? newKey(deriveOrFind(purpose)) : nullptr;
}

std::string DoubleP12Pbkdf::deriveOrFind(target purpose) {
    toy::Parameters values = parameters_.values();
    values.purpose = purpose;
    if (map_.get() == nullptr) {
        return toy::derive(values);
    }
    const std::string image = values.image();
    const aBuf label(start(image), size(image));
    if (const aBuf known(map_.get()->find(label.target())); known.target() != nullptr) {
        return bytesOf(known.target());
    }
    const std::string key = toy::derive(values);
    const aBuf value(start(key), size(key));
    (void)map_.get()->add(label.target(), value.target());  // a saving, which may fail
    return key;
}

Status DoubleP12Pbkdf::error() {
    (void)watch_->called(*this, "error");
    return lastError;
}

Status DoubleP12Pbkdf::setHashMap(HashMap* map) {
    const Status told = watch_->called(*this, "setHashMap", map);
    if (told == kOk) {
        map_ = map;
    }
    return ended(told);
}

DoublePkcs5::DoublePkcs5(unsigned int objectType)
    : PKCS5_Interface(objectType), Watched(std::make_shared<CallWatch>()) {}

CMN_GuardedRef* DoublePkcs5::createObject(objectName_t name) {
    if (ended(watch_->called(*this, "createObject", name)) != kOk) {
        return nullptr;
    }
    switch (name) {
        case kPbes0:
            return new DoublePbes(watch_, PBES::kPbkdf2);
        case kPbes1:
            return new DoublePbes(watch_, PBES::kPkcs12);
        case kP12Pbkdf:
            return new DoubleP12Pbkdf(watch_);
        case kHashMap:
            return new DoubleHashMap(watch_);
    }
    (void)ended(kInvalid);
    return nullptr;
}
