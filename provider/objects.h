// What is asked of an object behind a URI: its public key, and whether it is the one that a program
// looks for.
//
// For one thread. Failures throw.
#ifndef PROVIDER_OBJECTS_H
#define PROVIDER_OBJECTS_H

#include <optional>
#include <span>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core.h>
#include <openssl/crypto.h>

#include "ossl/owner.h"
#include "provider/session.h"

namespace provider {

using Bytes = std::vector<unsigned char>;
using LibraryContext = ossl::Owner<OSSL_LIB_CTX, OSSL_LIB_CTX_free>;

// SubjectPublicKeyInfo of a certificate or private key. `context` has OpenSSL's own provider and
// nothing else: the program's may have us in front of it.
Bytes publicKeyOf(const Object& object, OSSL_LIB_CTX* context);

// One of the criteria of OSSL_STORE_find().
class Search {
public:
    // Takes over what the parameters say. False when they cannot be read.
    bool set(const OSSL_PARAM* parameters);

    bool isEmpty() const noexcept { return !subject_ && !issuer_ && !fingerprint_ && !alias_; }
    // Whether it can be decided by what is known of the record alone.
    bool isByAlias() const noexcept { return alias_.has_value(); }
    bool matchesAlias(const Entry& entry) const;

    // Whether a certificate or CRL is the one: by the name of its subject (of a CRL its issuer), by
    // issuer and serial number, or by the digest of a certificate or of its public key. Never a
    // private key, which would have to be decrypted to be looked at.
    bool matches(const Object& object) const;

private:
    std::optional<Bytes> subject_, issuer_, fingerprint_;
    std::optional<std::string> alias_;
    ossl::Owner<BIGNUM, BN_free> serial_;
    std::string digest_ = "SHA256";
};

}  // namespace provider

#endif  // PROVIDER_OBJECTS_H
