#include "tests/lib/pki/made_certificates.h"

#include <stdexcept>

#include <openssl/x509v3.h>

#include "lib/pki/ossl.h"

namespace fstore {
namespace {

void must(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

using Name = ossl::Owner<X509_NAME, X509_NAME_free>;
using Time = ossl::Owner<ASN1_TIME, ASN1_TIME_free>;

Name nameOf(const std::string& commonName) {
    Name name(X509_NAME_new());
    must(X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                    -1, 0) == 1,
         "name");
    return name;
}

Time inDays(long days) {
    constexpr long kDay = 24L * 60 * 60;
    return Time(X509_gmtime_adj(nullptr, days * kDay));
}

void addExtension(X509* certificate, int kind, const std::string& value) {
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str());
    must(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "extension");
    X509_EXTENSION_free(extension);
}

const EVP_MD* digestFor(const TestKey& key) {
    return EVP_PKEY_is_a(key.get(), "ED25519") == 1 ? nullptr : EVP_sha256();
}

template <auto Encode, class T>
SecretBytes derOf(const T* object) {
    unsigned char* bytes = nullptr;
    const int size = Encode(object, &bytes);
    must(size > 0, "encoding");
    SecretBytes der(bytes, bytes + size);
    OPENSSL_free(bytes);
    return der;
}

void addNumber(X509_CRL* crl, int nid, long value) {
    const ossl::Integer number(ASN1_INTEGER_new());
    must(ASN1_INTEGER_set(number.get(), value) == 1 &&
             X509_CRL_add1_ext_i2d(crl, nid, number.get(), 0, 0) == 1,
         "number");
}

void addExtensions(X509_CRL* crl, const CrlPlan& plan) {
    if (plan.number != 0) {
        addNumber(crl, NID_crl_number, plan.number);
    }
    if (plan.isDelta) {
        addNumber(crl, NID_delta_crl, 1);
    }
    if (!plan.scope.empty()) {
        const ossl::Owner<X509_EXTENSION, X509_EXTENSION_free> extension(
            X509V3_EXT_conf_nid(nullptr, nullptr, NID_issuing_distribution_point,
                                ("critical,fullname:URI:" + plan.scope).c_str()));
        must(extension != nullptr && X509_CRL_add_ext(crl, extension.get(), -1) == 1, "scope");
    }
}

}  // namespace

TestKey makeKey(const std::string& algorithm) {
    EVP_PKEY* key = nullptr;
    if (algorithm == "EC") {
        key = EVP_EC_gen("P-256");
    } else if (algorithm == "RSA") {
        key = EVP_RSA_gen(2048);
    } else {
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, algorithm.c_str());
    }
    must(key != nullptr, "key");
    return {key, EVP_PKEY_free};
}

SecretBytes pkcs8Of(const TestKey& key) {
    const ossl::KeyInfo info(EVP_PKEY2PKCS8(key.get()));
    return derOf<i2d_PKCS8_PRIV_KEY_INFO>(info.get());
}

SecretBytes makeCertificate(const CertificatePlan& plan) {
    const ossl::Certificate made(X509_new());
    X509* const certificate = made.get();
    const TestKey signer = plan.issuerKey != nullptr ? plan.issuerKey : plan.key;
    must(X509_set_version(certificate, 2) == 1 &&
             ASN1_INTEGER_set(X509_get_serialNumber(certificate), plan.serial) == 1 &&
             X509_set_subject_name(certificate, nameOf(plan.subject).get()) == 1 &&
             X509_set_issuer_name(certificate, nameOf(plan.issuer).get()) == 1 &&
             X509_set1_notBefore(certificate, inDays(plan.fromDays).get()) == 1 &&
             X509_set1_notAfter(certificate, inDays(plan.toDays).get()) == 1 &&
             X509_set_pubkey(certificate, plan.key.get()) == 1,
         "certificate");
    if (!plan.altNames.empty()) {
        addExtension(certificate, NID_subject_alt_name, plan.altNames);
    }
    if (plan.isCa) {
        addExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
    }
    must(X509_sign(certificate, signer.get(), digestFor(signer)) > 0, "signature");
    return derOf<i2d_X509>(certificate);
}

SecretBytes makeCrl(const std::string& issuer, const TestKey& issuerKey,
                    const std::vector<long>& serials, const CrlPlan& plan) {
    const ossl::Crl crl(X509_CRL_new());
    must(X509_CRL_set_version(crl.get(), 1) == 1 &&
             X509_CRL_set_issuer_name(crl.get(), nameOf(issuer).get()) == 1 &&
             X509_CRL_set1_lastUpdate(crl.get(), inDays(plan.fromDays).get()) == 1 &&
             X509_CRL_set1_nextUpdate(crl.get(), inDays(1).get()) == 1,
         "CRL");
    for (const long serial : serials) {
        X509_REVOKED* const entry = X509_REVOKED_new();
        const ossl::Integer number(ASN1_INTEGER_new());
        must(ASN1_INTEGER_set(number.get(), serial) == 1 &&
                 X509_REVOKED_set_serialNumber(entry, number.get()) == 1 &&
                 X509_REVOKED_set_revocationDate(entry, inDays(-1).get()) == 1 &&
                 X509_CRL_add0_revoked(crl.get(), entry) == 1,
             "entry");
        if (plan.reason >= 0) {
            const ossl::Enumerated reason(ASN1_ENUMERATED_new());
            must(ASN1_ENUMERATED_set(reason.get(), plan.reason) == 1 &&
                     X509_REVOKED_add1_ext_i2d(entry, NID_crl_reason, reason.get(), 0, 0) == 1,
                 "reason");
        }
    }
    addExtensions(crl.get(), plan);
    must(X509_CRL_sign(crl.get(), issuerKey.get(), digestFor(issuerKey)) > 0, "signature");
    return derOf<i2d_X509_CRL>(crl.get());
}

}  // namespace fstore
