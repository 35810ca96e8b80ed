// How a command ends: exit codes, their names, and the failure that carries one
// from where it is noticed to main().
//
// The library, JSON and the shell use the same numbers: a status of the store is the exit
// code, and the tool's own codes are numbers that no status has.
#ifndef LIB_BASE_ERROR_H
#define LIB_BASE_ERROR_H

#include <cstddef>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include "cmn/status.h"

namespace fstore {

inline constexpr Status kUsage = 2;          // the command line, or no way to get the password
inline constexpr Status kFound = 3;          // damage was found, or --fail and a record matched
inline constexpr Status kPartial = 5;        // a part was done, a part was not
inline constexpr Status kForeign = 125;      // a status without a code
inline constexpr Status kInterrupted = 130;  // by SIGINT

// The same word for the same code in every version: "wrong-password", "io", ...
const char* nameOf(int exitCode);

// The exit code of a status: the status itself where it has a name, else kForeign.
int exitCodeOf(Status status);

// What a user of the tool can do, in the words of its command line; follows a sentence that is
// complete without it. Programs that use the library hear the sentence alone.
struct Advice {
    std::string text;
};

// Ends the command. The message is one sentence without a full stop, for the terminal: it
// says what happened, to which file, and what to do, and contains no secret. `path` is the
// file or record concerned, for programs; may be empty.
class Failure : public std::runtime_error {
public:
    enum class Cause {
        kOther,
        kDenied,  // the user may not do it: says nothing about the file
    };

    Failure(Status status, const std::string& message, std::string path = {},
            Cause cause = Cause::kOther)
        : std::runtime_error(message),
          adviceFrom_(message.size()),
          status_(status),
          path_(std::move(path)),
          cause_(cause) {}
    Failure(Status status, const std::string& message, const Advice& advice, std::string path = {})
        : std::runtime_error(message + "; " + advice.text),
          adviceFrom_(message.size()),
          status_(status),
          path_(std::move(path)) {}

    std::string_view withoutAdvice() const noexcept {
        return std::string_view(what()).substr(0, adviceFrom_);
    }
    Status status() const noexcept { return status_; }
    int exitCode() const { return exitCodeOf(status_); }
    const std::string& path() const noexcept { return path_; }
    bool isDenied() const noexcept { return cause_ == Cause::kDenied; }

private:
    std::size_t adviceFrom_;
    Status status_;
    std::string path_;
    Cause cause_ = Cause::kOther;
};

// Out of memory, with a sentence as a Failure has. Not a Failure: code that goes on after one
// record that it cannot read must not go on after this.
class MemoryFailure : public std::bad_alloc {
public:
    explicit MemoryFailure(const std::string& message, std::string path = {})
        // NOLINTNEXTLINE(bugprone-throw-keyword-missing): a member, and thrown with the object
        : failure_(kNoMemory, message, std::move(path)) {}

    const char* what() const noexcept override { return failure_.what(); }
    // What the border to the user reports, where there is one kind of failure.
    const Failure& failure() const noexcept { return failure_; }

private:
    Failure failure_;
};

// The database's lock was lost while it was worked on, so that others may be at work there. Not a
// Failure: code that undoes, cleans up or goes on after a failure must do nothing after this.
class LockLost : public std::exception {
public:
    explicit LockLost(const std::string& reason)
        // NOLINTNEXTLINE(bugprone-throw-keyword-missing): a member, and thrown with the object
        : failure_(kIo, "the lock was lost (" + reason + "); nothing more was written") {}

    const char* what() const noexcept override { return failure_.what(); }
    // What the border to the user reports.
    const Failure& failure() const noexcept { return failure_; }

private:
    Failure failure_;
};

// Asks the lock that this thread works under (held_lock.h), if there is one: to be called right
// before each rename and removal that shows a change. Throws LockLost.
void requireLock();

// Throws LockLost when the lock is known to be lost: after a call that has refused to go on.
void requireNoLoss();

// Throws a MemoryFailure for kNoMemory and a Failure for any other status.
[[noreturn]] void failWithStatus(Status status, const std::string& message,
                                 const std::string& path = {});

// Fails with "<what>: <what the status means>" unless `status` is kOk; with LockLost if that is
// the reason, which is asked for after kIo. After kIo it also says what the system said (errno):
// set that to 0 before the call.
void check(Status status, const std::string& what, const std::string& path = {});

// Fails with kIo, or kMissing or kNoMemory when errno says so, and the system's reason:
// "cannot <what> <path>: <reason>". With LockLost instead of kIo if that is the reason.
[[noreturn]] void failWithErrno(const std::string& what, const std::string& path);

}  // namespace fstore

#endif  // LIB_BASE_ERROR_H
