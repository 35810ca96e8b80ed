#include "lib/database/recovery.h"

#include <algorithm>
#include <string>
#include <vector>

#include "format/record_name.h"
#include "lib/base/files.h"
#include "lib/database/folders.h"
#include "lib/records/catalogue.h"

namespace fstore {
namespace {

// Whether a descriptor stands moved aside alone, as a write that was broken off between
// its two renames leaves it: listing and reading would put it back.
bool hasLoneSaved(const std::string& folder, const std::vector<FolderEntry>& entries) {
    return std::ranges::any_of(entries, [&](const FolderEntry& entry) {
        return entry.type == FolderEntry::Type::kFile && hasMarker(entry.name, kOldMarker) &&
               !exists(joinPath(folderPath(folder), withoutMarker(entry.name, kOldMarker)));
    });
}

// Drops the slot of a change that has not happened, and will not.
Protection dropNewSlot(const Protection& undone) {
    KdfRecord kdf;
    if (undone.inForce.form == Slot::Form::kScrypt) {
        kdf.slots.push_back(undone.inForce);
    }
    writeKdf(kdf);
    return readProtection();
}

}  // namespace

// Readers ignore an unfinished copy.
bool needsRecovery() {
    if (!folderState().live) {
        return true;
    }
    bool found = false;
    Unread beyondRepair;  // the command that follows meets them, too
    visitFolders(
        [&](const std::string& folder, const std::vector<FolderEntry>& entries) {
            found = found || hasLoneSaved(folder, entries);
        },
        &beyondRepair);
    return found;
}

Protection recover(StoreService& store) {
    store.makeFolders();
    dropCopy();
    Unread beyondRepair;  // the command that follows meets them, too
    for (const std::string& folder : allFolders(&beyondRepair)) {
        (void)recordsIn(folder);  // the listing puts back what was moved aside
    }
    Protection protection = readProtection();
    return protection.isUndone() ? dropNewSlot(protection) : protection;
}

}  // namespace fstore
