#include "format/record_name.h"

#include <cstddef>
#include <unordered_set>
#include <utility>

namespace {

constexpr std::size_t kUniqueLength = 8;
constexpr std::string_view kNameDigits = "0123456789abcdef";

std::string concat(std::string_view first, std::string_view second, std::string_view third) {
    std::string all;
    all.reserve(first.size() + second.size() + third.size());
    return all.append(first).append(second).append(third);
}

}  // namespace

std::string descriptorName(std::string_view record) {
    return concat(record, kDscSuffix, "");
}

std::string_view recordName(std::string_view file) {
    return file.substr(0, file.rfind('.'));
}

std::string_view withoutMarker(std::string_view name, std::string_view marker) {
    return name.substr(0, name.size() - marker.size());
}

std::string uniqueName(unsigned int n) {
    std::string name(kUniqueLength, '0');
    for (std::size_t i = name.size(); i-- > 0; n >>= 4) {
        name[i] = kNameDigits[n & 15];
    }
    return name;
}

bool isUniqueName(std::string_view name) {
    return name.size() == kUniqueLength &&
           name.find_first_not_of(kNameDigits) == std::string_view::npos;
}

bool isPlainName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

bool isBodyName(std::string_view name) {
    const auto ends = [&](std::string_view marker) { return name.ends_with(marker); };
    return isPlainName(name) && !ends(kDscSuffix) && !ends(kNewMarker) && !ends(kOldMarker) &&
           !ends(kDeletedMarker);
}

std::string joinPath(std::string_view folder, std::string_view name) {
    return concat(folder, "/", name);
}

void correctFileNameList(std::vector<std::string>& names) {
    std::vector<std::string> saved;
    std::size_t records = 0;
    for (std::string& name : names) {
        if (hasMarker(name, kDscSuffix)) {
            if (std::string& place = names[records++]; &place != &name) {
                place = std::move(name);
            }
        } else if (hasMarker(name, kOldMarker)) {
            saved.push_back(std::move(name));
        }
    }
    names.resize(records);
    if (saved.empty()) {
        return;
    }
    {
        // A short string carries its characters with it, so nothing may join `names`
        // while the set points into it.
        const std::unordered_set<std::string_view> descriptors(names.begin(), names.end());
        std::erase_if(saved, [&](const std::string& name) {
            return descriptors.contains(withoutMarker(name, kOldMarker));
        });
    }
    names.insert(names.end(), std::make_move_iterator(saved.begin()),
                 std::make_move_iterator(saved.end()));
}
