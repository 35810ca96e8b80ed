// What stands in the database's folders besides whole records: what a crash left over, what is
// damaged, and what does not belong there; and the repair of it.
#ifndef LIB_DATABASE_INSPECT_H
#define LIB_DATABASE_INSPECT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lib/database/finding.h"
#include "lib/database/slots.h"

namespace fstore {

// What is found below the current folder. Reads every record, decrypts nothing and
// changes nothing. No other process changes anything meanwhile.
std::vector<Finding> inspect();

// Repairs what one inspection found, but for what concerns the slots: moves away first, and deletes
// last. Returns the name of the folder in "./db.lost" that got something, made for `time` and for
// what the record "key" holds. May be broken off anywhere and run again. Throws kIo.
std::optional<std::string> repair(const std::vector<Finding>& findings, std::int64_t time,
                                  const std::optional<Digest>& key);

}  // namespace fstore

#endif  // LIB_DATABASE_INSPECT_H
