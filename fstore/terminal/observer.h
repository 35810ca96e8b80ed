// The tool's Observer: warnings and notes on stderr, and a bar for long work.
#ifndef FSTORE_TERMINAL_OBSERVER_H
#define FSTORE_TERMINAL_OBSERVER_H

#include <optional>
#include <string>

#include "fstore/terminal/output.h"
#include "fstore/terminal/progress_bar.h"
#include "lib/base/observer.h"
#include "os/process.h"

namespace fstore {

class TerminalObserver final : public Observer {
public:
    explicit TerminalObserver(Output& output) : output_(output) {}

    void warn(const std::string& text) override { output_.warn(text); }
    void note(const std::string& text) override { output_.note(text); }

    void begin(const std::string& what, std::uint64_t steps) override {
        bar_.emplace(what, steps, output_.showsProgress());
    }
    void step() noexcept override { bar_->step(); }
    void end() noexcept override { bar_.reset(); }
    // Any other signal ends the whole process.
    bool isCancelled() noexcept override { return os::isInterruptNoted(); }

    // A database of the tool has its key from a KeySource, and asks nobody.
    SecretText password() override { throw Failure(kUsage, "no password was given"); }

private:
    Output& output_;
    std::optional<ProgressBar> bar_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_OBSERVER_H
