// The headers of a tar archive (ustar, with the extension of POSIX 2001 for long paths), in
// the one form that we write: without owner and time, so that the same files make the same
// archive.
//
// Any thread may call any of these.
#ifndef LIB_ARCHIVE_TAR_HEADER_H
#define LIB_ARCHIVE_TAR_HEADER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fstore::tar {

inline constexpr std::size_t kBlock = 512;
using Block = std::array<unsigned char, kBlock>;

enum class Type : unsigned char {
    kFile = '0',
    kFolder = '5',
    kLongPath = 'x'  // contains the path of the header after it
};

struct Header {
    Type type = Type::kFile;
    unsigned int mode = 0;   // permission bits
    std::uint64_t size = 0;  // bytes after the header, without their padding
    std::string path;

    bool operator==(const Header&) const = default;
};

// Longer paths have blocks of their own, and the header has this much of them.
inline constexpr std::size_t kShortPath = 100;

// The longest path and the largest file that a header can describe.
inline constexpr std::size_t kMostPath = 4095;
inline constexpr std::uint64_t kMostSize = 077777777777;

// The blocks of a header: one, or three and more for a path that is
// longer than kShortPath. The path is no longer than kMostPath and the size no larger than
// kMostSize.
std::vector<unsigned char> print(const Header& header);

// The header in one block; none unless it is a block that print() makes.
std::optional<Header> parse(const Block& block);

// The bytes after a header of type kLongPath, and the path in them; none unless they are what
// print() makes.
std::string printLongPath(std::string_view path);
std::optional<std::string> parseLongPath(std::string_view bytes);

// How many zeros follow so many bytes.
std::size_t paddingOf(std::uint64_t size);

}  // namespace fstore::tar

#endif  // LIB_ARCHIVE_TAR_HEADER_H
