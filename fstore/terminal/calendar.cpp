#include "fstore/terminal/calendar.h"

#include <fmt/format.h>

#include "lib/base/printable.h"
#include "lib/base/time.h"

namespace fstore {
namespace {

constexpr std::size_t kMostBytes = 75;  // of a line, without its end

// A line feed stays one; nothing else of what a terminal must not show does.
std::string calendarText(std::string_view text) {
    std::string escaped;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        for (const char c : printable(text.substr(begin, end - begin))) {
            if (c == '\\' || c == ';' || c == ',') {
                escaped += '\\';
            }
            escaped += c;
        }
        escaped += end < text.size() ? "\\n" : "";
        begin = end + 1;
    }
    return escaped;
}

bool isInsideCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// Continued lines begin with a blank; no character is torn.
std::string folded(std::string_view line) {
    std::string lines;
    std::size_t room = kMostBytes;
    while (line.size() > room) {
        std::size_t cut = room;
        while (isInsideCharacter(line[cut])) {
            --cut;
        }
        lines += fmt::format("{}\r\n ", line.substr(0, cut));
        line.remove_prefix(cut);
        room = kMostBytes - 1;
    }
    return fmt::format("{}{}\r\n", lines, line);
}

}  // namespace

std::string calendarEvent(const CalendarEvent& event) {
    return fmt::format("BEGIN:VEVENT\r\n{}{}{}{}{}TRANSP:TRANSPARENT\r\nEND:VEVENT\r\n",
                       folded(fmt::format("UID:{}@filestore", event.id)),
                       folded("DTSTAMP:" + compactTime(event.stamp)),
                       folded("DTSTART:" + compactTime(event.time)),
                       folded("SUMMARY:" + calendarText(event.summary)),
                       folded("DESCRIPTION:" + calendarText(event.description)));
}

}  // namespace fstore
