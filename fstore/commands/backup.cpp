// fstore backup, fstore restore: the database as one file, and back.
#include "lib/archive/backup.h"

#include <memory>

#include <fmt/format.h>

#include "format/layout.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/base/text.h"
#include "lib/database/folders.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {
namespace {

using layout::kCopy;
using layout::kLive;

struct BackupOptions {
    std::string file;
    bool force = false;
};

struct RestoreOptions {
    std::string file;
    bool replace = false;
};

void refuseStream(const std::string& file, const char* why) {
    if (file == kStandardStream) {
        throw Failure(kUsage, why);
    }
}

Json totalsToJson(const std::string& file, const ArchiveTotals& totals) {
    return {{"file", jsonText(file)},
            {"folders", totals.folders},
            {"files", totals.files},
            {"bytes", totals.bytes},
            {"manifestSha256", toHex(totals.manifest)}};
}

std::string describe(const ArchiveTotals& totals) {
    return fmt::format("{} files in {} folders, {} bytes", totals.files, totals.folders,
                       totals.bytes);
}

Status runBackup(const BackupOptions& options, Context& context) {
    refuseStream(options.file, "a backup is read back before it counts, so it goes into a file");
    OutputFile file(options.file, options.force);
    // As it is, damaged or not. Only a database that was moved aside is put back first.
    context.session.look(Access::kRead);
    if (!folderState().live) {
        context.session.enter(Access::kRead);
    }
    ArchiveWriter writer([&](std::span<const unsigned char> bytes) { file.write(bytes); });
    const std::vector<std::string> leftOut = addTree(kLive, writer);
    const ArchiveTotals totals = writer.finish();
    context.session.release();
    if (verifyArchive(file.reopen(), options.file).manifest != totals.manifest) {
        throw Failure(kIo, fmt::format("{} does not read back as it was written", options.file),
                      options.file);
    }
    file.commit();
    for (const std::string& path : leftOut) {
        context.output.warn(
            fmt::format("{} is neither a file nor a folder, and was left out", path));
    }
    context.output.note(fmt::format("{}: {}, read back", options.file, describe(totals)));
    context.output.document({{"backup", totalsToJson(options.file, totals)}});
    return kOk;
}

os::File openArchive(const std::string& name) {
    os::File file;
    off_t size = 0;
    switch (os::openRegular(name.c_str(), file, size)) {
        case os::Opened::kRegular:
            return file;
        case os::Opened::kNotRegular:
            throw Failure(kInvalid, fmt::format("{} is not a file", name), name);
        case os::Opened::kFailed:
            break;
    }
    failWithErrno("open", name);
}

// The failure with the archive's name in front.
Failure named(const Failure& failure, const std::string& file) {
    return {failure.status(), fmt::format("{}: {}", file, failure.what()), file};
}

// Leaves the database in "./new_db".
ArchiveTotals extract(const os::File& file, const std::string& name) {
    dropCopy();
    try {
        return extractTree(file, name, kCopy);
    } catch (const Failure&) {
        dropCopy();
        throw;
    }
}

void refuseToReplace(const Session& session) {
    if (folderState().hasDatabase()) {
        throw Failure(kInvalid,
                      fmt::format("there is a database in {}; --replace puts the backup in its "
                                  "place and keeps the old one under another name",
                                  session.folder()),
                      session.folder());
    }
}

Status runRestore(const RestoreOptions& options, Context& context) {
    refuseStream(options.file, "a backup is read twice, so it comes from a file");
    Session& session = context.session;
    const os::File first = openArchive(options.file);
    const os::File second = openArchive(options.file);
    std::string kept;
    ArchiveTotals totals;
    try {
        // All of it, before anything is written or even the folder is made.
        const ArchiveTotals verified = verifyArchive(first, options.file);
        session.enterFolder();
        if (!options.replace) {
            refuseToReplace(session);
        }
        totals = extract(second, options.file);
        if (totals.manifest != verified.manifest) {
            throw Failure(kIo, "it changed while it was read");
        }
    } catch (const Failure& failure) {
        throw failure.status() == kMalformed ? named(failure, options.file) : failure;
    }
    kept = exchangeForCopy(compactMoment(now()));
    context.output.note(
        fmt::format("{}: {}, restored to {}", options.file, describe(totals), session.folder()));
    Json json{{"restored", totalsToJson(options.file, totals)}};
    if (!kept.empty()) {
        context.output.note(fmt::format("the database before is kept as {}", kept));
        json["kept"] = kept;
    }
    context.output.document(json);
    return kOk;
}

}  // namespace

void addBackup(Cli& cli) {
    const auto options = std::make_shared<BackupOptions>();
    Command& command =
        cli.add("backup", "Write the database into one file, without a password",
                [options](Context& context) { return runBackup(*options, context); });
    command.argument("FILE", &options->file, "A tar archive, readable by its owner only");
    addForce(command, &options->force);
}

void addRestore(Cli& cli) {
    const auto options = std::make_shared<RestoreOptions>();
    Command& command =
        cli.add("restore", "Make a database from a backup",
                [options](Context& context) { return runRestore(*options, context); });
    command.argument("FILE", &options->file, "What `fstore backup` has written");
    command.flag("--replace", &options->replace,
                 "Also where there is a database, which is kept under another name");
}

}  // namespace fstore
