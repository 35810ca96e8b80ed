#include "capi/key.h"

#include <fcntl.h>

#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "capi/border.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/key_file.h"
#include "lib/base/recovery_key.h"
#include "lib/database/unlock_text.h"
#include "lib/records/attributes.h"
#include "os/base.h"

namespace capi {
namespace {

constexpr std::size_t kMost = 4096;           // bytes of a password
constexpr std::size_t kMostRead = kMost + 2;  // a byte too many shows, and a line feed may follow

fstore::SecretText accepted(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    require(!text.empty(), "the password is empty");
    require(text.find('\0') == std::string_view::npos, "the password contains a NUL byte");
    require(text.size() <= kMost, "the password is longer than 4096 bytes");
    return fstore::SecretText(text);
}

fstore::SecretText ask(const filestore_key& key) {
    fstore::SecretKey buffer(kMostRead);
    std::size_t length = 0;
    if (key.fill(key.user, reinterpret_cast<char*>(buffer.data()), buffer.size(), &length) != 0) {
        throw fstore::Failure(fstore::kUsage, "no password was given");
    }
    require(length <= buffer.size(), "the password is longer than the buffer for it");
    buffer.resize(length);
    return accepted(fstore::asText(buffer));
}

// The caller's file, which may be asked for while the thread is in the folder of a database.
template <class Read>
auto inProcessFolder(Read read) {
    const os::Base base(AT_FDCWD);
    return read();
}

fstore::SecretKey keyFileOf(const filestore_key& key) {
    return key.path != nullptr ? inProcessFolder([&] { return fstore::KeyFile(key.path).read(); })
                               : fstore::parseKeyFile(readKey(key).view(), "what was given");
}

fstore::SecretKey recoveryKeyOf(const filestore_key& key) {
    const fstore::SecretText text = readKey(key);
    auto bytes = fstore::parseRecoveryKey(text.view());
    if (!bytes) {
        throw fstore::Failure(
            kWrongPassword,
            fmt::format(
                "this is no recovery key: {}",
                fstore::mistypingIn(text.view()).value_or("those have 8 groups of 5 digits")));
    }
    return std::move(*bytes);
}

}  // namespace

filestore_key acceptedKey(const filestore_key* key) {
    require(key != nullptr, "a password or key is needed");
    filestore_key own = accepted(key, filestore_key(FILESTORE_KEY_INIT));
    require(own.kind >= FILESTORE_PASSWORD && own.kind <= FILESTORE_RECOVERY_KEY,
            "this version knows no key of this kind");
    require((own.bytes != nullptr) + (own.path != nullptr) + (own.fill != nullptr) == 1,
            "a password or key comes from exactly one of bytes, path and fill");
    return own;
}

filestore_key acceptedPassword(const filestore_key* key) {
    const filestore_key own = acceptedKey(key);
    require(own.kind == FILESTORE_PASSWORD, "a password is needed, and no key of another kind");
    return own;
}

unsigned int acceptedCost(std::uint32_t cost) {
    using fstore::UnlockSlot;
    require(cost == 0 || (cost >= UnlockSlot::kLeastLn && cost <= UnlockSlot::kMostLn),
            "cost is not between 14 and 20");
    return cost != 0 ? cost : fstore::ScryptCost::kDefaultLn;
}

fstore::SecretText readKey(const filestore_key& key) {
    if (key.fill != nullptr) {
        return ask(key);
    }
    if (key.path != nullptr) {
        return inProcessFolder([&] {
            return accepted(fstore::asText(fstore::InputFile(key.path).readAll(kMostRead)));
        });
    }
    return accepted({static_cast<const char*>(key.bytes), key.length});
}

fstore::UnlockSecret readSecret(const filestore_key& key) {
    using Kind = fstore::UnlockSecret::Kind;
    switch (key.kind) {
        case FILESTORE_KEY_FILE:
            return {Kind::kFile, {}, keyFileOf(key), key.slot};
        case FILESTORE_RECOVERY_KEY:
            return {Kind::kRecovery, {}, recoveryKeyOf(key), key.slot};
        case FILESTORE_RAW_KEY:
            return {Kind::kP, readKey(key), {}, key.slot};
        default:
            return {Kind::kPassword, readKey(key), {}, key.slot};
    }
}

}  // namespace capi
