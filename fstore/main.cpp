#include "fstore/commands/cli.h"
#include "fstore/commands/commands.h"
#include "lib/base/files.h"
#include "lib/database/output_rule.h"
#include "os/process.h"

int main(int argc, char** argv) {
    if (!os::occupyStandardStreams()) {
        return static_cast<int>(kIo);  // there is nowhere to tell it
    }
    // What the system refuses here is a weaker guard, and no reason not to work.
    (void)os::keepSecrets();
    os::installSignalHandlers();
    fstore::setOutputRule(fstore::refuseInDatabase);
    fstore::Cli cli;
    fstore::addCommands(cli);
    return cli.execute(argc, argv);
}
