// The record that holds the digest of the database password.
#ifndef SERVICE_PASSWORD_RECORD_H
#define SERVICE_PASSWORD_RECORD_H

#include "service/md5.h"
#include "format/dsc_text.h"

inline constexpr const char* kPasswordRecord = "key";
inline constexpr unsigned int kDigestType = kTypeBinary;
inline constexpr unsigned int kDigestId = 1;

// The digest of a password; wiped when it goes.
struct PasswordDigest {
    PasswordDigest() = default;
    PasswordDigest(const PasswordDigest&) = delete;
    PasswordDigest& operator=(const PasswordDigest&) = delete;
    ~PasswordDigest();

    // False when the digest could not be computed.
    [[nodiscard]] bool compute(const char* password);

    unsigned char bytes[16];
};

#endif  // SERVICE_PASSWORD_RECORD_H
