// The completion scripts of the shells: the texts of fstore/completion, which the build puts in.
#ifndef FSTORE_COMMANDS_SHELL_SCRIPTS_H
#define FSTORE_COMMANDS_SHELL_SCRIPTS_H

namespace fstore {

extern const char kBashScript[], kZshScript[], kFishScript[];

}  // namespace fstore

#endif  // FSTORE_COMMANDS_SHELL_SCRIPTS_H
