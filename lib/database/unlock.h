// From the user's secret to P, the store's password.
#ifndef LIB_DATABASE_UNLOCK_H
#define LIB_DATABASE_UNLOCK_H

#include "lib/base/observer.h"
#include "lib/database/place.h"
#include "lib/database/slots.h"

namespace fstore {

// Asks for the password of the slot in force and derives P; warns if the password does not
// protect. Waits for a person to type, and half a second for the derivation, so the caller
// holds no lock.
SecretText askForP(const Slot& slot, const Place& place, Observer& observer);

}  // namespace fstore

#endif  // LIB_DATABASE_UNLOCK_H
