#include "lib/base/recovery_key.h"

#include <algorithm>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace fstore {
namespace {

constexpr std::string_view kAlphabet = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
constexpr unsigned char kNotADigit = 0xff;
constexpr unsigned int kBitsOfDigit = 5;
constexpr std::size_t kRecoveryDigits = kRecoveryGroups * kRecoveryGroupDigits;
constexpr std::size_t kDataDigits = kRecoveryGroupDigits - 1;  // of a group
static_assert(kRecoveryGroups * kDataDigits * kBitsOfDigit == kRecoveryKeySize * 8);

// A typed character; kNotADigit for one that is none.
unsigned char valueOf(char c) {
    if (c >= 'a' && c <= 'z') {
        c = static_cast<char>(c - 'a' + 'A');
    }
    switch (c) {
        case 'O':
            return 0;
        case 'I':
        case 'L':
            return 1;
        default:
            break;
    }
    const std::size_t found = kAlphabet.find(c);
    return found != std::string_view::npos ? static_cast<unsigned char>(found) : kNotADigit;
}

bool isSkipped(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '-';
}

// The values of all characters but those that are skipped.
SecretKey valuesOf(std::string_view text) {
    SecretKey values;
    values.reserve(text.size());  // so that nothing is left behind by growing
    for (const char c : text) {
        if (!isSkipped(c)) {
            values.push_back(valueOf(c));
        }
    }
    return values;
}

// In the field of 32 elements with x^5 + x^2 + 1.
unsigned int doubled(unsigned int value) {
    const unsigned int twice = value << 1;
    return (twice & 0x20) != 0 ? twice ^ 0x25 : twice;
}

using Group = std::span<const unsigned char>;

// Of the data digits of a group: number + 2 d1 + 4 d2 + 8 d3 + 16 d4. The factors differ from each
// other and from 1, the check digit's own, so no swap of two digits goes unseen.
unsigned char checkDigit(unsigned int number, Group digits) {
    unsigned int sum = 0;
    for (std::size_t i = kDataDigits; i-- > 0;) {
        sum = doubled(sum ^ digits[i]);
    }
    return static_cast<unsigned char>(sum ^ number);
}

Group groupOf(const SecretKey& values, unsigned int number) {
    return Group(values).subspan((number - 1) * kRecoveryGroupDigits, kRecoveryGroupDigits);
}

bool isRight(unsigned int number, Group group) {
    unsigned char most = 0;
    for (const unsigned char value : group) {
        most = std::max(most, value);
    }
    return most < kAlphabet.size() && checkDigit(number, group) == group.back();
}

// The numbers of the groups that are wrong, of 40 digits.
std::vector<unsigned int> wrongGroups(const SecretKey& values) {
    std::vector<unsigned int> wrong;
    for (unsigned int number = 1; number <= kRecoveryGroups; ++number) {
        if (!isRight(number, groupOf(values, number))) {
            wrong.push_back(number);
        }
    }
    return wrong;
}

// "group 3 is mistyped", "groups 3 and 5 are mistyped".
std::string describeWrong(const std::vector<unsigned int>& wrong) {
    if (wrong.size() == 1) {
        return fmt::format("group {} is mistyped", wrong.front());
    }
    const std::span<const unsigned int> all(wrong);
    return fmt::format("groups {} and {} are mistyped", fmt::join(all.first(all.size() - 1), ", "),
                       all.back());
}

// Of a text that has too many digits or too few. More than a group of difference is a password:
// phrases of words consist of the same letters.
std::optional<std::string> describeCount(const SecretKey& values) {
    const bool isNear = values.size() + kRecoveryGroupDigits >= kRecoveryDigits &&
                        values.size() <= kRecoveryDigits + kRecoveryGroupDigits;
    if (!isNear || std::ranges::find(values, kNotADigit) != values.end()) {
        return std::nullopt;
    }
    unsigned int right = 0;  // groups from the beginning
    while ((right + 1) * kRecoveryGroupDigits <= values.size() && right < kRecoveryGroups &&
           isRight(right + 1, groupOf(values, right + 1))) {
        ++right;
    }
    const std::string count = fmt::format("a recovery key has {} digits, and {} were typed",
                                          kRecoveryDigits, values.size());
    return right < kRecoveryGroups ? fmt::format("{}; look at group {} first", count, right + 1)
                                   : count;
}

}  // namespace

SecretText printRecoveryKey(std::span<const unsigned char, kRecoveryKeySize> key) {
    SecretKey text;
    text.reserve(kRecoveryDigits + kRecoveryGroups - 1);
    SecretKey digits(kDataDigits);
    std::size_t bit = 0;
    for (unsigned int number = 1; number <= kRecoveryGroups; ++number) {
        for (unsigned char& digit : digits) {
            digit = 0;
            for (unsigned int i = 0; i < kBitsOfDigit; ++i, ++bit) {
                const unsigned int next = key[bit / 8] >> (7 - bit % 8) & 1u;
                digit = static_cast<unsigned char>(digit * 2u + next);
            }
            text.push_back(static_cast<unsigned char>(kAlphabet[digit]));
        }
        text.push_back(static_cast<unsigned char>(kAlphabet[checkDigit(number, digits)]));
        if (number != kRecoveryGroups) {
            text.push_back('-');
        }
    }
    return SecretText({reinterpret_cast<const char*>(text.data()), text.size()});
}

std::optional<SecretKey> parseRecoveryKey(std::string_view text) {
    const SecretKey values = valuesOf(text);
    if (values.size() != kRecoveryDigits || !wrongGroups(values).empty()) {
        return std::nullopt;
    }
    SecretKey key(kRecoveryKeySize);
    std::size_t bit = 0;
    for (unsigned int number = 1; number <= kRecoveryGroups; ++number) {
        for (const unsigned char digit : groupOf(values, number).first(kDataDigits)) {
            for (unsigned int i = 0; i < kBitsOfDigit; ++i, ++bit) {
                const unsigned int next = digit >> (kBitsOfDigit - 1 - i) & 1u;
                key[bit / 8] = static_cast<unsigned char>(key[bit / 8] * 2u + next);
            }
        }
    }
    return key;
}

std::optional<std::string> mistypingIn(std::string_view text) {
    const SecretKey values = valuesOf(text);
    if (values.size() != kRecoveryDigits) {
        return describeCount(values);
    }
    const std::vector<unsigned int> wrong = wrongGroups(values);
    // Of 40 other characters, four groups are right in one case of fifteen thousand.
    const bool looksLikeOne = wrong.size() <= kRecoveryGroups / 2;
    return looksLikeOne && !wrong.empty() ? std::optional(describeWrong(wrong)) : std::nullopt;
}

bool isRecoveryGroup(std::string_view text, const SecretText& printed, unsigned int group) {
    const SecretKey typed = valuesOf(text);
    const SecretKey values = valuesOf(printed.view());
    const Group wanted = groupOf(values, group);
    return std::ranges::equal(typed, wanted);
}

}  // namespace fstore
