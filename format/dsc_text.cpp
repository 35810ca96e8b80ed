#include "format/dsc_text.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "cmn/no_throw.h"

namespace {

constexpr unsigned int kNumberSize = 4;

// Locales may know more white space; what a descriptor says must not depend on the host's locale.
constexpr bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr char kDigits[] = "0123456789abcdef";

// The two digits of every byte.
constexpr std::array<char, 512> kPairs = [] {
    std::array<char, 512> pairs{};
    for (std::size_t i = 0; i < 256; ++i) {
        pairs[2 * i] = kDigits[i >> 4];
        pairs[2 * i + 1] = kDigits[i & 15];
    }
    return pairs;
}();

// The value of every digit; others have a bit that no pair of digits can set.
constexpr unsigned int kNotHex = 0x100;
constexpr std::array<std::uint16_t, 256> kValues = [] {
    std::array<std::uint16_t, 256> values{};
    values.fill(kNotHex);
    for (std::uint16_t i = 0; i < 16; ++i) {
        const char digit = kDigits[i];
        values[static_cast<unsigned char>(digit)] = i;
        if (i >= 10) {
            values[static_cast<unsigned char>(digit - 'a' + 'A')] = i;
        }
    }
    return values;
}();

unsigned int hexValue(char c) {
    return kValues[static_cast<unsigned char>(c)];
}

// The number of bytes before the first NUL, or all of them.
std::size_t lengthToNul(const void* bytes, std::size_t size) {
    const void* const nul = size == 0 ? nullptr : std::memchr(bytes, 0, size);
    return nul == nullptr ? size
                          : static_cast<std::size_t>(static_cast<const char*>(nul) -
                                                     static_cast<const char*>(bytes));
}

std::string_view withoutSpaces(std::string_view text) {
    std::size_t spaces = 0;
    while (spaces < text.size() && isSpace(text[spaces])) {
        ++spaces;
    }
    return text.substr(spaces);
}

// Takes a number from the front of `text` as "%x" does where a long has 32 bits, whatever
// it has here: one descriptor reads alike in every build. What does not fit stays at the
// largest number, whatever its sign; a smaller one is turned round by its sign, so "-1" is
// the largest number as well. "0x" without a digit is 0.
bool takeHex(std::string_view& text, unsigned int& value) {
    constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();
    std::string_view rest = withoutSpaces(text);
    bool negative = false;
    if (!rest.empty() && (rest[0] == '-' || rest[0] == '+')) {
        negative = rest[0] == '-';
        rest.remove_prefix(1);
    }
    const bool prefixed = rest.size() >= 2 && rest[0] == '0' && (rest[1] | 0x20) == 'x';
    if (prefixed) {
        rest.remove_prefix(2);
    }
    std::uint32_t sum = 0;
    bool tooLarge = false;
    std::size_t digits = 0;
    for (; digits < rest.size() && hexValue(rest[digits]) != kNotHex; ++digits) {
        tooLarge = tooLarge || sum > kLargest >> 4;
        sum = sum << 4 | hexValue(rest[digits]);
    }
    if (digits == 0 && !prefixed) {
        return false;
    }
    if (tooLarge) {
        sum = kLargest;
    } else if (negative) {
        sum = 0 - sum;
    }
    value = sum;
    text = rest.substr(digits);
    return true;
}

void putHex(const unsigned char* data, std::size_t size, char* out) {
    for (std::size_t i = 0; i < size; ++i) {
        std::memcpy(out + 2 * i, &kPairs[std::size_t{2} * data[i]], 2);
    }
}

void putNumber(unsigned int value, char* out) {
    const unsigned char bytes[kNumberSize] = {
        static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
        static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
    putHex(bytes, sizeof bytes, out);
}

// Makes room for `size` more characters and returns where they go.
char* extend(std::string& out, std::size_t size) {
    const std::size_t old = out.size();
    if (size > out.max_size() - old) {
        throw std::bad_alloc();
    }
    out.resize(old + size);
    return out.data() + old;
}

// The status that DataToPrint() has for this data.
Status checkPrintable(unsigned int type, const unsigned char* data, unsigned int size) {
    if (data == nullptr) {
        return kInvalid;
    }
    switch (type & kTypeMask) {
        case kTypeNumber:
            return size == kNumberSize ? kOk : kMalformed;
        case kTypeBinary:
        case kTypeString:
        case kTypeText:
            return kOk;
        default:
            return kMalformed;
    }
}

std::size_t textSize(unsigned int type, const unsigned char* data, std::size_t size) {
    switch (type & kTypeMask) {
        case kTypeNumber:
        case kTypeBinary:
            // Memory does not hold so much data that a size_t cannot count its digits, except
            // in theory; the largest size then asks for memory that cannot be had.
            return size > SIZE_MAX / 2 ? SIZE_MAX : 2 * size;
        default:
            return lengthToNul(data, size);
    }
}

// Appends the text of data that has passed checkPrintable().
void appendData(unsigned int type, const unsigned char* data, unsigned int size, std::string& out) {
    const std::size_t length = textSize(type, data, size);
    char* const text = extend(out, length);
    switch (type & kTypeMask) {
        case kTypeNumber: {
            unsigned int value;
            std::memcpy(&value, data, kNumberSize);
            putNumber(value, text);
            break;
        }
        case kTypeBinary:
            putHex(data, size, text);
            break;
        default:
            std::memcpy(text, data, length);
            break;
    }
}

Status readNumber(std::string_view text, unsigned char* out, unsigned int& size) {
    const unsigned int room = size;
    size = kNumberSize;
    if (room < kNumberSize) {
        return kTooSmall;
    }
    unsigned int value = 0;
    if (!takeHex(text, value)) {
        size = 0;
        return kMalformed;
    }
    std::memcpy(out, &value, kNumberSize);
    return kOk;
}

Status readBinary(std::string_view text, unsigned char* out, unsigned int& size) {
    const std::size_t room = size;
    const std::size_t most = std::min(room, text.size() / 2);
    const char* const pairs = text.data();
    std::size_t done = 0;
    for (; done < most; ++done) {
        const unsigned int byte = hexValue(pairs[2 * done]) << 4 | hexValue(pairs[2 * done + 1]);
        if (byte > 0xff) {
            break;
        }
        out[done] = static_cast<unsigned char>(byte);
    }
    size = static_cast<unsigned int>(done);

    const std::string_view rest = text.substr(2 * done);
    if (done == room || rest.empty() || isSpace(rest[0])) {
        return kOk;
    }
    const unsigned int lone = hexValue(rest[0]);
    if (lone == kNotHex || (rest.size() > 1 && !isSpace(rest[1]))) {
        return kMalformed;
    }
    out[done] = static_cast<unsigned char>(lone);
    ++size;
    return kOk;
}

Status readText(std::string_view text, std::size_t nuls, unsigned char* out, unsigned int& size) {
    const std::size_t room = size;
    const std::size_t need = text.size() + nuls;
    size = static_cast<unsigned int>(std::min<std::size_t>(need, UINT_MAX));
    if (room < need) {
        return kTooSmall;
    }
    text.copy(reinterpret_cast<char*>(out), text.size());
    std::memset(out + text.size(), 0, nuls);
    return kOk;
}

}  // namespace

Status DataToPrint(unsigned int type, const unsigned char* data, unsigned int size,
                   std::string& out) {
    if (const Status s = checkPrintable(type, data, size); s != kOk) {
        return s;
    }
    return noThrow([&] {
        out.clear();
        appendData(type, data, size, out);
        return kOk;
    });
}

Status PrintToData(unsigned int type, const char* text, unsigned char* out, unsigned int& size) {
    if (text == nullptr || out == nullptr) {
        return kInvalid;
    }
    return PrintToData(type, std::string_view(text), out, size);
}

Status PrintToData(unsigned int type, std::string_view text, unsigned char* out,
                   unsigned int& size) {
    switch (type & kTypeMask) {
        case kTypeNumber:
            return readNumber(text, out, size);
        case kTypeBinary:
            return readBinary(text, out, size);
        case kTypeString:
            return readText(text, 1, out, size);
        case kTypeText:
            return readText(text, 0, out, size);
        default:
            size = 0;
            return kMalformed;
    }
}

Status parseDscHead(const char* line, DscHead& head) {
    if (line == nullptr) {
        return kInvalid;
    }
    std::string_view rest(line);
    unsigned int type = 0;
    unsigned int id = 0;
    if (!takeHex(rest, type) || !takeHex(rest, id)) {
        return kMalformed;
    }
    rest = withoutSpaces(rest);
    head = DscHead{type, id, rest.substr(0, rest.find('\n'))};
    return kOk;
}

std::size_t roomForData(const DscHead& head) {
    const std::size_t length = head.text.size();
    switch (head.type & kTypeMask) {
        case kTypeNumber:
            return kNumberSize;
        case kTypeBinary:
            return length / 2 + length % 2;
        case kTypeString:
            return length + 1;
        case kTypeText:
            return length;
        default:
            return 0;
    }
}

Status appendDscLine(unsigned int type, unsigned int id, const unsigned char* data,
                     unsigned int size, std::string& out) {
    if (const Status s = checkPrintable(type, data, size); s != kOk) {
        return s;
    }
    const std::size_t old = out.size();
    const Status status = noThrow([&] {
        char* const head = extend(out, 18);
        putNumber(type, head);
        head[8] = ' ';
        putNumber(id, head + 9);
        head[17] = ' ';
        appendData(type, data, size, out);
        return kOk;
    });
    if (status != kOk) {
        out.resize(old);
    }
    return status;
}

Status parseDscLine(const char* line, DscLine& value) {
    DscHead head;
    if (const Status s = parseDscHead(line, head); s != kOk) {
        return s;
    }
    const std::size_t room = roomForData(head);
    if (room > UINT_MAX) {
        return kNoMemory;
    }
    return noThrow([&] {
        std::string data(room, '\0');
        unsigned int size = static_cast<unsigned int>(room);
        if (const Status s = PrintToData(head.type, head.text,
                                         reinterpret_cast<unsigned char*>(data.data()), size);
            s != kOk) {
            return s;
        }
        data.resize(size);
        value = DscLine{head.type, head.id, std::move(data)};
        return kOk;
    });
}

Status printDscLine(const DscLine& value, std::string& text) {
    text.clear();
    if (value.data.size() > UINT_MAX) {
        return kMalformed;
    }
    return appendDscLine(value.type, value.id,
                         reinterpret_cast<const unsigned char*>(value.data.data()),
                         static_cast<unsigned int>(value.data.size()), text);
}

bool hasContent(const char* line) {
    while (isSpace(*line)) {
        ++line;
    }
    return *line != '\0' && *line != '!';
}

Status DscLineReader::next(const char*& line) noexcept {
    for (;;) {
        const char* text = nullptr;
        if (const Status s = nextOfAll(text); s != kOk) {
            return s;
        }
        if (hasContent(text)) {
            line = text;
            return kOk;
        }
    }
}

// Each turn of the loop is one fgets(): it takes at most what the buffer has
// room for, up to a line feed or the end, and counts up to its first NUL.
Status DscLineReader::nextOfAll(const char*& line) noexcept {
    constexpr std::size_t kStep = 1024;
    if (at_ == end_) {
        return kEnd;
    }
    char* const start = at_;
    std::size_t length = 0;
    for (std::size_t buffer = kStep; at_ != end_; buffer += kStep) {
        std::size_t taken = std::min(buffer - length - 1, static_cast<std::size_t>(end_ - at_));
        if (const void* const feed = std::memchr(at_, '\n', taken); feed != nullptr) {
            taken = static_cast<std::size_t>(static_cast<const char*>(feed) - at_) + 1;
        }
        const std::size_t counted = lengthToNul(at_, taken);
        if (counted == 0 && length == 0) {
            return kMalformed;
        }
        if (start + length != at_) {
            std::memmove(start + length, at_, counted);
        }
        at_ += taken;
        length += counted;
        if (start[length - 1] == '\n') {
            --length;
            break;
        }
    }
    start[length] = '\0';
    line = start;
    return kOk;
}
