#include "lib/base/conflict_copy.h"

#include <algorithm>

namespace fstore {
namespace {

// The name without what stands in it from `begin` to `end`; none when nothing is left.
std::optional<std::string> without(std::string_view file, std::size_t begin, std::size_t end) {
    std::string rival(file.substr(0, begin));
    if (rival.empty()) {
        return std::nullopt;
    }
    return rival.append(file.substr(end));
}

// "a.sync-conflict-<when>-<whose>.dsc": the mark ends where the next extension begins.
std::optional<std::string> rivalOfMarked(std::string_view file) {
    constexpr std::string_view kMark = ".sync-conflict-";
    const std::size_t begin = file.find(kMark);
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    return without(file, begin, std::min(file.find('.', begin + kMark.size()), file.size()));
}

// "a (... conflicted copy ...).dsc".
std::optional<std::string> rivalOfBracketed(std::string_view file) {
    const std::size_t words = file.find("conflicted copy");
    const std::size_t begin = file.substr(0, words).rfind(" (");
    const std::size_t end = file.find(')', std::min(words, file.size()));
    if (words == std::string_view::npos || begin == std::string_view::npos ||
        end == std::string_view::npos) {
        return std::nullopt;
    }
    return without(file, begin, end + 1);
}

enum class Side { kBoth, kOurs, kBase, kTheirs };

// What a line of seven equal signs, and perhaps a name behind them, begins.
std::optional<Side> sideBegunBy(std::string_view line) {
    constexpr std::size_t kLength = 7;
    const auto begins = [&](char sign) {
        return line.size() >= kLength && line.substr(0, kLength) == std::string(kLength, sign) &&
               (line.size() == kLength || line[kLength] == ' ' || line[kLength] == '\r');
    };
    if (begins('<')) {
        return Side::kOurs;
    }
    if (begins('|')) {
        return Side::kBase;
    }
    if (begins('=')) {
        return Side::kTheirs;
    }
    return begins('>') ? std::optional(Side::kBoth) : std::nullopt;
}

// Whether a part may follow the other: kBase is told by some merges only.
bool mayFollow(Side before, Side next) {
    switch (next) {
        case Side::kOurs:
            return before == Side::kBoth;
        case Side::kBase:
            return before == Side::kOurs;
        case Side::kTheirs:
            return before == Side::kOurs || before == Side::kBase;
        case Side::kBoth:
            break;
    }
    return before == Side::kTheirs;
}

}  // namespace

std::optional<std::string> rivalOf(std::string_view file) {
    constexpr std::string_view kOriginal = ".orig";
    if (auto rival = rivalOfMarked(file)) {
        return rival;
    }
    if (auto rival = rivalOfBracketed(file)) {
        return rival;
    }
    return file.ends_with(kOriginal) ? without(file, file.size() - kOriginal.size(), file.size())
                                     : std::nullopt;
}

std::optional<MergeSides> mergeSidesOf(std::string_view text) {
    MergeSides sides;
    Side side = Side::kBoth;
    bool isMerge = false;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end);
        const bool isFeed = line.back() == '\n';
        if (const auto next = sideBegunBy(line.substr(0, line.size() - (isFeed ? 1 : 0)))) {
            if (!mayFollow(side, *next)) {
                return std::nullopt;
            }
            side = *next;
            isMerge = true;
            continue;
        }
        if (side == Side::kBoth || side == Side::kOurs) {
            sides.ours += line;
        }
        if (side == Side::kBoth || side == Side::kTheirs) {
            sides.theirs += line;
        }
    }
    return isMerge && side == Side::kBoth ? std::optional(std::move(sides)) : std::nullopt;
}

}  // namespace fstore
