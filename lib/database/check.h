// Whether a database is sound, and the repair of what a crash left behind.
#ifndef LIB_DATABASE_CHECK_H
#define LIB_DATABASE_CHECK_H

#include <optional>
#include <string>
#include <vector>

#include "lib/database/database.h"
#include "lib/database/deep_read.h"
#include "lib/database/inspect.h"
#include "lib/database/lost.h"

namespace fstore {

struct CheckOptions {
    bool deep = false;  // also decrypt and compare everything, which needs the password
    const Examiner* examiner = nullptr;  // with `deep`: objectExaminer() of lib/work, or none
    bool repair = false;                 // never touches what is damaged
};

struct CheckReport {
    std::vector<Finding> findings;  // those left at the end
    std::vector<Finding> repaired;
    std::vector<LostFolder> lost;  // what repairs have moved away, this one and earlier ones
    std::optional<DeepReport> deep;

    bool hasDamage() const;
    // Nothing is damaged, and everything could be read.
    bool isSound() const;
    // What the check ends with: kFound for damage, kPartial when not all could be looked at.
    Status status() const;
};

// Notes each repair to the observer before making it. Finishes an interrupted change of the
// password, which needs the password, too.
CheckReport checkDatabase(Database& database, const CheckOptions& options);

// Puts back what the repair of this name moved away; statuses as undoLost().
UndoReport undoRepair(Database& database, const std::string& name);

// Removes it for good; statuses as purgeLost().
void purgeRepair(Database& database, const std::string& name);

}  // namespace fstore

#endif  // LIB_DATABASE_CHECK_H
