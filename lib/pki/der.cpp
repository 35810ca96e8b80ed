#include "lib/pki/der.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr unsigned char kIntegerTag = 0x02;
constexpr unsigned char kBitStringTag = 0x03;
constexpr unsigned char kOctetStringTag = 0x04;
constexpr unsigned char kSequenceTag = 0x30;
constexpr unsigned char kConstructed = 0x20;
constexpr unsigned char kTagFollows = 0x1F;

struct Element {
    unsigned char tag;  // its first byte
    Bytes content;
};

// Takes the head of the element at the front off, and its content unless that is elements
// itself. None when the head is none, or the content goes beyond the bytes.
std::optional<Element> takeElement(Bytes& rest) {
    std::size_t at = 1;
    if (!rest.empty() && (rest[0] & kTagFollows) == kTagFollows) {
        while (at < rest.size() && rest[at++] >= 0x80) {
        }
    }
    if (at >= rest.size()) {
        return std::nullopt;
    }
    const unsigned char tag = rest[0];
    std::size_t length = rest[at++];
    if (length >= 0x80) {
        constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max() >> 8;
        std::size_t bytes = length & 0x7F;
        for (length = 0; bytes != 0; --bytes) {  // there may be zeros in front
            if (at >= rest.size() || length > kMost) {
                return std::nullopt;
            }
            length = length << 8 | rest[at++];
        }
    }
    rest = rest.subspan(at);
    if ((tag & kConstructed) != 0) {
        return Element{tag, {}};  // its elements follow
    }
    if (length > rest.size()) {
        return std::nullopt;
    }
    const Element element{tag, rest.first(length)};
    rest = rest.subspan(length);
    return element;
}

// What a string holds, if that may be DER: it begins like a sequence or a number.
Bytes derIn(const Element& string) {
    const std::size_t unusedBits = string.tag == kBitStringTag ? 1 : 0;
    const Bytes inside = string.content.subspan(std::min(unusedBits, string.content.size()));
    const bool mayBe = !inside.empty() && (inside[0] == kSequenceTag || inside[0] == kIntegerTag);
    return mayBe ? inside : Bytes();
}

}  // namespace

std::optional<std::uint64_t> endOfSequence(std::span<const unsigned char> bytes) {
    if (bytes.size() < 2 || bytes[0] != kSequenceTag) {
        return std::nullopt;
    }
    const std::size_t lengthBytes = bytes[1] & 0x7Fu;
    if (bytes[1] < 0x80) {
        return 2 + std::uint64_t{bytes[1]};
    }
    if (lengthBytes == 0) {
        return bytes.size();  // the end tells the length; some PKCS#12 files are written so
    }
    if (lengthBytes > 4 || bytes.size() < 2 + lengthBytes) {
        return std::nullopt;
    }
    std::uint64_t length = 0;
    for (const unsigned char byte : bytes.subspan(2, lengthBytes)) {
        length = length << 8 | byte;
    }
    return 2 + lengthBytes + length;
}

DerCensus censusOf(std::span<const unsigned char> der) {
    DerCensus census;
    std::vector<Bytes> left{der};
    while (!left.empty()) {
        Bytes rest = left.back();
        left.pop_back();
        while (const auto element = takeElement(rest)) {
            ++census.elements;
            if (element->tag == kIntegerTag) {
                census.longestInteger = std::max(census.longestInteger, element->content.size());
            } else if (element->tag == kOctetStringTag || element->tag == kBitStringTag) {
                if (const Bytes inside = derIn(*element); !inside.empty()) {
                    left.push_back(inside);
                }
            }
        }
    }
    return census;
}

}  // namespace fstore
