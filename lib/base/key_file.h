// A key file: 32 random bytes that open a database where nobody types a password.
//
//     fstore-key-1:<64 hexadecimal digits>:<the first 8 of the SHA-256 of the 32 bytes>
//
// and a line feed, which may be missing. Nothing else is taken, so a file that was edited, cut, or
// mistaken for another is named as such and never tried as a key.
//
// Any thread may call these. Failures throw.
#ifndef LIB_BASE_KEY_FILE_H
#define LIB_BASE_KEY_FILE_H

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "lib/base/secret.h"
#include "os/handles.h"

namespace fstore {

inline constexpr std::size_t kKeyFileSize = 32;  // bytes of the key

// The whole text of a key file, with its line feed.
SecretText printKeyFile(std::span<const unsigned char, kKeyFileSize> key);

// The key in the text of the file that messages call `name`. Throws kMalformed, and says whether
// this was never a key file or no longer is what was written.
SecretKey parseKeyFile(std::string_view text, const std::string& name);

// A key file that is there.
class KeyFile {
public:
    // Opens it, so that a relative name means what the user meant; never waits. kMalformed for
    // what is not a regular file. Links are followed: who provides secrets may use them.
    explicit KeyFile(const std::string& name);

    const std::string& name() const noexcept { return name_; }

    // Whether users other than its owner and root may read it.
    bool othersCanRead() const noexcept { return othersCanRead_; }

    // The key; called once. Reads no more than a key file has and a byte, which shows that there
    // is more.
    SecretKey read() const;

private:
    std::string name_;
    os::File file_;
    bool othersCanRead_ = false;
};

// Makes a key file with a new key, for its owner only. It is on the disk under its name when this
// returns, and before that there is nothing of this name. kInvalid when something has the name.
SecretKey createKeyFile(const std::string& name);

}  // namespace fstore

#endif  // LIB_BASE_KEY_FILE_H
