// What can come at one place of a command line: for completion in shells.
//
// The shell scripts are thin and ask the program each time, so they offer what the program's
// own parser accepts.
#ifndef FSTORE_COMMANDS_COMPLETION_SCRIPT_H
#define FSTORE_COMMANDS_COMPLETION_SCRIPT_H

#include <cstddef>
#include <string>
#include <vector>

#include "fstore/commands/cli.h"

namespace fstore {

struct Completion {
    enum class Files { kNone, kAny, kFolders };
    struct Word {
        std::string text;
        std::string description;  // may be empty
    };

    std::vector<Word> words;     // that begin with what was typed so far
    Files files = Files::kNone;  // the shell offers names of files itself
};

// What can replace words[index], the word under the cursor. The first word is the program;
// those after the index do not count. Records are those of the folder that the words name.
// Locks and changes nothing, and does not offer what it cannot read.
Completion complete(const Cli& cli, const std::vector<std::string>& words, std::size_t index);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_COMPLETION_SCRIPT_H
