// A descriptor as the store reads it, line by line, also a damaged one.
//
// For looking at what is on disk: records are read and written through the store.
#ifndef LIB_RECORDS_DESCRIPTOR_H
#define LIB_RECORDS_DESCRIPTOR_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/error.h"

namespace fstore {

// The largest descriptor that is read: several times what the largest object takes. Its lines
// take twenty times as much memory.
inline constexpr std::uint64_t kMostDescriptor = 16 << 20;

// Something was not looked at, because it is larger than what is read unasked.
class TooLarge : public Failure {
public:
    using Failure::Failure;
};

struct DescriptorLine {
    enum class Form {
        kSkipped,    // blank, or a comment
        kAttribute,  // what the store takes
        kNoNumbers,  // damaged: it does not begin with two numbers
        kBadData,    // damaged: its data is not of its type
        kNul         // damaged: it begins with a NUL byte. Nothing is read from there on
    };

    Form form = Form::kSkipped;
    std::string text;       // the whole line, without its line feed
    unsigned int type = 0;  // with its flags
    unsigned int id = 0;
    std::string data;   // what follows the numbers
    std::string value;  // the attribute's bytes

    bool hasNumbers() const { return form == Form::kAttribute || form == Form::kBadData; }
    bool isDamaged() const { return form != Form::kSkipped && form != Form::kAttribute; }
};

// What stands behind the record's name in that of a descriptor: kDscSuffix, or a marker
// (format/record_name.h). Empty for a file of another name: a marker makes no descriptor of what
// was none.
std::string_view markerOf(std::string_view file);

// The descriptor, with or without a marker, or the body that this file is a conflict copy of
// (lib/base/conflict_copy.h). None for any other file.
std::optional<std::string> stateBeside(std::string_view file);

// Whether a file of this name is a record's descriptor, or stands aside for one. What a write or a
// removal that died has left under another marker is nobody's record, and often half of a
// descriptor.
bool isOfARecord(std::string_view file);

std::vector<DescriptorLine> parseDescriptor(std::string_view text);

// A descriptor of this size, which is more than kMostDescriptor.
TooLarge tooLarge(const std::string& path, std::uint64_t size);

// The bytes of the descriptor file at `path`, not following a link. Throws TooLarge for more
// than kMostDescriptor, and a Failure when it cannot be read.
SecretBytes readDescriptorBytes(const std::string& path);

// Its lines.
std::vector<DescriptorLine> readDescriptor(const std::string& path);

// Those of its first bytes, of a descriptor of any size; the last line may be cut.
std::vector<DescriptorLine> readFirstLines(const std::string& path, std::size_t bytes);

// The name of the body file, as written. isBodyName() may be false for it. None also when
// its line is damaged.
std::optional<std::string> bodyNameOf(const std::vector<DescriptorLine>& lines);

// Whether the store accepts the descriptor. If not, it may have meant a body that it does not
// name.
bool isSound(const std::vector<DescriptorLine>& lines);

}  // namespace fstore

#endif  // LIB_RECORDS_DESCRIPTOR_H
