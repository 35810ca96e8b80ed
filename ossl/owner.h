// Owners of OpenSSL's objects, and a scope that keeps its errors to itself. What they own is
// named where it is used: modules/common/ossl.h, lib/pki/ossl.h.
#ifndef OSSL_OWNER_H
#define OSSL_OWNER_H

#include <memory>

#include <openssl/err.h>

namespace ossl {

template <auto Free>
struct FreeWith {
    template <class T>
    void operator()(T* object) const noexcept {
        Free(object);
    }
};
template <class T, auto Free>
using Owner = std::unique_ptr<T, FreeWith<Free>>;

// Errors that happen while it lives do not stay in the thread's queue, where the program's
// own use of OpenSSL would take them for its own.
class QuietErrors {
public:
    QuietErrors() noexcept { ERR_set_mark(); }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
    ~QuietErrors() { ERR_pop_to_mark(); }
};

}  // namespace ossl

#endif  // OSSL_OWNER_H
