// An observer that remembers what it heard, and answers as a test wants.
#ifndef TESTS_SUPPORT_RECORDING_OBSERVER_H
#define TESTS_SUPPORT_RECORDING_OBSERVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "lib/base/observer.h"

namespace support {

class RecordingObserver final : public fstore::Observer {
public:
    static constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

    explicit RecordingObserver(std::string password = {}) : answer(std::move(password)) {}

    void warn(const std::string& text) override { heard.push_back("warning: " + text); }
    void note(const std::string& text) override { heard.push_back("note: " + text); }
    void begin(const std::string& what, std::uint64_t) override {
        heard.push_back(what);
        whenBegun(what);
    }
    void step() noexcept override { ++steps; }
    void end() noexcept override { ++ended; }
    bool isCancelled() noexcept override { return steps > cancelAfter; }
    fstore::SecretText password() override {
        ++asked;
        whileAsked();
        return fstore::SecretText(answer);
    }

    std::vector<std::string> heard;
    std::atomic<std::uint64_t> steps{0};
    int ended = 0;
    int asked = 0;  // for the password

    std::string answer;
    std::uint64_t cancelAfter = kNever;        // so many steps
    std::function<void()> whileAsked = [] {};  // what happens while somebody types
    std::function<void(const std::string&)> whenBegun = [](const std::string&) {};
};

}  // namespace support

#endif  // TESTS_SUPPORT_RECORDING_OBSERVER_H
