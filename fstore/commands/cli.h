// The command line: global options before or after the command, and the commands.
//
// Each command stands in a file of its own and adds itself:
//
//     void addShow(Cli& cli) {
//         const auto options = std::make_shared<Options>();
//         CLI::App& app = cli.add("show", "print a record", [options](Context& context) {
//             return run(*options, context);
//         });
//         app.add_option("ADDRESS", options->address)->required();
//     }
#ifndef FSTORE_COMMANDS_CLI_H
#define FSTORE_COMMANDS_CLI_H

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "fstore/commands/globals.h"
#include "fstore/session.h"
#include "fstore/terminal/output.h"
#include "lib/base/error.h"

namespace fstore {

// What a command works with.
struct Context {
    const Globals& globals;
    Output& output;
    Session& session;
};

// Does the work and returns kOk, kFound or kPartial; everything else is thrown.
using Run = std::function<Status(Context&)>;

class Cli {
public:
    Cli();
    Cli(const Cli&) = delete;
    Cli& operator=(const Cli&) = delete;
    ~Cli() = default;

    // A new command, to which the caller adds options and arguments.
    CLI::App& add(const char* name, const char* description, Run run);

    // Runs the command that the arguments name, and tells its failure; the exit code.
    int main(int argc, const char* const* argv);

    // For completion: the program's parser with all commands.
    const CLI::App& parser() const noexcept { return app_; }

private:
    void addGlobals();
    int runChosen();

    CLI::App app_{"An encrypted, crash-safe store of keys, certificates and settings.", "fstore"};
    Globals globals_;
    Run chosen_;
};

}  // namespace fstore

#endif  // FSTORE_COMMANDS_CLI_H
