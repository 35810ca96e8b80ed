// What opens the database: where it comes from.
//
// The first of these that is there:
//
//     --key-file, --password-file or --password-fd, of which a command takes one
//     FSTORE_KEY_FILE, FSTORE_PASSWORD_FILE, FSTORE_PASSWORD
//     $CREDENTIALS_DIRECTORY/fstore.key, a credential of systemd
//     the terminal
//
// A recovery key is taken wherever a password is. For the main thread.
#ifndef FSTORE_COMMANDS_SECRET_SOURCE_H
#define FSTORE_COMMANDS_SECRET_SOURCE_H

#include <optional>
#include <string>

#include "fstore/terminal/password.h"
#include "lib/base/key_file.h"
#include "lib/database/unlock.h"

namespace fstore {

// What the command line says about it.
struct SecretOptions {
    PasswordOptions password;
    std::optional<std::string> keyFile;
};

class SecretSource {
public:
    // Finds the source and opens its file, before the tool changes its folder. Does not ask yet.
    SecretSource(const SecretOptions& options, bool noInput, Output& output, StandardInput& input);

    // Reads it, or asks for it; only once, however often it is needed. Fails as
    // PasswordSource::get(), and for a key file as KeyFile::read().
    UnlockSecret get();

    // Whether there is anything but the terminal.
    bool isGiven() const noexcept { return keyFile_ || password_->isGiven(); }

    // Which file it is read from; empty when it is not a key file.
    std::string keyFile() const { return keyFile_ ? keyFile_->name() : std::string(); }

    // The file that it is read from, if other users can read that as well; else empty.
    std::string exposedFile() const;

    // The source of a password where nothing else will do: a new database has one. No key file of
    // the environment stands in front of it. kUsage if --key-file was given.
    PasswordSource& passwordOnly();

private:
    void openPassword();
    UnlockSecret read();

    SecretOptions options_;
    bool noInput_;
    Output& output_;
    StandardInput& input_;
    std::optional<KeyFile> keyFile_;
    bool isCredential_ = false;               // the key file is one
    std::optional<PasswordSource> password_;  // opened when no key file comes first
    std::optional<UnlockSecret> read_;
};

// P by what the user has.
class UserKeys final : public KeySource {
public:
    UserKeys(SecretSource& source, Place place, Observer& observer)
        : source_(source), place_(std::move(place)), observer_(observer) {}

    bool asks() const noexcept override { return true; }
    std::optional<Unlocked> known(const Protection&) override { return std::nullopt; }
    Unlocked obtain(const Protection& protection) override;

private:
    SecretSource& source_;
    const Place place_;
    Observer& observer_;
};

// The key in the file, with a warning when other users can read it.
UnlockSecret readKeyFile(const KeyFile& file, Output& output);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_SECRET_SOURCE_H
