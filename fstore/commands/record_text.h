// Words about records that several commands print.
#ifndef FSTORE_COMMANDS_RECORD_TEXT_H
#define FSTORE_COMMANDS_RECORD_TEXT_H

#include <cstdint>
#include <string>

#include "lib/records/record_info.h"

namespace fstore {

// What people call an object: its subject, else its first name, else "without a name".
std::string titleOf(const RecordInfo& info);

// "2030-01-31".
std::string dayOf(std::int64_t time);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_RECORD_TEXT_H
