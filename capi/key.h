// Passwords and keys, as callers give them.
//
// For one thread. Failures throw.
#ifndef CAPI_KEY_H
#define CAPI_KEY_H

#include <cstdint>

#include "capi/filestore.h"
#include "lib/base/secret.h"
#include "lib/database/slot_sets.h"

namespace capi {

// The caller's structure, complete, of a kind that there is, with one place that it comes from.
filestore_key acceptedKey(const filestore_key* key);

// The same, of kind FILESTORE_PASSWORD.
filestore_key acceptedPassword(const filestore_key* key);

// scrypt's cost of a password's guess, as its exponent; the usual one for 0.
unsigned int acceptedCost(std::uint32_t cost);

// What stands at that place, as a text; may call the caller.
fstore::SecretText readKey(const filestore_key& key);

// The same, as what opens a database. Throws kMalformed for what is no key file, and kWrongPassword
// for what is no recovery key.
fstore::UnlockSecret readSecret(const filestore_key& key);

}  // namespace capi

#endif  // CAPI_KEY_H
