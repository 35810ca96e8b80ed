#include "modules/pkixkey/der.h"

#include <algorithm>
#include <cstddef>

namespace der {
namespace {

// Attributes are not nested deeper; more than this is an attack on the stack.
constexpr int kMostLevels = 16;

struct Element {
    unsigned char tag = 0;
    Bytes whole;
    Bytes contents;
};

// Takes the first element off `elements`.
bool split(Bytes& elements, Element& first) noexcept {
    constexpr unsigned char kLongTag = 0x1F;
    if (elements.size() < 2 || (elements[0] & kLongTag) == kLongTag) {
        return false;
    }
    std::size_t header = 2;
    std::size_t length = elements[1];
    if (length >= 0x80) {
        const std::size_t digits = length & 0x7F;
        // No digit: the length is not told. A leading zero: one digit too many.
        if (digits == 0 || digits > 4 || elements.size() - header < digits ||
            elements[header] == 0) {
            return false;
        }
        length = 0;
        for (std::size_t i = 0; i != digits; ++i) {
            length = length << 8 | elements[header + i];
        }
        header += digits;
        if (length < 0x80) {
            return false;
        }
    }
    if (length > elements.size() - header) {
        return false;
    }
    first = {elements[0], elements.first(header + length), elements.subspan(header, length)};
    elements = elements.subspan(header + length);
    return true;
}

bool isMinimal(Bytes integer) noexcept {
    if (integer.size() < 2) {
        return !integer.empty();
    }
    const bool sign = (integer[1] & 0x80) != 0;
    return !(integer[0] == 0x00 && !sign) && !(integer[0] == 0xFF && sign);
}

// Whether the elements are all DER, down to their last one.
// NOLINTNEXTLINE(misc-no-recursion): as deep as `levels` allows
bool isWellFormed(Bytes elements, int levels) noexcept {
    constexpr unsigned char kClass = 0xC0;
    constexpr unsigned char kConstructed = 0x20;
    Element next;
    while (!elements.empty()) {
        if (!split(elements, next)) {
            return false;
        }
        const bool constructed = (next.tag & kConstructed) != 0;
        const bool universal = (next.tag & kClass) == 0;
        const unsigned char number = next.tag & 0x1F;
        if (universal && constructed != (number == (kSequence & 0x1F) || number == (kSet & 0x1F))) {
            return false;  // a string in pieces, say
        }
        if (next.tag == kInteger && !isMinimal(next.contents)) {
            return false;
        }
        if (constructed && (levels == 0 || !isWellFormed(next.contents, levels - 1))) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool Reader::take(Tag tag, Bytes& contents) noexcept {
    Element next;
    if (!nextIs(tag) || !split(rest_, next)) {
        return false;
    }
    contents = next.contents;
    return true;
}

bool Reader::takeLast(Tag tag, Bytes& contents) noexcept {
    return take(tag, contents) && done();
}

bool Reader::takeNumber(Bytes& magnitude) noexcept {
    Bytes integer;
    if (!take(kInteger, integer) || !isMinimal(integer) || (integer[0] & 0x80) != 0) {
        return false;
    }
    magnitude = integer[0] == 0 ? integer.subspan(1) : integer;
    return true;
}

bool Reader::takeBits(Tag tag, Bytes& octets) noexcept {
    Bytes bits;
    if (!take(tag, bits) || bits.empty() || bits[0] != 0) {
        return false;
    }
    octets = bits.subspan(1);
    return true;
}

bool isAttributes(Bytes elements) noexcept {
    if (!isWellFormed(elements, kMostLevels)) {
        return false;
    }
    Element before;
    Element next;
    while (!elements.empty()) {
        Bytes type;
        Bytes values;
        if (!split(elements, next)) {
            return false;
        }
        Reader pair(next.contents);
        if (next.tag != kSequence || !pair.take(kObjectId, type) || !pair.takeLast(kSet, values)) {
            return false;
        }
        // The elements of a SET OF stand in the order of their bytes.
        if (std::lexicographical_compare(next.whole.begin(), next.whole.end(), before.whole.begin(),
                                         before.whole.end())) {
            return false;
        }
        before = next;
    }
    return true;
}

}  // namespace der
