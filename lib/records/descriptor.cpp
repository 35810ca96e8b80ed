#include "lib/records/descriptor.h"

#include <algorithm>
#include <new>
#include <utility>

#include <fmt/format.h>

#include "format/body_reference.h"
#include "format/dsc_text.h"
#include "format/record_name.h"
#include "lib/base/conflict_copy.h"
#include "lib/base/files.h"
#include "os/files.h"

namespace fstore {
namespace {

DescriptorLine lineFrom(const char* text) {
    using Form = DescriptorLine::Form;
    DescriptorLine line;
    line.text = text;
    if (!hasContent(text)) {
        return line;
    }
    DscHead head;
    if (parseDscHead(text, head) != kOk) {
        line.form = Form::kNoNumbers;
        return line;
    }
    line.type = head.type;
    line.id = head.id;
    line.data = head.text;
    DscLine value;
    const Status status = parseDscLine(text, value);
    if (status == kNoMemory) {
        throw std::bad_alloc();
    }
    line.form = status == kOk ? Form::kAttribute : Form::kBadData;
    line.value = std::move(value.data);
    return line;
}

// The bytes and one more, which the line reader wants.
std::vector<DescriptorLine> parseInPlace(SecretBytes bytes) {
    bytes.push_back(0);
    DscLineReader reader(reinterpret_cast<char*>(bytes.data()), bytes.size() - 1);
    std::vector<DescriptorLine> lines;
    const char* text = nullptr;
    Status status = reader.nextOfAll(text);
    for (; status == kOk; status = reader.nextOfAll(text)) {
        lines.push_back(lineFrom(text));
    }
    if (status != kEnd) {
        lines.emplace_back().form = DescriptorLine::Form::kNul;
    }
    return lines;
}

SecretBytes readBytes(const RegularFile& opened, const std::string& path, std::size_t size) {
    SecretBytes bytes;
    bytes.reserve(size + 1);  // for the byte that the line reader wants
    bytes.resize(size);
    if (!os::readAll(opened.file.get(), bytes.data(), bytes.size())) {
        failWithErrno("read", path);
    }
    return bytes;
}

}  // namespace

std::string_view markerOf(std::string_view file) {
    for (const std::string_view marker : {kNewMarker, kOldMarker, kDeletedMarker}) {
        if (hasMarker(file, marker) && hasMarker(withoutMarker(file, marker), kDscSuffix)) {
            return marker;
        }
    }
    return hasMarker(file, kDscSuffix) ? kDscSuffix : std::string_view();
}

std::optional<std::string> stateBeside(std::string_view file) {
    auto rival = rivalOf(file);
    return rival && (!markerOf(*rival).empty() || isUniqueName(*rival)) ? rival : std::nullopt;
}

bool isOfARecord(std::string_view file) {
    const std::string_view marker = markerOf(file);
    return marker == kDscSuffix || marker == kOldMarker;
}

std::vector<DescriptorLine> parseDescriptor(std::string_view text) {
    return parseInPlace({text.begin(), text.end()});
}

TooLarge tooLarge(const std::string& path, std::uint64_t size) {
    return {kMalformed,
            fmt::format("{} was not read: it has {} bytes, and a descriptor has at most {}", path,
                        size, kMostDescriptor),
            path};
}

SecretBytes readDescriptorBytes(const std::string& path) {
    const RegularFile opened = openRegular(path);
    if (opened.size > kMostDescriptor) {
        throw tooLarge(path, opened.size);
    }
    return readBytes(opened, path, static_cast<std::size_t>(opened.size));
}

std::vector<DescriptorLine> readDescriptor(const std::string& path) {
    return parseInPlace(readDescriptorBytes(path));
}

std::vector<DescriptorLine> readFirstLines(const std::string& path, std::size_t bytes) {
    const RegularFile opened = openRegular(path);
    const auto size = std::min<std::uint64_t>(bytes, opened.size);
    return parseInPlace(readBytes(opened, path, static_cast<std::size_t>(size)));
}

std::optional<std::string> bodyNameOf(const std::vector<DescriptorLine>& lines) {
    const DescriptorLine* const reference = findBodyReference(lines);
    if (reference == nullptr || reference->isDamaged()) {
        return std::nullopt;
    }
    return std::string(bodyNameIn(reference->value));
}

bool isSound(const std::vector<DescriptorLine>& lines) {
    const auto name = bodyNameOf(lines);
    return std::ranges::none_of(lines, &DescriptorLine::isDamaged) && (!name || isBodyName(*name));
}

}  // namespace fstore
