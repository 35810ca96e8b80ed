#include "lib/base/error.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

#include <fmt/format.h>

#include "lib/base/held_lock.h"

namespace fstore {
namespace {

struct Code {
    Status code;
    const char* name;
    const char* meaning;  // completes "<what>: "
};

constexpr Code kCodes[] = {
    {kOk, "ok", "done"},
    {kNoMemory, "no-memory", "out of memory"},
    {kUsage, "usage", "invalid command line"},
    {kFound, "found", "something was found"},
    {kInvalid, "invalid", "invalid value"},
    {kPartial, "partial", "only a part was done"},
    {kWrongPassword, "wrong-password", "wrong password"},
    {kIo, "io", "a file could not be read or written, or encryption failed"},
    {kNotOpen, "not-open", "the database is not open, or its password record is unreadable"},
    {kAlreadyOpen, "busy", "another process is using the database"},
    {kClosed, "closed", "the database is closed"},
    {kEnd, "not-found", "not found"},
    {kNoObject, "no-service", "the store's modules cannot be reached"},
    {kMissing, "missing", "no such file"},
    {kMalformed, "malformed", "malformed data"},
    {kNoDigest, "no-digest", "the password record is damaged"},
    {kForeign, "foreign", "another module reported a failure"},
    {kInterrupted, "interrupted", "interrupted"},
};

const Code* find(Status code) {
    for (const Code& known : kCodes) {
        if (known.code == code) {
            return &known;
        }
    }
    return nullptr;
}

// A status of another module may have the number of a code that is the tool's own.
bool isOfStore(Status status) {
    return find(status) != nullptr && status != kUsage && status != kFound && status != kPartial &&
           status != kInterrupted;
}

// Why the system refused the last call that failed, as far as that can be the reason of kIo: what a
// file that is not there, or is there already, says is often no failure.
std::string reasonOfIo(int reason) {
    constexpr int kReasons[] = {EACCES,  EPERM,  EROFS,  ENOSPC,      EDQUOT, EFBIG,
                                EIO,     EMFILE, ENFILE, ELOOP,       ENXIO,  ENODEV,
                                ETXTBSY, ESTALE, EMLINK, ENAMETOOLONG};
    return std::ranges::find(kReasons, reason) != std::end(kReasons)
               ? std::generic_category().message(reason)
               : std::string();
}

}  // namespace

const char* nameOf(int exitCode) {
    const Code* const code = find(static_cast<Status>(exitCode));
    return code != nullptr ? code->name : "foreign";
}

int exitCodeOf(Status status) {
    return static_cast<int>(find(status) != nullptr ? status : kForeign);
}

void requireLock() {
    HeldLock* const lock = heldLock();
    if (lock == nullptr) {
        return;
    }
    if (const std::string& why = lock->whyLost(); !why.empty()) {
        throw LockLost(why);
    }
}

void requireNoLoss() {
    const HeldLock* const lock = heldLock();
    if (lock != nullptr && !lock->knownLoss().empty()) {
        throw LockLost(lock->knownLoss());
    }
}

void failWithStatus(Status status, const std::string& message, const std::string& path) {
    if (status == kNoMemory) {
        throw MemoryFailure(message, path);
    }
    throw Failure(status, message, path);
}

void check(Status status, const std::string& what, const std::string& path) {
    const int reason = errno;
    if (status == kOk) {
        return;
    }
    if (status == kIo) {
        requireLock();  // what was lost with the lock is no fault of the disk
    }
    requireNoLoss();
    if (!isOfStore(status)) {
        failWithStatus(kForeign, fmt::format("{}: another module reported status {}", what, status),
                       path);
    }
    const std::string system = status == kIo ? reasonOfIo(reason) : std::string();
    failWithStatus(
        status, fmt::format("{}: {}", what, system.empty() ? find(status)->meaning : system), path);
}

void failWithErrno(const std::string& what, const std::string& path) {
    const int reason = errno;
    const Status status = reason == ENOENT || reason == ENOTDIR ? kMissing
                          : reason == ENOMEM                    ? kNoMemory
                                                                : kIo;
    if (status == kIo) {
        requireLock();
    }
    const std::string message =
        fmt::format("cannot {} {}: {}", what, path, std::generic_category().message(reason));
    // A process without free descriptors learns as little about a file as one without the right.
    if (reason == EACCES || reason == EPERM || reason == EMFILE || reason == ENFILE) {
        throw Failure(status, message, path, Failure::Cause::kDenied);
    }
    failWithStatus(status, message, path);
}

}  // namespace fstore
