// What a repair moved out of the database, and the way back.
//
// A repair deletes nothing that may be the only copy of something. It moves it to a folder of
// its own, "./db.lost/<time>", where each file keeps the path that it had below "./db". A file
// "plan" beside them says what each one was and why it was moved; it becomes durable before the
// first file moves, so an interrupted repair can be undone as well.
//
// Paths are relative to the folder that holds "db". For one thread, which keeps other processes
// out. Failures throw.
#ifndef LIB_DATABASE_LOST_H
#define LIB_DATABASE_LOST_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "format/layout.h"
#include "lib/database/slots.h"

namespace fstore {

inline constexpr const char* kLostFolder = layout::kLost;

struct LostFile {
    std::string path;    // below "./db": "keys/00000003"
    std::string kind;    // the name of the kind of finding
    std::string reason;  // one sentence without the path
};

struct LostPlan {
    std::int64_t time = 0;      // when the files were moved
    std::optional<Digest> key;  // of the password then, as the record "key" has it
    std::vector<LostFile> files;
};

// Moves the files of the plan out of "./db". Returns the name of their folder in "./db.lost",
// such as "20261121T230000Z". Wherever it is interrupted, each file is in one of the two places.
std::string moveToLost(const LostPlan& plan);

// One folder in "./db.lost".
struct LostFolder {
    std::string name;
    std::optional<LostPlan> plan;  // none when it cannot be read
};

// One sentence about it, with its path and with what can be done.
std::string describe(const LostFolder& lost);

// All of them, by name. Something else in "./db.lost" is left alone and not listed.
std::vector<LostFolder> lostFolders();

struct UndoReport {
    std::vector<std::string> putBack;  // paths below "./db"
    std::vector<std::string> taken;    // not put back, since their place is taken
};

// Puts back what the repair with this name moved, and removes its folder once that is empty.
// `key` is what the record "key" holds now. Throws kMissing when there is no such folder,
// kMalformed when its plan cannot be read, and kNoDigest, without moving anything, when the
// password has changed since: the encrypted files would not decrypt. May be interrupted anywhere
// and run again.
UndoReport undoLost(const std::string& name, const std::optional<Digest>& key);

// Deletes the folder with this name and all files in it. Throws kMissing.
void purgeLost(const std::string& name);

// The plan as text, and back; none for anything else.
std::string printPlan(const LostPlan& plan);
std::optional<LostPlan> parsePlan(const std::string& text);

}  // namespace fstore

#endif  // LIB_DATABASE_LOST_H
