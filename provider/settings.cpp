#include "provider/settings.h"

#include <cstdlib>
#include <cstring>

#include "os/files.h"

namespace provider {
namespace {

// The value of a variable; null when it is empty or not there.
const char* variable(const char* name) {
    const char* const value = ::secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

}  // namespace

Settings settingsOf(const Core& core) {
    return {core.setting("dir"), core.setting("modules"), core.setting("key-file"),
            core.setting("password-file")};
}

std::string folderOf(const Settings& settings) {
    if (!settings.folder.empty()) {
        return settings.folder;
    }
    if (const char* const named = variable("FSTORE_DIR")) {
        return named;
    }
    throw Failure(Reason::kNotConfigured,
                  "which folder holds the database: give it as \"dir\" in the provider's section "
                  "of openssl.cnf, or in the environment as FSTORE_DIR");
}

KeyPlace::KeyPlace(const Settings& settings) {
    if (!settings.keyFile.empty() && !settings.passwordFile.empty()) {
        throw Failure(Reason::kNotConfigured,
                      "the provider's section of openssl.cnf has both key-file and password-file; "
                      "remove one of them");
    }
    const char* const directory = variable("CREDENTIALS_DIRECTORY");
    if (!settings.keyFile.empty() || !settings.passwordFile.empty()) {
        isKeyFile_ = !settings.keyFile.empty();
        path_ = isKeyFile_ ? settings.keyFile : settings.passwordFile;
    } else if (const char* const keyFile = variable("FSTORE_KEY_FILE")) {
        isKeyFile_ = true;
        path_ = keyFile;
    } else if (const char* const passwordFile = variable("FSTORE_PASSWORD_FILE")) {
        path_ = passwordFile;
    } else if (const char* const password = variable("FSTORE_PASSWORD")) {
        password_ = password;
    } else if (directory != nullptr) {
        const std::string credential = std::string(directory) + "/fstore.key";
        if (os::presence(credential.c_str()) != os::Presence::kAbsent) {
            isKeyFile_ = true;
            path_ = credential;
        }
    }
}

filestore_key KeyPlace::key() const noexcept {
    filestore_key key = FILESTORE_KEY_INIT;
    key.kind = isKeyFile_ ? FILESTORE_KEY_FILE : FILESTORE_PASSWORD;
    if (!path_.empty()) {
        key.path = path_.c_str();
    } else if (password_ != nullptr) {
        key.bytes = password_;
        key.length = std::strlen(password_);
    }
    return key;
}

}  // namespace provider
