#include "lib/base/sha256.h"

#include "lib/base/error.h"

namespace fstore {
namespace {

void requireDigest(bool done) {
    if (!done) {
        throw Failure(kIo, "cannot compute a digest: OpenSSL does not offer SHA-256");
    }
}

// Fetched once and kept: EVP_sha256() would be looked up for each digest. Null when there is none.
const EVP_MD* algorithm() {
    static const EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return fetched;
}

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    requireDigest(context_ != nullptr &&
                  EVP_DigestInit_ex(context_.get(), algorithm(), nullptr) == 1);
}

void Sha256::add(std::span<const unsigned char> bytes) {
    requireDigest(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
}

void Sha256::add(std::string_view text) {
    add(std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

Sha256Digest Sha256::finish() {
    Sha256Digest digest;
    requireDigest(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1);
    return digest;
}

Sha256Digest sha256(std::span<const unsigned char> bytes) {
    Sha256 whole;
    whole.add(bytes);
    return whole.finish();
}

}  // namespace fstore
