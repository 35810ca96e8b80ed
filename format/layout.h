// Where things are in a database: its folders, and the records that it keeps for itself.
//
// Paths are relative to the folder that holds the database, which is the current one.
// format/record_name.h has the names of a record's files in its folder, format/dsc_text.h the
// text of descriptors. All of it is on disk, so nothing here ever changes its meaning.
#ifndef FORMAT_LAYOUT_H
#define FORMAT_LAYOUT_H

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "format/dsc_text.h"

namespace layout {

// The three folders that can be the database; docs/crash-safety.md has the moves between them.
inline constexpr const char* kLive = "./db";
inline constexpr const char* kCopy = "./new_db";      // being made; nobody reads it
inline constexpr const char* kPrevious = "./old_db";  // from before a change of the password

// The file beside them whose lock keeps other processes out; never removed nor renamed.
inline constexpr const char* kLockFile = "./db.lock";

// What repairs moved out of the live folder.
inline constexpr const char* kLost = "./db.lost";

// What is derived from the live folder, and may be lost: lib/index. Names that begin with it and a
// "-" are SQLite's.
inline constexpr const char* kIndex = "./db.index";

// When the database was last backed up and checked; may be lost.
inline constexpr const char* kState = "./db.state";

// The live folder in the words of users and of backups.
inline constexpr const char* kLiveName = "db";

// A folder of the live database.
struct Folder {
    const char* path;

    // "keys" of "./db/keys".
    constexpr std::string_view name() const {
        return std::string_view(path).substr(std::string_view(kLive).size() + 1);
    }

    // Whether a folder of this name is it or is in it.
    constexpr bool holds(std::string_view folder) const {
        return folder.starts_with(name()) &&
               (folder.size() == name().size() || folder[name().size()] == '/');
    }
};

inline constexpr Folder kSettings{"./db/settings"};
inline constexpr Folder kLsps{"./db/lsps"};
inline constexpr Folder kKeys{"./db/keys"};
inline constexpr Folder kCrls{"./db/crls"};
inline constexpr Folder kCrm{"./db/crm"};
inline constexpr Folder kCertificates{"./db/certificates"};
inline constexpr Folder kLocalCertificates{"./db/certificates/local"};  // whose key is here
inline constexpr Folder kRemoteCertificates{"./db/certificates/remote"};

// Those that every database has, in the order in which they are created: parents first. Users
// may create more.
inline constexpr Folder kFolders[] = {
    kSettings, kLsps, kKeys, kCrls, kCrm, kCertificates, kLocalCertificates, kRemoteCertificates};

static_assert(std::all_of(std::begin(kFolders), std::end(kFolders), [](const Folder& folder) {
    const std::string_view path = folder.path;
    return path.starts_with(kLive) && path[std::string_view(kLive).size()] == '/';
}));

// The record of the live folder that holds the digest of the database's password. Without it
// the password is empty.
inline constexpr const char* kKeyRecord = "key";
inline constexpr unsigned int kDigestType = kTypeBinary;
inline constexpr unsigned int kDigestId = 1;
inline constexpr std::size_t kDigestSize = 16;

// The records beside it that say how the database's password comes from the user's secrets. The
// module does not know them; lib/database does.
inline constexpr const char* kKdfRecord = "kdf";
inline constexpr const char* kKdfCopyRecord = "kdf-copy";  // the same, in case "kdf" is lost
inline constexpr unsigned int kSlotId = 0x4B01;            // kTypeText, one attribute a line
inline constexpr unsigned int kKeepOldId = 0x4B02;         // kTypeNumber, 1

}  // namespace layout

#endif  // FORMAT_LAYOUT_H
