#include "lib/base/time.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

namespace fstore {
namespace {

// Takes `count` digits off the text.
std::optional<int> takeDigits(std::string_view& text, std::size_t count) {
    if (text.size() < count) {
        return std::nullopt;
    }
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return std::nullopt;
        }
        value = value * 10 + (text[i] - '0');
    }
    text.remove_prefix(count);
    return value;
}

bool take(std::string_view& text, char c) {
    if (text.empty() || text[0] != c) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// "Z", or "+01:00" as seconds; takes it off the text.
std::optional<int> takeZone(std::string_view& text) {
    if (take(text, 'Z') || take(text, 'z')) {
        return 0;
    }
    const int sign = take(text, '+') ? 1 : take(text, '-') ? -1 : 0;
    const auto hours = takeDigits(text, 2);
    const bool colon = take(text, ':');
    const auto minutes = takeDigits(text, 2);
    if (sign == 0 || !hours || !colon || !minutes || *hours > 23 || *minutes > 59) {
        return std::nullopt;
    }
    return sign * (*hours * 3600 + *minutes * 60);
}

}  // namespace

std::optional<std::int64_t> parsePeriod(std::string_view text) {
    constexpr std::int64_t kMost = std::int64_t{10'000} * 365 * kDay;
    if (text.size() < 2) {
        return std::nullopt;
    }
    std::int64_t unit = 0;
    switch (text.back()) {
        case 's':
            unit = 1;
            break;
        case 'm':
            unit = 60;
            break;
        case 'h':
            unit = std::int64_t{60} * 60;
            break;
        case 'd':
            unit = kDay;
            break;
        case 'w':
            unit = 7 * kDay;
            break;
        case 'y':
            unit = 365 * kDay;
            break;
        default:
            return std::nullopt;
    }
    std::int64_t count = 0;
    for (const char c : text.substr(0, text.size() - 1)) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        count = count * 10 + (c - '0');
        if (count > kMost / unit) {
            return std::nullopt;
        }
    }
    return count * unit;
}

std::optional<std::int64_t> parseTime(std::string_view text) {
    using namespace std::chrono;
    const auto year = takeDigits(text, 4);
    const bool dash1 = take(text, '-');
    const auto month = takeDigits(text, 2);
    const bool dash2 = take(text, '-');
    const auto day = takeDigits(text, 2);
    const bool separator = take(text, 'T') || take(text, 't') || take(text, ' ');
    const auto hour = takeDigits(text, 2);
    const bool colon1 = take(text, ':');
    const auto minute = takeDigits(text, 2);
    const bool colon2 = take(text, ':');
    const auto second = takeDigits(text, 2);
    if (!year || !month || !day || !hour || !minute || !second || !dash1 || !dash2 || !separator ||
        !colon1 || !colon2 || *hour > 23 || *minute > 59 || *second > 60) {
        return std::nullopt;
    }
    if (take(text, '.')) {
        text.remove_prefix(std::min(text.find_first_not_of("0123456789"), text.size()));
    }
    const auto zone = takeZone(text);
    const year_month_day date{std::chrono::year(*year), std::chrono::month(unsigned(*month)),
                              std::chrono::day(unsigned(*day))};
    if (!zone || !text.empty() || !date.ok()) {
        return std::nullopt;
    }
    const std::int64_t days = sys_days(date).time_since_epoch().count();
    return days * 86400 + std::int64_t{*hour} * 3600 + std::int64_t{*minute} * 60 + *second - *zone;
}

std::string printTime(std::int64_t time) {
    using namespace std::chrono;
    const sys_seconds point{seconds(time)};
    const sys_days day = floor<days>(point);
    const year_month_day date(day);
    const hh_mm_ss clock(point - day);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", int(date.year()),
                       unsigned(date.month()), unsigned(date.day()), clock.hours().count(),
                       clock.minutes().count(), clock.seconds().count());
}

std::string compactTime(std::int64_t time) {
    std::string text = printTime(time);
    std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
    return text;
}

std::int64_t now() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * kSecond + time.tv_nsec;
}

std::int64_t nanosecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

}  // namespace fstore
