// What leaves the library while it works: warnings, notes, progress and questions.
//
// The library prints nothing and asks nobody. Its caller passes an Observer, which decides
// what to do with all this: the tool draws bars and prompts, other programs count, or
// ignore it.
//
// All calls come from the thread that called the library, except step() and isCancelled(),
// which may come from any thread, from several at once, and must not throw. An exception
// from another call ends the work like a failure.
#ifndef LIB_BASE_OBSERVER_H
#define LIB_BASE_OBSERVER_H

#include <cstdint>
#include <string>

#include "lib/base/error.h"
#include "lib/base/secret.h"

namespace fstore {

class Observer {
public:
    Observer() = default;
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    virtual ~Observer() = default;

    // What deserves attention, and what was done. One sentence without a full stop, which
    // may contain names from disk as they are: escape it before printing.
    virtual void warn(const std::string& text) = 0;
    virtual void note(const std::string& text) = 0;

    // Long work: begin(), step() for each of about `steps` pieces, end(). One at a time: work that
    // is a part of other work is not told. `what` is a word or two: "Checking".
    virtual void begin(const std::string& what, std::uint64_t steps) = 0;
    virtual void step() noexcept = 0;
    virtual void end() noexcept = 0;
    // Whether the work is to stop. What was begun is then undone or finished, as after a
    // kill, and the library's operation fails with kInterrupted.
    virtual bool isCancelled() noexcept = 0;

    // The password of the database; called while nothing is locked, and again if another
    // process has changed the password meanwhile. Throws kUsage when there is none.
    virtual SecretText password() = 0;

private:
    friend class Progress;

    bool isInWork_ = false;
};

// Throws kInterrupted when the work is to stop.
inline void stopIfCancelled(Observer& observer) {
    if (observer.isCancelled()) {
        throw Failure(kInterrupted, "interrupted");
    }
}

// A piece of long work, ended with its scope.
class Progress {
public:
    Progress(Observer& observer, const std::string& what, std::uint64_t steps)
        : observer_(observer), isTold_(!observer.isInWork_) {
        if (isTold_) {
            observer_.begin(what, steps);
            observer_.isInWork_ = true;
        }
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() {
        if (isTold_) {
            observer_.isInWork_ = false;
            observer_.end();
        }
    }

    // Throws kInterrupted when the work is to stop. Any thread may call it.
    void step() {
        if (isTold_) {
            observer_.step();
        }
        stopIfCancelled(observer_);
    }

private:
    Observer& observer_;
    const bool isTold_;
};

}  // namespace fstore

#endif  // LIB_BASE_OBSERVER_H
