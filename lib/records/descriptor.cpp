#include "lib/records/descriptor.h"

#include <algorithm>
#include <cstdio>

#include "lib/base/files.h"

namespace fstore {
namespace {

constexpr std::uint64_t kMostBytes = 1u << 30;
constexpr const char* kBlanks = " \t\n\v\f\r";

DescriptorLine parseLine(std::string_view text) {
    DescriptorLine line;
    line.text = text;
    // Like the store, nothing after a NUL is looked at.
    const std::string known(text.substr(0, text.find('\0')));
    const std::size_t start = known.find_first_not_of(kBlanks);
    line.isData = start != std::string::npos && known[start] != '!';
    if (!line.isData) {
        return line;
    }
    int end = 0;
    // The format's own rule for numbers: signs, prefixes and all.
    line.isRead = std::sscanf(known.c_str(), "%x %x %n", &line.type, &line.id, &end) == 2;
    if (line.isRead) {
        line.data = known.substr(static_cast<std::size_t>(end));
    }
    return line;
}

}  // namespace

std::vector<DescriptorLine> parseDescriptor(std::string_view text) {
    std::vector<DescriptorLine> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(parseLine(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

std::vector<DescriptorLine> readDescriptor(const std::string& path) {
    const SecretBytes bytes = InputFile(path).readAll(kMostBytes);
    return parseDescriptor({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

std::optional<std::string> bodyNameOf(const std::vector<DescriptorLine>& lines) {
    const auto line = std::ranges::find_if(lines, &DescriptorLine::namesBody);
    return line == lines.end() ? std::nullopt : std::optional(line->data);
}

}  // namespace fstore
