// Whether a certificate holds: OpenSSL's own verification, against certificates and CRLs that are
// given, and the reason why not, in one sentence.
//
// For one thread. Failures throw.
#ifndef LIB_PKI_VERIFY_H
#define LIB_PKI_VERIFY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/base/time.h"

namespace fstore {

struct VerifyRules {
    enum class Purpose { kAny, kServer, kClient, kEmail, kTimestamp };

    std::int64_t time = now();  // at which it should be good
    Purpose purpose = Purpose::kAny;
    // Each certificate of the chain but the root needs a CRL that is in force, too. Without it, a
    // CRL revokes what it lists, however old it is (lib/pki/revocation.h), and may be missing.
    bool needsCrls = false;
};

struct Verdict {
    std::string why;                    // why it does not hold, without a full stop; empty: it does
    std::vector<std::size_t> chain;     // its issuers, by index, as far as they were found
    std::optional<std::int64_t> until;  // when the first of certificate and issuers ends
};

class ChainVerifier {
public:
    // The self-signed ones among the certificates are roots: whoever stores them trusts them. What
    // is damaged issues and revokes nothing. The bytes live longer than this.
    ChainVerifier(const std::vector<SecretBytes>& certificates,
                  const std::vector<SecretBytes>& crls, const VerifyRules& rules);
    ChainVerifier(const ChainVerifier&) = delete;
    ChainVerifier& operator=(const ChainVerifier&) = delete;
    ~ChainVerifier();

    // Throws kMalformed for what is no certificate.
    Verdict verify(std::span<const unsigned char> certificate) const;

private:
    struct State;
    const std::unique_ptr<State> state_;
};

}  // namespace fstore

#endif  // LIB_PKI_VERIFY_H
