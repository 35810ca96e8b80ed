// How a descriptor says which file is the record's body.
//
// The first line with kFlagBody and id 0 refers to it, and the line's data is the file's name.
// A name that isBodyName() refuses makes the descriptor malformed: a file elsewhere, or another
// record's descriptor, is no body, and is neither read nor deleted for one.
#ifndef FORMAT_BODY_REFERENCE_H
#define FORMAT_BODY_REFERENCE_H

#include <algorithm>
#include <string_view>
#include <vector>

#include "format/dsc_text.h"
#include "format/record_name.h"

[[nodiscard]] constexpr bool isBodyReference(unsigned int type, unsigned int id) {
    return (type & kFlagBody) != 0 && id == 0;
}

// The reference among a descriptor's lines, which have a `type` and an `id`; null for none.
template <class Line>
[[nodiscard]] const Line* findBodyReference(const std::vector<Line>& lines) {
    const auto found = std::ranges::find_if(
        lines, [](const Line& line) { return isBodyReference(line.type, line.id); });
    return found == lines.end() ? nullptr : &*found;
}

// The name in a reference's data: what stands before a NUL, if there is one.
[[nodiscard]] constexpr std::string_view bodyNameIn(std::string_view data) {
    return data.substr(0, data.find('\0'));
}

#endif  // FORMAT_BODY_REFERENCE_H
