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

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lib/base/name_list.h"
#include "lib/records/address.h"

namespace fstore {

// Who may know the descriptors that name a body without reading a folder.
class BodyNames {
public:
    // By the names of their files; also those that stand aside, but no leftovers of writes and
    // removals, which are nobody's records.
    struct Answer {
        std::vector<std::string> namedBy;
        std::vector<std::string> unreadable;  // may name it as well
    };

    BodyNames() = default;
    BodyNames(const BodyNames&) = delete;
    BodyNames& operator=(const BodyNames&) = delete;
    virtual ~BodyNames() = default;

    // None when that is not known, as the folder was changed since: then it is read.
    virtual std::optional<Answer> ask(const std::string& folder, const std::string& body) = 0;
};

class BodyOwners {
public:
    // Asks `known` first, if that is not null.
    explicit BodyOwners(BodyNames* known = nullptr) : known_(known) {}

    // Why the body of this record may be another's, as a sentence about it: "is named by b.dsc
    // too". None when it is the record's own, or when there is no such record or no body.
    std::optional<std::string> doubtAbout(const Address& address);

    // Throws kMalformed, with a way out, when there is a doubt.
    void requireOwn(const Address& address);

private:
    // What a folder's descriptors say, also those that stand aside. There may be millions.
    struct Folder {
        NameList files;                    // that name a body
        std::vector<std::uint64_t> named;  // beside them: its hash
        std::vector<std::string> unreadable;
    };

    BodyNames::Answer askFor(const std::string& folder, const std::string& body);
    const Folder& folderOf(const std::string& folder);

    BodyNames* const known_;
    std::map<std::string, Folder> folders_;
};

}  // namespace fstore

#endif  // LIB_RECORDS_BODY_OWNERS_H
