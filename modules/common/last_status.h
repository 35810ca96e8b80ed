// The border of a module's operations: no exception passes, and each thread can
// ask afterwards how its last operation ended.
#ifndef MODULES_COMMON_LAST_STATUS_H
#define MODULES_COMMON_LAST_STATUS_H

#include <memory>
#include <utility>

#include "cmn/no_throw.h"
#include "cmn/status.h"

// How the calling thread's last operation on an object of this module ended. A
// plain number: it needs no destruction, which would keep the module loaded for
// as long as a thread lives.
inline constinit thread_local Status lastStatus = kOk;

// Runs the body of an operation and records its status.
template <class Body>
Status recorded(Body&& body) noexcept {
    lastStatus = noThrow(std::forward<Body>(body));
    return lastStatus;
}

// As recorded(), for an operation that gives an object: `body` is handed the owner
// to fill. Null unless it succeeds.
template <class T, class Body>
T* recordedObject(Body&& body) noexcept {
    std::unique_ptr<T> made;
    const Status status = recorded([&] { return std::forward<Body>(body)(made); });
    return status == kOk ? made.release() : nullptr;
}

#endif  // MODULES_COMMON_LAST_STATUS_H
