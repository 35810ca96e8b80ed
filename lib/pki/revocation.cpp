#include "lib/pki/revocation.h"

#include "lib/base/error.h"
#include "lib/pki/ossl.h"

namespace fstore {
namespace {

// An issuer that renews its key signs CRLs for each of its keys.
bool isOfKey(X509_CRL* crl, X509* certificate) {
    const ossl::AuthorityKeyId authority(static_cast<AUTHORITY_KEYID*>(
        X509_CRL_get_ext_d2i(crl, NID_authority_key_identifier, nullptr, nullptr)));
    const ASN1_OCTET_STRING* const wanted = X509_get0_authority_key_id(certificate);
    if (authority == nullptr || authority->keyid == nullptr || wanted == nullptr) {
        return true;
    }
    return ASN1_OCTET_STRING_cmp(authority->keyid, wanted) == 0;
}

}  // namespace

bool revokes(std::span<const unsigned char> crl, std::span<const unsigned char> certificate) {
    const ossl::QuietErrors quiet;
    const auto list = ossl::decodeWhole<ossl::Crl, d2i_X509_CRL>(crl);
    const auto subject = ossl::decodeWhole<ossl::Certificate, d2i_X509>(certificate);
    if (list == nullptr || subject == nullptr) {
        throw Failure(kMalformed, list == nullptr ? "not a CRL, or a damaged one"
                                                  : "not a certificate, or a damaged one");
    }
    constexpr int kListed = 1;  // 2 for one that a later list takes off again
    X509_REVOKED* entry = nullptr;
    return X509_NAME_cmp(X509_CRL_get_issuer(list.get()), X509_get_issuer_name(subject.get())) ==
               0 &&
           isOfKey(list.get(), subject.get()) &&
           X509_CRL_get0_by_cert(list.get(), &entry, subject.get()) == kListed;
}

}  // namespace fstore
