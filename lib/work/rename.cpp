#include "lib/work/rename.h"

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/deep_read.h"
#include "lib/database/slot_copies.h"
#include "lib/records/catalogue.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/work/change.h"

namespace fstore {
namespace {

// Whatever is there keeps its name, also what is no record.
void requireFree(const Address& place) {
    requireFolder(place.folder);
    if (exists(descriptorPath(place))) {
        throw Failure(kInvalid,
                      fmt::format("{} already exists; choose another name, or remove it with "
                                  "`fstore rm`",
                                  place.print()),
                      place.print());
    }
}

// A record of the user's from before the database needed its name can only be moved.
Record readToMove(Database& database, const std::string& text) {
    const Address address = resolve(text);
    if (address != Address{"", layout::kKdfCopyRecord} ||
        readCopies().copy.state != SlotCopy::State::kUsers) {
        refuseInternal(address);
    }
    return readForChange(database, address, /*getsSecret=*/false);
}

}  // namespace

std::vector<AddressText> namesForRenaming(const std::string& text, const Address& to) {
    std::vector<AddressText> named = namesIn({&text, 1});
    if (!named.empty()) {
        named.push_back(AddressText::of(to));
    }
    return named;
}

Renaming renameRecord(Database& database, const std::string& text, const Address& to) {
    refuseInternal(to);
    requireFree(to);  // before anybody is asked for a password
    Record record = readToMove(database, text);
    checkBody(record);
    record.copyTo(to).write();
    BodyOwners owners(Lookup::current());
    return {record.address(), record.remove(owners)};
}

Address copyRecord(Database& database, const std::string& text, const Address& to) {
    refuseInternal(to);
    requireFree(to);
    const Record record = readForChange(database, text, /*getsSecret=*/false);
    checkBody(record);
    record.copyTo(to).write();
    return record.address();
}

}  // namespace fstore
