#include "tests/support/doubles/call_watch.h"

std::string tell(const char* text) {
    return text == nullptr ? "no text" : std::string("text ") + text;
}

std::string tell(std::string_view text) {
    return "bytes " + std::string(text);
}

void CallWatch::record() {
    const std::lock_guard locked(mutex_);
    calls_.clear();
    raised_.clear();
    recording_ = true;
}

std::vector<std::string> CallWatch::calls() const {
    const std::lock_guard locked(mutex_);
    return calls_;
}

std::vector<int> CallWatch::raised() const {
    const std::lock_guard locked(mutex_);
    return raised_;
}

void CallWatch::failAt(std::string what, int nth, Status status, Lasting lasting) {
    arm(std::move(what), nth, status, lasting, false);
}

void CallWatch::throwAt(std::string what, int nth) {
    arm(std::move(what), nth, kIo, kOnce, true);
}

bool CallWatch::lift() {
    const std::lock_guard locked(mutex_);
    armed_ = false;
    return met_;
}

std::string CallWatch::describe(const char* what, const std::vector<std::string>& args) {
    std::string text = what;
    for (const std::string& arg : args) {
        text += (&arg == args.data() ? ": " : ", ") + arg;
    }
    return text;
}

void CallWatch::arm(std::string what, int nth, Status status, Lasting lasting, bool throws) {
    const std::lock_guard locked(mutex_);
    what_ = std::move(what);
    before_ = nth - 1;
    status_ = status;
    lasting_ = lasting;
    throws_ = throws;
    met_ = false;
    armed_ = true;
}

void CallWatch::add(const CMN_GuardedRef& self, std::string text) {
    const CMN_Guard* const guard = self.getGuard();
    const std::lock_guard locked(mutex_);
    calls_.push_back(std::move(text));
    raised_.push_back(guard == nullptr ? 0 : guard->calls());
}

Status CallWatch::turn(const std::string& what) {
    const std::lock_guard locked(mutex_);
    if (!armed_ || what != what_ || before_-- > 0) {
        return kOk;
    }
    met_ = true;
    before_ = 0;
    armed_ = lasting_ == kLasting;
    if (throws_) {
        throw DoubleTrouble(what);
    }
    return status_;
}
