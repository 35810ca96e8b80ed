// What is done with a whole database: check, change of password, backup and restore.
#include <string>

#include <fmt/format.h>

#include "capi/arguments.h"
#include "capi/db.h"
#include "capi/key.h"
#include "lib/archive/backup.h"
#include "lib/base/files.h"
#include "lib/database/check.h"
#include "lib/work/key_slots.h"
#include "lib/work/object_record.h"
#include "os/process.h"

using fstore::Access;
using fstore::Need;

namespace {

// What a finding is about a record that a deep look found damaged or could not examine.
fstore::Finding findingOf(const fstore::Failure& failure, const std::string& path, bool unread) {
    return {unread ? fstore::Finding::Kind::kUnreadable : fstore::Finding::Kind::kDamaged, path,
            failure.what()};
}

class Findings {
public:
    explicit Findings(const filestore_check_options& options) : options_(options) {}

    void report(const fstore::CheckReport& report) const {
        for (const fstore::Finding& finding : report.findings) {
            tell(finding, 0);
        }
        for (const fstore::Finding& finding : report.repaired) {
            tell(finding, FILESTORE_IS_REPAIRED);
        }
        if (!report.deep) {
            return;
        }
        for (const fstore::DamagedRecord& damaged : report.deep->damaged) {
            tell(findingOf(damaged.failure, damaged.address.print(), damaged.failure.isDenied()),
                 0);
        }
        for (const fstore::Failure& failure : report.deep->unread) {
            tell(findingOf(failure, failure.path(), /*unread=*/true), 0);
        }
    }

private:
    void tell(const fstore::Finding& finding, std::uint32_t flags) const {
        if (options_.finding == nullptr) {
            return;
        }
        filestore_finding values{};
        values.size = sizeof values;
        values.flags = flags | (finding.isDamage() ? FILESTORE_IS_DAMAGE : 0) |
                       (finding.isUnread() ? FILESTORE_IS_UNREAD : 0) |
                       (finding.isRepairable() && flags == 0 ? FILESTORE_IS_REPAIRABLE : 0);
        values.kind = nameOf(finding.kind);
        values.repair = nameOf(finding.repair);
        values.path = finding.path.c_str();
        values.message = finding.message.c_str();
        options_.finding(options_.user, &values);
    }

    const filestore_check_options& options_;
};

// A file, never the standard stream that the tool means by "-".
std::string fileName(const char* file) {
    const std::string name = capi::requireText(file, "the file is null");
    return name == fstore::kStandardStream ? "./" + name : name;
}

}  // namespace

extern "C" {

filestore_status filestore_check(filestore_db* db, const filestore_check_options* options,
                                 const filestore_callbacks* callbacks, filestore_error* error) {
    return capi::operation(error, [&] {
        const filestore_check_options own =
            capi::accepted(options, filestore_check_options(FILESTORE_CHECK_OPTIONS_INIT));
        capi::requireFlags(own.flags, FILESTORE_CHECK_DEEP | FILESTORE_CHECK_REPAIR);
        fstore::CheckOptions checks;
        checks.deep = (own.flags & FILESTORE_CHECK_DEEP) != 0;
        checks.repair = (own.flags & FILESTORE_CHECK_REPAIR) != 0;
        checks.examiner = &fstore::objectExaminer();
        capi::Handle& handle = capi::handleOf(db);
        if (checks.repair) {
            handle.requireWritable();
        }
        capi::Lease lease(handle, callbacks);
        const fstore::CheckReport report = checkDatabase(lease.database(), checks);
        Findings(own).report(report);
        return fstore::exitCodeOf(report.status());
    });
}

filestore_status filestore_change_password(filestore_db* db, const filestore_key* password,
                                           uint32_t flags, uint32_t cost,
                                           const filestore_callbacks* callbacks,
                                           filestore_error* error) {
    return capi::operation(error, [&] {
        capi::requireFlags(flags, FILESTORE_KEEP_OLD);
        const filestore_key own = capi::acceptedPassword(password);
        const unsigned int ln = capi::acceptedCost(cost);
        capi::Handle& handle = capi::handleOf(db);
        handle.requireWritable();
        capi::Lease lease(handle, callbacks);
        fstore::Database& database = lease.database();
        // A handle that is not unlocked shows before the new password is asked for.
        (void)database.enter(Access::kRead, Need::kSecrets);
        fstore::Rotation rotation;
        rotation.password = capi::readKey(own);
        rotation.ln = ln;
        rotation.keepOld = (flags & FILESTORE_KEEP_OLD) != 0;
        (void)rotateKey(database, rotation);
        handle.setKey({database.protection().inForce.key(), {database.p(), database.openedBy()}});
        return FILESTORE_OK;
    });
}

filestore_status filestore_backup(filestore_db* db, const char* file, uint32_t flags,
                                  const filestore_callbacks* callbacks, filestore_error* error) {
    return capi::operation(error, [&] {
        capi::requireFlags(flags, FILESTORE_REPLACE);
        capi::Lease lease(capi::handleOf(db), callbacks);
        const os::QuietWrites quiet;  // the file may be a pipe, or meet a limit
        fstore::OutputFile output(fileName(file), (flags & FILESTORE_REPLACE) != 0);
        const fstore::BackupReport report = backUp(lease.database(), output);
        for (const fstore::LeftOut& each : report.leftOut) {
            lease.observer().warn(fmt::format("left out {}: {}", each.path, each.reason));
        }
        return report.leftOut.empty() ? FILESTORE_OK : FILESTORE_PARTIAL;
    });
}

filestore_status filestore_restore(filestore_db* db, const char* file, uint32_t flags,
                                   const filestore_callbacks* callbacks, filestore_error* error) {
    return capi::operation(error, [&] {
        capi::requireFlags(flags, FILESTORE_REPLACE);
        const std::string name = fileName(file);
        capi::Handle& handle = capi::handleOf(db);
        handle.requireWritable();
        const fstore::RestoreReport report = [&] {
            capi::Lease lease(handle, callbacks);
            return restore(lease.database(), name, (flags & FILESTORE_REPLACE) != 0);
        }();
        handle.forgetKey();
        if (!report.kept.empty()) {
            capi::Lease lease(handle, callbacks);
            lease.observer().note(fmt::format("kept the previous database as {}", report.kept));
        }
        return FILESTORE_OK;
    });
}

}  // extern "C"
