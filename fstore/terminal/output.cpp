#include "fstore/terminal/output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "fstore/terminal/json.h"
#include "lib/base/printable.h"
#include "os/files.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr int kStderr = 2;
constexpr const char* kSchema = "fstore/1";

// From here on a terminal breaks lines itself: nobody reads across many breaks amid words then, and
// what is one line is copied as one.
constexpr std::size_t kWideTerminal = 60;
constexpr std::size_t kHanging = 2;

bool isNarrow(std::size_t columns) {
    return columns > kHanging && columns < kWideTerminal;
}

bool isSet(const char* variable) {
    const char* const value = ::secure_getenv(variable);
    return value != nullptr && *value != '\0';
}

bool hasColour(Colour asked, int fd) {
    if (asked != Colour::kAuto) {
        return asked == Colour::kAlways;
    }
    const char* const terminal = ::secure_getenv("TERM");
    const bool dumb = terminal != nullptr && std::strcmp(terminal, "dumb") == 0;
    return !isSet("NO_COLOR") && !dumb && os::isTerminal(fd);
}

}  // namespace

std::string fitted(const std::string& line, std::size_t columns) {
    return isNarrow(columns) ? wrapped(line, columns, kHanging, 0) : line;
}

Output::Output(const Settings& settings)
    : settings_(settings),
      colourOut_(!settings.json && hasColour(settings.colour, os::kStandardOutput)),
      colourErr_(!settings.json && hasColour(settings.colour, kStderr)),
      columns_(os::isTerminal(os::kStandardOutput) ? os::terminalColumns(os::kStandardOutput) : 0),
      columnsErr_(os::isTerminal(kStderr) ? os::terminalColumns(kStderr) : 0) {}

void Output::line(std::string_view text) {
    if (!settings_.json) {
        kept_.add(printable(text) + "\n");
    }
}

void Output::line(std::string_view head, Style style, std::string_view text) {
    if (!settings_.json) {
        const std::string shown = printable(head);
        kept_.add(colourOut_ ? styled(shown, style) : shown);
        line(text);
    }
}

void Output::sentence(std::string_view head, Style style, std::string_view text,
                      std::size_t indent) {
    if (settings_.json || columns_ <= indent) {
        line(head, style, text);
        return;
    }
    const std::string shown = wrapped(printable(head), columns_, indent, 0);
    const std::size_t lastLine = shown.rfind('\n') + 1;  // npos + 1 is 0
    const std::size_t used = columnsOf(std::string_view(shown).substr(lastLine));
    kept_.add(colourOut_ ? styled(shown, style) : shown);
    kept_.add(wrapped(printable(text), columns_, indent, used) + "\n");
}

void Output::field(std::string_view name, std::string_view value) {
    if (isNarrow(columns_)) {
        sentence(name, Style::kBold, fmt::format("  {}", value), kHanging);
    } else {
        line(fmt::format("{:<18}", name), Style::kBold, value);
    }
}

void Output::raw(std::string_view text) {
    kept_.add(text);
}

void Output::table(const Table& table) {
    if (!settings_.json) {
        table.print(columns_, colourOut_, [this](std::string_view line) { kept_.add(line); });
    }
}

void Output::document(Json document) {
    if (settings_.json) {
        kept_.add(completed(std::move(document)).print() + "\n");
    }
}

void Output::document(Json document, const Json::LongArray& array) {
    if (settings_.json) {
        completed(std::move(document)).printWith(array, [this](std::string_view text) {
            kept_.add(text);
        });
        kept_.add("\n");
    }
}

Json Output::completed(Json document) const {
    Json whole = {{"schema", kSchema}};
    whole.append(std::move(document));
    addWarnings(whole);
    return whole;
}

void Output::addWarnings(Json& document) const {
    if (!warnings_.empty()) {
        document["warnings"] = Json::array(warnings_);
    }
}

void Output::note(std::string_view text) {
    if (!settings_.quiet && !settings_.json) {
        say(printable(text));
    }
}

void Output::detail(std::string_view text) {
    if (settings_.verbose && !settings_.json) {
        say(printable(text));
    }
}

void Output::warn(std::string_view text) {
    if (settings_.json) {
        warnings_.emplace_back(text);
    } else if (++said_[std::string(text)] == 1) {
        sayWarning(text);
    }
}

void Output::summary(std::string_view text) {
    summaries_.emplace_back(text);
}

void Output::sayWarning(std::string_view text) {
    say("warning:", Style::kYellow, text);
}

void Output::warnOfRepeated() {
    for (const auto& [text, times] : std::exchange(said_, {})) {
        if (times > 1) {
            sayWarning(fmt::format("{} times: {}", times, text));
        }
    }
}

void Output::flush(After after) {
    warnOfRepeated();
    writeKept(after);
    for (const std::string& text : std::exchange(summaries_, {})) {
        note(text);
    }
}

void Output::writeKept(After after) {
    const Spill kept = std::exchange(kept_, Spill());
    Spill::Reader reader(kept);
    std::string_view piece = reader.next();
    while (!piece.empty() && os::writeAll(os::kStandardOutput, piece.data(), piece.size())) {
        piece = reader.next();
    }
    if (piece.empty()) {
        return;
    }
    if (errno == EPIPE) {
        throw Failure(kIo, "");  // who closed the pipe knows it
    }
    throw Failure(
        kIo, fmt::format("cannot write to the standard output: {}{}",
                         std::generic_category().message(errno),
                         after == After::kDone ? "; all else that the command does is done" : ""));
}

void Output::detailFailure(const std::string& name, Json value) {
    failureDetails_.emplace_back(name, std::move(value));
}

void Output::fail(const Failure& failure) {
    if (*failure.what() == '\0') {
        return;  // nobody is left to be told
    }
    if (settings_.json) {
        Json error = {{"status", failure.exitCode()},
                      {"name", nameOf(failure.exitCode())},
                      {"message", jsonText(failure.what())}};
        if (!failure.path().empty()) {
            error["path"] = jsonText(failure.path());
        }
        Json whole = {{"schema", kSchema}, {"error", error}};
        for (const auto& [name, value] : failureDetails_) {
            whole[name] = value;
        }
        addWarnings(whole);
        const std::string text = whole.print() + "\n";
        (void)os::writeAll(kStderr, text.data(), text.size());  // there is nowhere else to tell it
        return;
    }
    say("error:", Style::kRed, failure.what());
}

void Output::say(std::string_view head, Style style, std::string_view text) {
    std::string shown = lineOf(fmt::format("{} {}", head, printable(text)));
    if (const std::size_t found = shown.find(head); colourErr_ && found != std::string::npos) {
        shown.replace(found, head.size(), styled(head, style));
    }
    (void)os::writeAll(kStderr, shown.data(), shown.size());  // there is nowhere else to tell it
}

std::string Output::lineOf(std::string_view text) const {
    return fitted(fmt::format("fstore: {}", text), columnsErr_) + "\n";
}

void Output::say(std::string_view text) {
    const std::string line = lineOf(text);
    (void)os::writeAll(kStderr, line.data(), line.size());  // there is nowhere else to tell it
}

}  // namespace fstore
