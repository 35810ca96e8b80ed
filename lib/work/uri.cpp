#include "lib/work/uri.h"

#include <algorithm>
#include <array>
#include <utility>

#include <arpa/inet.h>
#include <fmt/format.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/printable.h"

namespace fstore {
namespace {

constexpr std::string_view kScheme = "fstore:", kHead = "fstore:///";
constexpr std::string_view kForm =
    "it looks like fstore:///folder/name or fstore:///?for=www.example.com";
constexpr std::size_t kMostHostName = 253, kMostLabel = 63;

using Type = Selector::Type;
constexpr std::pair<std::string_view, Type> kTypes[] = {
    {"key", Type::kKey}, {"cert", Type::kCertificate}, {"chain", Type::kChain}};

[[noreturn]] void failOnUri(std::string_view text, std::string_view why) {
    constexpr std::size_t kMostShown = 200;
    throw Failure(kInvalid, fmt::format("\"{}\" is not a valid URI: {}",
                                        printable(text.substr(0, kMostShown)), why));
}

bool isLetterOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// What stands for itself in every place of a URI of ours.
bool isUnreserved(char c) {
    constexpr std::string_view kAlso = "-._~!$'()*+,;:@";
    return isLetterOrDigit(c) || kAlso.find(c) != std::string_view::npos;
}

// "a b" of "a%20b". `also` are further characters that stand for themselves here.
std::string decoded(std::string_view uri, std::string_view part, std::string_view also) {
    constexpr std::size_t kEscape = 3;
    std::string text;
    while (!part.empty()) {
        if (part.front() != '%') {
            if (!isUnreserved(part.front()) && also.find(part.front()) == std::string_view::npos) {
                failOnUri(uri, "it has a character that is written as % and two digits, as in %20");
            }
            text += part.front();
            part.remove_prefix(1);
            continue;
        }
        const auto byte = part.size() < kEscape ? std::nullopt : fromHex(part.substr(1, 2));
        if (!byte || byte->size() != 1) {
            failOnUri(uri, "% needs two hexadecimal digits");
        }
        const char c = static_cast<char>(byte->front());
        if (c == '\0' || c == '/') {
            failOnUri(uri, "%00 and %2F stand for no character of a name");
        }
        text += c;
        part.remove_prefix(kEscape);
    }
    return text;
}

std::string encoded(std::string_view text, std::string_view also) {
    std::string part;
    for (const char c : text) {
        const bool stays = isUnreserved(c) || also.find(c) != std::string_view::npos;
        part += stays ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
    return part;
}

// The text in front of the mark; what is behind it stays.
std::string_view takeUntil(char mark, std::string_view& rest) {
    const std::size_t at = std::min(rest.find(mark), rest.size());
    const std::string_view taken = rest.substr(0, at);
    rest.remove_prefix(std::min(at + 1, rest.size()));
    return taken;
}

Type typeOfUri(std::string_view uri, std::string_view name) {
    for (const auto& [known, type] : kTypes) {
        if (known == name) {
            return type;
        }
    }
    failOnUri(uri, "type is key, cert or chain");
}

Selector parseSelector(std::string_view uri, std::string_view query) {
    Selector selector;
    std::array<bool, 3> given{};
    const auto once = [&](std::size_t which) {
        if (std::exchange(given.at(which), true)) {
            failOnUri(uri, "it has a parameter twice");
        }
    };
    while (!query.empty()) {
        std::string_view value = takeUntil('&', query);
        const std::string_view name = takeUntil('=', value);
        const std::string text = decoded(uri, value, "");
        if (name == "for") {
            once(0);
            selector.name = hostNameOf(text);
        } else if (name == "type") {
            once(1);
            selector.type = typeOfUri(uri, text);
        } else if (name == "alg") {
            once(2);
            selector.algorithm = text;
        } else {
            failOnUri(uri, "its parameters are for, type and alg");
        }
    }
    if (selector.name.empty()) {
        failOnUri(uri, "it has no for=, the name of a host");
    }
    return selector;
}

bool isLabel(std::string_view label) {
    return !label.empty() && label.size() <= kMostLabel && label.front() != '-' &&
           label.back() != '-' && std::ranges::all_of(label, [](char c) {
               return isLetterOrDigit(c) || c == '-' || c == '_';
           });
}

bool isHostName(std::string_view name) {
    if (name.empty() || name.size() > kMostHostName || name.ends_with('.')) {
        return false;
    }
    while (!name.empty()) {
        if (!isLabel(takeUntil('.', name))) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> asIpAddress(const std::string& text) {
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    std::array<char, INET6_ADDRSTRLEN> usual{};
    for (const int family : {AF_INET, AF_INET6}) {
        if (inet_pton(family, text.c_str(), bytes.data()) == 1 &&
            inet_ntop(family, bytes.data(), usual.data(), usual.size()) != nullptr) {
            return usual.data();
        }
    }
    return std::nullopt;
}

char small(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool isUri(std::string_view text) {
    return text.size() >= kScheme.size() &&
           std::ranges::equal(text.substr(0, kScheme.size()), kScheme, {}, small);
}

RecordUri parseUri(std::string_view text) {
    if (text.size() > kMostUri) {
        failOnUri(text, "it is longer than 4096 bytes");
    }
    if (!isUri(text) || !text.substr(kScheme.size()).starts_with(kHead.substr(kScheme.size()))) {
        failOnUri(text, kForm);
    }
    std::string_view rest = text.substr(kHead.size());
    RecordUri uri;
    if (rest.starts_with('?')) {
        uri.selector = parseSelector(text, rest.substr(1));
    } else {
        uri.path = decoded(text, rest, "/=&");
    }
    return uri;
}

std::string printUri(const RecordUri& uri) {
    if (!uri.selector) {
        return std::string(kHead) + encoded(uri.path, "/=&");
    }
    std::string text = fmt::format("{}?for={}", kHead, encoded(uri.selector->name, ""));
    for (const auto& [name, type] : kTypes) {
        if (type == uri.selector->type) {
            text += fmt::format("&type={}", name);
        }
    }
    if (!uri.selector->algorithm.empty()) {
        text += fmt::format("&alg={}", encoded(uri.selector->algorithm, ""));
    }
    return text;
}

std::string hostNameOf(std::string_view text) {
    constexpr std::string_view kWildcard = "*.";
    const std::string_view given = text;
    if (text.ends_with('.')) {
        text.remove_suffix(1);
    }
    std::string name(text.substr(0, kMostHostName + 1));
    if (auto address = asIpAddress(name)) {
        return *address;
    }
    std::ranges::transform(name, name.begin(), small);
    const std::string_view behind =
        std::string_view(name).substr(name.starts_with(kWildcard) ? kWildcard.size() : 0);
    if (!isHostName(behind)) {
        throw Failure(kInvalid,
                      fmt::format("\"{}\" is not the name of a host: letters, digits, \"-\", \"_\" "
                                  "and \".\", or an IP address; other letters are written as in "
                                  "xn--bcher-kva.example",
                                  printable(std::string(given.substr(0, kMostHostName + 1)))));
    }
    return name;
}

bool isIpAddress(const std::string& host) {
    return asIpAddress(host).has_value();
}

}  // namespace fstore
