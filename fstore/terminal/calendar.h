// Events of a calendar (iCalendar, RFC 5545).
#ifndef FSTORE_TERMINAL_CALENDAR_H
#define FSTORE_TERMINAL_CALENDAR_H

#include <cstdint>
#include <string>
#include <string_view>

namespace fstore {

// What stands around the events.
inline constexpr std::string_view kCalendarBegin =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//filestore//fstore//EN\r\n";
inline constexpr std::string_view kCalendarEnd = "END:VCALENDAR\r\n";

struct CalendarEvent {
    std::string id;           // letters and digits; the same event has it for ever
    std::int64_t stamp;       // when it was known
    std::int64_t time;        // when it happens
    std::string summary;      // what happens
    std::string description;  // lines
};

// Its lines, each with its end and folded at 75 bytes. It is no appointment: nobody is busy then.
std::string calendarEvent(const CalendarEvent& event);

}  // namespace fstore

#endif  // FSTORE_TERMINAL_CALENDAR_H
