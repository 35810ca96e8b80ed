// The database, open for one load: it is found, read and closed again, so that nothing of it stays
// in a server between two loads, and children of a fork share nothing.
//
// For one thread. Failures throw.
#ifndef PROVIDER_SESSION_H
#define PROVIDER_SESSION_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <openssl/core.h>

#include "capi/filestore.h"
#include "provider/settings.h"

namespace provider {

// The program's way to ask for a pass phrase; none for null.
struct Asking {
    OSSL_PASSPHRASE_CALLBACK* callback = nullptr;
    void* argument = nullptr;
};

// A record that a URI stands for.
struct Entry {
    std::string address, name, label, subject;
    std::uint32_t kind = FILESTORE_UNKNOWN;
};

struct Found {
    std::uint32_t kind = 0;  // of filestore_uri_kind
    std::vector<Entry> entries;
};

// The DER of a record, wiped when it goes.
class Object {
public:
    Object(filestore_record* record, std::uint32_t kind) : record_(record), kind_(kind) {}

    std::uint32_t kind() const noexcept { return kind_; }  // of filestore_kind
    std::span<const unsigned char> der() const noexcept;

private:
    struct Free {
        void operator()(filestore_record* record) const { filestore_record_free(record); }
    };
    std::unique_ptr<filestore_record, Free> record_;
    std::uint32_t kind_;
};

class Session {
public:
    explicit Session(const Settings& settings);

    // What the URI stands for; the program is asked for the password only if it is needed.
    Found find(const std::string& uri, const Asking& asking);

    // Certificate, CRL or key; throws for another record.
    Object read(const std::string& address, const Asking& asking);

private:
    struct Close {
        void operator()(filestore_db* db) const { filestore_close(db); }
    };

    template <class Step>
    filestore_status unlocking(const Asking& asking, Step step);
    void unlock(const Asking& asking);
    [[noreturn]] void fail(const std::string& what) const;

    const Settings& settings_;
    std::string folder_;
    std::unique_ptr<filestore_db, Close> db_;
    filestore_error error_ = FILESTORE_ERROR_INIT;
};

}  // namespace provider

#endif  // PROVIDER_SESSION_H
