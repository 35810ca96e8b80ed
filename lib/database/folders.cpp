#include "lib/database/folders.h"

#include <cerrno>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
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

}  // namespace

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
