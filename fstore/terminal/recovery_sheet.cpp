#include "fstore/terminal/recovery_sheet.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/new_file.h"
#include "lib/base/printable.h"
#include "lib/base/recovery_key.h"
#include "os/files.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr std::size_t kPageColumns = 72;  // of a file, which any printer takes
constexpr std::size_t kLeastColumns = 40;
constexpr std::size_t kIndent = 10;        // of what stands behind a word like "database"
constexpr unsigned int kGroupsOfLine = 4;  // so that the key fits into 40 columns
constexpr int kAttempts = 3;
constexpr std::size_t kLongestLine = 100;  // that is looked at

// Text in memory that is wiped, broken into lines.
class Sheet {
public:
    explicit Sheet(std::size_t columns) : columns_(columns) { text_.reserve(kMost); }

    void line(std::string_view text = {}) {
        text_.insert(text_.end(), text.begin(), text.end());
        text_.push_back('\n');
    }

    // Words, as many in a line as it takes.
    void sentence(std::string_view text) {
        while (text.size() > columns_) {
            const std::size_t blank = text.rfind(' ', columns_);
            line(text.substr(0, blank));
            text.remove_prefix(blank + 1);
        }
        line(text);
    }

    // A value behind its name, cut anywhere: a path need not have blanks.
    void field(std::string_view name, std::string_view value) {
        std::string_view head = name;
        do {
            const std::string piece = firstColumns(value, columns_ - kIndent);
            line(fmt::format("{:<{}}{}", head, kIndent, piece));
            value.remove_prefix(piece.size());
            head = {};
        } while (!value.empty());
    }

    SecretText take() const {
        return SecretText({reinterpret_cast<const char*>(text_.data()), text_.size()});
    }

private:
    static constexpr std::size_t kMost = 8192;  // as large as a path makes it

    // Characters that fill at most so many columns, and one at least.
    static std::string firstColumns(std::string_view text, std::size_t columns) {
        std::size_t end = 0;
        for (std::size_t i = 1; i <= text.size(); ++i) {
            const bool isWhole = i == text.size() || (text[i] & 0xc0) != 0x80;
            if (isWhole && end != 0 && columnsOf(text.substr(0, i)) > columns) {
                break;
            }
            end = isWhole ? i : end;
        }
        return std::string(text.substr(0, end));
    }

    std::size_t columns_;
    SecretKey text_;
};

void printKey(const SecretText& key, Sheet& page) {
    constexpr std::size_t kOfLine = kGroupsOfLine * (kRecoveryGroupDigits + 1);
    std::string_view rest = key.view();
    while (!rest.empty()) {
        page.line(rest.substr(0, kOfLine));
        rest.remove_prefix(std::min(kOfLine, rest.size()));
    }
}

os::File openTerminal(bool noInput) {
    os::File terminal = noInput ? os::File() : os::openTerminal();
    if (!terminal) {
        throw Failure(kUsage,
                      "a recovery key is shown on a terminal, and there is none; have it written "
                      "to a new file with --sheet FILE");
    }
    return terminal;
}

}  // namespace

void requireTerminal(bool noInput) {
    (void)openTerminal(noInput);
}

SecretText printSheet(const RecoverySheet& sheet, const SecretText& key, std::size_t columns) {
    Sheet page(columns);
    page.line("RECOVERY KEY of an fstore database");
    page.line();
    page.field("folder", printable(sheet.folder));
    page.field("database", sheet.database);
    page.field("slot", std::to_string(sheet.slot));
    if (!sheet.label.empty()) {
        page.field("label", printable(sheet.label));
    }
    page.field("made", sheet.made);
    page.line();
    printKey(key, page);
    page.line();
    page.sentence("Who has this key can read all of the database. It is stored nowhere else.");
    page.sentence("Type it where the password is asked for.");
    page.sentence("Test it with `fstore key test`.");
    page.sentence("If it may have been seen: `fstore passwd --rotate --recovery`.");
    return page.take();
}

void showSheet(const RecoverySheet& sheet, const SecretText& key, unsigned int group,
               bool noInput) {
    const os::File terminal = openTerminal(noInput);
    const std::size_t columns = os::terminalColumns(terminal.get());
    const std::size_t width = std::clamp(columns, kLeastColumns, kPageColumns);
    Sheet question(width);
    question.line();
    question.sentence("Write it down. It opens nothing before you have typed a group of it.");
    for (const SecretText& text : {printSheet(sheet, key, width), question.take()}) {
        if (!os::writeAll(terminal.get(), text.c_str(), text.size())) {
            failWithErrno("write to", "the terminal");
        }
    }
    const std::string first = fmt::format("Group {} of the key: ", group);
    const std::string again = fmt::format("That is not group {}. Again: ", group);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        SecretKey line(kLongestLine);
        const ssize_t size =
            os::askTerminal(terminal, os::Echo::kOn, (attempt == 0 ? first : again).c_str(),
                            reinterpret_cast<char*>(line.data()), line.size());
        if (size < 0 && errno != EMSGSIZE) {
            throw Failure(kUsage, "no group of the recovery key was entered; nothing was changed");
        }
        const std::size_t length = size < 0 ? 0 : static_cast<std::size_t>(size);
        if (isRecoveryGroup({reinterpret_cast<const char*>(line.data()), length}, key, group)) {
            return;
        }
    }
    throw Failure(kInvalid, fmt::format("group {} of the recovery key was wrong {} times; nothing "
                                        "was changed, and the key that was shown opens nothing",
                                        group, kAttempts));
}

void writeSheet(const RecoverySheet& sheet, const SecretText& key, const std::string& file) {
    requireNewFile(file);
    OutputFile output(file, /*replace=*/false);
    const SecretText page = printSheet(sheet, key, kPageColumns);
    output.write({reinterpret_cast<const unsigned char*>(page.c_str()), page.size()});
    output.commit();
}

}  // namespace fstore
