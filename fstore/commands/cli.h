// The command line: global options before or after the command, and the commands.
//
// Each command has a file of its own and adds itself:
//
//     void addShow(Cli& cli) {
//         const auto options = std::make_shared<Options>();
//         Command& command = cli.add("show", "Print the attributes of a record",
//                                    [options](Context& context) { return run(*options, context);
//                                    });
//         addAddress(command, &options->address);
//     }
#ifndef FSTORE_COMMANDS_CLI_H
#define FSTORE_COMMANDS_CLI_H

#include <deque>
#include <string>
#include <vector>

#include "fstore/commands/command.h"
#include "fstore/commands/globals.h"
#include "fstore/commands/secret_source.h"
#include "fstore/terminal/output.h"
#include "lib/database/database.h"

namespace fstore {

// What a command works with.
struct Context {
    const Globals& globals;
    Output& output;
    StandardInput& standardInput;
    SecretSource& secret;  // of the database
    Database& database;
};

class Cli {
public:
    Cli();
    Cli(const Cli&) = delete;
    Cli& operator=(const Cli&) = delete;
    ~Cli() = default;

    // A new command, to which the caller adds options and arguments.
    Command& add(std::string name, std::string description, Run run);

    // Runs the command that the arguments name, and reports its failure; the exit code.
    int execute(int argc, const char* const* argv);

    // What --help prints of the program, or of the command that the words name. Throws kUsage for
    // words that name none.
    std::string help(std::vector<std::string> words) const;

    // The program's own options, and its commands.
    const Command& program() const noexcept { return program_; }
    const std::deque<Command>& commands() const noexcept { return commands_; }

private:
    void addGlobals();
    int run(const Command& command);

    Globals globals_;
    Command program_;
    std::deque<Command> commands_;
};

}  // namespace fstore

#endif  // FSTORE_COMMANDS_CLI_H
