#include "lib/database/slots.h"

#include <algorithm>

#include <fmt/format.h>
#include <openssl/evp.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/database/scrypt.h"

namespace fstore {
namespace {

// Takes `head` off the front of the text.
bool takeText(std::string_view& text, std::string_view head) {
    if (!text.starts_with(head)) {
        return false;
    }
    text.remove_prefix(head.size());
    return true;
}

// Takes "<head><number>" off the text; the number stands in its shortest form.
bool takeNumber(std::string_view& text, std::string_view head, unsigned int least,
                unsigned int most, unsigned int& value) {
    if (!takeText(text, head)) {
        return false;
    }
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > 2 || text[0] == '0') {
        return false;
    }
    value = 0;
    for (const char c : text.substr(0, digits)) {
        value = value * 10 + static_cast<unsigned int>(c - '0');
    }
    text.remove_prefix(digits);
    return value >= least && value <= most;
}

// Takes "<head><digits>" off the text, as many digits as fill `bytes`.
template <std::size_t N>
bool takeBytes(std::string_view& text, std::string_view head, std::array<unsigned char, N>& bytes) {
    if (!takeText(text, head) || text.size() < 2 * N) {
        return false;
    }
    const std::string_view digits = text.substr(0, 2 * N);
    const auto read = fromHex(digits);
    if (!read || read->size() != N) {
        return false;
    }
    std::copy(read->begin(), read->end(), bytes.begin());
    text.remove_prefix(2 * N);
    return true;
}

}  // namespace

std::optional<Slot> parseSlot(std::string_view text) {
    Slot slot;
    if (text == "none") {
        slot.form = Slot::Form::kNone;
        return slot;
    }
    if (takeText(text, "raw")) {
        slot.form = Slot::Form::kRaw;
    } else if (!takeText(text, "scrypt") ||
               !takeNumber(text, " ln=", Slot::kLeastLn, Slot::kMostLn, slot.ln) ||
               !takeNumber(text, " r=", Slot::kLeastR, Slot::kMostR, slot.r) ||
               !takeNumber(text, " p=", Slot::kLeastP, Slot::kMostP, slot.p) ||
               !takeBytes(text, " salt=", slot.salt)) {
        return std::nullopt;
    }
    if (!takeBytes(text, " digest=", slot.digest) || !text.empty()) {
        return std::nullopt;
    }
    return slot;
}

std::string printSlot(const Slot& slot) {
    if (slot.form == Slot::Form::kNone) {
        return "none";
    }
    if (slot.form == Slot::Form::kRaw) {
        return fmt::format("raw digest={}", toHex(slot.digest));
    }
    return fmt::format("scrypt ln={} r={} p={} salt={} digest={}", slot.ln, slot.r, slot.p,
                       toHex(slot.salt), toHex(slot.digest));
}

std::uint64_t Slot::memory() const {
    return form == Form::kScrypt ? 128 * (std::uint64_t{1} << ln) * r : 0;
}

std::uint64_t Slot::work() const {
    return form == Form::kScrypt ? (std::uint64_t{1} << ln) * r * p : 0;
}

std::optional<std::string> excessOf(const Slot& slot) {
    if (slot.memory() > Slot::kMostMemory) {
        return fmt::format("ln={} r={} takes {} MiB of memory, and {} MiB is the limit", slot.ln,
                           slot.r, slot.memory() >> 20, Slot::kMostMemory >> 20);
    }
    if (slot.work() > Slot::kMostWork) {
        return fmt::format(
            "ln={} r={} p={} takes {} times the work of the default cost, and {} "
            "times is the limit",
            slot.ln, slot.r, slot.p, slot.work() / Slot().work(), Slot::kMostWork / Slot().work());
    }
    return std::nullopt;
}

SecretText deriveP(const Slot& slot, const SecretText& password) {
    if (slot.form != Slot::Form::kScrypt) {
        return slot.form == Slot::Form::kRaw ? password : SecretText();
    }
    const SecretKey key = scrypt(password, slot.salt, {.ln = slot.ln, .r = slot.r, .p = slot.p});
    constexpr char kDigits[] = "0123456789abcdef";
    SecretKey digits(2 * key.size());
    for (std::size_t i = 0; i < key.size(); ++i) {
        digits[2 * i] = static_cast<unsigned char>(kDigits[key[i] >> 4]);
        digits[2 * i + 1] = static_cast<unsigned char>(kDigits[key[i] & 15]);
    }
    return SecretText({reinterpret_cast<const char*>(digits.data()), digits.size()});
}

Digest digestOf(const SecretText& p) {
    Digest digest;
    if (EVP_Digest(p.c_str(), p.size(), digest.data(), nullptr, EVP_md5(), nullptr) != 1) {
        throw Failure(kIo, "cannot compute the digest of the password: OpenSSL does not offer MD5");
    }
    return digest;
}

}  // namespace fstore
