#include "capi/border.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace capi {
namespace {

template <std::size_t N>
void copy(std::string_view text, char (&field)[N]) noexcept {
    field[text.copy(field, N - 1)] = '\0';
}

filestore_status describe(filestore_error* error, int status, std::string_view message,
                          std::string_view path) noexcept {
    if (error != nullptr && error->size >= kFirstSize<filestore_error>) {
        error->status = status;
        copy(path, error->path);
        copy(message, error->message);
    }
    return status;
}

filestore_status describe(filestore_error* error, const fstore::Failure& failure) noexcept {
    return describe(error, failure.exitCode(), failure.withoutAdvice(), failure.path());
}

}  // namespace

void clear(filestore_error* error) noexcept {
    (void)describe(error, FILESTORE_OK, {}, {});
}

filestore_status describeException(filestore_error* error) noexcept {
    try {
        throw;
    } catch (const fstore::Failure& failure) {
        return describe(error, failure);
    } catch (const fstore::MemoryFailure& failure) {
        return describe(error, failure.failure());
    } catch (const fstore::LockLost& lost) {
        return describe(error, lost.failure());
    } catch (const std::bad_alloc&) {
        return describe(error, FILESTORE_NO_MEMORY, "out of memory", {});
    } catch (const std::exception& other) {
        return describe(error, FILESTORE_FOREIGN, other.what(), {});
    } catch (...) {
        return describe(error, FILESTORE_FOREIGN, "a failure that cannot be described", {});
    }
}

void refuse(const char* why) {
    throw fstore::Failure(kInvalid, why);
}

void requireKnown(const void* structure, std::size_t given, std::size_t known) {
    const std::span<const unsigned char> bytes(static_cast<const unsigned char*>(structure), given);
    const auto unknown = bytes.subspan(std::min(given, known));
    require(std::ranges::all_of(unknown, [](unsigned char byte) { return byte == 0; }),
            "a structure has members that this version of the library does not know");
}

}  // namespace capi
