#include "lib/base/sorted_texts.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <queue>
#include <tuple>
#include <utility>

namespace fstore {
namespace {

// In a part each text has the sizes of its key and of itself in front.
struct Sizes {
    std::uint32_t key = 0, text = 0;
};

}  // namespace

// One that is being read, at its first text that was not used.
class SortedTexts::Part {
public:
    Part(const Spill& spill, std::uint64_t begin, std::uint64_t end, std::size_t index)
        : reader_(spill, begin), left_(end - begin), index_(index) {}

    // False at the end.
    bool next() {
        if (left_ == 0) {
            return false;
        }
        Sizes sizes;
        std::memcpy(&sizes, reader_.take(sizeof sizes).data(), sizeof sizes);
        key_ = reader_.take(sizes.key);
        text_ = reader_.take(sizes.text);
        left_ -= sizeof sizes + sizes.key + sizes.text;
        return true;
    }
    const std::string& key() const noexcept { return key_; }
    const std::string& text() const noexcept { return text_; }

    // What was added first comes first.
    bool comesBefore(const Part& other) const {
        return std::tie(key_, index_) < std::tie(other.key_, other.index_);
    }

private:
    Spill::Reader reader_;
    std::uint64_t left_;
    std::size_t index_;
    std::string key_, text_;
};

void SortedTexts::add(std::string_view key, std::string_view text) {
    if (!entries_.empty() && waiting_.size() + key.size() + text.size() > kPart) {
        writePart();
    }
    entries_.push_back({static_cast<std::uint32_t>(waiting_.size()),
                        static_cast<std::uint32_t>(key.size()),
                        static_cast<std::uint32_t>(text.size())});
    waiting_ += key;
    waiting_ += text;
    ++size_;
}

std::string_view SortedTexts::keyOf(const Entry& entry) const {
    return std::string_view(waiting_).substr(entry.begin, entry.keySize);
}

std::string_view SortedTexts::textOf(const Entry& entry) const {
    return std::string_view(waiting_).substr(entry.begin + entry.keySize, entry.textSize);
}

std::vector<SortedTexts::Entry> SortedTexts::sorted() const {
    std::vector<Entry> entries = entries_;
    std::ranges::stable_sort(entries, {}, [this](const Entry& entry) { return keyOf(entry); });
    return entries;
}

void SortedTexts::writePart() {
    for (const Entry& entry : sorted()) {
        const Sizes sizes{entry.keySize, entry.textSize};
        spill_.add({reinterpret_cast<const char*>(&sizes), sizeof sizes});
        spill_.add(std::string_view(waiting_).substr(entry.begin,
                                                     std::size_t{entry.keySize} + entry.textSize));
    }
    parts_.push_back(spill_.size());
    waiting_.clear();
    entries_.clear();
}

// The part that is in memory comes last, as it was added.
void SortedTexts::visit(const User& use) const {
    const auto isAfter = [](const Part* a, const Part* b) { return b->comesBefore(*a); };
    std::deque<Part> parts;
    std::priority_queue<Part*, std::vector<Part*>, decltype(isAfter)> next(isAfter);
    std::uint64_t begin = 0;
    for (const std::uint64_t end : parts_) {
        Part& part = parts.emplace_back(spill_, begin, end, parts.size());
        begin = end;
        if (part.next()) {
            next.push(&part);
        }
    }
    const auto useFirst = [&] {
        Part* const first = next.top();
        next.pop();
        use(first->text());
        if (first->next()) {
            next.push(first);
        }
    };
    for (const Entry& entry : sorted()) {
        while (!next.empty() && next.top()->key() <= keyOf(entry)) {
            useFirst();
        }
        use(textOf(entry));
    }
    while (!next.empty()) {
        useFirst();
    }
}

}  // namespace fstore
