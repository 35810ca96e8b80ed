#include "fstore/commands/record_text.h"

#include "lib/base/time.h"

namespace fstore {

std::string titleOf(const RecordInfo& info) {
    if (!info.subject.empty()) {
        return info.subject;
    }
    return info.altNames.empty() ? "without a name" : info.altNames.front();
}

std::string dayOf(std::int64_t time) {
    constexpr std::size_t kLength = 10;
    return printTime(time).substr(0, kLength);
}

}  // namespace fstore
