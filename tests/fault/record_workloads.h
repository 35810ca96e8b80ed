// What may happen to one record, for tests that let every step of it fail.
#ifndef TESTS_FAULT_RECORD_WORKLOADS_H
#define TESTS_FAULT_RECORD_WORKLOADS_H

#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "client/file_store_exp.h"
#include "cmn/status.h"
#include "tests/support/test_store.h"

// An operation that changes the record in the folder, or fails and does not.
struct Workload {
    const char* name;
    std::function<void()> arrange;  // what is on the disk before
    std::string record;             // its name; empty: it gets one
    Contents contents;              // in memory; what is written
    std::function<Status(aFileStore&)> operation;
    std::optional<Contents> before;  // what a reader finds; nothing when there is no record
    std::optional<Contents> after;
};

inline std::ostream& operator<<(std::ostream& out, const Workload& workload) {
    return out << workload.name;
}

const std::vector<Workload>& recordWorkloads();

// The record that a reader finds now, by name or as the only one of the folder. Throws
// when there is one that cannot be read.
std::optional<Contents> found(const Workload& workload);

// A folder's files, to be put in place again and again.
class FolderImage {
public:
    explicit FolderImage(const Workload& workload);
    void place() const;

private:
    std::map<std::string, std::string> files_;
};

// The record in memory, ready for the operation.
aFileStore recordOf(const Workload& workload);

#endif  // TESTS_FAULT_RECORD_WORKLOADS_H
