#include "lib/work/reference.h"

#include <cstddef>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

namespace fstore {
namespace {

std::string base64(std::string_view text) {
    constexpr std::size_t kGroup = 3, kDigits = 4;
    std::vector<unsigned char> digits((text.size() + kGroup - 1) / kGroup * kDigits + 1);
    const int size =
        EVP_EncodeBlock(digits.data(), reinterpret_cast<const unsigned char*>(text.data()),
                        static_cast<int>(text.size()));
    return {digits.begin(), digits.begin() + size};
}

}  // namespace

std::string referenceOf(const RecordUri& uri) {
    constexpr std::size_t kLine = 64;
    const std::string digits = base64(printUri(uri));
    std::string text = "-----BEGIN FSTORE URI-----\n";
    for (std::size_t at = 0; at < digits.size(); at += kLine) {
        text += digits.substr(at, kLine) + "\n";
    }
    return text + "-----END FSTORE URI-----\n";
}

}  // namespace fstore
