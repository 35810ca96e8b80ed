// Threads that start their work at the same moment.
#ifndef TESTS_SUPPORT_RUN_TOGETHER_H
#define TESTS_SUPPORT_RUN_TOGETHER_H

#include <cstddef>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

// Runs work(0) to work(threads - 1), each in a thread of its own, from one moment
// on. They have ended when this object is gone.
class Together {
public:
    template <class Work>
    Together(int threads, Work work) : start_(threads) {
        for (int number = 0; number < threads; ++number) {
            threads_.emplace_back([this, work, number] {
                start_.arrive_and_wait();
                work(number);
            });
        }
    }
    Together(const Together&) = delete;
    Together& operator=(const Together&) = delete;
    ~Together() {
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

private:
    std::latch start_;
    std::vector<std::thread> threads_;
};

template <class Work>
void runTogether(int threads, Work work) {
    const Together running(threads, std::move(work));
}

#endif  // TESTS_SUPPORT_RUN_TOGETHER_H
