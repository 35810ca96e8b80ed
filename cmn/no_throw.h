// The border at which exceptions become statuses.
#ifndef CMN_NO_THROW_H
#define CMN_NO_THROW_H

#include <new>
#include <stdexcept>
#include <utility>

#include "cmn/status.h"

// Runs an operation's body and returns its status. Memory that could not be had,
// or a size that no container can hold, is kNoMemory; nothing passes through.
template <class Body>
[[nodiscard]] Status noThrow(Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    } catch (const std::length_error&) {
        return kNoMemory;
    } catch (...) {
        return kIo;
    }
}

#endif  // CMN_NO_THROW_H
