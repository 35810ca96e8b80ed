// What a run has counted: lines "figure: NAME: NUMBER", which scripts/torture.sh adds up.
// They come after each test, and in a long one every minute, of what was counted since:
// a run that is stopped has told what it did.
#ifndef TESTS_CRASH_FIGURES_H
#define TESTS_CRASH_FIGURES_H

#include <cstddef>
#include <string>

namespace crash {

void count(const std::string& figure, long number = 1);

// Whether all is tried that there is, as scripts/torture.sh does ($TORTURE_FULL), and not
// a share for every day.
bool isFull();

// Which part of a full run this is: "2/7" in $TORTURE_PART is the second of seven, by
// default it is the only one.
struct Part {
    std::size_t index;  // from 0
    std::size_t count;
};
Part part();

// How long a run then goes on with random workloads: $TORTURE_SECONDS, none by default,
// shared out among the parts.
class Overtime {
public:
    Overtime();
    bool isLeft() const;

private:
    double end_;
};

// Where random choices begin: $TORTURE_SEED, always the same by default; each part has
// its own.
unsigned long seed();

}  // namespace crash

#endif  // TESTS_CRASH_FIGURES_H
