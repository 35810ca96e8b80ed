// Who changes the database: the one line of "./db.lock".
//
// A writer writes it when it has the lock. Others read it, to say whom they wait for, and so does
// the writer itself: a token that is not its own any more tells that another had the lock.
#ifndef LIB_DATABASE_LOCK_HOLDER_H
#define LIB_DATABASE_LOCK_HOLDER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fstore {

struct LockHolder {
    std::string token;  // 32 hexadecimal digits, never used twice
    long pid = 0;
    std::int64_t since = 0;  // seconds since 1970
    std::string host;
    std::string program;

    // Of this process, now, with a fresh token.
    static LockHolder make();

    // "fstore, 4711 on example, since 2030-01-31T23:59:59Z"
    std::string describe() const;
};

// Each line has this size, filled up with spaces: it is written over the one before by one call,
// and takes no room that the file does not have already.
inline constexpr std::size_t kHolderSize = 256;

// Whether a lock file may hold this: nothing yet, a line, perhaps a damaged one, or the part of one
// that a full disk has left.
bool mayBeHolder(std::string_view text);

std::string print(const LockHolder& holder);
std::optional<LockHolder> parseHolder(std::string_view text);  // none for anything else

// What "./db.lock" says, opened anew by its name. None when it says nothing, or cannot be read;
// errno is 0 unless a call failed. Inside the folder.
std::optional<LockHolder> readHolder();

}  // namespace fstore

#endif  // LIB_DATABASE_LOCK_HOLDER_H
