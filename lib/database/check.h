// Whether a database is sound, and the repair of what a crash left over.
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
    bool deep = false;    // decrypt and compare everything too, for which the password is needed
    bool repair = false;  // what is damaged is never touched
};

struct CheckReport {
    std::vector<Finding> findings;  // those that stand at the end
    std::vector<Finding> repaired;
    std::vector<LostFolder> lost;  // what repairs have moved away, this one and earlier ones
    std::optional<DeepReport> deep;

    bool isSound() const;
};

// Each repair is a note for the observer before it is made. A change of the password that
// was broken off is finished, for which the password is needed as well.
CheckReport checkDatabase(Database& database, const CheckOptions& options);

// Puts back what the repair of this name moved away; statuses as undoLost().
UndoReport undoRepair(Database& database, const std::string& name);

// Removes it for good; statuses as purgeLost().
void purgeRepair(Database& database, const std::string& name);

}  // namespace fstore

#endif  // LIB_DATABASE_CHECK_H
