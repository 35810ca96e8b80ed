// From the user's secret to P, the store's password.
#ifndef LIB_DATABASE_UNLOCK_H
#define LIB_DATABASE_UNLOCK_H

#include "lib/base/observer.h"
#include "lib/database/place.h"
#include "lib/database/slots.h"

namespace fstore {

// P of the slot in force, asked for and derived as the slot needs it; warns where the
// password does not protect. Takes as long as a person types, and half a second for the
// derivation: no lock is held.
SecretText askForP(const Slot& slot, const Place& place, Observer& observer);

}  // namespace fstore

#endif  // LIB_DATABASE_UNLOCK_H
