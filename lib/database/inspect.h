// What stands in the database's folders besides whole records: what a crash left over, what is
// damaged, and what does not belong there; and the repair of it.
#ifndef LIB_DATABASE_INSPECT_H
#define LIB_DATABASE_INSPECT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lib/base/observer.h"
#include "lib/database/finding.h"
#include "lib/database/slots.h"

namespace fstore {

// What is found below the current folder. Reads every record, decrypts nothing and
// changes nothing; each is a step of the observer's work. No other process changes anything
// meanwhile. Throws kInterrupted.
std::vector<Finding> inspect(Observer& observer);

// Repairs what one inspection found, but for what concerns the slots: moves away first, and deletes
// last. Returns the name of the folder in "./db.lost" that got something, made for `time` and for
// what the record "key" holds. May be broken off anywhere and run again. Throws kIo.
std::optional<std::string> repair(const std::vector<Finding>& findings, std::int64_t time,
                                  const std::optional<Digest>& key);

}  // namespace fstore

#endif  // LIB_DATABASE_INSPECT_H
