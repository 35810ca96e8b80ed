// The digest of the database password, which the record "key" holds.
#ifndef SERVICE_PASSWORD_DIGEST_H
#define SERVICE_PASSWORD_DIGEST_H

#include "format/layout.h"
#include "service/md5.h"

// Wiped when it goes.
struct PasswordDigest {
    PasswordDigest() = default;
    PasswordDigest(const PasswordDigest&) = delete;
    PasswordDigest& operator=(const PasswordDigest&) = delete;
    ~PasswordDigest();

    // False when the digest could not be computed.
    [[nodiscard]] bool compute(const char* password);

    unsigned char bytes[layout::kDigestSize];
};

#endif  // SERVICE_PASSWORD_DIGEST_H
