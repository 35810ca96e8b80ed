// Where the database is, and where its password or key comes from.
//
// The first that is there wins: our section of openssl.cnf ("key-file", "password-file"); the
// environment's FSTORE_KEY_FILE, FSTORE_PASSWORD_FILE and FSTORE_PASSWORD; the file "fstore.key" in
// $CREDENTIALS_DIRECTORY, where systemd puts it; the program, which is asked as for a pass phrase.
// The environment of a program that runs with more rights than its caller is not asked.
#ifndef PROVIDER_SETTINGS_H
#define PROVIDER_SETTINGS_H

#include <string>

#include "capi/filestore.h"
#include "provider/core.h"

namespace provider {

struct Settings {
    std::string folder;   // that holds "db"; "dir", or FSTORE_DIR
    std::string modules;  // the folder of the store's modules; empty: where they are installed
    std::string keyFile, passwordFile;
};

// As openssl.cnf has them. What the environment adds is looked up with each load: a program may set
// it after it has started.
Settings settingsOf(const Core& core);

// The folder of the database. Throws Failure when there is none.
std::string folderOf(const Settings& settings);

// Where the password or key comes from.
class KeyPlace {
public:
    // Throws Failure when openssl.cnf names two.
    explicit KeyPlace(const Settings& settings);

    // Whether the program has to be asked.
    bool isAsked() const noexcept { return path_.empty() && password_ == nullptr; }

    // For filestore_unlock(), while this lives; for isAsked() the caller adds fill().
    filestore_key key() const noexcept;

private:
    std::string path_;
    bool isKeyFile_ = false;
    const char* password_ = nullptr;  // of the environment
};

}  // namespace provider

#endif  // PROVIDER_SETTINGS_H
