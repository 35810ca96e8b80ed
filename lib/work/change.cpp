#include "lib/work/change.h"

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"

namespace fstore {

Record readForChange(Database& database, const std::string& text, bool getsSecret) {
    const Address address = resolve(text);
    refuseInternal(address);
    return readForChange(database, address, getsSecret);
}

Record readForChange(Database& database, const Address& address, bool getsSecret) {
    Record record = Record::read(address);
    if (getsSecret || record.hasSecrets()) {
        database.needSecrets();
        record.decrypt();
    }
    if (getsSecret) {
        database.requireSecrecy();
    }
    return record;
}

void refuseInternal(const Address& address) {
    if (address.isInternal()) {
        throw Failure(kInvalid,
                      fmt::format("{} belongs to the database's password, which `fstore passwd` "
                                  "changes",
                                  address.print()),
                      address.print());
    }
}

}  // namespace fstore
