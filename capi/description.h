// A RecordInfo as a filestore_info, whose texts live as long as the description does.
//
// A plain value, for one thread.
#ifndef CAPI_DESCRIPTION_H
#define CAPI_DESCRIPTION_H

#include <cstdint>
#include <string>
#include <vector>

#include "capi/filestore.h"
#include "lib/records/record_info.h"

namespace capi {

class Description {
public:
    // Of a record of which everything can be read, or not.
    Description(fstore::RecordInfo info, bool readable, std::uint32_t outcome = 0);
    Description(Description&&) noexcept = default;
    Description& operator=(Description&&) noexcept = default;
    ~Description();  // wipes the texts, which may have been encrypted

    filestore_status copyTo(filestore_info* info) const noexcept;

private:
    std::uint32_t flags() const noexcept;

    fstore::RecordInfo info_;
    std::string address_;
    std::vector<const char*> altNames_;
    bool readable_;
    std::uint32_t outcome_;
};

}  // namespace capi

#endif  // CAPI_DESCRIPTION_H
