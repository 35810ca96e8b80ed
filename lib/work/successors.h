// Which certificates and CRLs have been renewed, so that nobody waits for them any more.
//
// A certificate is superseded when another one is in force that began later, has at least its
// names, and whose key is in the database. The issuer plays no part, nor does the algorithm. Names
// are the subject alternative names; of a certificate without any the subject. What is of a CA is
// superseded by what is of a CA.
//
// A CRL is superseded when a newer one of its issuer is in the database: of the same name and,
// where both name one, the same key.
//
// What is encrypted, and was not decrypted, supersedes nothing and is not superseded.
//
// For one thread. Failures throw.
#ifndef LIB_WORK_SUCCESSORS_H
#define LIB_WORK_SUCCESSORS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lib/base/time.h"
#include "lib/database/database.h"
#include "lib/records/record_info.h"
#include "lib/work/find.h"

namespace fstore {

// The records that others can be superseded by, and that keys, requests and certificates are told
// apart by: keys, requests, CRLs, and certificates whose key is here. In a database that is
// entered, with secrets if encrypted parts are to be looked at. None if there are more than `most`.
std::vector<RecordInfo> ownRecords(Database& database, bool secrets, std::size_t most);

class Successors {
public:
    // None supersedes anything.
    Successors() = default;

    // Among all records of a database, or all that are one's own.
    static Successors among(const std::vector<RecordInfo>& records, std::int64_t time = now());

    // What supersedes it; of several what began last. Null for none. Lives as long as this.
    const RecordInfo* find(const RecordInfo& info) const;

private:
    void add(RecordInfo info, std::int64_t time);
    const RecordInfo* findCertificate(const RecordInfo& info) const;
    const RecordInfo* findCrl(const RecordInfo& info) const;

    std::vector<RecordInfo> all_;
    // Certificates by each of their names, CRLs by their issuers; by index in all_.
    std::multimap<std::string, std::size_t> byName_, byIssuer_;
};

// The certificates and CRLs that are superseded and have expired, and so serve nobody: of a CRL
// only if its successor says all that it says, for the same certificates and with a signature of
// the same issuer, as far as that is known. By address.
//
// A step of withSecrets(): asks for secrets if certificates, keys or CRLs are encrypted.
struct Prunable {
    std::vector<RecordInfo> records;
    std::vector<Failure> leftOut;  // what could not be read
};
Prunable findPrunable(Database& database);

}  // namespace fstore

#endif  // LIB_WORK_SUCCESSORS_H
