#include "lib/work/create.h"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/records/catalogue.h"

namespace fstore {
namespace {

void refuseUnless(bool accepted, const Place& place, const std::string& why) {
    if (!accepted) {
        throw Failure(kInvalid, fmt::format("the database in {} {}", place.describe(), why),
                      place.folder);
    }
}

// Whether the database that was entered has yet to be given its password.
bool lacksPassword(const Database& database) {
    const Protection& protection = database.protection();
    refuseUnless(!protection.inForce.line || protection.inForce.line->form != Slot::Form::kRaw,
                 database.place(),
                 "has no slots: its own key is the password; protect it with `fstore passwd`");
    if (protection.hasPassword()) {
        return false;
    }
    const std::size_t records = countRecords();
    refuseUnless(
        records == 0, database.place(),
        fmt::format("holds {} records and has no password; set one with `fstore passwd`", records));
    return true;
}

bool isThere(Database& database) {
    try {
        (void)database.enter(Access::kRead, Need::kFiles);
        return true;
    } catch (const Failure& failure) {
        if (failure.status() != kMissing) {
            throw;
        }
        return false;
    }
}

}  // namespace

bool createDatabase(Database& database, unsigned int ln, const NewPassword& password) {
    std::optional<NewKey> fresh;
    for (;;) {
        if (fresh || isThere(database)) {
            const Hold hold = database.enter(Access::kChange, Need::kDatabase);
            if (!lacksPassword(database)) {
                return false;
            }
            if (fresh) {
                database.changePassword(std::move(*fresh), /*keepOld=*/false);
                return true;
            }
        }
        fresh = makeKey(password(), ln, makeDatabaseId());
    }
}

}  // namespace fstore
