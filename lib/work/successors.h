// Which certificates and CRLs have been renewed, so that nobody waits for them any more.
//
// A certificate is superseded when another one is in force that began later, has at least its
// names, usages and purposes, whose key is in the database, and which no CRL there revokes. The
// issuer plays no part, nor does the algorithm. Names are the subject alternative names; of a
// certificate without any the subject. What is of a CA is superseded by what is of a CA, and has
// its key: others were signed with that.
//
// A CRL is superseded when one that began later is in force and replaces it (lib/pki/renewal.h),
// both signed by a CA whose certificate is in the database.
//
// What is encrypted, and was not decrypted, supersedes nothing and is not superseded; nor does what
// is damaged, or described by its record otherwise than it is.
//
// For one thread. Failures throw.
#ifndef LIB_WORK_SUCCESSORS_H
#define LIB_WORK_SUCCESSORS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/error.h"
#include "lib/base/time.h"
#include "lib/database/database.h"
#include "lib/pki/renewal.h"
#include "lib/records/record_info.h"
#include "lib/work/find.h"

namespace fstore {

// The records that others can be superseded by, and that keys, requests and certificates are told
// apart by: keys, requests, CRLs, and certificates of CAs and those whose key is here. In a
// database that is entered, with secrets if encrypted parts are to be looked at. None if there are
// more than `most`.
std::vector<RecordInfo> ownRecords(Database& database, bool secrets, std::size_t most);

class Successors {
public:
    // None supersedes anything.
    Successors() = default;

    // Among all records of a database, or all that are one's own. The database stays entered while
    // find() is called, which reads what may supersede or be superseded, each once.
    static Successors among(Database& database, const std::vector<RecordInfo>& records,
                            std::int64_t time = now());

    // What supersedes it; of several what began last. Null for none. Lives as long as this.
    const RecordInfo* find(const RecordInfo& info);

    // What find() could not read, and so took for current.
    const std::vector<Failure>& unread() const { return unread_; }

private:
    using Serials = std::set<std::vector<unsigned char>>;

    void add(RecordInfo info, std::int64_t time);
    const RecordInfo* findCertificate(const RecordInfo& info);
    const RecordInfo* findCrl(const RecordInfo& info);
    const CrlTraits* crlTraits(const RecordInfo& crl);
    const CertificateTraits* certificateTraits(const RecordInfo& certificate);
    bool mayBeRevoked(const RecordInfo& certificate);
    bool askLists(const RecordInfo& certificate);
    const std::optional<Serials>& listedBy(const std::string& issuer);
    template <class Use>
    bool read(const RecordInfo& info, Use use);
    const std::vector<SecretBytes>& issuersCalled(const std::string& name);

    Database* database_ = nullptr;
    std::vector<RecordInfo> all_;
    std::vector<RecordInfo> vouching_;  // certificates of CAs, and all CRLs
    // Certificates by each of their names, CRLs by their issuers; by index in all_.
    std::multimap<std::string, std::size_t> byName_, byIssuer_;
    // What was read. None of what cannot be read.
    std::map<Address, std::optional<CrlTraits>> crls_;
    std::map<Address, std::optional<CertificateTraits>> certificates_;
    std::map<Address, bool> revoked_;
    std::map<std::string, std::optional<Serials>> listed_;  // in CRLs of the issuer of this name
    std::map<std::string, std::vector<SecretBytes>> ders_;  // of the issuers of this name
    std::vector<Failure> unread_;
};

// The certificates and CRLs that are superseded and have expired, and so serve nobody. By address.
//
// A step of withSecrets(): asks for secrets if certificates, keys or CRLs are encrypted.
struct Prunable {
    std::vector<RecordInfo> records;
    std::vector<Failure> leftOut;  // what could not be read
};
Prunable findPrunable(Database& database);

}  // namespace fstore

#endif  // LIB_WORK_SUCCESSORS_H
