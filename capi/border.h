// The border between C and the library: statuses for exceptions, and structures that grow.
//
// Any thread may call any of these.
#ifndef CAPI_BORDER_H
#define CAPI_BORDER_H

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "capi/filestore.h"
#include "capi/forks.h"
#include "lib/base/error.h"

namespace capi {

// Empties the caller's error object, if there is one.
void clear(filestore_error* error) noexcept;

// The status of the exception that is being handled, described in the caller's error object.
filestore_status describeException(filestore_error* error) noexcept;

// Runs step(), which returns a status. No exception gets beyond this.
template <class Step>
filestore_status border(filestore_error* error, Step step) noexcept {
    clear(error);
    try {
        return step();
    } catch (...) {
        return describeException(error);
    }
}

// The same for what works on databases, which a fork must not find half done.
template <class Step>
filestore_status operation(filestore_error* error, Step step) noexcept {
    return border(error, [&] {
        const Operation running;
        return step();
    });
}

[[noreturn]] void refuse(const char* why);
inline void require(bool accepted, const char* why) {
    if (!accepted) {
        refuse(why);
    }
}

// The size of a structure in the first version of the library, the least that a caller's has. Who
// adds members at the end of one says here where they begin.
template <class T>
inline constexpr std::size_t kFirstSize = sizeof(T);
template <>
inline constexpr std::size_t kFirstSize<filestore_key> = offsetof(filestore_key, opened);
template <>
inline constexpr std::size_t kFirstSize<filestore_find_options> = offsetof(filestore_find_options,
                                                                           callbacks);

// More than a structure of any later version has: so large a size was never set.
inline constexpr std::size_t kMostSize = 4096;

template <class T>
bool canBeSizeOf(const T* structure) noexcept {
    static_assert(sizeof(T) <= kMostSize);
    return structure->size >= kFirstSize<T> && structure->size <= kMostSize;
}

// Refuses a structure that a caller has filled if something is set behind what this version knows:
// `given` bytes of it are there, of which this version knows `known`.
void requireKnown(const void* structure, std::size_t given, std::size_t known);

// The caller's structure, of this version: what an older one lacks is 0. `usual` for null.
template <class T>
T accepted(const T* structure, const T& usual) {
    if (structure == nullptr) {
        return usual;
    }
    require(canBeSizeOf(structure),
            "the size of a structure cannot be: it begins with its own size");
    requireKnown(structure, structure->size, sizeof(T));
    T own{};
    std::memcpy(&own, structure, std::min(structure->size, sizeof(T)));
    own.size = sizeof(T);
    return own;
}

// Fills the caller's structure, which may be of an older version and have fewer members, or of a
// later one and have more.
template <class T>
filestore_status fill(T* structure, T values) noexcept {
    if (structure == nullptr || !canBeSizeOf(structure)) {
        return FILESTORE_INVALID;
    }
    values.size = structure->size;
    const std::size_t known = std::min(values.size, sizeof(T));
    std::memcpy(structure, &values, known);
    std::memset(reinterpret_cast<char*>(structure) + known, 0, values.size - known);
    return FILESTORE_OK;
}

}  // namespace capi

#endif  // CAPI_BORDER_H
