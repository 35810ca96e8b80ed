// DER, read as strictly as it is written: of what BER allows beyond it, such as
// indefinite lengths, lengths and numbers with leading zeros, and strings in pieces,
// nothing is read. So each value has one encoding, and nothing hides in another.
#ifndef MODULES_PKIXKEY_DER_H
#define MODULES_PKIXKEY_DER_H

#include "modules/common/bytes.h"

namespace der {

enum Tag : unsigned char {
    kInteger = 0x02,
    kBitString = 0x03,
    kOctetString = 0x04,
    kObjectId = 0x06,
    kSequence = 0x30,
    kSet = 0x31,
    kPrimitive1 = 0x81,    // [1] of a string, implicit
    kConstructed0 = 0xA0,  // [0]
    kConstructed1 = 0xA1   // [1]
};

// Goes through elements that stand one after the other. An operation is false when the
// next element is not what was asked for, and the bytes are none of the form then.
class Reader {
public:
    explicit Reader(Bytes elements) noexcept : rest_(elements) {}

    [[nodiscard]] bool done() const noexcept { return rest_.empty(); }
    [[nodiscard]] bool nextIs(Tag tag) const noexcept {
        return !rest_.empty() && rest_.front() == tag;
    }

    // The contents of the next element.
    [[nodiscard]] bool take(Tag tag, Bytes& contents) noexcept;
    // The same, of one that nothing follows.
    [[nodiscard]] bool takeLast(Tag tag, Bytes& contents) noexcept;

    // A number that is not negative, big-endian without leading zeros: 0 has no bytes.
    [[nodiscard]] bool takeNumber(Bytes& magnitude) noexcept;

    // The bits of a BIT STRING, or of what is tagged instead of one, in whole octets.
    [[nodiscard]] bool takeBits(Tag tag, Bytes& octets) noexcept;

private:
    Bytes rest_;
};

// Whether these are the attributes of a key: a SET OF pairs of a type and values, of
// whatever meaning, but DER down to the last of them.
[[nodiscard]] bool isAttributes(Bytes elements) noexcept;

}  // namespace der

#endif  // MODULES_PKIXKEY_DER_H
