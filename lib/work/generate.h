// Keys that are made inside of the database, requests for certificates of keys that are there, and
// certificates that such a key signs for itself.
//
// For one thread, in a database that is not entered: each enters it itself, and not while a key is
// made. Failures throw.
#ifndef LIB_WORK_GENERATE_H
#define LIB_WORK_GENERATE_H

#include <optional>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/database/database.h"
#include "lib/pki/new_key.h"
#include "lib/pki/request.h"
#include "lib/work/import.h"

namespace fstore {

struct GenerateRules {
    std::string name;   // of the records, each in the folder of its kind
    std::string label;  // of all of them; may be empty
    KeyType type;
    bool request = false;
    std::optional<int> selfSignedDays = {};
    RequestText content = {};  // of the request and the certificate
};

// What was stored, in this order: the key, the certificate, the request.
struct Generated {
    std::vector<Importer::Result> records;
    SecretBytes request;       // in DER; empty if there is none
    bool namesNoHost = false;  // what was made has no alternative name, and is not of a CA
};

// An alternative name as users write it: with its kind in front, or a host's name or address alone.
// Throws kInvalid as hostNameOf() does.
std::string altNameOf(const std::string& text);

// Makes a key and what the rules ask for, and stores them as import does: the key encrypted, first
// of all. When it is broken off, the key may be there alone, and requestFor() goes on with it.
//
//   kInvalid      a name cannot be one, or a record has it already; or as RequestContent
//   kInterrupted  the observer says so while the key is made; nothing was stored
//   kNotOpen      the database cannot keep secrets
Generated generate(Database& database, const GenerateRules& rules);

// Makes a new request for the key of this address or, as a name alone, in the folder of keys, and
// stores it under the key's name. With no content it asks for what the key's certificate that began
// last says, or else the newest request of the key. An older request of this name and key is
// replaced.
//
//   kMissing    there is no such key, or nothing to be like
//   kInvalid    it is not a key, or cannot sign; another record has the name; or as RequestContent
//   kMalformed  the key, or what the request should be like, is damaged
Generated requestFor(Database& database, const std::string& key,
                     const std::optional<RequestText>& content);

}  // namespace fstore

#endif  // LIB_WORK_GENERATE_H
