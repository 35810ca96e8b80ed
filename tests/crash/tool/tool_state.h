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
    std::string password;                        // that opens it; empty: it has none
    std::map<std::string, std::string> records;  // by address: attributes and body

    auto operator<=>(const Contents&) const = default;
};

struct ToolState {
    std::vector<std::string> faults;           // wrong, whatever the state
    std::optional<Contents> database;          // none where there is none
    std::vector<Contents> kept;                // the databases in ./db-<time>
    std::map<std::string, std::string> lost;   // the files in ./db.lost, <time> as TIME
    std::map<std::string, std::string> files;  // others, but for drafts of them

    bool operator==(const ToolState&) const = default;
};

// Reads everything by the library, which first repairs what a crash left, as it does for each
// command. `folder` holds "db", below the current folder.
ToolState look(const std::string& folder);

// What a command may leave.
struct Promise {
    ToolState before, after;
    bool isWhole = false;            // all records are as before, or all as afterwards
    bool makes = false;              // a database, which has no password and no records at first
    std::vector<std::string> bytes;  // of files that are somewhere, whatever happens
};

enum class Acknowledged { kNo, kYes };

// Whether a repair may have moved more away since.
enum class Repaired { kNo, kPerhaps };

// What contradicts the promise, a line for each; empty when nothing does.
std::string judge(const ToolState& seen, const Promise& promise, Acknowledged acknowledged,
                  Repaired repaired = Repaired::kNo);

// Those of the bytes that no file of the tree has, a line for each.
std::string missingBytes(const Promise& promise, const Tree& tree);

}  // namespace crash

#endif  // TESTS_CRASH_TOOL_TOOL_STATE_H
