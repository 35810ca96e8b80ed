#include "fstore/progress.h"

#include <algorithm>
#include <atomic>

#include <fmt/format.h>

#include "os/files.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr int kStderr = 2;
constexpr auto kPatience = std::chrono::milliseconds(500);
constexpr auto kPeriod = std::chrono::milliseconds(100);
constexpr std::uint64_t kBarColumns = 30;

std::atomic<Progress*> current{nullptr};

// A scheme of the module's, whose encryptions and decryptions are counted.
class CountingPbes final : public PBES {
public:
    explicit CountingPbes(PBES* scheme) : PBES(scheme->getType()), scheme_(scheme) {}

    Status init() override { return scheme()->init(); }
    Status fini() override { return scheme()->fini(); }
    Status select(param selector) override { return scheme()->select(selector); }
    Status supply(TBuf* bytes) override { return scheme()->supply(bytes); }
    Status supply(unsigned int number) override { return scheme()->supply(number); }
    Status supply(pki_alg_t alg) override { return scheme()->supply(alg); }
    Status setKey(TKey* key) override { return scheme()->setKey(key); }
    TKey* getKey() override { return scheme()->getKey(); }
    TBuf* encrypt(TBuf* plain) override {
        Progress::countEncryption();
        return scheme()->encrypt(plain);
    }
    TBuf* decrypt(TBuf* cipher) override {
        Progress::countEncryption();
        return scheme()->decrypt(cipher);
    }
    Status error() override { return scheme()->error(); }

private:
    PBES* scheme() const { return scheme_.get(); }

    CMN_GRefPtr<PBES> scheme_;
};

class CountingService final : public PKCS5_Interface {
public:
    explicit CountingService(PKCS5_Interface& service)
        : PKCS5_Interface(service.getType()), service_(service) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    CMN_GuardedRef* createObject(objectName_t name) override {
        CMN_GuardedRef* const made = service_.createObject(name);
        if (made == nullptr || (name != kPbes0 && name != kPbes1)) {
            return made;
        }
        return new CountingPbes(static_cast<PBES*>(made));
    }

private:
    PKCS5_Interface& service_;
};

}  // namespace

Progress::Progress(std::string what, Counts counts, std::uint64_t steps, bool shown)
    : what_(std::move(what)),
      steps_(std::max<std::uint64_t>(steps, 1)),
      shown_(shown && os::isTerminal(kStderr)),
      nextDraw_(Clock::now() + kPatience) {
    current = counts == Counts::kEncryptions ? this : nullptr;
}

Progress::~Progress() {
    current = nullptr;
    if (drawn_) {
        const std::string clear = "\r\033[K";
        (void)os::writeAll(kStderr, clear.data(), clear.size());  // as in draw()
    }
}

void Progress::step() {
    ++done_;
    if (!shown_) {
        return;
    }
    const Clock::time_point at = Clock::now();
    if (at >= nextDraw_) {
        draw(at);
    }
}

void Progress::countEncryption() {
    if (Progress* const progress = current) {
        progress->step();
    }
}

void Progress::draw(Clock::time_point at) {
    nextDraw_ = at + kPeriod;
    drawn_ = true;
    const std::uint64_t done = std::min(done_, steps_);
    const std::uint64_t filled = done * kBarColumns / steps_;
    const std::string line = fmt::format("\r{} [{:#<{}}{:.<{}}] {:3}%\033[K", what_, "", filled, "",
                                         kBarColumns - filled, done * 100 / steps_);
    (void)os::writeAll(kStderr, line.data(), line.size());  // a bar that cannot be drawn is no loss
}

PKCS5_Interface* makeCountingService(PKCS5_Interface& service) {
    return new CountingService(service);
}

}  // namespace fstore
