#include "provider/reference.h"

#include <array>
#include <cstddef>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

namespace provider {
namespace {

constexpr std::string_view kBegin = "-----BEGIN ", kEnd = "-----END ";
constexpr std::string_view kOurs = "FSTORE URI-----";
constexpr std::size_t kMostText = 1 << 20;  // in front of a block
constexpr std::size_t kMostDigits = 8192;   // of a URI, which has at most 4096 bytes
constexpr std::size_t kLine = 256;

[[noreturn]] void fail(const char* why) {
    throw Failure(Reason::kBadReference, std::string("a PEM block FSTORE URI ") + why +
                                             "; `fstore ref` writes another one");
}

class Lines {
public:
    Lines(const Core& core, OSSL_CORE_BIO* in) : core_(core), in_(in) {}

    // The next line, or a piece of a long one, without its end; none at the end.
    std::optional<std::string_view> take() {
        const int length = core_.readLine(in_, line_.data(), static_cast<int>(line_.size()));
        if (length <= 0) {
            return std::nullopt;
        }
        std::string_view line(line_.data(), static_cast<std::size_t>(length));
        while (!line.empty() &&
               (line.back() == '\n' || line.back() == '\r' || line.back() == ' ')) {
            line.remove_suffix(1);
        }
        return line;
    }

private:
    const Core& core_;
    OSSL_CORE_BIO* in_;
    std::array<char, kLine> line_{};
};

// The digits between the marks. Reads to the end of the block in any case: what stayed would be
// taken for another file.
std::string digitsOf(Lines& lines) {
    std::string digits;
    for (auto line = lines.take(); line; line = lines.take()) {
        if (!line->starts_with(kEnd)) {
            digits += digits.size() > kMostDigits ? std::string_view() : *line;
        } else if (line->substr(kEnd.size()) != kOurs) {
            fail("ends as another one");
        } else if (digits.size() > kMostDigits) {
            fail("is too long");
        } else {
            return digits;
        }
    }
    fail("has no end");
}

std::string decoded(const std::string& digits) {
    std::vector<unsigned char> bytes(digits.size());
    const int size =
        EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(digits.data()),
                        static_cast<int>(digits.size()));
    if (size <= 0) {
        fail("is not base64");
    }
    const std::size_t padding = digits.size() - (digits.find_last_not_of('=') + 1);
    std::string uri(bytes.begin(), bytes.begin() + size - static_cast<std::ptrdiff_t>(padding));
    if (uri.find('\0') != std::string::npos) {
        fail("has a NUL in its URI");
    }
    return uri;
}

}  // namespace

std::optional<std::string> readReference(const Core& core, OSSL_CORE_BIO* in) {
    Lines lines(core, in);
    std::size_t passed = 0;
    for (auto line = lines.take(); line && passed < kMostText; line = lines.take()) {
        if (line->starts_with(kBegin)) {
            return line->substr(kBegin.size()) == kOurs ? std::optional(decoded(digitsOf(lines)))
                                                        : std::nullopt;
        }
        if (line->find('\0') != std::string_view::npos) {
            return std::nullopt;
        }
        passed += line->size() + 1;
    }
    return std::nullopt;
}

}  // namespace provider
