// What the command line and the environment say for every command.
#ifndef FSTORE_COMMANDS_GLOBALS_H
#define FSTORE_COMMANDS_GLOBALS_H

#include <optional>
#include <string>

#include "fstore/terminal/output.h"

namespace fstore {

// Where a password comes from, besides the environment and the terminal.
struct PasswordOptions {
    std::optional<std::string> file;  // "-" for the standard input
    std::optional<int> fd;
};

struct Globals {
    static constexpr double kLockSeconds = 10;

    std::string folder = ".";  // that holds "db"
    PasswordOptions password;
    bool noInput = false;  // never ask on the terminal
    double lockSeconds = kLockSeconds;
    Output::Settings output;
};

}  // namespace fstore

#endif  // FSTORE_COMMANDS_GLOBALS_H
