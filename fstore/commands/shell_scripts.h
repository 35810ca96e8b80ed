// The completion scripts for shells: the files of fstore/completion, embedded by the build.
#ifndef FSTORE_COMMANDS_SHELL_SCRIPTS_H
#define FSTORE_COMMANDS_SHELL_SCRIPTS_H

namespace fstore {

extern const char kBashScript[], kZshScript[], kFishScript[];

}  // namespace fstore

#endif  // FSTORE_COMMANDS_SHELL_SCRIPTS_H
