// What the provider uses of the libcrypto that loaded it, and how it reports failures there: in the
// queue that the program prints into its log.
//
// Any thread may call anything here, but for the constructor.
#ifndef PROVIDER_CORE_H
#define PROVIDER_CORE_H

#include <exception>
#include <stdexcept>
#include <string>

#include <openssl/core.h>
#include <openssl/core_dispatch.h>

namespace provider {

// The numbers are part of what logs show: new ones go to the end.
enum class Reason {
    kNotConfigured = 1,
    kNoDatabase,
    kNoPassword,
    kWrongPassword,
    kNoRecord,
    kBusy,
    kDamaged,
    kBadReference,
    kNotLoadable,
    kNoMemory,
    kFailed
};

// Of all reasons, for OpenSSL, which prints these words.
const OSSL_ITEM* reasonStrings();

// Ends a load. The text names the record and the folder, and says what to do; it has no secret.
class Failure : public std::runtime_error {
public:
    Failure(Reason reason, const std::string& text) : std::runtime_error(text), reason_(reason) {}
    Reason reason() const noexcept { return reason_; }

private:
    Reason reason_;
};

class Core {
public:
    // Throws Failure when the libcrypto lacks a function.
    Core(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* functions);

    // A value of our section of openssl.cnf; empty for none.
    std::string setting(const char* name) const;

    // The next piece of a line, as BIO_gets(): its length, or 0 or less at the end.
    int readLine(OSSL_CORE_BIO* in, char* buffer, int size) const {
        return gets_(in, buffer, size);
    }

    // Puts the exception that is being handled into the queue.
    void report() const noexcept;

private:
    void raise(Reason reason, const char* text) const noexcept;

    const OSSL_CORE_HANDLE* handle_;
    OSSL_FUNC_core_get_params_fn* getParams_ = nullptr;
    OSSL_FUNC_core_new_error_fn* newError_ = nullptr;
    OSSL_FUNC_core_vset_error_fn* setError_ = nullptr;
    OSSL_FUNC_BIO_gets_fn* gets_ = nullptr;
};

// What step() returns; `failed` when it throws, which is reported. No exception gets beyond this.
template <class Result, class Step>
Result reporting(const Core& core, Result failed, Step step) noexcept {
    try {
        return step();
    } catch (...) {
        core.report();
        return failed;
    }
}

}  // namespace provider

#endif  // PROVIDER_CORE_H
