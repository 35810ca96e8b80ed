// Certificate requests (PKCS#10) and self-signed certificates for keys that are here.
//
// Any thread may call any of these. Failures throw.
#ifndef LIB_PKI_REQUEST_H
#define LIB_PKI_REQUEST_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "lib/pki/ossl.h"
#include "lib/records/attributes.h"

namespace fstore {

// No request may have more names: no authority that is known signs so many.
inline constexpr std::size_t kMostNames = 1000;

// What is asked for, as a user writes it.
struct RequestText {
    std::string subject;  // as distinguishedName() reads it
    // "DNS:www.example.com", "IP:192.0.2.1", "email:me@example.com" or "URI:https://example.com/".
    std::vector<std::string> altNames;
    // "digitalSignature", "keyCertSign" and the like of what a key is for, "serverAuth",
    // "clientAuth" and the like of what a certificate is for; several with commas between them.
    std::vector<std::string> usages;
    bool isCa = false;
};

// What a request asks for and a certificate says: of whom it is, and what for.
class RequestContent {
public:
    // Throws kInvalid for what cannot be read, for too many names, and for no name at all.
    explicit RequestContent(const RequestText& text);

    // The names, usages and constraints of a certificate or a request; what else it says is left
    // to who signs. Throws kMalformed when it is damaged, and kInvalid for another kind.
    RequestContent(Kind kind, std::span<const unsigned char> der);

    // Whether it names no host, only a holder: programs that look for a host's name pass it over.
    bool hasAltNames() const noexcept;

    // In DER, signed with this key in PKCS#8. Throws kMalformed for a damaged key, and kInvalid
    // for one that cannot sign.
    SecretBytes request(std::span<const unsigned char> pkcs8) const;
    // From now on, and with a number drawn at random.
    SecretBytes selfSigned(std::span<const unsigned char> pkcs8, unsigned int days) const;

private:
    ossl::Name subject_;
    ossl::Extensions extensions_;
};

}  // namespace fstore

#endif  // LIB_PKI_REQUEST_H
