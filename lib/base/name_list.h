// The names of very many files, in little more memory than their bytes take.
#ifndef LIB_BASE_NAME_LIST_H
#define LIB_BASE_NAME_LIST_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fstore {

// All of them together have less than 4 GiB.
class NameList {
public:
    // A name of a file, which has 255 bytes at most. Throws std::length_error.
    void add(std::string_view name);

    // By the bytes of the names.
    void sort();

    std::size_t size() const noexcept { return begins_.size(); }

    // Lives until a name is added.
    std::string_view operator[](std::size_t index) const noexcept { return at(begins_[index]); }

    // Where it is; the list is sorted.
    std::optional<std::size_t> find(std::string_view name) const;

private:
    // Each stands behind a byte that has its size.
    std::string_view at(std::uint32_t begin) const noexcept {
        return std::string_view(text_).substr(begin + 1, static_cast<unsigned char>(text_[begin]));
    }

    std::string text_;
    std::vector<std::uint32_t> begins_;
};

}  // namespace fstore

#endif  // LIB_BASE_NAME_LIST_H
