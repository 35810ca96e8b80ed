#include "lib/base/key_file.h"

#include <algorithm>

#include <fmt/format.h>
#include <openssl/rand.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/new_file.h"
#include "lib/base/sha256.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {
namespace {

constexpr std::string_view kHead = "fstore-key-1:";
constexpr std::size_t kCheckSize = 4;  // bytes of the digest
constexpr std::size_t kTextSize = kHead.size() + 2 * kKeyFileSize + 1 + 2 * kCheckSize;

using Bytes = std::span<const unsigned char>;

[[noreturn]] void failOther(const std::string& name) {
    throw Failure(kMalformed,
                  fmt::format("{} is not a key file of fstore: those are one line that begins with "
                              "\"{}\"; name the right file",
                              name, kHead),
                  name);
}

[[noreturn]] void failChanged(const std::string& name, const char* how) {
    throw Failure(kMalformed,
                  fmt::format("the key file {} is damaged: {}; put back a copy of it, or open the "
                              "database with another slot",
                              name, how),
                  name);
}

}  // namespace

SecretText printKeyFile(std::span<const unsigned char, kKeyFileSize> key) {
    SecretKey text(kHead.begin(), kHead.end());
    text.reserve(kTextSize + 1);
    appendHex(text, key);
    text.push_back(':');
    appendHex(text, Bytes(sha256(key)).first(kCheckSize));
    text.push_back('\n');
    return SecretText({reinterpret_cast<const char*>(text.data()), text.size()});
}

SecretKey parseKeyFile(std::string_view text, const std::string& name) {
    if (!text.starts_with(kHead)) {
        failOther(name);
    }
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    if (text.size() != kTextSize) {
        failChanged(name, text.size() < kTextSize ? "its line is too short"
                                                  : "there is more in it than its line");
    }
    SecretKey key;
    key.reserve(kKeyFileSize);
    for (std::size_t i = 0; i < kKeyFileSize; ++i) {
        const auto byte = fromHex(text.substr(kHead.size() + 2 * i, 2));
        key.push_back(byte ? byte->front() : 0);
    }
    // Printed again, it is the same, or it has a digit that is none, an upper-case one, or another
    // key than it had.
    const SecretText printed = printKeyFile(std::span<const unsigned char, kKeyFileSize>(key));
    if (printed.view().substr(0, kTextSize) != text) {
        failChanged(name, "its check digits do not match the others");
    }
    return key;
}

KeyFile::KeyFile(const std::string& name) : name_(name) {
    off_t size = 0;
    switch (os::openRegular(name.c_str(), file_, size)) {
        case os::Opened::kRegular:
            break;
        case os::Opened::kNotRegular:
            throw Failure(kMalformed,
                          fmt::format("{} is not a regular file; a key file is one", name), name);
        case os::Opened::kFailed:
            failWithErrno("open the key file", name);
    }
    struct stat status {};
    if (os::fstat(file_.get(), &status) != 0) {
        failWithErrno("examine the key file", name);
    }
    othersCanRead_ = (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

SecretKey KeyFile::read() const {
    SecretKey text(kTextSize + 2);  // a line feed may follow, and a byte too many shows
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t got = os::readSome(file_.get(), text.data() + filled, text.size() - filled);
        if (got < 0) {
            failWithErrno("read the key file", name_);
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    return parseKeyFile({reinterpret_cast<const char*>(text.data()), filled}, name_);
}

SecretKey createKeyFile(const std::string& name) {
    requireNewFile(name);
    OutputFile file(name, /*replace=*/false);
    SecretKey key(kKeyFileSize);
    if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) {
        throw Failure(kIo, "cannot create a key: OpenSSL has no random numbers");
    }
    const SecretText text = printKeyFile(std::span<const unsigned char, kKeyFileSize>(key));
    file.write({reinterpret_cast<const unsigned char*>(text.c_str()), text.size()});
    file.commit();
    return key;
}

}  // namespace fstore
