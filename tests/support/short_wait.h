// A short wait for other threads. Not a yield: on a busy machine a loop of those
// takes seconds.
#ifndef TESTS_SUPPORT_SHORT_WAIT_H
#define TESTS_SUPPORT_SHORT_WAIT_H

#include <chrono>
#include <thread>

inline void waitShortly() {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
}

#endif  // TESTS_SUPPORT_SHORT_WAIT_H
