// The names of a folder's descriptors, in little more memory than their bytes take: a folder may
// have a million.
//
// For one thread. Memory that could not be allocated is std::bad_alloc.
#ifndef STORE_RECORD_NAMES_H
#define STORE_RECORD_NAMES_H

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "cmn/export.h"
#include "cmn/status.h"

class CMN_HIDDEN RecordNames {
public:
    // Adds those of a folder, in its order, and puts back every descriptor that is still known by
    // its saved name, as the only one; such names come last. kInvalid for a null folder, kIo for
    // one that cannot be listed to its end, or in which a name cannot be put back.
    [[nodiscard]] Status readFrom(const char* folder);

    bool empty() const noexcept { return blocks_.empty(); }

    // Takes out the first one, of one or more; its memory is given back by and by.
    std::string takeFirst();

private:
    void add(std::string_view name);
    void dropPlaced(std::vector<std::string>& saved) const;

    // Each name ends with a NUL, and stands in one block.
    std::deque<std::string> blocks_;
    std::size_t taken_ = 0;  // of the first block
};

#endif  // STORE_RECORD_NAMES_H
