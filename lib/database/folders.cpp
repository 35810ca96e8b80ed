#include "lib/database/folders.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/records/descriptor.h"
#include "os/fs.h"

namespace fstore {
namespace {

using layout::kCopy;
using layout::kLive;
using layout::kPrevious;

void rename(const std::string& from, const std::string& to) {
    requireLock();
    if (os::rename(from.c_str(), to.c_str()) != 0) {
        failWithErrno(fmt::format("rename {} to", from), to);
    }
}

void syncHere() {
    syncFolder(".");
}

// "./db-<time>", or another name of this kind when it is taken.
std::string freeName(const std::string& path, const std::string& time) {
    std::string name = fmt::format("{}-{}", path, time);
    for (int i = 2; exists(name); ++i) {
        name = fmt::format("{}-{}-{}", path, time, i);
    }
    return name;
}

// Whether a descriptor of the folder names the file as its body; old ones have any name.
bool isNamedIn(const std::string& folder, const std::string& file) {
    for (const FolderEntry& entry : readFolder(folder)) {
        if (entry.type != FolderEntry::Type::kFile || markerOf(entry.name).empty()) {
            continue;
        }
        try {
            if (bodyNameOf(readDescriptor(joined(folder, entry.name))) == file) {
                return true;
            }
        } catch (const Failure&) {
            continue;  // cut off, or damaged: it names nothing
        }
    }
    return false;
}

// Whether the copy of a database may have the entry: it is what the store makes, or was copied with
// the database, unknown files among it.
bool isOfCopy(const std::string& folder, const FolderEntry& entry) {
    if (entry.type == FolderEntry::Type::kOther) {
        return false;
    }
    const std::string copied =
        joined(kLive + folder.substr(std::string_view(kCopy).size()), entry.name);
    return !markerOf(entry.name).empty() || isUniqueName(entry.name) || stateBeside(entry.name) ||
           exists(copied) || isNamedIn(folder, entry.name);
}

std::optional<std::string> notOfCopy() {
    std::vector<std::string> folders{kCopy};
    while (!folders.empty()) {
        const std::string folder = std::move(folders.back());
        folders.pop_back();
        for (const FolderEntry& entry : readFolder(folder)) {
            if (entry.type == FolderEntry::Type::kFolder) {
                folders.push_back(joined(folder, entry.name));
            } else if (!isOfCopy(folder, entry)) {
                return joined(folder, entry.name);
            }
        }
    }
    return std::nullopt;
}

// A database has its folders from the beginning, and "./old_db" was one as a whole.
std::optional<std::string> notOfPrevious() {
    const std::vector<FolderEntry> entries = listFolder(kPrevious);
    const bool isDatabase = std::ranges::any_of(entries, [](const FolderEntry& entry) {
        return std::ranges::any_of(layout::kFolders, [&](const layout::Folder& folder) {
            return folder.name() == entry.name;
        });
    });
    return isDatabase || entries.empty() ? std::nullopt
                                         : std::optional(joined(kPrevious, entries.front().name));
}

}  // namespace

std::optional<std::string> noFolder() {
    for (const char* const path : {kCopy, kPrevious}) {
        const os::EntryType type = typeOf(path);
        if (type != os::EntryType::kFolder && type != os::EntryType::kUnknown) {
            return path;
        }
    }
    return std::nullopt;
}

std::optional<std::string> notOfDatabase() {
    std::optional<std::string> found;
    if (isA(os::EntryType::kFolder, kCopy)) {
        found = notOfCopy();
    }
    if (!found && isA(os::EntryType::kFolder, kPrevious)) {
        found = notOfPrevious();
    }
    return found;
}

FolderState folderState() {
    return {.live = exists(kLive), .copy = exists(kCopy), .previous = exists(kPrevious)};
}

void putPreviousBack() {
    if (!exists(kLive) && exists(kPrevious)) {
        rename(kPrevious, kLive);
        syncHere();
    }
}

void dropCopy() {
    if (exists(kCopy)) {
        removeTree(kCopy);
        syncHere();
    }
}

void dropPrevious() {
    if (!exists(kPrevious)) {
        return;
    }
    removeTree(kCopy);
    rename(kPrevious, kCopy);
    syncHere();
    dropCopy();
}

std::string keepPrevious(const std::string& time) {
    if (!exists(kPrevious)) {
        return {};
    }
    std::string kept = freeName(kLive, time);
    rename(kPrevious, kept);
    syncHere();
    return kept;
}

std::vector<std::string> keptDatabases() {
    const std::string head = fmt::format("{}-", layout::kLiveName);
    std::vector<std::string> kept;
    for (const FolderEntry& entry : listFolder(".")) {
        if (entry.type == FolderEntry::Type::kFolder && entry.name.starts_with(head)) {
            kept.push_back(joined(".", entry.name));
        }
    }
    return kept;
}

void undoExchange() {
    rename(kLive, kCopy);
    rename(kPrevious, kLive);
    syncHere();
}

std::string exchangeForCopy(const std::string& time) {
    putPreviousBack();
    if (!exists(kLive)) {
        rename(kCopy, kLive);
        syncHere();
        return {};
    }
    (void)keepPrevious(time);
    // While there is no "./db", "./old_db" is what the next start puts back.
    rename(kLive, kPrevious);
    requireLock();
    if (os::rename(kCopy, kLive) != 0) {
        const int reason = errno;
        requireLock();
        (void)os::rename(kPrevious, kLive);  // if this fails too, the next start does it
        errno = reason;
        failWithErrno("create the database of", kCopy);
    }
    syncHere();
    return keepPrevious(time);
}

}  // namespace fstore
