// How the benchmarks measure and report: a line for each round, which scripts/bench_report.py
// reads.
#ifndef BENCH_CONTEST_ROUNDS_H
#define BENCH_CONTEST_ROUNDS_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

using Clock = std::chrono::steady_clock;

inline double microseconds(Clock::time_point since) {
    return std::chrono::duration<double, std::micro>(Clock::now() - since).count();
}

inline double medianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

inline void report(const std::string& question, const std::string& who, int round, double value) {
    std::printf("%s\t%s\t%d\t%.3f\n", question.c_str(), who.c_str(), round, value);
    std::fflush(stdout);
}

#endif  // BENCH_CONTEST_ROUNDS_H
