// What a user of the tool has: the database, the databases that were kept, what a repair moved
// away, and files beside them; and what of it there must be after a crash.
#ifndef TESTS_CRASH_TOOL_TOOL_STATE_H
#define TESTS_CRASH_TOOL_TOOL_STATE_H

#include <compare>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/crash/tree.h"

namespace crash {

struct Contents {
    // What opens it, of the two passwords and of what stands in files beside it, key files,
    // recovery keys and P, by their names: "correct horse, file"; empty: it has no password.
    std::string openers;
    std::map<std::string, std::string> records;  // by address: attributes and body

    auto operator<=>(const Contents&) const = default;
};

struct ToolState {
    std::vector<std::string> faults;          // wrong, whatever the state
    std::optional<Contents> database;         // none where there is none
    std::optional<Contents> aside;            // the database in ./old_db, beside the other
    std::vector<Contents> kept;               // the databases in ./db-<time>
    std::map<std::string, std::string> lost;  // the files in ./db.lost, <time> as TIME
    std::vector<std::string> unplanned;       // of `lost`, without a plan that says where from
    // Others, but for drafts of them. Of key files and sheets of recovery keys, which are others in
    // each run, only that they are such.
    std::map<std::string, std::string> files;

    bool operator==(const ToolState&) const = default;
};

// Whether a path is that of a database's lock file, which holds nothing of the database.
bool isLockFile(const std::string& path);

// Reads everything by the library, which first repairs what a crash left, as it does for each
// command. `folder` holds "db", below the current folder.
ToolState look(const std::string& folder);

// What a command may leave.
struct Promise {
    ToolState before, after;
    bool isWhole = false;            // all records are as before, or all as afterwards
    bool makes = false;              // a database, which has no password and no records at first
    bool replaces = false;           // the database, which stands aside until it is kept
    bool purges = false;             // for good what a repair had moved away, its plan first
    std::vector<std::string> bytes;  // of files that are somewhere, whatever happens
};

enum class Acknowledged { kNo, kYes };

// Whether a repair may have moved more away since.
enum class Repaired { kNo, kPerhaps };

// A password that opens the database, or P of one that it opens; empty if it has none.
std::string passwordOf(const Contents& database);

// What contradicts the promise about the database itself, whatever else there is.
std::string judgeRecords(const ToolState& seen, const Promise& promise, Acknowledged acknowledged);

// What contradicts the promise, a line for each; empty when nothing does.
std::string judge(const ToolState& seen, const Promise& promise, Acknowledged acknowledged,
                  Repaired repaired = Repaired::kNo);

// Those of the bytes that no file of the tree has, a line for each.
std::string missingBytes(const Promise& promise, const Tree& tree);

}  // namespace crash

#endif  // TESTS_CRASH_TOOL_TOOL_STATE_H
