// From the user's secret to P, the store's password.
#ifndef LIB_DATABASE_UNLOCK_H
#define LIB_DATABASE_UNLOCK_H

#include <functional>
#include <optional>

#include "lib/base/observer.h"
#include "lib/database/place.h"
#include "lib/database/protection.h"
#include "lib/database/slot_sets.h"

namespace fstore {

// Where a Database gets P from, for a caller that does not leave it to Observer::password().
class KeySource {
public:
    KeySource() = default;
    KeySource(const KeySource&) = delete;
    KeySource& operator=(const KeySource&) = delete;
    virtual ~KeySource() = default;

    // Whether obtain() may wait for a person: nobody is kept out before that.
    virtual bool asks() const noexcept { return false; }

    // P of the set in force if it is known already; none otherwise. Called while the database is
    // locked, so it neither waits nor derives anything.
    virtual std::optional<Unlocked> known(const Protection& protection) = 0;

    // P of the set in force, called while nothing is locked. Throws what ends the operation.
    virtual Unlocked obtain(const Protection& protection) = 0;
};

// P by this secret. Derives from a password, so the caller holds no lock. Runs no derivation for
// a key file, a recovery key or P.
//
// While the record "key" is lost all sets are tried, and each that opens is told: the first one,
// and its rivals.
//
//   kWrongPassword  it opens no slot of the set in force; the message says so when it opens the
//                   one before a change that is unfinished, and names the groups of a recovery key
//                   that are mistyped
//   kMalformed      the slot that it opens is damaged
Unlocked unlock(const Protection& protection, const UnlockSecret& secret, const Place& place);

// Asked for the user's secret while nothing is locked, and only if one is needed.
using SecretGiver = std::function<UnlockSecret()>;

// Asks for a secret of the set in force and opens P with it; warns if the password does not
// protect. Waits for a person to type, and half a second for the derivation, so the caller
// holds no lock.
Unlocked askForP(const Protection& protection, const Place& place, Observer& observer,
                 const SecretGiver& give);

// The same with the password that the observer is asked for.
Unlocked askForP(const Protection& protection, const Place& place, Observer& observer);

}  // namespace fstore

#endif  // LIB_DATABASE_UNLOCK_H
