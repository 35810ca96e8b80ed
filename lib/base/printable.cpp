#include "lib/base/printable.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

namespace fstore {
namespace {

constexpr const char* kEllipsis = "\u2026";

// One character of a text: its code point, or none when the byte is not UTF-8.
struct Character {
    std::optional<char32_t> code;
    std::size_t bytes;
};

Character firstCharacter(std::string_view text) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(0);
    if (first < 0x80) {
        return {first, 1};
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    constexpr char32_t kLowest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return {std::nullopt, 1};
    }
    char32_t code = first & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(i) & 0xC0) != 0x80) {
            return {std::nullopt, 1};
        }
        code = code << 6 | (byteAt(i) & 0x3Fu);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLowest[length] || code > 0x10FFFF || surrogate) {
        return {std::nullopt, 1};
    }
    return {code, length};
}

// Calls visit(character, its bytes) for each character in turn.
template <class Visit>
void forEachCharacter(std::string_view text, Visit visit) {
    while (!text.empty()) {
        const Character next = firstCharacter(text);
        visit(next, text.substr(0, next.bytes));
        text.remove_prefix(next.bytes);
    }
}

// What is shown as it is, a column a byte: nearly every text.
bool isPlain(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c < 0x7F; });
}

bool isControl(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0);
}

// Marks that reorder, break or hide what stands around them.
bool isDeceptive(char32_t c) {
    return (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF || (c >= 0xE0000 && c <= 0xE007F);
}

// Combining marks take no column; the scripts and symbols of East Asia take two.
std::size_t columnsOfCharacter(char32_t c) {
    struct Range {
        char32_t first, last;
    };
    constexpr Range kNone[] = {
        {0x300, 0x36F},   {0x483, 0x489},   {0x591, 0x5BD},   {0x610, 0x61A},   {0x64B, 0x65F},
        {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}};
    constexpr Range kTwo[] = {{0x1100, 0x115F},   {0x2E80, 0x303E},  {0x3041, 0x33FF},
                              {0x3400, 0x4DBF},   {0x4E00, 0x9FFF},  {0xA000, 0xA4CF},
                              {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},  {0xFE30, 0xFE6F},
                              {0xFF00, 0xFF60},   {0xFFE0, 0xFFE6},  {0x1F300, 0x1F64F},
                              {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}};
    for (const Range& range : kNone) {
        if (c >= range.first && c <= range.last) {
            return 0;
        }
    }
    for (const Range& range : kTwo) {
        if (c >= range.first && c <= range.last) {
            return 2;
        }
    }
    return 1;
}

std::size_t columnsOf(const Character& character) {
    return character.code ? columnsOfCharacter(*character.code) : 1;
}

// As much of the text as these columns hold.
std::string_view beginningOf(std::string_view text, std::size_t columns) {
    std::size_t used = 0;
    std::size_t bytes = 0;
    while (bytes < text.size()) {
        const Character next = firstCharacter(text.substr(bytes));
        used += columnsOf(next);
        if (used > columns) {
            break;
        }
        bytes += next.bytes;
    }
    return text.substr(0, bytes);
}

}  // namespace

std::string printable(std::string_view text) {
    if (isPlain(text)) {
        return std::string(text);
    }
    std::string shown;
    forEachCharacter(text, [&](const Character& next, std::string_view bytes) {
        if (!next.code) {
            shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(bytes[0]));
        } else if (isControl(*next.code)) {
            shown += fmt::format("\\x{:02x}", static_cast<unsigned int>(*next.code));
        } else if (isDeceptive(*next.code)) {
            shown += fmt::format("\\u{{{:04x}}}", static_cast<unsigned int>(*next.code));
        } else {
            shown += bytes;
        }
    });
    return shown;
}

bool isUtf8(std::string_view text) {
    if (isPlain(text)) {
        return true;
    }
    bool all = true;
    forEachCharacter(
        text, [&](const Character& next, std::string_view) { all = all && next.code.has_value(); });
    return all;
}

std::size_t columnsOf(std::string_view text) {
    if (isPlain(text)) {
        return text.size();
    }
    std::size_t columns = 0;
    forEachCharacter(text,
                     [&](const Character& next, std::string_view) { columns += columnsOf(next); });
    return columns;
}

std::string clipped(std::string_view text, std::size_t columns) {
    if (columnsOf(text) <= columns) {
        return std::string(text);
    }
    if (columns == 0) {
        return {};
    }
    return std::string(beginningOf(text, columns - 1)) + kEllipsis;
}

std::string clippedInside(std::string_view text, std::size_t columns) {
    const std::size_t whole = columnsOf(text);
    if (whole <= columns || columns == 0) {
        return clipped(text, columns);
    }
    const std::size_t tail = columns / 2;
    const std::string_view head = beginningOf(text, columns - 1 - tail);
    std::string_view rest = text.substr(head.size());
    for (std::size_t left = whole - columnsOf(head); left > tail;) {
        const Character next = firstCharacter(rest);
        left -= columnsOf(next);
        rest.remove_prefix(next.bytes);
    }
    return std::string(head) + kEllipsis + std::string(rest);
}

std::string wrapped(std::string_view text, std::size_t columns, std::size_t indent,
                    std::size_t used) {
    std::string lines;
    const std::string next = "\n" + std::string(indent, ' ');
    bool isEmpty = used == 0;  // the line
    while (!text.empty()) {
        const std::size_t blanks = std::min(text.find_first_not_of(' '), text.size());
        std::string_view word = text.substr(blanks);
        word = word.substr(0, word.find(' '));
        text.remove_prefix(blanks + word.size());
        if (used + blanks + columnsOf(word) <= columns) {
            lines.append(blanks, ' ');
            used += blanks;
        } else if (!isEmpty) {
            lines += next;
            used = indent;
        }
        while (used + columnsOf(word) > columns) {
            // At least a character, so that this ends also where not even that fits.
            const std::size_t fitting =
                std::max(beginningOf(word, columns - used).size(), firstCharacter(word).bytes);
            if (fitting == word.size()) {
                break;
            }
            lines += word.substr(0, fitting);
            lines += next;
            word.remove_prefix(fitting);
            used = indent;
        }
        lines += word;
        used += columnsOf(word);
        isEmpty = false;
    }
    return lines;
}

}  // namespace fstore
