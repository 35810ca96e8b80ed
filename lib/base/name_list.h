// The names of very many files, in little more memory than their bytes take.
#ifndef LIB_BASE_NAME_LIST_H
#define LIB_BASE_NAME_LIST_H

#include <cstddef>
#include <cstdint>
#include <memory>
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
    // Each stands in one block, behind a byte that has its size. One text would be moved, and be
    // there twice meanwhile, whenever it grows.
    std::string_view at(std::uint32_t begin) const noexcept {
        const char* const name = blocks_[begin / kBlock].get() + begin % kBlock;
        return {name + 1, static_cast<unsigned char>(*name)};
    }

    static constexpr std::size_t kBlock = 1 << 16;

    std::vector<std::unique_ptr<char[]>> blocks_;
    std::size_t used_ = kBlock;  // of the last block
    std::vector<std::uint32_t> begins_;
};

}  // namespace fstore

#endif  // LIB_BASE_NAME_LIST_H
