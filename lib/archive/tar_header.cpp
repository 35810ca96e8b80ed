#include "lib/archive/tar_header.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

namespace fstore::tar {
namespace {

// A header's fields, which have no bytes between them.
struct Field {
    std::size_t at;
    std::size_t size;
};
constexpr Field kName{0, kShortPath};
constexpr Field kMode{100, 8};
constexpr Field kOwner{108, 8};
constexpr Field kGroup{116, 8};
constexpr Field kSize{124, 12};
constexpr Field kTime{136, 12};
constexpr Field kSum{148, 8};
constexpr Field kType{156, 1};
constexpr Field kMagic{257, 8};
constexpr Field kDevices{329, 16};

constexpr std::string_view kUstar{"ustar\00000", 8};
// How other programs show the header of a long path that they do not know.
constexpr std::string_view kLongPathName = "././@LongPath";

void put(Block& block, Field field, std::string_view text) {
    std::memcpy(block.data() + field.at, text.data(), std::min(text.size(), field.size));
}

std::string_view get(const Block& block, Field field) {
    return {reinterpret_cast<const char*>(block.data()) + field.at, field.size};
}

std::uint64_t sumOf(const Block& block) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < block.size(); ++i) {
        const bool inSum = i >= kSum.at && i < kSum.at + kSum.size;
        sum += inSum ? ' ' : block[i];
    }
    return sum;
}

Block blockOf(const Header& header) {
    Block block{};
    put(block, kName, header.path);
    put(block, kMode, fmt::format("{:07o}", header.mode));
    put(block, kOwner, "0000000");
    put(block, kGroup, "0000000");
    put(block, kSize, fmt::format("{:011o}", header.size));
    put(block, kTime, "00000000000");
    put(block, kMagic, kUstar);
    put(block, kDevices, std::string_view("0000000\0000000000", 15));
    block[kType.at] = static_cast<unsigned char>(header.type);
    put(block, kSum, fmt::format("{:06o}", sumOf(block)));
    block[kSum.at + 7] = ' ';
    return block;
}

// Octal digits, up to a NUL; 0 where there are others, which printing again shows.
std::uint64_t numberIn(std::string_view text) {
    std::uint64_t value = 0;
    for (const char c : text.substr(0, text.find('\0'))) {
        if (c < '0' || c > '7') {
            return 0;
        }
        value = value * 8 + static_cast<unsigned char>(c - '0');
    }
    return value;
}

void appendText(std::vector<unsigned char>& bytes, std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

}  // namespace

std::size_t paddingOf(std::uint64_t size) {
    return static_cast<std::size_t>((kBlock - size % kBlock) % kBlock);
}

std::vector<unsigned char> print(const Header& header) {
    std::vector<unsigned char> bytes;
    if (header.path.size() > kShortPath) {
        const std::string record = printLongPath(header.path);
        const Block block =
            blockOf({Type::kLongPath, 0600, record.size(), std::string(kLongPathName)});
        bytes.assign(block.begin(), block.end());
        appendText(bytes, record);
        bytes.resize(bytes.size() + paddingOf(record.size()));
    }
    const Block block = blockOf(header);
    bytes.insert(bytes.end(), block.begin(), block.end());
    return bytes;
}

std::optional<Header> parse(const Block& block) {
    const std::string_view name = get(block, kName);
    Header header{static_cast<Type>(block[kType.at]),
                  static_cast<unsigned int>(numberIn(get(block, kMode))),
                  numberIn(get(block, kSize)), std::string(name.substr(0, name.find('\0')))};
    const bool known = header.type == Type::kFile || header.type == Type::kFolder ||
                       (header.type == Type::kLongPath && header.path == kLongPathName);
    // Anything that we would have written otherwise is not ours.
    if (!known || header.mode > 0777 || blockOf(header) != block) {
        return std::nullopt;
    }
    return header;
}

std::string printLongPath(std::string_view path) {
    // "<length of the record in decimal> path=<path>\n", its own digits counted.
    constexpr std::string_view kKey = " path=";
    const std::size_t rest = kKey.size() + path.size() + 1;
    std::size_t whole = rest + 1;
    while (std::to_string(whole).size() + rest != whole) {
        ++whole;
    }
    return fmt::format("{}{}{}\n", whole, kKey, path);
}

std::optional<std::string> parseLongPath(std::string_view bytes) {
    const std::size_t equals = bytes.find('=');
    if (equals == std::string_view::npos || !bytes.ends_with('\n')) {
        return std::nullopt;
    }
    std::string path(bytes.substr(equals + 1, bytes.size() - equals - 2));
    const bool isLong = path.size() > kShortPath && path.size() <= kMostPath;
    return isLong && printLongPath(path) == bytes ? std::optional(std::move(path)) : std::nullopt;
}

}  // namespace fstore::tar
