// The records that a URI stands for; above all those that serve a host now, whatever they are
// called: a record's name has its digest, so that what names a record breaks with each renewal.
//
// Of the certificates that are in force, whose names cover the host, whose key is in the database
// and which no CRL in the database revokes, it is
//
//     1. one with the name itself before one with a wildcard for it,
//     2. the one that began last,
//     3. the one that ends last,
//     4. the one with the smaller digest.
//
// Names are those of the subjectAltName: a common name does not count, as for browsers. A wildcard
// stands for one label, in front of two others or more. A CRL is one that the certificate's
// issuer signed, however old; one of its name counts, too, if the issuer is not in the database
// (lib/pki/revocation.h).
//
// For one thread, in a database that is entered: steps of withSecrets(), which ask for secrets if
// certificates, CRLs or what is known of keys are encrypted. Failures throw.
#ifndef LIB_WORK_SELECT_H
#define LIB_WORK_SELECT_H

#include <string>
#include <vector>

#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/records/record_info.h"
#include "lib/work/uri.h"

namespace fstore {

struct Selected {
    RecordInfo key, certificate;
    std::vector<RecordInfo> issuers;    // of the certificate, its own first; only if type asks
    std::vector<Failure> leftOut;       // records that could not be read, and might have been meant
    std::vector<std::string> warnings;  // what else deserves attention: a sentence each
};

//   kMissing    no certificate fits; the sentence counts those that nearly do, by what they lack
//   kMalformed  the certificate, or a CRL that may revoke it, is damaged
Selected select(Database& database, const Selector& selector);

// Whether one of the certificate's names covers the host, which hostNameOf() has returned.
bool covers(const RecordInfo& certificate, const std::string& host);

// The record that serves the host: the key for kKey, the certificate for every other type.
const RecordInfo& mainOf(const Selected& selected, Selector::Type type);

// What a URI stands for, in the order in which programs load it.
struct Meaning {
    bool isFolder = false;
    std::vector<RecordInfo> records;  // of a pair the key, the certificate, its issuers
    std::vector<Failure> leftOut;     // as of Selected, or of the folder
};

// An address means its record; what is the address of no record may be a folder.
//
//   kMissing, kInvalid, kMalformed  as select() and resolve()
Meaning meaningOf(Database& database, const RecordUri& uri);

}  // namespace fstore

#endif  // LIB_WORK_SELECT_H
