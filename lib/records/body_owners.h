// Whose a body file is, asked before a record that names it is overwritten or removed.
//
// The store deletes the body that a record's descriptor names. Two descriptors name the same body
// when somebody has copied one: a file synchroniser that found a conflict, or an attacker. The body
// of the other record would be gone then. So before the store is asked, the other descriptors of
// the folder are read: once for a command, since what a command writes gets a body of a new name.
//
// For one thread, which keeps other processes out. Failures throw.
#ifndef LIB_RECORDS_BODY_OWNERS_H
#define LIB_RECORDS_BODY_OWNERS_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lib/records/address.h"

namespace fstore {

class BodyOwners {
public:
    // Why the body of this record may be another's, as a sentence about it: "is named by b.dsc
    // too". None when it is the record's own, or when there is no such record or no body.
    std::optional<std::string> doubtAbout(const Address& address);

    // Throws kMalformed, with a way out, when there is a doubt.
    void requireOwn(const Address& address);

private:
    // What a folder's descriptors say, whatever marker they have.
    struct Folder {
        std::map<std::string, std::vector<std::string>> namedBy;  // body: descriptors
        std::vector<std::string> unreadable;                      // descriptors
    };

    const Folder& folderOf(const std::string& folder);

    std::map<std::string, Folder> folders_;
};

}  // namespace fstore

#endif  // LIB_RECORDS_BODY_OWNERS_H
