// What the doubled objects of one service report to a test, and obey.
//
// Any thread may use it at any time. Until a test asks for something it costs an
// object one relaxed load a call.
#ifndef TESTS_SUPPORT_DOUBLES_CALL_WATCH_H
#define TESTS_SUPPORT_DOUBLES_CALL_WATCH_H

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "cmn/cmn_gref.h"
#include "cmn/status.h"

// What throwAt() makes an operation throw.
class DoubleTrouble : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// How arguments are told in a record: texts, bytes and numbers. The doubles tell
// their own kinds of object.
std::string tell(const char* text);                 // "text abc", or "no text"
std::string tell(std::string_view text);            // "bytes abc"
inline std::string tell(const std::string& told) {  // "abc": it has been told already
    return told;
}
template <class Number>
requires std::is_arithmetic_v<Number> || std::is_enum_v<Number> std::string tell(Number number) {
    return std::to_string(static_cast<long long>(number));
}

class CallWatch {
public:
    // Records calls from now on, from an empty record.
    void record();

    // The recorded calls in order, as "shift: 2" or "set: text abc", and how often
    // the guard of each called object was raised at that time.
    std::vector<std::string> calls() const;
    std::vector<int> raised() const;

    // The nth operation of the name `what` from now on (1: the next one), and with
    // `lasting` all after it, fails: it answers with `status`, or with null and
    // `status` as its error. One failure is set at a time.
    enum Lasting : bool { kOnce = false, kLasting = true };
    void failAt(std::string what, int nth = 1, Status status = kIo, Lasting lasting = kOnce);

    // As failAt(), but the operation throws a DoubleTrouble.
    void throwAt(std::string what, int nth = 1);

    // Takes the failure back; true when an operation has met it.
    bool lift();

    // Called by a doubled object for each call: kOk, or the status to fail with.
    template <class... Args>
    Status called(const CMN_GuardedRef& self, const char* what, const Args&... args) {
        if (recording_.load(std::memory_order_relaxed)) {
            add(self, describe(what, {tell(args)...}));
        }
        return armed_.load(std::memory_order_relaxed) ? turn(what) : kOk;
    }

private:
    static std::string describe(const char* what, const std::vector<std::string>& args);
    void arm(std::string what, int nth, Status status, Lasting lasting, bool throws);
    void add(const CMN_GuardedRef& self, std::string text);
    Status turn(const std::string& what);

    std::atomic<bool> recording_{false};
    std::atomic<bool> armed_{false};

    mutable std::mutex mutex_;  // for all below
    std::vector<std::string> calls_;
    std::vector<int> raised_;
    std::string what_;
    int before_ = 0;  // operations that pass before the one that fails
    Status status_ = kOk;
    Lasting lasting_ = kOnce;
    bool throws_ = false;
    bool met_ = false;
};

// Part of a doubled object: shares the watch of its service, which it may outlive.
class Watched {
public:
    using Watch = std::shared_ptr<CallWatch>;

protected:
    explicit Watched(Watch watch) : watch_(std::move(watch)) {}
    ~Watched() = default;

    Watch watch_;  // never null
};

#endif  // TESTS_SUPPORT_DOUBLES_CALL_WATCH_H
