// A recovery key: 160 random bits in a form that people write down and type.
//
//     SD0VB-70W78-TVYAB-04KJG-QR1KH-G3V3W-AT7WT-SFBJW
//
// Eight groups of four digits and a check digit, five bits a digit, the highest bit of the first
// byte first. The digits are 0 to 9 and the letters but I, L, O and U. Typed, letters may be of
// either case, O stands for 0, I and L for 1; blanks, line ends and dashes are skipped.
//
// The check digit of a group depends on its number, too. It shows every single wrong digit, every
// swap of two digits in a group, and every swap of two groups, and so the group can be named.
//
// All functions are pure and any thread may call them.
#ifndef LIB_BASE_RECOVERY_KEY_H
#define LIB_BASE_RECOVERY_KEY_H

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lib/base/secret.h"

namespace fstore {

inline constexpr std::size_t kRecoveryKeySize = 20;  // bytes
inline constexpr unsigned int kRecoveryGroups = 8;
inline constexpr std::size_t kRecoveryGroupDigits = 5;  // with the check digit

// The key in eight groups with a dash between them.
SecretText printRecoveryKey(std::span<const unsigned char, kRecoveryKeySize> key);

// The bytes; none unless the text has 40 digits and all groups are right. A password may happen to
// look like that.
std::optional<SecretKey> parseRecoveryKey(std::string_view text);

// Where a text that opened nothing was probably mistyped, if it was meant as a recovery key:
// "group 3 is mistyped". None when it does not look like one. Contains nothing of the text.
std::optional<std::string> mistypingIn(std::string_view text);

// Whether the text, read as parseRecoveryKey() reads it, is this group of a key that
// printRecoveryKey() printed. The first group has the number 1.
bool isRecoveryGroup(std::string_view text, const SecretText& printed, unsigned int group);

}  // namespace fstore

#endif  // LIB_BASE_RECOVERY_KEY_H
