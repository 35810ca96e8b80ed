// What a store is made to do while it is made to fail: workloads as data, and the
// steps of which they are made.
#ifndef TESTS_CRASH_WORKLOADS_H
#define TESTS_CRASH_WORKLOADS_H

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/crash/session.h"
#include "tests/support/fs_fault.h"

namespace crash {

enum class Act { kWrite, kRemove, kRead, kScan, kPrepare, kOpen, kRecrypt };

struct Step {
    Act act;
    std::string id = {};        // of the record; "keys/" is one without a name; kScan: the folder
    Contents contents = {};     // kWrite
    std::string password = {};  // kOpen, which closes first; kRecrypt: the new one
};
std::string describe(const Step& step);

// A step that a process did not live to finish: it died before the nth call of a kind.
struct Interrupted {
    Step step;
    fault::Call call;
    int nth;  // kLast: before the last one
    static constexpr int kLast = 0;
};

struct Start {
    bool prepared = true;  // otherwise an empty folder
    std::string password = "secret";
    std::map<std::string, Contents> records;
    std::map<std::string, Contents> foreign;  // encrypted with another key
    std::vector<Interrupted> interrupted;
};

struct Workload {
    std::string name;
    Start start;
    std::vector<Step> steps;
    bool open = true;   // the database, when the steps begin
    bool links = true;  // files may have second names
};

// In force while the steps run, where they may not.
std::unique_ptr<fault::NoLinks> linksOf(const Workload& workload);

// Each by itself, with every state of the record before it.
const std::vector<Workload>& workloads();

// All sequences of `length` of all kinds of steps, on two records and on unnamed ones:
// once where one of the two exists, and once where each was left over by a death.
std::vector<Workload> sequences(int length);

Workload randomWorkload(std::mt19937& random);

// Makes the start in the current folder, which is empty.
void make(const Start& start);

// A step made ready: all that it needs is there, and only run() uses the disk. run()
// may be called again, and then works with the same objects.
class Action {
public:
    // `password` is that of the database, and follows a change of it.
    Action(const Step& step, std::string& password);

    Status run();
    Found found();  // kRead: what it found; asks the disk whether what did not read exists
    std::vector<std::string> listed();  // kScan: the records that it found

private:
    const Step& step_;
    std::string& password_;
    std::optional<aFileStore> record_;
    std::optional<aFileStoreList> list_;
    Status read_ = kOk;
};

}  // namespace crash

#endif  // TESTS_CRASH_WORKLOADS_H
