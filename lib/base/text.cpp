#include "lib/base/text.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cwchar>
#include <limits>

#include <fmt/format.h>

namespace fstore {
namespace {

int digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

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

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// One element of a pattern: how long it is, and whether it takes the character.
struct Element {
    std::size_t length;
    bool matches;
};

Element matchSet(std::string_view pattern, char c) {
    std::size_t at = 1;
    const bool others = at < pattern.size() && (pattern[at] == '!' || pattern[at] == '^');
    at += others ? 1 : 0;
    const std::size_t first = at;
    bool found = false;
    // A "]" in the first place belongs to the set.
    for (; at < pattern.size() && (pattern[at] != ']' || at == first); ++at) {
        const char low = lower(pattern[at]);
        if (at + 2 < pattern.size() && pattern[at + 1] == '-' && pattern[at + 2] != ']') {
            found = found || (low <= lower(c) && lower(c) <= lower(pattern[at + 2]));
            at += 2;
        } else {
            found = found || low == lower(c);
        }
    }
    if (at >= pattern.size()) {
        return {1, c == '['};  // no set without its end: a plain bracket
    }
    return {at + 1, found != others};
}

Element matchElement(std::string_view pattern, char c) {
    if (pattern[0] == '?') {
        return {1, true};
    }
    if (pattern[0] == '[') {
        return matchSet(pattern, c);
    }
    if (pattern[0] == '\\' && pattern.size() > 1) {
        return {2, lower(pattern[1]) == lower(c)};
    }
    return {1, lower(pattern[0]) == lower(c)};
}

// Takes `count` digits off the text.
std::optional<int> takeDigits(std::string_view& text, std::size_t count) {
    if (text.size() < count) {
        return std::nullopt;
    }
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return std::nullopt;
        }
        value = value * 10 + (text[i] - '0');
    }
    text.remove_prefix(count);
    return value;
}

bool take(std::string_view& text, char c) {
    if (text.empty() || text[0] != c) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// "Z", or "+01:00" as seconds; takes it off the text.
std::optional<int> takeZone(std::string_view& text) {
    if (take(text, 'Z') || take(text, 'z')) {
        return 0;
    }
    const int sign = take(text, '+') ? 1 : take(text, '-') ? -1 : 0;
    const auto hours = takeDigits(text, 2);
    const bool colon = take(text, ':');
    const auto minutes = takeDigits(text, 2);
    if (sign == 0 || !hours || !colon || !minutes || *hours > 23 || *minutes > 59) {
        return std::nullopt;
    }
    return sign * (*hours * 3600 + *minutes * 60);
}

}  // namespace

std::string toHex(std::span<const unsigned char> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::optional<std::vector<unsigned char>> fromHex(std::string_view text) {
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        if (text[i] == ':' && i != 0) {
            ++i;
        }
        if (i + 1 >= text.size()) {
            return std::nullopt;
        }
        const int high = digitValue(text[i]);
        const int low = digitValue(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<unsigned char>(high << 4 | low));
    }
    return bytes;
}

std::optional<std::string> hexDigits(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if (digitValue(c) < 0) {
            return std::nullopt;
        }
        digits += lower(c);
    }
    return digits;
}

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
    forEachCharacter(text, [&](const Character& next, std::string_view) {
        columns += next.code ? columnsOfCharacter(*next.code) : 1;
    });
    return columns;
}

std::string clipped(std::string_view text, std::size_t columns) {
    if (columnsOf(text) <= columns) {
        return std::string(text);
    }
    if (columns == 0) {
        return {};
    }
    std::string kept;
    std::size_t used = 0;
    bool full = false;
    forEachCharacter(text, [&](const Character& next, std::string_view bytes) {
        used += next.code ? columnsOfCharacter(*next.code) : 1;
        full = full || used > columns - 1;
        if (!full) {
            kept += bytes;
        }
    });
    return kept + "\u2026";
}

bool matchesGlob(std::string_view pattern, std::string_view text) {
    // After a mismatch only the last "*" has to take one character more: what an
    // earlier one could take instead, the last one can as well.
    std::size_t p = 0, t = 0;
    std::size_t afterStar = std::string_view::npos, starTook = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            afterStar = ++p;
            starTook = t;
            continue;
        }
        const Element element =
            p < pattern.size() ? matchElement(pattern.substr(p), text[t]) : Element{0, false};
        if (element.matches) {
            p += element.length;
            ++t;
        } else if (afterStar != std::string_view::npos) {
            p = afterStar;
            t = ++starTook;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

std::optional<std::int64_t> parsePeriod(std::string_view text) {
    constexpr std::int64_t kDay = 24 * std::int64_t{60} * 60;
    constexpr std::int64_t kMost = std::int64_t{10'000} * 365 * kDay;
    if (text.size() < 2) {
        return std::nullopt;
    }
    std::int64_t unit = 0;
    switch (text.back()) {
        case 's':
            unit = 1;
            break;
        case 'm':
            unit = 60;
            break;
        case 'h':
            unit = std::int64_t{60} * 60;
            break;
        case 'd':
            unit = kDay;
            break;
        case 'w':
            unit = 7 * kDay;
            break;
        case 'y':
            unit = 365 * kDay;
            break;
        default:
            return std::nullopt;
    }
    std::int64_t count = 0;
    for (const char c : text.substr(0, text.size() - 1)) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        count = count * 10 + (c - '0');
        if (count > kMost / unit) {
            return std::nullopt;
        }
    }
    return count * unit;
}

std::optional<std::int64_t> parseMoment(std::string_view text) {
    using namespace std::chrono;
    const auto year = takeDigits(text, 4);
    const bool dash1 = take(text, '-');
    const auto month = takeDigits(text, 2);
    const bool dash2 = take(text, '-');
    const auto day = takeDigits(text, 2);
    const bool separator = take(text, 'T') || take(text, 't') || take(text, ' ');
    const auto hour = takeDigits(text, 2);
    const bool colon1 = take(text, ':');
    const auto minute = takeDigits(text, 2);
    const bool colon2 = take(text, ':');
    const auto second = takeDigits(text, 2);
    if (!year || !month || !day || !hour || !minute || !second || !dash1 || !dash2 || !separator ||
        !colon1 || !colon2 || *hour > 23 || *minute > 59 || *second > 60) {
        return std::nullopt;
    }
    if (take(text, '.')) {
        text.remove_prefix(std::min(text.find_first_not_of("0123456789"), text.size()));
    }
    const auto zone = takeZone(text);
    const year_month_day date{std::chrono::year(*year), std::chrono::month(unsigned(*month)),
                              std::chrono::day(unsigned(*day))};
    if (!zone || !text.empty() || !date.ok()) {
        return std::nullopt;
    }
    const std::int64_t days = sys_days(date).time_since_epoch().count();
    return days * 86400 + std::int64_t{*hour} * 3600 + std::int64_t{*minute} * 60 + *second - *zone;
}

std::string printMoment(std::int64_t moment) {
    using namespace std::chrono;
    const sys_seconds point{seconds(moment)};
    const sys_days day = floor<days>(point);
    const year_month_day date(day);
    const hh_mm_ss time(point - day);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", int(date.year()),
                       unsigned(date.month()), unsigned(date.day()), time.hours().count(),
                       time.minutes().count(), time.seconds().count());
}

std::string compactMoment(std::int64_t moment) {
    std::string text = printMoment(moment);
    std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
    return text;
}

std::int64_t now() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace fstore
