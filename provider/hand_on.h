// An object on its way to OpenSSL.
#ifndef PROVIDER_HAND_ON_H
#define PROVIDER_HAND_ON_H

#include <span>

#include <openssl/core.h>
#include <openssl/core_object.h>

namespace provider {

// Calls the callback with the DER of an object: its OSSL_OBJECT_ number, and the name of the
// structure, null where the number says it. What the callback answers.
int handOn(int type, const char* structure, std::span<const unsigned char> der,
           OSSL_CALLBACK* callback, void* argument) noexcept;

}  // namespace provider

#endif  // PROVIDER_HAND_ON_H
