// The import of objects into records: the folder and name of each, and which of them are in
// the database already.
//
// For one thread, in a database that is entered for changes, and open where secrecy is wanted.
// Failures throw.
#ifndef LIB_WORK_IMPORT_H
#define LIB_WORK_IMPORT_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lib/database/database.h"
#include "lib/pki/decode.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"

namespace fstore {

struct ImportRules {
    std::optional<std::string> folder = {};  // for all objects
    std::optional<std::string> name = {};
    std::string label = {};  // for all objects; empty for the file's own
    bool replace = false;    // another object with the name, or the same object
    bool encrypt = false;    // not only keys
    // Whether the password is at hand, so that what is there encrypted is compared with the objects
    // even if none of them needs it.
    bool unlock = false;
    // Whether a user gave the name, who means other records with one that is a pattern of theirs.
    bool refusesPatterns = false;
};

// Throws kInvalid when the name in the rules cannot be one.
void requireName(const ImportRules& rules);

// Where a part of the input comes in the order of the import: keys first, so that a certificate
// finds its own in the database, also when the import is broken off between the two.
int importRank(const PkiPart& part);

// Whether an object must be kept secret under these rules.
bool wantsSecrecy(const PkiObject& object, const ImportRules& rules);

// Enters the database as the import of these objects needs it. Throws kNotOpen when one of them is
// secret, and the database cannot keep secrets.
Hold enterForImport(Database& database, const ImportRules& rules,
                    const std::vector<const PkiObject*>& objects);

class Importer {
public:
    // Reads the records that may be one of them or have their key. `objects` are those that will be
    // imported, in any order; throws kInvalid if the one name in the rules does not suit them.
    Importer(Database& database, ImportRules rules, const std::vector<const PkiObject*>& objects);

    enum class Outcome {
        kAdded,
        kPresent,   // the same object was there, and nothing changed
        kMoved,     // it was there as a certificate without key, and has one now
        kReplaced,  // overwritten
    };
    struct Result {
        Outcome outcome;
        RecordInfo record;
    };

    // Keys first: a certificate is local when its key is in the database by then. If this
    // throws, what was imported before stays.
    Result import(const PkiObject& object, const std::string& fileLabel);

private:
    using Identity = std::pair<Kind, std::string>;  // the digest in hexadecimal digits

    // Reads a record that is there.
    void learn(const Address& address);
    void learnDamaged(const Address& address);
    bool isKnown(const Identity& identity) const;
    // Adds the record of this description to the index, and returns it.
    RecordInfo index(RecordInfo info, bool isHidden);
    // Says what stays in plain form although the object is to be kept encrypted.
    void warnOfPlain(const PkiObject& object, const std::vector<Address>& places);
    void warnOfDamaged(const Identity& identity);
    // Throws that its records have lost their bodies.
    [[noreturn]] static void refuseDamaged(const PkiObject& object, const Address& place);
    std::string obstacleAt(const Address& address) const;
    bool hasKey(const PkiObject& object) const;
    Address addressFor(const PkiObject& object, const std::string& label) const;
    void fill(Record& record, const PkiObject& object, const std::string& label,
              bool encrypt) const;
    Result add(const PkiObject& object, const std::string& label, Address address);
    Result replace(const PkiObject& object, const std::string& label, const Address& address);
    // A new record with what is left of a damaged one, and whether that hid what it was.
    std::pair<Record, bool> restOf(const Address& address);
    std::optional<Result> moveToKey(std::vector<Address>& places);

    Database& database_;
    ImportRules rules_;
    BodyOwners owners_{Lookup::current()};
    std::map<Identity, std::vector<Address>> present_;
    std::map<Identity, std::vector<Address>> damaged_;  // their bodies are missing or unreadable
    std::set<Address> hidden_;    // those that are encrypted with what describes them
    std::set<Kind> kinds_;        // of the objects
    std::size_t unknown_ = 0;     // records that may be one of them, and cannot be read
    std::set<std::string> keys_;  // digests of public keys whose private keys we have
    std::string named_;           // digest of the public key of what gets the one name
    const PkiObject* namedAlone_ = nullptr;
};

const char* nameOf(Importer::Outcome outcome);  // "added", "present", "moved", "replaced"

}  // namespace fstore

#endif  // LIB_WORK_IMPORT_H
