// What must be found of a database at any moment of a workload.
#ifndef TESTS_CRASH_ORACLE_H
#define TESTS_CRASH_ORACLE_H

#include <map>
#include <string>
#include <vector>

#include "tests/crash/recovery.h"
#include "tests/crash/workloads.h"

namespace crash {

// The states of which one must be found, whole.
struct Allowed {
    std::map<std::string, std::vector<Found>> records;  // by id; others are absent, but for
    std::vector<Contents> unnamed;         // each found once, under a name of the store's choice
    std::vector<Contents> unnamedInDoubt;  // each found once at most
    std::vector<std::string> passwords;    // exactly one opens the database
};

// What contradicts the promise; empty when nothing does.
std::string judge(const Observation& seen, const Allowed& allowed);

// Follows a workload: before a step is acknowledged its records may be in their old or
// new state, afterwards in the new one only. A step that failed leaves it open.
class Oracle {
public:
    explicit Oracle(const Observation& start);

    void begin(const Step& step);
    void end(const Step& step, Status status);

    const Allowed& allowed() const { return allowed_; }

private:
    Allowed allowed_;
};

}  // namespace crash

#endif  // TESTS_CRASH_ORACLE_H
