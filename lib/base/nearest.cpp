#include "lib/base/nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace fstore {
namespace {

constexpr std::size_t kLettersOfAFault = 3;
constexpr std::size_t kLettersOfABeginning = 2;

}  // namespace

Nearest::Nearest(std::string_view wanted)
    : wanted_(wanted), bound_(1 + wanted.size() / kLettersOfAFault) {}

void Nearest::offer(std::string_view name) {
    const auto [less, more] = std::minmax({name.size(), wanted_.size()});
    if (more - less < bound_) {
        if (const std::size_t distance = distanceTo(name); distance < bound_) {
            bound_ = distance;
            found_ = name;
        }
    }
    if (longer_.empty() && wanted_.size() >= kLettersOfABeginning && name.starts_with(wanted_)) {
        longer_ = name;
    }
}

// Row by row, a row for each letter of the wanted name.
std::size_t Nearest::distanceTo(std::string_view name) {
    last_.assign(name.size() + 1, 0);
    std::iota(last_.begin(), last_.end(), std::size_t{0});
    before_ = last_;
    row_ = last_;
    for (std::size_t i = 1; i <= wanted_.size(); ++i) {
        row_[0] = i;
        for (std::size_t j = 1; j <= name.size(); ++j) {
            const std::size_t changed = last_[j - 1] + (wanted_[i - 1] == name[j - 1] ? 0 : 1);
            row_[j] = std::min({changed, last_[j] + 1, row_[j - 1] + 1});
            if (i > 1 && j > 1 && wanted_[i - 1] == name[j - 2] && wanted_[i - 2] == name[j - 1]) {
                row_[j] = std::min(row_[j], before_[j - 2] + 1);
            }
        }
        std::swap(before_, last_);
        std::swap(last_, row_);
    }
    return last_[name.size()];
}

}  // namespace fstore
