// SPDX-License-Identifier: Apache-2.0
// The border at which exceptions become statuses.
#ifndef CMN_NO_THROW_H
#define CMN_NO_THROW_H

#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "cmn/status.h"

// Runs an operation's body and returns its status. Memory that could not be allocated,
// or a size that no container can hold, is kNoMemory; no exception passes.
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

// As above, for callers that report why: `words` becomes the exception's what(), which may
// be empty. kNoMemory when there is no memory for it.
template <class Body>
[[nodiscard]] Status noThrow(Body&& body, std::string& words) noexcept {
    return noThrow([&] {
        try {
            return std::forward<Body>(body)();
        } catch (const std::exception& thrown) {
            words = thrown.what();
            throw;
        }
    });
}

#endif  // CMN_NO_THROW_H
