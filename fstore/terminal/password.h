// The user's passwords: where they come from, and which are refused.
//
// In this order: --password-fd, --password-file, the file that FSTORE_PASSWORD_FILE names,
// FSTORE_PASSWORD, the terminal without echo; for a new password of `passwd` the same with
// --new-password-... and FSTORE_NEW_PASSWORD.... Drops one trailing line feed, and in a file, with
// a warning, the carriage return before it; refuses an empty password and one with a NUL, warns
// about a file that others can read, and wipes a variable from memory once it has read it.
//
// For the main thread.
#ifndef FSTORE_TERMINAL_PASSWORD_H
#define FSTORE_TERMINAL_PASSWORD_H

#include <optional>
#include <string>
#include <string_view>

#include "fstore/terminal/output.h"
#include "fstore/terminal/standard_input.h"
#include "lib/base/secret.h"
#include "os/handles.h"

namespace fstore {

// Where a password comes from, besides the environment and the terminal.
struct PasswordOptions {
    std::optional<std::string> file;  // "-" for the standard input
    std::optional<int> fd;
};

class PasswordSource {
public:
    enum class Which {
        kCurrent,
        kNew,
        kInput,  // of a file to import
        kOutput  // of a file to export
    };

    // Finds the source and opens its file, before the tool changes its folder. Does not ask
    // yet.
    PasswordSource(Which which, const PasswordOptions& options, bool noInput, Output& output,
                   StandardInput& input);

    enum class Entry {
        kOnce,
        kTwice  // typed twice on a terminal: a mistake would lock the user out
    };

    // The password, read or asked for on the first call. kUsage when there is no source, or
    // nothing was entered; kInvalid when it is refused.
    const SecretText& get(Entry entry);

    // Whether get() does not need to ask on the terminal.
    bool isGiven() const noexcept { return from_ != From::kTerminal; }

    // Of a password file: its name, and whether users besides its owner can read it.
    const std::string& name() const noexcept { return name_; }
    bool othersCanRead() const noexcept { return othersCanRead_; }

private:
    enum class From { kFd, kFile, kVariable, kTerminal };

    void openFile(const std::string& name, StandardInput& input);
    SecretText ask(const char* prompt) const;
    SecretText read(int fd);
    SecretText readTerminal(Entry entry) const;

    Which which_;
    bool noInput_;
    Output& output_;
    From from_ = From::kTerminal;
    os::File file_;     // of kFile; none for the standard input
    int fd_ = -1;       // of kFd
    std::string name_;  // of the file or variable, for messages
    bool othersCanRead_ = false;
    std::optional<SecretText> password_;
};

// The name of a secret's file, as an option or a variable (`source`) gives it. Throws kUsage for an
// empty one.
void requireName(std::string_view name, std::string_view source);

// Removes every variable that holds a password from the environment, before another program gets
// it. Sources that have not read theirs yet find none.
void forgetPasswords() noexcept;

// Asks a question on the terminal; true for "y" or "yes". False, without asking, when
// there is no terminal.
bool confirm(const std::string& question, bool noInput);

}  // namespace fstore

#endif  // FSTORE_TERMINAL_PASSWORD_H
