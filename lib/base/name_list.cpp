#include "lib/base/name_list.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace fstore {

void NameList::add(std::string_view name) {
    if (name.size() > std::numeric_limits<unsigned char>::max() ||
        text_.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("names of files");
    }
    begins_.push_back(static_cast<std::uint32_t>(text_.size()));
    text_ += static_cast<char>(name.size());
    text_ += name;
}

void NameList::sort() {
    std::ranges::sort(begins_, {}, [this](std::uint32_t begin) { return at(begin); });
}

std::optional<std::size_t> NameList::find(std::string_view name) const {
    const auto found = std::ranges::lower_bound(begins_, name, {},
                                                [this](std::uint32_t begin) { return at(begin); });
    if (found == begins_.end() || at(*found) != name) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(found - begins_.begin());
}

}  // namespace fstore
