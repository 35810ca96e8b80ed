// Which certificates of the database issued another one, and which of them a CRL revokes.
//
// For one thread, in a database that is entered: within a step of withSecrets(), which asks for
// secrets if what is read has some. Failures throw.
#ifndef LIB_WORK_ISSUERS_H
#define LIB_WORK_ISSUERS_H

#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/database/database.h"
#include "lib/pki/chain.h"
#include "lib/records/record_info.h"
#include "lib/work/find.h"

namespace fstore {

// All records, decrypted where certificates, keys or CRLs do not show otherwise what they are. Asks
// for secrets then.
Listing listWithSecrets(Database& database);

// What of it could not be read.
std::vector<Failure> unreadOf(const Listing& listing);

// Whether its record says that it is in force at this time.
bool isInForce(const RecordInfo& certificate, std::int64_t time);

// A name for comparison: names that differ in nothing but capitals and blanks may be the same one.
std::string folded(std::string_view name);

// Of these records the certificates that may have issued it, directly or not, by their names: so
// few of a large database are read.
std::vector<RecordInfo> possibleIssuers(const RecordInfo& certificate,
                                        const std::vector<RecordInfo>& records);

// What the CRLs in the database revoke (lib/pki/revocation.h).
class Revocations {
public:
    // Of the records certificates and CRLs are looked at, and as much of them has to be known as
    // their subjects and issuers.
    Revocations(Database& database, const std::vector<RecordInfo>& records)
        : database_(database), records_(records) {}

    // Reads the CRLs of its issuer, and throws what readObject() throws of one that is damaged.
    bool revoke(const RecordInfo& certificate);

    void warn(const std::string& sentence) { warnings_.insert(sentence); }

    // Which CRLs do not count, and what chainAmong() has found: a sentence each.
    std::vector<std::string> warnings() const { return {warnings_.begin(), warnings_.end()}; }

private:
    std::vector<RecordInfo> listedUnder(Kind kind, std::string RecordInfo::*field,
                                        const std::string& name) const;
    std::vector<SecretBytes> issuersFor(const RecordInfo& certificate) const;

    Database& database_;
    const std::vector<RecordInfo>& records_;
    std::set<std::string> warnings_;
};

// The chain of the certificate by issuers of the database, of which `infos` and `ders` have one
// each. An issuer that is no good and goes in for want of a better one becomes a warning, and so
// does one of which nobody can say whether it is revoked.
Chain chainAmong(std::span<const unsigned char> certificate, const std::vector<RecordInfo>& infos,
                 const std::vector<SecretBytes>& ders, Revocations& revocations);

}  // namespace fstore

#endif  // LIB_WORK_ISSUERS_H
