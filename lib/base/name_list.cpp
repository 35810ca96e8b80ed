#include "lib/base/name_list.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace fstore {

void NameList::add(std::string_view name) {
    constexpr std::size_t kMostBlocks = (std::size_t{1} << 32) / kBlock;
    if (name.size() > std::numeric_limits<unsigned char>::max()) {
        throw std::length_error("the name of a file");
    }
    if (used_ + 1 + name.size() > kBlock) {
        if (blocks_.size() == kMostBlocks) {
            throw std::length_error("names of files");
        }
        blocks_.push_back(std::make_unique<char[]>(kBlock));
        used_ = 0;
    }
    begins_.push_back(static_cast<std::uint32_t>((blocks_.size() - 1) * kBlock + used_));
    char* const place = blocks_.back().get() + used_;
    *place = static_cast<char>(name.size());
    std::memcpy(place + 1, name.data(), name.size());
    used_ += 1 + name.size();
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
