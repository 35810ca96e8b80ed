// What may stand at one place of a command line: for the shells' completion.
//
// The shells' scripts are thin and ask the program each time, so that what is offered
// is what the program's own parser takes.
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

    std::vector<Word> words;     // that begin with what is typed so far
    Files files = Files::kNone;  // the shell offers names of files itself
};

// What may stand in the place of words[index], the word under the cursor. The first
// word is the program; those behind the index do not count. Records are those of the
// folder that the words name; nothing is locked or changed, and what cannot be read is
// not offered.
Completion complete(const Cli& cli, const std::vector<std::string>& words, std::size_t index);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_COMPLETION_SCRIPT_H
