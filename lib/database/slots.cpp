#include "lib/database/slots.h"

#include <algorithm>
#include <memory>

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/records/record.h"

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

struct Free {
    void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
    void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
};

const Address& kdfAddress() {
    static const Address address{"", layout::kKdfRecord};
    return address;
}

[[noreturn]] void failOnKdf(const std::string& why) {
    throw Failure(
        kMalformed,
        fmt::format("the record ./kdf is damaged: {}; restore the database from a backup", why),
        kdfAddress().print());
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
    const std::unique_ptr<EVP_KDF, Free> kdf(EVP_KDF_fetch(nullptr, "SCRYPT", nullptr));
    const std::unique_ptr<EVP_KDF_CTX, Free> context(kdf != nullptr ? EVP_KDF_CTX_new(kdf.get())
                                                                    : nullptr);
    std::uint64_t n = std::uint64_t{1} << slot.ln;
    std::uint32_t r = slot.r, p = slot.p;
    // The library's own limit is 32 MiB; ours are the bounds of what is read.
    std::uint64_t memory = slot.memory() + 128ull * r * p + (1u << 20);
    std::array<unsigned char, 32> salt = slot.salt;
    // The library takes a plain pointer and does not write through it.
    void* const secret = const_cast<char*>(password.c_str());
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_octet_string("pass", secret, password.size()),
        OSSL_PARAM_construct_octet_string("salt", salt.data(), salt.size()),
        OSSL_PARAM_construct_uint64("n", &n),
        OSSL_PARAM_construct_uint32("r", &r),
        OSSL_PARAM_construct_uint32("p", &p),
        OSSL_PARAM_construct_uint64("maxmem_bytes", &memory),
        OSSL_PARAM_construct_end()};
    SecretBytes key(32);
    if (context == nullptr ||
        EVP_KDF_derive(context.get(), key.data(), key.size(), parameters) != 1) {
        failWithStatus(kNoMemory,
                       fmt::format("cannot derive the key from the password: it takes {} MiB of "
                                   "memory, and OpenSSL's scrypt",
                                   memory >> 20));
    }
    constexpr char kDigits[] = "0123456789abcdef";
    SecretBytes digits(2 * key.size());
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

NewSlot makeSlot(const SecretText& password, unsigned int ln) {
    Slot slot;
    slot.ln = ln;
    if (RAND_bytes(slot.salt.data(), static_cast<int>(slot.salt.size())) != 1) {
        throw Failure(kIo, "cannot create a salt: OpenSSL has no random numbers");
    }
    SecretText p = deriveP(slot, password);
    slot.digest = digestOf(p);
    return {slot, std::move(p)};
}

KdfRecord readKdf() {
    if (!Record::isThere(kdfAddress())) {
        return {};
    }
    const Record record = Record::read(kdfAddress());
    KdfRecord kdf;
    for (const std::string& text : record.texts(layout::kSlotId)) {
        const auto slot = parseSlot(text);
        if (!slot) {
            failOnKdf("a slot cannot be read, or its ln, r or p is out of bounds");
        }
        if (const auto excess = excessOf(*slot)) {
            failOnKdf(*excess);
        }
        kdf.slots.push_back(*slot);
    }
    if (kdf.slots.empty() || kdf.slots.size() > 2) {
        failOnKdf("it has neither one nor two slots");
    }
    kdf.keepOld = record.number(layout::kKeepOldId).value_or(0) != 0;
    return kdf;
}

void writeKdf(const KdfRecord& kdf) {
    Record record(kdfAddress());
    BodyOwners owners;  // a hostile one may name another record's body
    if (kdf.slots.empty()) {
        if (Record::isThere(kdfAddress())) {
            (void)record.remove(owners);
        }
        return;
    }
    for (const Slot& slot : kdf.slots) {
        record.addText(layout::kSlotId, printSlot(slot));
    }
    if (kdf.keepOld) {
        record.setNumber(layout::kKeepOldId, 1);
    }
    record.write(owners);
}

}  // namespace fstore
