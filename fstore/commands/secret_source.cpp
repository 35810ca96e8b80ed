#include "fstore/commands/secret_source.h"

#include <cstdlib>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"

namespace fstore {
namespace {

// The credential that systemd's LoadCredential= and LoadCredentialEncrypted= put there; none if
// the service has none of this name.
std::optional<std::string> credential() {
    const char* const folder = ::secure_getenv("CREDENTIALS_DIRECTORY");
    if (folder == nullptr || *folder != '/') {
        return std::nullopt;
    }
    std::string name = joined(folder, "fstore.key");
    return exists(name) ? std::optional(std::move(name)) : std::nullopt;
}

}  // namespace

SecretSource::SecretSource(const SecretOptions& options, bool noInput, Output& output,
                           StandardInput& input)
    : options_(options), noInput_(noInput), output_(output), input_(input) {
    const bool asksForPassword = options.password.file || options.password.fd;
    const char* const variable = ::secure_getenv("FSTORE_KEY_FILE");
    if (options.keyFile) {
        requireName(*options.keyFile, "--key-file");
        keyFile_.emplace(*options.keyFile);
    } else if (!asksForPassword && variable != nullptr) {
        requireName(variable, "FSTORE_KEY_FILE");
        keyFile_.emplace(variable);
    } else {
        openPassword();
        if (const auto name = password_->isGiven() ? std::nullopt : credential()) {
            keyFile_.emplace(*name);
            isCredential_ = true;
        }
    }
}

void SecretSource::openPassword() {
    password_.emplace(PasswordSource::Which::kCurrent, options_.password, noInput_, output_,
                      input_);
}

UnlockSecret SecretSource::get() {
    if (!read_) {
        read_ = read();
    }
    return *read_;
}

UnlockSecret SecretSource::read() {
    if (!keyFile_) {
        return {UnlockSecret::Kind::kPassword, password_->get(PasswordSource::Entry::kOnce), {}};
    }
    // Nobody else comes into the folder of credentials, and a list of those who may, which systemd
    // sets for a service with a user of its own, looks like the permission of a group.
    return isCredential_ ? UnlockSecret{UnlockSecret::Kind::kFile, {}, keyFile_->read()}
                         : readKeyFile(*keyFile_, output_);
}

std::string SecretSource::exposedFile() const {
    if (keyFile_) {
        return keyFile_->othersCanRead() ? keyFile_->name() : std::string();
    }
    return password_ && password_->othersCanRead() ? password_->name() : std::string();
}

PasswordSource& SecretSource::passwordOnly() {
    if (options_.keyFile) {
        throw Failure(kUsage,
                      "a password is needed here, and --key-file was given; give it with "
                      "--password-file, or type it");
    }
    if (!password_) {
        openPassword();
    }
    keyFile_.reset();  // what is opened from here on has this password
    return *password_;
}

UnlockSecret readKeyFile(const KeyFile& file, Output& output) {
    if (file.othersCanRead()) {
        output.warn(fmt::format("other users can read the key file {}; protect it with chmod 600",
                                file.name()));
    }
    return {UnlockSecret::Kind::kFile, {}, file.read()};
}

Unlocked UserKeys::obtain(const Protection& protection) {
    try {
        return askForP(protection, place_, observer_, [this] { return source_.get(); });
    } catch (const Failure& failure) {
        const std::string file = source_.keyFile();
        if (failure.status() != kWrongPassword || file.empty()) {
            throw;
        }
        throw Failure(kWrongPassword,
                      fmt::format("{}: {} opens none of its slots", failure.what(), file),
                      failure.path());
    }
}

}  // namespace fstore
