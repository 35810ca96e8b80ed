// Whether CRLs revoke a certificate.
//
// A CRL counts if it is of the certificate's issuer: by its name, where both name one by its key,
// and by its signature, which the key of the certificate's issuer has to verify. Where no issuer is
// known, there is nothing to verify with, and name and key are enough. Its times do not matter: a
// revocation does not lapse. Only one "on hold" does, once a newer CRL no longer lists the
// certificate, or takes it off.
//
// For one thread. Failures throw.
#ifndef LIB_PKI_REVOCATION_H
#define LIB_PKI_REVOCATION_H

#include <memory>
#include <span>
#include <vector>

#include "cmn/secret_bytes.h"

namespace fstore {

class Revocation {
public:
    // `known` may have issued the certificate; what is damaged has not.
    //
    //   kMalformed  no certificate; or it has too many possible issuers (lib/pki/verifier.h)
    Revocation(std::span<const unsigned char> certificate, const std::vector<SecretBytes>& known);
    Revocation(const Revocation&) = delete;
    Revocation& operator=(const Revocation&) = delete;
    ~Revocation();

    enum class Use {
        kCounts,
        kElsewhere,  // of another issuer, or of another key of this one
        kUnverified  // it says that it is of this issuer, and its signature is not
    };

    // Verifies one signature at most. Throws kMalformed when it cannot be decoded.
    Use add(std::span<const unsigned char> crl);

    // By the CRLs that were added and count.
    bool isRevoked() const;

private:
    struct State;
    const std::unique_ptr<State> state_;
};

}  // namespace fstore

#endif  // LIB_PKI_REVOCATION_H
