// What the C library takes from a descriptor's line: a second opinion on the parser.
//
// The numbers are those that "%x" gives where a long has 32 bits, whatever it has here.
#ifndef TESTS_SUPPORT_SCANNED_LINE_H
#define TESTS_SUPPORT_SCANNED_LINE_H

#include <cstddef>
#include <cstdio>
#include <limits>
#include <optional>
#include <string>

struct ScannedLine {
    unsigned int type = 0;
    unsigned int id = 0;
    std::string text;
};

// A magnitude that does not fit reads as the largest number, whatever its sign. Here the
// conversion may have had room for it, or given up at its own largest number: that one
// reads as -1, and so as the largest of 32 bits, with either sign.
inline unsigned int in32Bits(unsigned long value, bool negative) {
    const unsigned long magnitude = negative ? 0 - value : value;
    constexpr unsigned int kLargest = std::numeric_limits<unsigned int>::max();
    return magnitude > kLargest ? kLargest : static_cast<unsigned int>(value);
}

// Nothing when the line has fewer than two numbers.
inline std::optional<ScannedLine> scanLine(const std::string& line) {
    int typeAt = 0;
    int idAt = 0;
    unsigned long type = 0;
    unsigned long id = 0;
    std::string text(line.size() + 1, '\0');
    const int items =
        std::sscanf(line.c_str(), " %n%lx %n%lx %[^\n]", &typeAt, &type, &idAt, &id, text.data());
    if (items < 2) {
        return std::nullopt;
    }
    const auto isNegative = [&](int at) { return line[static_cast<std::size_t>(at)] == '-'; };
    return ScannedLine{in32Bits(type, isNegative(typeAt)), in32Bits(id, isNegative(idAt)),
                       text.c_str()};
}

#endif  // TESTS_SUPPORT_SCANNED_LINE_H
