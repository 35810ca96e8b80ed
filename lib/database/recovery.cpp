#include "lib/database/recovery.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>
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

std::vector<std::string> listSaved() {
    std::vector<std::string> found;
    Unread beyondRepair;  // the command that follows meets them, too
    visitAllEntries(
        [&](const std::string& folder, const FolderEntry& entry) {
            if (entry.type == FolderEntry::Type::kFile && markerOf(entry.name) == kOldMarker) {
                found.push_back(joined(folderPath(folder), entry.name));
            }
        },
        &beyondRepair);
    return found;
}

// The descriptors that stand moved aside alone, as a write that was broken off between its two
// renames leaves them: reading would put them back.
//
// What the index says holds for this look only: what is put back changes a folder.
std::vector<std::string> allLoneSaved(const IndexSetup& index) {
    auto saved = RecordIndex(index).saved();
    std::vector<std::string> found = saved ? std::move(*saved) : listSaved();
    std::erase_if(found, [](const std::string& path) {
        return exists(std::string(withoutMarker(path, kOldMarker)));
    });
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
bool needsRecovery(const IndexSetup& index) {
    return !folderState().live || !allLoneSaved(index).empty();
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

void recoverFiles(StoreService& store, const IndexSetup& index) {
    recoverFolders(store);
    std::ranges::for_each(allLoneSaved(index), putBack);
}

Protection dropUndoneSet(const Protection& undone) {
    keepOnlyInForce(undone);
    return readProtection();
}

Protection recover(StoreService& store, const IndexSetup& index) {
    recoverFiles(store, index);
    Protection protection = settledProtection(store);
    if (protection.isUndone() && !protection.hasPassword()) {
        return dropUndoneSet(protection);
    }
    return withBothCopies(protection);
}

// Whether a record is there is asked right afterwards. One that stands aside must be back by then:
// else a new one would be made beside it, whose first write removes the old one with its label and
// body.
Protection recoverNamed(StoreService& store, std::span<const AddressText> named,
                        const IndexSetup& index) {
    recoverFolders(store);
    for (const char* const name : kPasswordRecords) {
        putBackIfAside({"", name});
    }
    for (const AddressText& text : named) {
        std::ranges::for_each(placesOf(text), putBackIfAside);
    }
    const Protection protection = readProtection();
    if (protection.isKeyLost() || protection.isUnfinished()) {
        return recover(store, index);
    }
    return withBothCopies(protection);
}

}  // namespace fstore
