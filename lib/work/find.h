// The records of a database that pass some filters.
//
// For one thread, in a database that is entered: with secrets if encrypted parts are to be looked
// at, too. Many records are read in several threads. Failures throw.
#ifndef LIB_WORK_FIND_H
#define LIB_WORK_FIND_H

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/records/address.h"
#include "lib/records/catalogue.h"
#include "lib/records/filter.h"
#include "lib/records/record_info.h"

namespace fstore {

struct FindRules {
    enum class Order { kName, kExpiry, kSubject };

    std::optional<std::string> folder;  // with those in it; none for the whole database
    Filters filters;
    Order order = Order::kName;
    bool secrets = false;  // look at encrypted parts, too: the database is open
};

// What could not be looked at, or not wholly. None of it is left out, but for damaged records whose
// descriptors say that they are not meant: an answer without it would be wrong where a record is
// missed.
struct Missed {
    std::vector<std::pair<Address, Failure>> damaged;  // or not allowed to be read
    std::vector<Address> undated;                      // Filter::mayMatch()
    Unread unread;  // folders, and records that are too large to be looked at

    // A record is damaged, and not only forbidden to be read.
    bool hasDamage() const;
    // All could be looked at.
    bool isComplete() const { return damaged.empty() && unread.empty(); }
};

struct Listing : Missed {
    std::vector<RecordInfo> records;  // in the order of the rules
};

// Text whose bytes are in the order of the records.
std::string orderKey(const RecordInfo& info, FindRules::Order order);

// Calls use(info) for each record that is found, in no order. It takes memory for the names in one
// folder, and for what was missed.
//
//   kUsage        a filter cannot be read: Filter's constructor
//   kInvalid      the folder is not one of a database
//   kMissing      there is no such folder
//   kInterrupted  the observer, which is asked at each record, wants it
using RecordUser = std::function<void(RecordInfo)>;
Missed visitFound(Database& database, const FindRules& rules, const RecordUser& use);

// All of them at once.
Listing findRecords(Database& database, const FindRules& rules);

}  // namespace fstore

#endif  // LIB_WORK_FIND_H
