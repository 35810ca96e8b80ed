#include "lib/archive/backup.h"

#include <optional>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/archive/tree.h"
#include "lib/base/error.h"
#include "lib/base/time.h"
#include "lib/database/beside.h"
#include "lib/database/folders.h"
#include "os/files.h"

namespace fstore {
namespace {

// With the files as they are. Only a database that was moved aside is put back first.
Hold enterForBackup(Database& database) {
    {
        Hold hold = database.enter(Access::kRead, Need::kFiles);
        if (folderState().live) {
            return hold;
        }
    }
    return database.enter(Access::kRead);
}

BackupReport writeArchive(Database& database, OutputFile& file) {
    const Hold hold = enterForBackup(database);
    ArchiveWriter writer([&](std::span<const unsigned char> bytes) { file.write(bytes); });
    BackupReport report;
    report.leftOut = addTree(layout::kLive, writer);
    report.totals = writer.finish();
    return report;
}

os::File openArchive(const std::string& name) {
    os::File file;
    off_t size = 0;
    switch (os::openRegular(name.c_str(), file, size)) {
        case os::Opened::kRegular:
            return file;
        case os::Opened::kNotRegular:
            throw Failure(kInvalid, fmt::format("{} is not a regular file", name), name);
        case os::Opened::kFailed:
            break;
    }
    failWithErrno("open", name);
}

// The archive as "./new_db", which goes again unless it is complete.
ArchiveTotals extract(const os::File& file, const std::string& name) {
    dropCopy();
    try {
        return extractTree(file, name, layout::kCopy);
    } catch (...) {
        dropCopy();
        throw;
    }
}

void refuseToReplace(const Place& place) {
    if (folderState().hasDatabase()) {
        throw Failure(kInvalid, fmt::format("there is already a database in {}", place.describe()),
                      Advice{"--replace replaces it and keeps the old one under another name"},
                      place.folder);
    }
}

RestoreReport restoreFrom(const os::File& first, const os::File& second, Database& database,
                          const std::string& name, bool replace) {
    // All of it, before anything is written or even the folder is made.
    const ArchiveTotals verified = verifyArchive(first, name);
    const Hold hold = database.enter(Access::kChange, Need::kFolder);
    if (!replace) {
        refuseToReplace(database.place());
    }
    const ArchiveTotals totals = extract(second, name);
    if (totals.manifest != verified.manifest) {
        throw Failure(kIo, "it changed while it was being read");
    }
    settleCopy();
    return {totals, exchangeForCopy(compactTime(now()))};
}

}  // namespace

BackupReport backUp(Database& database, OutputFile& file) {
    BackupReport report = writeArchive(database, file);
    report.verified = !file.isStream();
    if (report.verified &&
        verifyArchive(file.reopen(), file.name()).manifest != report.totals.manifest) {
        throw Failure(kIo,
                      fmt::format("{} reads back differently from what was written", file.name()),
                      file.name());
    }
    file.commit();
    return report;
}

RestoreReport restore(Database& database, const std::string& name, bool replace) {
    const os::File first = openArchive(name);
    const os::File second = openArchive(name);
    try {
        return restoreFrom(first, second, database, name, replace);
    } catch (const Failure& failure) {
        if (failure.status() == kMalformed) {
            throw Failure(kMalformed, fmt::format("{}: {}", name, failure.what()), name);
        }
        throw;
    }
}

}  // namespace fstore
