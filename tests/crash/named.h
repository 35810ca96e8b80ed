// A process that names one record in what a crash has left, and changes that: it repairs the
// places of this record and of the password and looks at nothing else, as the tool and the library
// for C do. Whether the record is there is asked after that. Else a put would make a new record
// beside a saved descriptor that stands alone, and remove that one with its label and body.
#ifndef TESTS_CRASH_NAMED_H
#define TESTS_CRASH_NAMED_H

#include <cstdint>
#include <optional>
#include <string>

#include "tests/crash/oracle.h"
#include "tests/crash/recovery.h"
#include "tests/crash/workloads.h"

namespace crash {

class NamedChange {
public:
    // A removal, or a put that keeps the attributes of what is there; of a record and a kind that
    // `choice` chooses. None where no record can be read. `recovered`: what is found in the same
    // folder after everything was repaired.
    static std::optional<NamedChange> choose(const Question& question, const Observation& recovered,
                                             std::uint64_t choice);

    // In the current folder, as the crash has left it. Tells what goes wrong.
    std::string carryOut() const;

    // What may be found when it died on the way, or when it is done: no other record has changed.
    const Allowed& whileItLasts() const { return whileItLasts_; }
    const Allowed& done() const { return done_; }

private:
    NamedChange(Step step, const Observation& recovered);

    Step step_;
    std::string password_;
    Allowed whileItLasts_, done_;
};

}  // namespace crash

#endif  // TESTS_CRASH_NAMED_H
