#include "lib/pki/signature.h"

#include <openssl/objects.h>

#include "lib/pki/ossl.h"

namespace fstore {

std::string brokenDigestOf(std::span<const unsigned char> certificate) {
    const ossl::QuietErrors quiet;
    const unsigned char* at = certificate.data();
    const ossl::Certificate decoded(d2i_X509(nullptr, &at, static_cast<long>(certificate.size())));
    int digest = NID_undef;
    if (!decoded ||
        X509_get_signature_info(decoded.get(), &digest, nullptr, nullptr, nullptr) != 1) {
        return {};
    }
    const bool isBroken = digest == NID_sha1 || digest == NID_md5 || digest == NID_md4 ||
                          digest == NID_md2 || digest == NID_mdc2;
    return isBroken ? OBJ_nid2sn(digest) : std::string();
}

}  // namespace fstore
