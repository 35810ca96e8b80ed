// What a new process finds of the database of the current folder after a crash, by the
// entry points that clients have and in the order in which they use them.
#ifndef TESTS_CRASH_RECOVERY_H
#define TESTS_CRASH_RECOVERY_H

#include <map>
#include <string>
#include <vector>

#include "tests/crash/session.h"
#include "tests/crash/tree.h"

namespace crash {

struct Observation {
    std::vector<std::string> faults;  // wrong whatever the state: statuses, contradictions, files
    std::vector<std::string> passwords;    // those of the candidates that open
    std::map<std::string, Found> records;  // all that were asked for or listed

    bool operator==(const Observation&) const = default;
};

struct Question {
    std::vector<std::string> ids;        // records that are looked for by name
    std::vector<std::string> passwords;  // candidates
    bool scanFirst = false;              // list the folders before reading by name
};

// Prepares the folders, opens the database, reads records by name and by listing, and
// looks at the files that are left over. What is found must be found again. `left`: what
// stands in the folder then.
Observation recover(const Question& question, Tree* left = nullptr);

// Whether the database can be worked with afterwards, by one more process: nothing that
// was left over comes between. Tells what goes wrong.
std::vector<std::string> goOn(const Observation& recovered, const Question& question);

}  // namespace crash

#endif  // TESTS_CRASH_RECOVERY_H
