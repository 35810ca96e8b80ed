// The ciphers that OpenSSL has set aside.
#ifndef LIB_PKI_OLD_CIPHERS_H
#define LIB_PKI_OLD_CIPHERS_H

#include <string>

#include <openssl/provider.h>
#include <openssl/x509.h>

#include "lib/pki/ossl.h"

namespace fstore {

// Files of older programs are encrypted with RC2, which is there while this lives. Where that part
// of OpenSSL is not installed, such files fail to open. Any thread may make one.
class OldCiphers {
public:
    OldCiphers();

private:
    using Provider = ossl::Owner<OSSL_PROVIDER, OSSL_PROVIDER_unload>;
    // The old ones ask the usual ones for digests, and find only those that were loaded by name.
    Provider usual_;
    Provider old_;
};

// The name of the cipher of an older algorithm, PBES1, if OpenSSL does not have it now; empty
// if it does, and for any other algorithm.
std::string missingCipherOf(const X509_ALGOR& algorithm);

}  // namespace fstore

#endif  // LIB_PKI_OLD_CIPHERS_H
