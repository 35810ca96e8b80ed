// The value of a key: the bytes or numbers it is made of, and what they can do.
//
// Values never change, so copies of a key share one, and any number of threads
// may use it at once.
#ifndef MODULES_PKIXKEY_KEY_VALUE_H
#define MODULES_PKIXKEY_KEY_VALUE_H

#include "api/t_buf.h"
#include "api/t_key.h"
#include "cmn/status.h"
#include "modules/common/bytes.h"

// What an operation gives as bytes it appends to an empty buffer. Those that a kind
// of key does not have are kInvalid to use, and kEnd to ask for.
class KeyValue {
public:
    KeyValue() = default;
    KeyValue(const KeyValue&) = delete;
    KeyValue& operator=(const KeyValue&) = delete;
    virtual ~KeyValue() = default;

    virtual Status encoded(TBuf& into) const = 0;  // as TKey::getKey()
    virtual Status raw(TBuf& into) const = 0;      // as TKey::getRaw()
    virtual Status param(TKey::aka_t /*which*/, TBuf& /*into*/) const { return kEnd; }
    virtual int number(TKey::bka_t which) const = 0;  // -1: has none
    // The one that follows from the value.
    virtual Status keyId(TBuf& /*into*/) const { return kEnd; }

    virtual Status sign(Bytes /*data*/, TBuf& /*into*/) const { return kInvalid; }
    virtual Status verify(Bytes /*data*/, Bytes /*signature*/) const { return kInvalid; }
    virtual Status encrypt(Bytes plain, TBuf& into) const = 0;
    virtual Status decrypt(Bytes cipher, TBuf& into) const = 0;

    // kOk when arithmetic finds the parts to fit each other, else kIo.
    virtual Status check() const = 0;
};

#endif  // MODULES_PKIXKEY_KEY_VALUE_H
