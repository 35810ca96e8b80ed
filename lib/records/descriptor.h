// The text of a descriptor file, line by line, also of a damaged one.
//
// For looking at what is on disk: records are read and written through the store.
#ifndef LIB_RECORDS_DESCRIPTOR_H
#define LIB_RECORDS_DESCRIPTOR_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "format/dsc_text.h"

namespace fstore {

struct DescriptorLine {
    std::string text;       // the whole line, without its line feed
    bool isData = false;    // neither blank nor a comment
    bool isRead = false;    // it begins with two numbers
    unsigned int type = 0;  // with its flags
    unsigned int id = 0;
    std::string data;  // what stands after the numbers

    bool namesBody() const { return isRead && (type & kFlagBody) != 0 && id == 0; }
};

std::vector<DescriptorLine> parseDescriptor(std::string_view text);

// The lines of the descriptor file at `path`. Throws when it cannot be read.
std::vector<DescriptorLine> readDescriptor(const std::string& path);

// The name of the body file, by the first line that names one.
std::optional<std::string> bodyNameOf(const std::vector<DescriptorLine>& lines);

}  // namespace fstore

#endif  // LIB_RECORDS_DESCRIPTOR_H
