// A slot's box: P, encrypted with a key that comes from the slot's secret.
//
//     raw       scrypt of the password; the 20 bytes of a recovery key; the 32 of a key file
//     slot key  HKDF with SHA-256 of raw, with the slot's salt and, as info, its number and kind
//     box       AES-256-GCM of P's 32 bytes, bound to the slot's line and to the database
//
// A box that opens shows P, which still has to fit the slot's key=: whoever writes the files
// could craft one box that two secrets open, to different bytes.
//
// Any thread may call these. Failures throw; secrets are wiped.
#ifndef LIB_DATABASE_UNLOCK_BOX_H
#define LIB_DATABASE_UNLOCK_BOX_H

#include <span>

#include "lib/base/secret.h"
#include "lib/database/unlock_text.h"

namespace fstore {

using RawSecret = std::span<const unsigned char>;

// As many bytes as a raw secret of this kind has; 0 for kUnknown.
std::size_t rawSizeOf(SlotKind kind);

struct OpenedBox {
    enum class State {
        kOpen,
        kWrongSecret,  // or the line is not the one that it was made for
        kDamaged,      // it opens, and what is in it is not this slot's P
    };
    State state = State::kWrongSecret;
    SecretText p;  // 64 hexadecimal digits; empty unless kOpen
};

// Opens the slot's box in the database `db`. Runs no scrypt.
OpenedBox openBox(const UnlockSlot& slot, const DatabaseId& db, RawSecret raw);

// The slot with P, 64 hexadecimal digits, in its box: key, nonce and box are new, all else is as
// given. Throws kInvalid for a raw secret of another size than its kind has, and for another P.
UnlockSlot withBox(UnlockSlot slot, const DatabaseId& db, RawSecret raw, const SecretText& p);

// The same with this nonce, which no other box of the same slot key has.
UnlockSlot withBox(UnlockSlot slot, const DatabaseId& db, RawSecret raw, const SecretText& p,
                   const BoxNonce& nonce);

// Random bytes.
void fillRandomly(std::span<unsigned char> bytes);

// A new P: 64 hexadecimal digits.
SecretText randomP();

// Whether the text is a P that a box can hold.
bool isWrappable(const SecretText& p);

// Whether P fits what the record "key" or a slot holds of it; takes the same time for any.
bool fits(const SecretText& p, const Digest& key);

}  // namespace fstore

#endif  // LIB_DATABASE_UNLOCK_BOX_H
