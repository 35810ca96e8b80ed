// What the command line and the environment say for every command.
#ifndef FSTORE_COMMANDS_GLOBALS_H
#define FSTORE_COMMANDS_GLOBALS_H

#include <string>

#include "fstore/commands/secret_source.h"
#include "fstore/terminal/output.h"

namespace fstore {

struct Globals {
    static constexpr double kLockSeconds = 10;

    std::string folder = ".";  // that holds "db"
    SecretOptions secret;
    bool noInput = false;  // never ask on the terminal
    double lockSeconds = kLockSeconds;
    bool requireSharedLock = false;  // as in Place
    Output::Settings output;
};

}  // namespace fstore

#endif  // FSTORE_COMMANDS_GLOBALS_H
