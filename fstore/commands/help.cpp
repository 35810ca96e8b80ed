// fstore help, fstore version: as the options of these names, for who looks for commands.
#include <memory>

#include "fstore/commands/commands.h"
#include "fstore/terminal/json.h"

namespace fstore {

void addHelp(Cli& cli) {
    const auto words = std::make_shared<std::vector<std::string>>();
    Command& help =
        cli.add("help", "Describe the program, or a command", [words, &cli](Context& context) {
            context.output.raw(cli.help(*words));
            return kOk;
        });
    help.argument("COMMAND", words.get(), "The command; its name may be two words").required =
        false;
    cli.add("version", "Print the version", [](Context& context) {
        context.output.line("fstore " FSTORE_VERSION);
        context.output.document({{"version", FSTORE_VERSION}});
        return kOk;
    });
}

}  // namespace fstore
