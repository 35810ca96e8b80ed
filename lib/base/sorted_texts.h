// Any number of texts, each with a key, in the order of the keys: sorted in parts, which are
// merged when they are read. It takes the memory of one part.
//
// For one thread. Throws what Spill throws.
#ifndef LIB_BASE_SORTED_TEXTS_H
#define LIB_BASE_SORTED_TEXTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/spill.h"

namespace fstore {

class SortedTexts {
public:
    // Keys are compared by their bytes; texts with the same key keep their order.
    void add(std::string_view key, std::string_view text);

    std::uint64_t size() const noexcept { return size_; }

    // Calls use(text) for each. May be called again.
    using User = std::function<void(std::string_view)>;
    void visit(const User& use) const;

    // What is sorted at once.
    static constexpr std::size_t kPart = 1 << 22;

private:
    struct Entry {
        std::uint32_t begin, keySize, textSize;  // in waiting_, the key in front
    };
    class Part;

    std::string_view keyOf(const Entry& entry) const;
    std::string_view textOf(const Entry& entry) const;
    std::vector<Entry> sorted() const;
    void writePart();

    std::string waiting_;  // the part that is not sorted yet
    std::vector<Entry> entries_;
    Spill spill_;
    std::vector<std::uint64_t> parts_;  // where each ends in spill_
    std::uint64_t size_ = 0;
};

}  // namespace fstore

#endif  // LIB_BASE_SORTED_TEXTS_H
