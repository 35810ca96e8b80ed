#include "fstore/terminal/progress_bar.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "os/files.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr int kTerminal = 2;
constexpr auto kPatience = std::chrono::milliseconds(500);
constexpr auto kPeriod = std::chrono::milliseconds(100);
constexpr std::uint64_t kBarColumns = 30;
constexpr std::int64_t kMinute = 60;

}  // namespace

ProgressBar::ProgressBar(std::string what, std::uint64_t steps, bool shown)
    : what_(std::move(what)),
      steps_(std::max<std::uint64_t>(steps, 1)),
      shown_(shown && os::isTerminal(kTerminal)),
      began_(Clock::now()),
      nextDraw_(began_ + kPatience) {}

ProgressBar::~ProgressBar() {
    if (drawn_) {
        const std::string clear = "\r\033[K";
        (void)os::writeAll(kTerminal, clear.data(), clear.size());  // as in draw()
    }
}

// NOLINTNEXTLINE(bugprone-exception-escape): neither lock nor buffer asks for memory
void ProgressBar::step() noexcept {
    const std::uint64_t done = ++done_;
    if (!shown_) {
        return;
    }
    const std::unique_lock lock(drawing_, std::try_to_lock);
    const Clock::time_point at = Clock::now();
    if (lock && at >= nextDraw_) {
        draw(std::min(done, steps_), at);
    }
}

void ProgressBar::draw(std::uint64_t done, Clock::time_point at) {
    nextDraw_ = at + kPeriod;
    drawn_ = true;
    const std::uint64_t filled = done * kBarColumns / steps_;
    fmt::memory_buffer line;  // has room for this without asking for memory
    fmt::format_to(std::back_inserter(line), "\r{} [{:#<{}}{:.<{}}] {:3}%", what_, "", filled, "",
                   kBarColumns - filled, done * 100 / steps_);
    if (const std::int64_t seconds = left(done, at).count(); seconds >= kMinute) {
        fmt::format_to(std::back_inserter(line), ", {} min left",
                       (seconds + kMinute - 1) / kMinute);
    } else if (seconds > 0) {
        fmt::format_to(std::back_inserter(line), ", {} s left", seconds);
    }
    fmt::format_to(std::back_inserter(line), "\033[K");
    (void)os::writeAll(kTerminal, line.data(),
                       line.size());  // a bar that cannot be drawn is no loss
}

// As if what is left took as long as what is done.
std::chrono::seconds ProgressBar::left(std::uint64_t done, Clock::time_point at) const noexcept {
    const std::chrono::duration<double> elapsed = at - began_;
    const double seconds =
        elapsed.count() * static_cast<double>(steps_ - done) / static_cast<double>(done);
    return std::chrono::seconds(static_cast<std::int64_t>(std::ceil(seconds)));
}

}  // namespace fstore
