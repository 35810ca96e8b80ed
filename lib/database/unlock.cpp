#include "lib/database/unlock.h"

#include <fmt/format.h>

namespace fstore {

SecretText askForP(const Slot& slot, const Place& place, Observer& observer) {
    switch (slot.form) {
        case Slot::Form::kNone:
            observer.warn(
                fmt::format("the database in {} has no password; set one with `fstore passwd`",
                            place.describe()));
            return {};
        case Slot::Form::kRaw:
            observer.warn(
                fmt::format("the password of the database in {} is cheap to guess; protect it with "
                            "`fstore passwd`",
                            place.describe()));
            break;
        case Slot::Form::kScrypt:
            break;
    }
    return deriveP(slot, observer.password());
}

}  // namespace fstore
