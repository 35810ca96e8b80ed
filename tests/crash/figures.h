// What a run has counted: one line each at its end, "figure: NAME: NUMBER", which
// scripts/torture.sh adds up.
#ifndef TESTS_CRASH_FIGURES_H
#define TESTS_CRASH_FIGURES_H

#include <string>

namespace crash {

void count(const std::string& figure, long number = 1);

// Whether all is tried that there is, as scripts/torture.sh does ($TORTURE_FULL), and not
// a share for every day.
bool isFull();

// How long a run then goes on with random workloads: $TORTURE_SECONDS, none by default.
class Overtime {
public:
    Overtime();
    bool isLeft() const;

private:
    double end_;
};

// Where random choices begin: $TORTURE_SEED, always the same by default.
unsigned long seed();

}  // namespace crash

#endif  // TESTS_CRASH_FIGURES_H
