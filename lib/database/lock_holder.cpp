#include "lib/database/lock_holder.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>

#include <fmt/format.h>
#include <openssl/rand.h>

#include "format/layout.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/time.h"
#include "os/files.h"
#include "os/process.h"

namespace fstore {
namespace {

constexpr std::size_t kTokenBytes = 16;
constexpr std::size_t kMostName = 64;  // so that a line has room for two

// A name as one word that a terminal shows as it is.
std::string wordOf(std::string name) {
    const auto isPlain = [](char c) { return c > ' ' && c < '\x7F'; };
    std::ranges::replace_if(
        name, [&](char c) { return !isPlain(c); }, '_');
    name.resize(std::min(name.size(), kMostName));
    return name.empty() ? "unknown" : name;
}

bool isWord(std::string_view text) {
    return !text.empty() && text.size() <= kMostName && wordOf(std::string(text)) == text;
}

// What stands before the next space, which it takes off.
std::string_view nextWord(std::string_view& text) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return word;
}

bool isToken(std::string_view text) {
    return text.size() == 2 * kTokenBytes && hexDigits(text) == text;
}

// What the lock file says, as it is stored. It is the only file that is written in place, and its
// size is always the same: a host that was cut off for a while may still have its own line in
// memory, and take that for the present one although another host has written since. So no cache
// may answer, which O_DIRECT says to the file systems that know it; `mode` is that or 0. None with
// errno.
std::optional<std::string> readAsStored(int mode) {
    constexpr std::size_t kPage = 4096;  // what O_DIRECT reads into is aligned, and whole
    alignas(kPage) std::array<char, kPage> page;
    const os::File file =
        os::openFile(layout::kLockFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | mode);
    if (!file || os::forgetPages(file.get()) != 0) {
        return std::nullopt;
    }
    const ssize_t got = os::readSome(file.get(), page.data(), page.size());
    return got < 0 ? std::nullopt
                   : std::optional(std::string(
                         page.data(), std::min(static_cast<std::size_t>(got), kHolderSize)));
}

}  // namespace

LockHolder LockHolder::make() {
    std::array<unsigned char, kTokenBytes> random{};
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
        throw Failure(kIo, "cannot lock the database: OpenSSL has no random numbers");
    }
    return {.token = toHex(random),
            .pid = os::processId(),
            .since = now(),
            .host = wordOf(os::hostName()),
            .program = wordOf(os::programName())};
}

std::string LockHolder::describe() const {
    return fmt::format("{}, {} on {}, since {}", program, pid, host, printTime(since));
}

std::string print(const LockHolder& holder) {
    const std::string words = fmt::format("{} {} {} {} {}", holder.token, holder.pid,
                                          printTime(holder.since), holder.host, holder.program);
    return fmt::format("{:<{}}\n", words, kHolderSize - 1);
}

bool mayBeHolder(std::string_view text) {
    const std::string_view head = text.substr(0, 2 * kTokenBytes);
    const bool isBlank = text.find_first_not_of(" \n") == std::string_view::npos;
    return text.size() == kHolderSize ||
           (text.size() < kHolderSize && (isBlank || hexDigits(head) == head));
}

std::optional<LockHolder> parseHolder(std::string_view text) {
    if (text.size() != kHolderSize || text.back() != '\n') {
        return std::nullopt;
    }
    LockHolder holder;
    holder.token = nextWord(text);
    const std::string_view pid = nextWord(text);
    const auto number = std::from_chars(pid.data(), pid.data() + pid.size(), holder.pid);
    const std::optional<std::int64_t> since = parseTime(nextWord(text));
    holder.host = nextWord(text);
    holder.program = nextWord(text);
    if (!isToken(holder.token) || pid.empty() || number.ec != std::errc() ||
        number.ptr != pid.data() + pid.size() || !since || !isWord(holder.host) ||
        !isWord(holder.program)) {
        return std::nullopt;
    }
    holder.since = *since;
    return holder;
}

std::optional<LockHolder> readHolder() {
    errno = 0;
    auto text = readAsStored(O_DIRECT);
    if (!text && errno == EINVAL) {
        text = readAsStored(0);
    }
    if (!text) {
        return std::nullopt;
    }
    errno = 0;
    return parseHolder(*text);
}

}  // namespace fstore
