// The verification of certificates of the database, by OpenSSL, against the others and the CRLs.
//
// For one thread, in a database that is entered: steps of withSecrets(), which ask for secrets if
// what is looked at has some. Failures throw.
#ifndef LIB_WORK_VERIFY_H
#define LIB_WORK_VERIFY_H

#include <optional>
#include <string>
#include <vector>

#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/pki/verify.h"
#include "lib/records/record_info.h"

namespace fstore {

struct Verified {
    RecordInfo info;
    std::string why;                    // why it does not hold; empty: it does, but for a doubt
    std::string doubt;                  // why it is not known whether it holds; empty: it is
    std::vector<RecordInfo> issuers;    // its own first, as far as they were found
    std::optional<std::int64_t> until;  // when the first of them ends
};

struct Verification {
    std::vector<Verified> certificates;
    std::vector<Failure> leftOut;  // what could not be read, and might have mattered
};

// Verifies the certificates that the texts mean, in their order, or for none all of the database,
// by address.
//
//   kMissing, kInvalid  there is no such record, several are meant, or it is no certificate
Verification verifyCertificates(Database& database, const std::vector<std::string>& texts,
                                const VerifyRules& rules);

}  // namespace fstore

#endif  // LIB_WORK_VERIFY_H
