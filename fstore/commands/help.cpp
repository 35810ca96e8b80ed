// fstore help, fstore version: as the options of these names, for who looks for commands.
#include <memory>

#include "fstore/commands/commands.h"

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
        context.output.raw("fstore " FSTORE_VERSION "\n");
        return kOk;
    });
}

}  // namespace fstore
