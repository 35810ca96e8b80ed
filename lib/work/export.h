// Objects in the forms in which other programs read them.
//
// Two steps, so that a password for the result can be asked for while nothing is locked:
//
//     const Selection selection = withSecrets(
//         database, Access::kRead, [&] { return selectForExport(database, resolve("server"),
//         rules); });
//     const SecretBytes bytes = encode(selection, rules, password);
//
// For one thread. Failures throw.
#ifndef LIB_WORK_EXPORT_H
#define LIB_WORK_EXPORT_H

#include <optional>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/error.h"
#include "lib/base/secret.h"
#include "lib/database/database.h"
#include "lib/pki/issuer_paths.h"
#include "lib/records/record_info.h"

namespace fstore {

struct ExportRules {
    enum class Format { kPem, kDer, kPkcs12, kPkcs7 };

    Format format = Format::kPem;
    bool chain = false;  // with the certificate's issuers, up to the root
    bool plain = false;  // a key or PKCS#12 is not encrypted
};

// Throws kUsage for rules that contradict each other.
void refuseRules(const ExportRules& rules);

// What is exported: the object of an address, and what goes with it.
struct Selection {
    RecordInfo info;                        // of the address
    std::optional<SecretBytes> key;         // PKCS#8
    std::vector<SecretBytes> certificates;  // the key's own first, then its issuers
    SecretBytes other;                      // a CRL or request
    IssuerPath::End chainEnd = IssuerPath::End::kRoot;
    std::vector<Failure> leftOut;       // damaged records that might have gone with it
    std::vector<std::string> warnings;  // what else is to be said of the chain
};

// The object of the record. With a key, in PKCS#12 or with a chain, goes its certificate,
// with a certificate in PKCS#12 its key; of several the one that expires last. Each is compared
// with the attributes and the digest of its record.
//
// A step of withSecrets(), in a database that is entered: asks for secrets if one of the records
// has some.
//
//   kMissing    there is no such record
//   kInvalid    it has no such form
//   kMalformed  the record does not match its object; or as chainOf()
//   kUsage      as refuseRules()
Selection selectForExport(Database& database, const Address& address, const ExportRules& rules);

// What deserves attention although the export can go on: a sentence each.
std::vector<std::string> warningsOf(const Selection& selection);

// Whether the result is encrypted, and so needs a password.
bool isEncrypted(const Selection& selection, const ExportRules& rules);

// The bytes for other programs. The password is null unless isEncrypted(). Needs no database.
SecretBytes encode(const Selection& selection, const ExportRules& rules,
                   const SecretText* password);

}  // namespace fstore

#endif  // LIB_WORK_EXPORT_H
