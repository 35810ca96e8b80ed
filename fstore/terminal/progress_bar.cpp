#include "fstore/terminal/progress_bar.h"

#include <algorithm>
#include <cmath>
#include <system_error>
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
constexpr std::uint64_t kLeastBarColumns = 4;
constexpr std::uint64_t kUsualColumns = 80;
constexpr std::int64_t kMinute = 60;

// Those of the bar beside a text of `others` columns: a line that wraps could not be drawn again. 0
// where no bar has room.
std::uint64_t barColumns(std::uint64_t others) noexcept {
    const std::uint64_t terminal = os::terminalColumns(kTerminal);
    const std::uint64_t columns = terminal == 0 ? kUsualColumns : terminal;
    const std::uint64_t taken = others + 4;  // a blank, the brackets, and the cursor behind
    const std::uint64_t room = columns > taken ? columns - taken : 0;
    return room < kLeastBarColumns ? 0 : std::min(room, kBarColumns);
}

}  // namespace

ProgressBar::ProgressBar(std::string what, std::uint64_t steps, bool shown)
    : what_(std::move(what)),
      steps_(std::max<std::uint64_t>(steps, 1)),
      shown_(shown && os::isTerminal(kTerminal)),
      began_(Clock::now()),
      nextDraw_(began_ + kPatience) {
    if (shown_) {
        start();
    }
}

void ProgressBar::start() {
    try {
        clock_ = std::thread(&ProgressBar::drawInTime, this);
    } catch (const std::system_error&) {
        return;  // no thread to be had: then the steps alone draw
    }
}

void ProgressBar::drawInTime() {
    std::unique_lock lock(drawing_);
    while (!ended_) {
        const Clock::time_point next = nextDraw_;  // which steps move on meanwhile
        end_.wait_until(lock, next);
        const Clock::time_point at = Clock::now();
        if (!ended_ && at >= nextDraw_) {
            draw(std::min(done_.load(), steps_), at);
        }
    }
}

ProgressBar::~ProgressBar() {
    if (clock_.joinable()) {
        {
            const std::lock_guard lock(drawing_);
            ended_ = true;
        }
        end_.notify_one();
        clock_.join();
    }
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
    fmt::memory_buffer tail;  // have room for this without asking for memory
    fmt::memory_buffer line;
    if (done == 0) {
        const auto passed = std::chrono::duration_cast<std::chrono::seconds>(at - began_);
        fmt::format_to(std::back_inserter(tail), ", {} s", passed.count());
    } else {
        fmt::format_to(std::back_inserter(tail), " {:3}%", done * 100 / steps_);
    }
    if (const std::int64_t seconds = left(done, at).count(); seconds >= kMinute) {
        fmt::format_to(std::back_inserter(tail), ", {} min left",
                       (seconds + kMinute - 1) / kMinute);
    } else if (seconds > 0) {
        fmt::format_to(std::back_inserter(tail), ", {} s left", seconds);
    }
    fmt::format_to(std::back_inserter(line), "\r{}", what_);
    const std::uint64_t columns = done == 0 ? 0 : barColumns(what_.size() + tail.size());
    if (columns != 0) {
        const std::uint64_t filled = done * columns / steps_;
        fmt::format_to(std::back_inserter(line), " [{:#<{}}{:.<{}}]", "", filled, "",
                       columns - filled);
    }
    line.append(tail);
    fmt::format_to(std::back_inserter(line), "\033[K");
    (void)os::writeAll(kTerminal, line.data(),
                       line.size());  // a bar that cannot be drawn is no loss
}

// As if what is left took as long as what is done; 0 while nothing is.
std::chrono::seconds ProgressBar::left(std::uint64_t done, Clock::time_point at) const noexcept {
    if (done == 0) {
        return {};
    }
    const std::chrono::duration<double> elapsed = at - began_;
    const double seconds =
        elapsed.count() * static_cast<double>(steps_ - done) / static_cast<double>(done);
    return std::chrono::seconds(static_cast<std::int64_t>(std::ceil(seconds)));
}

}  // namespace fstore
