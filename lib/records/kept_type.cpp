#include "lib/records/kept_type.h"

#include <array>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "lib/base/printable.h"
#include "lib/records/record.h"

namespace fstore {
namespace {

constexpr std::array<std::pair<unsigned int, std::string_view>, 4> kTypeNames = {{
    {kTypeNumber, "number"},
    {kTypeBinary, "binary"},
    {kTypeString, "string"},
    {kTypeText, "text"},
}};

// Calls use(entry, id, type) for each entry, "0x8001:text", that can be understood.
template <class Use>
void forEachEntry(std::string_view types, Use use) {
    while (!types.empty()) {
        const std::string_view entry = types.substr(0, types.find(' '));
        types.remove_prefix(std::min(entry.size() + 1, types.size()));
        const std::size_t colon = entry.find(':');
        const auto id = parseAttributeId(entry.substr(0, colon));
        const auto type =
            colon != std::string_view::npos ? typeNamed(entry.substr(colon + 1)) : std::nullopt;
        if (id && type) {
            use(entry, *id, *type);
        }
    }
}

}  // namespace

std::string_view nameOfType(unsigned int type) noexcept {
    for (const auto& [known, name] : kTypeNames) {
        if (known == type) {
            return name;
        }
    }
    return {};
}

std::optional<unsigned int> typeNamed(std::string_view name) noexcept {
    for (const auto& [type, known] : kTypeNames) {
        if (known == name) {
            return type;
        }
    }
    return std::nullopt;
}

bool isOfType(unsigned int type, std::span<const unsigned char> bytes) noexcept {
    switch (type) {
        case kTypeNumber:
            return bytes.size() == sizeof(std::uint32_t);
        case kTypeString:
        case kTypeText:
            return isUtf8(asText(bytes)) && asText(bytes).find('\0') == std::string_view::npos;
        default:
            return true;
    }
}

unsigned int keptType(std::string_view types, unsigned int id,
                      std::optional<std::span<const unsigned char>> bytes) {
    unsigned int kept = kTypeBinary;
    forEachEntry(types, [&](std::string_view, unsigned int known, unsigned int type) {
        kept = known == id ? type : kept;
    });
    return !bytes || isOfType(kept, *bytes) ? kept : static_cast<unsigned int>(kTypeBinary);
}

void keepType(Record& record, unsigned int id, unsigned int type) {
    const std::string before = record.text(attr::kTypes).value_or(std::string());
    std::string after;
    const auto add = [&](std::string_view entry) {
        after += after.empty() ? "" : " ";
        after += entry;
    };
    forEachEntry(before, [&](std::string_view entry, unsigned int known, unsigned int) {
        if (known != id) {
            add(entry);
        }
    });
    if (type != kTypeBinary) {
        add(fmt::format("0x{:x}:{}", id, nameOfType(type)));
    }
    if (after != before) {
        record.setText(attr::kTypes, after);
    }
}

}  // namespace fstore
