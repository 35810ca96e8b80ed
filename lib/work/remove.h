// The removal of records.
//
// For one thread, in a database that is entered: for changes where records are removed. Failures
// throw.
#ifndef LIB_WORK_REMOVE_H
#define LIB_WORK_REMOVE_H

#include <optional>
#include <string>
#include <vector>

#include "lib/base/error.h"
#include "lib/records/address.h"

namespace fstore {

// The records that the user means, each once. Throws kMissing or kInvalid when one of them is not
// there, may be several, or is one that refuseInternal() refuses: so that nothing has been removed
// then.
std::vector<Address> resolveAll(const std::vector<std::string>& texts);

// Whether it is a key, which is gone for good once it is removed, and with it what was encrypted
// for it. A record that cannot be read is one if it is in the folder of keys.
bool isKey(const Address& address);

struct Removal {
    Address address;
    std::optional<Failure> failure;       // why it is still there
    std::optional<std::string> bodyKept;  // why its body file is: BodyOwners::doubtAbout()
};

// Removes them one after the other; a failure ends none but its own.
std::vector<Removal> removeRecords(const std::vector<Address>& addresses);

}  // namespace fstore

#endif  // LIB_WORK_REMOVE_H
