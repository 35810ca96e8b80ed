// The change of the database's password, so that one of the two passwords opens all of
// it whenever the change is broken off.
//
//     1  read and decrypt everything: what does not decrypt would stay behind unseen
//     2  write "kdf" with the old and the new slot
//     3  let the store re-encrypt a copy and swap it in
//     4  make that durable
//     5  open with the new password, decrypt everything, compare; when that fails, the
//        old folder goes back in place
//     6  drop "./old_db", unless it is to be kept: renamed first, so that it is never
//        there in part
//     7  write "kdf" with the new slot only
//
// Until step 7 "kdf" has two slots, and the record "key" says which is in force. When
// it is the old one, the next command that locks exclusively drops the other slot and
// "./new_db". When it is the new one, the next command that opens the database does
// steps 4 to 7. The old folder is dropped before the old slot, since a folder that is
// left over with one slot could as well be one that was to be kept.
#ifndef FSTORE_PASSWORD_CHANGE_H
#define FSTORE_PASSWORD_CHANGE_H

#include "fstore/session.h"
#include "lib/database/kdf_record.h"

namespace fstore {

// Steps 1 to 7. The session is open for changes; afterwards it is open with the new
// password. Throws kFound when step 1 finds damage.
void changePassword(Session& session, NewSlot fresh, bool keepOld);

// Steps 4 to 7, for a session that is open for changes with the new password.
void finishPasswordChange(Session& session);

}  // namespace fstore

#endif  // FSTORE_PASSWORD_CHANGE_H
