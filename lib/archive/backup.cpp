#include "lib/archive/backup.h"

#include <optional>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/archive/tree.h"
#include "lib/base/error.h"
#include "lib/base/observer.h"
#include "lib/base/time.h"
#include "lib/database/beside.h"
#include "lib/database/folders.h"
#include "os/files.h"

namespace fstore {
namespace {

// Steps of 256 KiB, so that long work on one large body can be seen and stopped, too.
class BytesDone {
public:
    BytesDone(Observer& observer, const std::string& what, std::uint64_t bytes)
        : progress_(observer, what, bytes / kStep + 1) {}

    void add(std::size_t bytes) {
        for (left_ += bytes; left_ >= kStep; left_ -= kStep) {
            progress_.step();
        }
    }

private:
    static constexpr std::uint64_t kStep = 1 << 18;

    Progress progress_;
    std::uint64_t left_ = 0;
};

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
    BytesDone done(database.observer(), "Backing up", sizeOfTree(layout::kLive));
    ArchiveWriter writer([&](std::span<const unsigned char> bytes) {
        file.write(bytes);
        done.add(bytes.size());
    });
    BackupReport report;
    report.leftOut = addTree(layout::kLive, writer);
    report.totals = writer.finish();
    return report;
}

struct Archive {
    os::File file;
    off_t size = 0;
};

Archive openArchive(const std::string& name) {
    Archive archive;
    switch (os::openRegular(name.c_str(), archive.file, archive.size)) {
        case os::Opened::kRegular:
            return archive;
        case os::Opened::kNotRegular:
            throw Failure(kInvalid, fmt::format("{} is not a regular file", name), name);
        case os::Opened::kFailed:
            break;
    }
    failWithErrno("open", name);
}

ArchiveTotals verify(const Archive& archive, const std::string& name, Observer& observer) {
    BytesDone done(observer, "Verifying", static_cast<std::uint64_t>(archive.size));
    return verifyArchive(archive.file, name, [&](std::size_t bytes) { done.add(bytes); });
}

// The archive as "./new_db", which goes again unless it is complete.
ArchiveTotals extract(const Archive& archive, const std::string& name, Observer& observer) {
    BytesDone done(observer, "Restoring", static_cast<std::uint64_t>(archive.size));
    dropCopy();
    try {
        return extractTree(archive.file, name, layout::kCopy,
                           [&](std::size_t bytes) { done.add(bytes); });
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

RestoreReport restoreFrom(const Archive& first, const Archive& second, Database& database,
                          const std::string& name, bool replace) {
    // All of it, before anything is written or even the folder is made.
    const ArchiveTotals verified = verify(first, name, database.observer());
    const Hold hold = database.enter(Access::kChange, Need::kFolder);
    if (!replace) {
        refuseToReplace(database.place());
    }
    const ArchiveTotals totals = extract(second, name, database.observer());
    if (totals.manifest != verified.manifest) {
        throw Failure(kIo, "it changed while it was being read");
    }
    settleBeside(layout::kCopy);
    return {totals, exchangeForCopy(compactTime(now()))};
}

ArchiveTotals readBack(const OutputFile& file, const ArchiveTotals& written, Observer& observer) {
    const os::File again = file.reopen();
    BytesDone done(observer, "Verifying", written.bytes);
    return verifyArchive(again, file.name(), [&](std::size_t bytes) { done.add(bytes); });
}

// What the work says of an archive that is not whole names the file.
template <class Work>
auto naming(const std::string& name, const Work& work) {
    try {
        return work();
    } catch (const Failure& failure) {
        if (failure.status() == kMalformed) {
            throw Failure(kMalformed, fmt::format("{}: {}", name, failure.what()), name);
        }
        throw;
    }
}

}  // namespace

BackupReport backUp(Database& database, OutputFile& file) {
    BackupReport report = writeArchive(database, file);
    report.verified = !file.isStream();
    if (report.verified &&
        readBack(file, report.totals, database.observer()).manifest != report.totals.manifest) {
        throw Failure(kIo,
                      fmt::format("{} reads back differently from what was written", file.name()),
                      file.name());
    }
    file.commit();
    return report;
}

ArchiveTotals readBackup(const std::string& name, Observer& observer, const ArchiveEntryUser& use) {
    constexpr int kStandardInput = 0;
    const bool isStream = name == kStandardStream;
    const Archive archive = isStream ? Archive{} : openArchive(name);
    std::optional<BytesDone> done;  // nobody knows how much a stream has
    if (!isStream) {
        done.emplace(observer, "Verifying", static_cast<std::uint64_t>(archive.size));
    }
    ArchiveReader reader(
        archiveSource(isStream ? kStandardInput : archive.file.get(), name, [&](std::size_t bytes) {
            if (done) {
                done->add(bytes);
            }
        }));
    return naming(isStream ? "the standard input" : name, [&] {
        while (const auto entry = reader.next()) {
            if (use) {
                use(*entry);
            }
        }
        return reader.totals();
    });
}

RestoreReport restore(Database& database, const std::string& name, bool replace) {
    const Archive first = openArchive(name);
    const Archive second = openArchive(name);
    return naming(name, [&] { return restoreFrom(first, second, database, name, replace); });
}

}  // namespace fstore
