// Periods and times as users write and read them.
//
// All functions but now() and nanosecondsNow() are pure, and any thread may call them.
#ifndef LIB_BASE_TIME_H
#define LIB_BASE_TIME_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace fstore {

inline constexpr std::int64_t kDay = 24 * std::int64_t{60} * 60;  // in seconds

// Seconds of "30d", "12h", "90m", "45s", "2w" or "1y" (365 days); none for anything
// else and for what exceeds 10,000 years.
std::optional<std::int64_t> parsePeriod(std::string_view text);

// Times are seconds since 1970 in UTC. "2030-01-31T23:59:59Z" in and out; a zone
// offset and a fraction of seconds, which is dropped, are read too.
std::optional<std::int64_t> parseTime(std::string_view text);
std::string printTime(std::int64_t time);

// "20300131T235959Z", for the names of files.
std::string compactTime(std::int64_t time);

std::int64_t now();

// A time of a file, and the present, in nanoseconds since 1970.
inline constexpr std::int64_t kSecond = 1'000'000'000;
std::int64_t nanoseconds(const timespec& time);
std::int64_t nanosecondsNow();

}  // namespace fstore

#endif  // LIB_BASE_TIME_H
