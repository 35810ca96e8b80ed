// Certificates and CRLs as a test wants them, made in memory.
#ifndef TESTS_LIB_PKI_MADE_CERTIFICATES_H
#define TESTS_LIB_PKI_MADE_CERTIFICATES_H

#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "cmn/secret_bytes.h"

namespace fstore {

using TestKey = std::shared_ptr<EVP_PKEY>;

// "ED25519", "EC" for P-256, or "RSA" with 2048 bits.
TestKey makeKey(const std::string& algorithm = "ED25519");
SecretBytes pkcs8Of(const TestKey& key);

struct CertificatePlan {
    std::string subject = "subject", issuer = "issuer";  // common names
    TestKey key = {}, issuerKey = {};
    std::string altNames = {};        // "DNS:www.example.com,IP:192.0.2.1"
    long fromDays = -1, toDays = 90;  // from now
    long serial = 1;
    bool isCa = false;
};

SecretBytes makeCertificate(const CertificatePlan& plan);

struct CrlPlan {
    long number = 0;         // none if 0
    long fromDays = -1;      // from now
    long reason = -1;        // of each entry, as in RFC 5280; -1 for none
    bool isDelta = false;    // to the CRL with number 1
    std::string scope = {};  // a distribution point's URI; empty for all certificates
};

// A CRL of this issuer that lists these serial numbers.
SecretBytes makeCrl(const std::string& issuer, const TestKey& issuerKey,
                    const std::vector<long>& serials, const CrlPlan& plan = {});

}  // namespace fstore

#endif  // TESTS_LIB_PKI_MADE_CERTIFICATES_H
