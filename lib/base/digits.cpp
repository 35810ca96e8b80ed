#include "lib/base/digits.h"

#include <charconv>
#include <system_error>

namespace fstore {
namespace {

constexpr char kDigits[] = "0123456789abcdef";

int digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace

std::string toHex(std::span<const unsigned char> bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

void appendHex(SecretKey& text, std::span<const unsigned char> secret) {
    for (const unsigned char byte : secret) {
        text.push_back(static_cast<unsigned char>(kDigits[byte >> 4]));
        text.push_back(static_cast<unsigned char>(kDigits[byte & 15]));
    }
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
        digits += kDigits[digitValue(c)];
    }
    return digits;
}

std::optional<std::uint32_t> parseNumber(std::string_view text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(hex ? 2 : 0);
    std::uint32_t value = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace fstore
