#include "fstore/commands/change.h"

#include <fmt/format.h>

#include "lib/base/error.h"

namespace fstore {

Record readForChange(Session& session, const std::string& text, bool getsSecret) {
    session.enter(Access::kChange);
    Address address = resolve(text);
    refuseInternal(address);
    Record record = Record::read(address);
    if (getsSecret || record.hasSecrets()) {
        if (session.service().isOpen() == 0) {
            // Other processes had their turn while the password was asked for.
            session.open(Access::kChange);
            address = resolve(text);
            record = Record::read(address);
        }
        record.decrypt();
    }
    if (getsSecret) {
        session.requireSecrecy();
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
