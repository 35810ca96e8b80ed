#include "lib/records/address.h"

#include <fmt/format.h>

#include "format/record_name.h"
#include "lib/base/conflict_copy.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/printable.h"

namespace fstore {
namespace {

constexpr std::string_view kDigest = "sha256:";
constexpr std::size_t kLongestDigest = 64;
// A file name has 255 bytes, of which the suffix and a marker take eight.
constexpr std::size_t kLongestName = 255 - kDscSuffix.size() - kNewMarker.size();

[[noreturn]] void failOnAddress(std::string_view text, const char* why) {
    throw Failure(kInvalid, fmt::format("\"{}\" is not a valid address: {}", text, why),
                  std::string(text));
}

void checkName(std::string_view text, std::string_view name) {
    if (name.empty() || name == "." || name == "..") {
        failOnAddress(text, "it has no name");
    }
    if (name.find('\0') != std::string_view::npos) {
        failOnAddress(text, "it contains a NUL byte");
    }
    if (name.size() > kLongestName) {
        failOnAddress(text, "the name is longer than 247 bytes");
    }
    if (rivalOf(descriptorName(name))) {
        failOnAddress(text, "it is the name of a conflict copy, which `fstore check` lists");
    }
}

}  // namespace

std::string Address::print() const {
    return fmt::format("{}/{}", folder.empty() ? "." : folder, name);
}

AddressText parseAddress(std::string_view text) {
    AddressText address;
    if (text.starts_with(kDigest)) {
        const auto digits = hexDigits(text.substr(kDigest.size()));
        if (!digits || digits->empty() || digits->size() > kLongestDigest) {
            failOnAddress(text, "\"sha256:\" needs 1 to 64 hexadecimal digits");
        }
        address.form = AddressText::Form::kDigest;
        address.digest = *digits;
        return address;
    }
    const std::size_t slash = text.rfind('/');
    address.form =
        slash == std::string_view::npos ? AddressText::Form::kBare : AddressText::Form::kPlace;
    if (slash != std::string_view::npos) {
        address.place.folder = parseFolder(text.substr(0, slash));
    }
    address.place.name = text.substr(slash + 1);  // all of it without a slash: npos + 1 is 0
    checkName(text, address.place.name);
    return address;
}

Address parseNewAddress(std::string_view text) {
    const AddressText address = parseAddress(text);
    if (address.form != AddressText::Form::kPlace) {
        failOnAddress(text, "a new record needs a folder, as in \"settings/name\"");
    }
    if (printable(address.place.name) != address.place.name) {
        failOnAddress(text, "the name has unprintable characters");
    }
    return address.place;
}

std::string parseFolder(std::string_view text) {
    std::string folder;
    std::size_t depth = 0;
    while (!text.empty()) {
        const std::size_t slash = text.find('/');
        const std::string_view part = text.substr(0, slash);
        text.remove_prefix(slash == std::string_view::npos ? text.size() : slash + 1);
        if (part == ".." || part.find('\0') != std::string_view::npos) {
            throw Failure(kInvalid,
                          "folder names start below \"db\", as in \"certificates/local\"");
        }
        if (part.empty() || part == "." || (depth == 0 && part == layout::kLiveName)) {
            continue;
        }
        if (depth++ != 0) {
            folder += '/';
        }
        folder += part;
    }
    return folder;
}

std::string folderPath(const std::string& folder) {
    return folder.empty() ? layout::kLive : joinPath(layout::kLive, folder);
}

std::string descriptorPath(const Address& address) {
    return joinPath(folderPath(address.folder), descriptorName(address.name));
}

}  // namespace fstore
