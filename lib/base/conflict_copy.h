// The names that programs give to the second of two states of a file, which they could not merge.
//
// File synchronisers keep both when two hosts changed a file, and so do merges of version control.
// The second state is a copy beside the first, under a name made of its name. Such a copy is
// nobody's record: whoever read it as one would show a record twice, or an old one as new.
//
// Pure functions; any thread may call them.
#ifndef LIB_BASE_CONFLICT_COPY_H
#define LIB_BASE_CONFLICT_COPY_H

#include <optional>
#include <string>
#include <string_view>

namespace fstore {

// The name of the file that a file of this name rivals; none for any other file. Known are, for a
// rival "a.dsc":
//
//     a.sync-conflict-20261123-101500-ABCDEFG.dsc, and with ".dsc" before the mark
//     a (conflicted copy 2026-11-23).dsc, a (Alice's conflicted copy 2026-11-23).dsc
//     a.dsc.orig
std::optional<std::string> rivalOf(std::string_view file);

// Two states of one text, as version control leaves them in a file that it could not merge.
struct MergeSides {
    std::string ours;    // the state that was there
    std::string theirs;  // the one that came
};

// None when the text has no marks of a merge, or not all of them.
std::optional<MergeSides> mergeSidesOf(std::string_view text);

}  // namespace fstore

#endif  // LIB_BASE_CONFLICT_COPY_H
