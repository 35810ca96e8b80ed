// The tool's Observer: warnings and notes on stderr, a bar for long work, and the password
// from the user's source.
#ifndef FSTORE_TERMINAL_OBSERVER_H
#define FSTORE_TERMINAL_OBSERVER_H

#include <optional>
#include <string>

#include "fstore/terminal/output.h"
#include "fstore/terminal/password.h"
#include "fstore/terminal/progress_bar.h"
#include "lib/base/observer.h"

namespace fstore {

class TerminalObserver final : public Observer {
public:
    TerminalObserver(Output& output, PasswordSource& password)
        : output_(output), password_(password) {}

    void warn(const std::string& text) override { output_.warn(text); }
    void note(const std::string& text) override { output_.note(text); }

    void begin(const std::string& what, std::uint64_t steps) override {
        bar_.emplace(what, steps, output_.showsProgress());
    }
    void step() noexcept override { bar_->step(); }
    void end() noexcept override { bar_.reset(); }
    // A signal ends the whole process.
    bool isCancelled() noexcept override { return false; }

    // Asked for once, however often it is needed.
    SecretText password() override { return password_.get(PasswordSource::Entry::kOnce); }

private:
    Output& output_;
    PasswordSource& password_;
    std::optional<ProgressBar> bar_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_OBSERVER_H
