// The commands of the tool that change something, each with what it starts from. Data.
#ifndef TESTS_CRASH_TOOL_TOOL_WORKLOADS_H
#define TESTS_CRASH_TOOL_TOOL_WORKLOADS_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/crash/tool/tool_run.h"

namespace crash {

struct ToolWorkload {
    // What is there when nothing goes wrong.
    struct Result {
        std::size_t records = 3;
        bool keepsRecords = false;  // all are as before
        std::string openers = kPassword;
        std::size_t kept = 0;  // databases
        std::size_t lost = 0;  // files in ./db.lost, but for plans
    };

    std::string name;
    Command command;
    std::function<void()> start;  // fills the current folder, which is empty
    std::string folder = ".";     // that holds "db"
    bool isWhole = false;         // as in Promise
    bool makes = false;
    bool purges = false;
    std::vector<std::string> bytes = {};
    Result result = {};
    bool goesOnByName = false;  // namedRounds() are tried in what it leaves
};

inline void PrintTo(const ToolWorkload& workload, std::ostream* out) {
    *out << workload.name;
}

const std::vector<ToolWorkload>& toolWorkloads();

// Commands that name their records, in sequences that leave a database as it was. A record that is
// gone makes those about it fail with kMissing.
const std::vector<std::vector<Command>>& namedRounds();

}  // namespace crash

#endif  // TESTS_CRASH_TOOL_TOOL_WORKLOADS_H
