// The progress of a long command: a bar on stderr, if that is a terminal, from half a second
// on, also while no step is done.
#ifndef FSTORE_TERMINAL_PROGRESS_BAR_H
#define FSTORE_TERMINAL_PROGRESS_BAR_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace fstore {

class ProgressBar {
public:
    // `steps` is the number expected in all; `shown` is false for no bar ever.
    ProgressBar(std::string what, std::uint64_t steps, bool shown);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    ~ProgressBar();  // removes the bar

    // From any thread.
    void step() noexcept;  // NOLINT(bugprone-exception-escape): see there

private:
    using Clock = std::chrono::steady_clock;
    void start();
    void drawInTime();
    void draw(std::uint64_t done, Clock::time_point at);
    std::chrono::seconds left(std::uint64_t done, Clock::time_point at) const noexcept;

    std::string what_;
    std::uint64_t steps_;
    bool shown_;
    std::atomic<std::uint64_t> done_{0};
    std::mutex drawing_;  // guards what follows; a thread that finds it locked draws nothing
    bool drawn_ = false;
    const Clock::time_point began_;
    Clock::time_point nextDraw_;
    bool ended_ = false;
    std::condition_variable end_;
    std::thread clock_;  // draws when no step does
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_PROGRESS_BAR_H
