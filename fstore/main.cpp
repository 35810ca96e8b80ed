#include "fstore/commands/cli.h"
#include "fstore/commands/commands.h"
#include "os/process.h"

int main(int argc, char** argv) {
    if (!os::occupyStandardStreams()) {
        return static_cast<int>(kIo);  // there is nowhere to tell it
    }
    // What the system refuses here is a weaker guard, and no reason not to work.
    (void)os::keepSecrets();
    os::installSignalHandlers();
    // OpenSSL looks at these when it is first used, by then in the folder of the database: what
    // they name is code, or names code, and a database must not bring its own.
    for (const char* const variable :
         {"OPENSSL_CONF", "OPENSSL_MODULES", "OPENSSL_ENGINES", "OPENSSL_CONF_INCLUDE"}) {
        os::fixPathVariable(variable);
    }
    fstore::Cli cli;
    fstore::addCommands(cli);
    return cli.execute(argc, argv);
}
