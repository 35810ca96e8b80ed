#include "lib/work/remove.h"

#include <algorithm>
#include <utility>

#include "format/layout.h"
#include "lib/records/body_owners.h"
#include "lib/records/catalogue.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/records/record_info.h"
#include "lib/work/change.h"

namespace fstore {

std::vector<Address> resolveAll(const std::vector<std::string>& texts) {
    std::vector<Address> found;
    for (const std::string& text : texts) {
        Address address = resolve(text);
        refuseInternal(address);
        if (std::ranges::find(found, address) == found.end()) {
            found.push_back(std::move(address));
        }
    }
    return found;
}

bool isKey(const Address& address) {
    if (layout::kKeys.holds(address.folder)) {
        return true;
    }
    try {
        return infoOf(RecordHead::read(address)).kind == Kind::kKey;
    } catch (const Failure&) {
        return false;  // a damaged record elsewhere
    }
}

std::vector<Removal> removeRecords(const std::vector<Address>& addresses) {
    std::vector<Removal> removals;
    removals.reserve(addresses.size());
    BodyOwners owners(Lookup::current());
    for (const Address& address : addresses) {
        Removal& removal = removals.emplace_back(Removal{address, {}, {}});
        try {
            removal.bodyKept = Record(address).remove(owners);
        } catch (const Failure& failure) {
            removal.failure = failure;
        }
    }
    return removals;
}

}  // namespace fstore
