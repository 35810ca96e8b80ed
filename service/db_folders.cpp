// The folder tree of the database.
#include "format/layout.h"
#include "os/files.h"
#include "service/s_filestore_mm.h"
#include "store/context.h"

namespace {

using layout::kLive;
using layout::kPrevious;

constexpr mode_t kMode = 0750;

// The folders in which the names of all folders stand, from the bottom up.
constexpr const char* kParents[] = {layout::kCertificates.path, kLive, "."};

bool isThere(const char* path) {
    return os::presence(path) == os::Presence::kPresent;
}

// Only existence counts: a file under the name is found out by who uses the folder.
bool make(const char* folder) {
    (void)os::mkdir(folder, kMode);  // fails harmlessly where it exists
    return isThere(folder);
}

// A missing root is the previous database when there is one: a change of password
// was interrupted between its two renames. An empty root in its place would hide
// it for good, so a name that cannot be examined ends in failure.
bool makeRoot() {
    const os::Presence root = os::presence(kLive);
    if (root != os::Presence::kAbsent) {
        return root == os::Presence::kPresent;
    }
    switch (os::presence(kPrevious)) {
        case os::Presence::kPresent:
            (void)watched::rename(kPrevious, kLive);
            return isThere(kLive);
        case os::Presence::kUnknown:
            return false;
        case os::Presence::kAbsent:
            break;
    }
    return make(kLive);
}

}  // namespace

// The folders become durable each time: one that a process made and did not live to
// sync looks like any other, but what is written in it would go with it.
Status FileStoreSrv::prepareDBFolders() {
    if (!makeRoot()) {
        return kIo;
    }
    for (const layout::Folder& folder : layout::kFolders) {
        if (!make(folder.path)) {
            return kIo;
        }
    }
    for (const char* const parent : kParents) {
        if (!os::syncFolder(parent)) {
            return kIo;
        }
    }
    return kOk;
}
