// How keys stand: whether a certificate is there, and whether one is asked for.
//
// For one thread; needs no database.
#ifndef LIB_WORK_KEY_STATES_H
#define LIB_WORK_KEY_STATES_H

#include <map>
#include <string>
#include <vector>

#include "lib/records/record_info.h"

namespace fstore {

struct KeyState {
    // The certificate of the key that began last, and its newest request; null for none.
    const RecordInfo* certificate = nullptr;
    const RecordInfo* request = nullptr;
    // No certificate that somebody else signed has come for it since.
    bool isOpen = false;
};

class KeyStates {
public:
    KeyStates() = default;
    // Of the keys among all records of a database, or all that are one's own; they stay where they
    // are.
    explicit KeyStates(const std::vector<RecordInfo>& records);

    // That of the key, or of the key of a certificate or request; null if the key is not here.
    const KeyState* find(const RecordInfo& info) const;

private:
    std::map<std::string, KeyState> states_;  // by the digest of the public key
};

}  // namespace fstore

#endif  // LIB_WORK_KEY_STATES_H
