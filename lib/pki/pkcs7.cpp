#include "lib/pki/pkcs7.h"

#include <string>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/ossl.h"
#include "lib/pki/pkcs12.h"

namespace fstore {
namespace {

void addPart(Kind kind, SecretBytes der, std::vector<PkiPart>& parts) {
    if (parts.size() == kMostParts) {
        throw Failure(kInvalid,
                      fmt::format("the PKCS#7 file has more than {} entries", kMostParts));
    }
    try {
        parts.push_back({0, "", readPkiObject(kind, std::move(der))});
    } catch (const Failure& failure) {
        parts.push_back({0, "", failure});
    }
}

}  // namespace

std::optional<std::vector<PkiPart>> partsOfPkcs7(std::span<const unsigned char> der) {
    const ossl::QuietErrors quiet;
    if (der.size() > kMostPkcs12) {
        return std::nullopt;
    }
    const auto file = ossl::decodeWhole<ossl::Pkcs7, d2i_PKCS7>(der);
    if (file == nullptr) {
        return std::nullopt;
    }
    std::vector<PkiPart> parts;
    if (PKCS7_type_is_signed(file.get()) && file->d.sign != nullptr) {
        const auto* const certificates = file->d.sign->cert;
        for (int i = 0; i < sk_X509_num(certificates); ++i) {
            addPart(Kind::kCertificate, ossl::encoded<i2d_X509>(sk_X509_value(certificates, i)),
                    parts);
        }
        const auto* const crls = file->d.sign->crl;
        for (int i = 0; i < sk_X509_CRL_num(crls); ++i) {
            addPart(Kind::kCrl, ossl::encoded<i2d_X509_CRL>(sk_X509_CRL_value(crls, i)), parts);
        }
    }
    if (parts.empty()) {
        throw Failure(kMalformed, "the PKCS#7 file has no certificates and no CRLs");
    }
    return parts;
}

}  // namespace fstore
