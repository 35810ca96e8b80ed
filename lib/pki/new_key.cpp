#include "lib/pki/new_key.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <fmt/format.h>
#include <openssl/rsa.h>

#include "lib/base/error.h"
#include "lib/pki/ossl.h"
#include "lib/pki/secret_key.h"

namespace fstore {
namespace {

// Less is weak; more takes minutes to make, and no program gains by it.
constexpr unsigned int kLeastBits = 2048, kMostBits = 8192, kUsualBits = 3072;

constexpr std::array<std::string_view, 6> kGroups = {
    "P-256", "P-384", "P-521", "brainpoolP256r1", "brainpoolP384r1", "brainpoolP512r1"};

std::string inCapitals(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return result;
}

[[noreturn]] void refuseType(std::string_view text) {
    throw Failure(kInvalid, fmt::format("\"{}\" is not a type of key: it is {}", text, kKeyTypes));
}

unsigned int bitsOf(std::string_view digits, std::string_view text) {
    if (digits.empty()) {
        return kUsualBits;
    }
    unsigned int bits = 0;
    const char* const end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, bits);
    constexpr unsigned int kStep = 8;
    if (error != std::errc() || rest != end || bits < kLeastBits || bits > kMostBits ||
        bits % kStep != 0) {
        refuseType(text);
    }
    return bits;
}

std::string groupOf(std::string_view name, std::string_view text) {
    if (name.empty()) {
        return std::string(kGroups.front());
    }
    const auto* const found = std::ranges::find_if(
        kGroups, [&](std::string_view group) { return inCapitals(group) == inCapitals(name); });
    if (found == kGroups.end()) {
        refuseType(text);
    }
    return std::string(*found);
}

bool setUp(EVP_PKEY_CTX* making, const KeyType& type) {
    if (EVP_PKEY_keygen_init(making) != 1) {
        return false;
    }
    if (type.bits != 0) {
        return EVP_PKEY_CTX_set_rsa_keygen_bits(making, static_cast<int>(type.bits)) == 1;
    }
    return type.group.empty() || EVP_PKEY_CTX_set_group_name(making, type.group.c_str()) == 1;
}

int goOn(EVP_PKEY_CTX* making) {
    const auto& isCancelled =
        *static_cast<const std::function<bool()>*>(EVP_PKEY_CTX_get_app_data(making));
    return isCancelled() ? 0 : 1;
}

}  // namespace

KeyType keyTypeOf(std::string_view text) {
    const std::size_t colon = text.find(':');
    const std::string family = inCapitals(text.substr(0, colon));
    const bool hasDetail = colon != std::string_view::npos;
    const std::string_view detail = hasDetail ? text.substr(colon + 1) : std::string_view();
    if (hasDetail && detail.empty()) {
        refuseType(text);
    }
    if (family == "RSA") {
        return {family, bitsOf(detail, text), {}};
    }
    if (family == "EC") {
        return {family, 0, groupOf(detail, text)};
    }
    if (hasDetail || (family != "ED25519" && family != "ED448")) {
        refuseType(text);
    }
    return {family, 0, {}};
}

SecretBytes newKey(const KeyType& type, const std::function<bool()>& isCancelled) {
    const ossl::QuietErrors quiet;
    const ossl::KeyContext making(
        EVP_PKEY_CTX_new_from_name(nullptr, type.algorithm.c_str(), nullptr));
    if (making == nullptr || !setUp(making.get(), type)) {
        throw Failure(kForeign, fmt::format("this OpenSSL makes no keys of {}{}{}", type.algorithm,
                                            type.group.empty() ? "" : " ", type.group));
    }
    EVP_PKEY_CTX_set_app_data(making.get(), const_cast<std::function<bool()>*>(&isCancelled));
    EVP_PKEY_CTX_set_cb(making.get(), goOn);
    EVP_PKEY* made = nullptr;
    const bool isDone = EVP_PKEY_generate(making.get(), &made) == 1;
    const ossl::Pkey key(made);
    if (isCancelled()) {
        throw Failure(kInterrupted, "interrupted");
    }
    if (!isDone) {
        throw Failure(kForeign, "OpenSSL could not make the key");
    }
    return pkcs8Of(*key);
}

}  // namespace fstore
