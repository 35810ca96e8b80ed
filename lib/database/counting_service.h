// The program's own service of password-based encryption, in front of the module's. It passes
// everything on, and sees each record that the store encrypts or decrypts, also during a
// change of the password, which is one call.
#ifndef LIB_DATABASE_COUNTING_SERVICE_H
#define LIB_DATABASE_COUNTING_SERVICE_H

#include "api/pkcs5_i.h"
#include "lib/base/observer.h"

namespace fstore {

class CountingService final : public PKCS5_Interface {
public:
    // `service`, and this object, outlive everything that either of them makes.
    explicit CountingService(PKCS5_Interface& service)
        : PKCS5_Interface(service.getType()), service_(service) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    CMN_GuardedRef* createObject(objectName_t name) override;

    // While it lives, each encryption and decryption of its thread is a step of the observer's
    // work. Once the work is cancelled, all of them fail. One at a time in a thread.
    class Counting {
    public:
        explicit Counting(Observer& observer) noexcept;
        Counting(const Counting&) = delete;
        Counting& operator=(const Counting&) = delete;
        ~Counting();

        // Counts one more, and returns whether to go on.
        bool count() noexcept;
        bool wasCancelled() const noexcept { return cancelled_; }

    private:
        Observer& observer_;
        bool cancelled_ = false;  // stays set: no step may follow one that was left out
    };

private:
    PKCS5_Interface& service_;
};

}  // namespace fstore

#endif  // LIB_DATABASE_COUNTING_SERVICE_H
