#include "lib/database/recovery.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/folders.h"
#include "lib/database/lost_key.h"
#include "lib/records/address.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "os/fs.h"

namespace fstore {
namespace {

constexpr std::array kPasswordRecords{layout::kKeyRecord, layout::kKdfRecord,
                                      layout::kKdfCopyRecord};

// Whether a write that was broken off between its two renames has left this record so.
bool isMovedAside(const Address& address) {
    const std::string path = descriptorPath(address);
    return !exists(path) && isA(os::EntryType::kFile, path + std::string(kOldMarker));
}

void putBackIfAside(const Address& address) {
    if (isMovedAside(address)) {
        putBack(descriptorPath(address) + std::string(kOldMarker));
    }
}

// The descriptors that stand moved aside alone, as a write that was broken off between its two
// renames leaves them: reading would put them back.
std::vector<std::string> allLoneSaved() {
    std::vector<std::string> found;
    Unread beyondRepair;  // the command that follows meets them, too
    visitAllEntries(
        [&](const std::string& folder, const FolderEntry& entry) {
            if (entry.type != FolderEntry::Type::kFile || markerOf(entry.name) != kOldMarker) {
                return;
            }
            const std::string path = joined(folderPath(folder), entry.name);
            if (!exists(std::string(withoutMarker(path, kOldMarker)))) {
                found.push_back(path);
            }
        },
        &beyondRepair);
    return found;
}

void recoverFolders(StoreService& store) {
    store.makeFolders();
    dropCopy();
}

Protection withBothCopies(const Protection& protection) {
    return repairCopy(protection, /*opened=*/false) ? readProtection() : protection;
}

}  // namespace

// Readers ignore an unfinished copy.
bool needsRecovery() {
    return !folderState().live || !allLoneSaved().empty();
}

bool needsRecoveryOfPassword() {
    return std::ranges::any_of(kPasswordRecords, [](const char* name) {
        return isMovedAside({"", name});
    });
}

void putBack(const std::string& saved) {
    const std::string descriptor(withoutMarker(saved, kOldMarker));
    if (exists(descriptor)) {
        return;
    }
    requireLock();
    if (os::rename(saved.c_str(), descriptor.c_str()) != 0) {
        failWithErrno("rename", saved);
    }
    syncFolder(descriptor.substr(0, descriptor.rfind('/')));
}

void recoverFiles(StoreService& store) {
    recoverFolders(store);
    std::ranges::for_each(allLoneSaved(), putBack);
}

Protection dropUndoneSet(const Protection& undone) {
    keepOnlyInForce(undone);
    return readProtection();
}

Protection recover(StoreService& store) {
    recoverFiles(store);
    Protection protection = settledProtection(store);
    if (protection.isUndone() && !protection.hasPassword()) {
        return dropUndoneSet(protection);
    }
    return withBothCopies(protection);
}

// Whether a record is there is asked right afterwards. One that stands aside must be back by then:
// else a new one would be made beside it, whose first write removes the old one with its label and
// body.
Protection recoverNamed(StoreService& store, std::span<const AddressText> named) {
    recoverFolders(store);
    for (const char* const name : kPasswordRecords) {
        putBackIfAside({"", name});
    }
    for (const AddressText& text : named) {
        std::ranges::for_each(placesOf(text), putBackIfAside);
    }
    const Protection protection = readProtection();
    if (protection.isKeyLost() || protection.isUnfinished()) {
        return recover(store);
    }
    return withBothCopies(protection);
}

}  // namespace fstore
