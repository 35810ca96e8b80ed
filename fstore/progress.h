// How far a long command has come: a bar on the terminal's stderr, shown when the
// command has taken half a second.
//
// The count comes from the program's own service of password-based encryption, which
// stands before the module's and passes everything on: so each record that the store
// encrypts or decrypts is seen, also in the midst of a change of the password, which
// is one call. Steps may be counted by any thread, one at a time.
#ifndef FSTORE_PROGRESS_H
#define FSTORE_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

#include "api/pkcs5_i.h"

namespace fstore {

// While it lives, the steps of the encryption service are its own. One at a time.
class Progress {
public:
    enum class Counts {
        kEncryptions,  // each encryption and decryption is a step
        kCalls         // only the calls of step() are
    };

    // `steps` is the number expected in all; `shown` is false for no bar ever.
    Progress(std::string what, Counts counts, std::uint64_t steps, bool shown);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();  // takes the bar away

    void step();
    // One more encryption or decryption has begun.
    static void countEncryption();

private:
    using Clock = std::chrono::steady_clock;
    void draw(Clock::time_point at);

    std::string what_;
    std::uint64_t steps_;
    std::uint64_t done_ = 0;
    bool shown_;
    bool drawn_ = false;
    Clock::time_point nextDraw_;
};

// The service that counts, in front of `service`, which must outlive it. Without a
// reference yet: the caller attaches the first holder.
PKCS5_Interface* makeCountingService(PKCS5_Interface& service);

}  // namespace fstore

#endif  // FSTORE_PROGRESS_H
