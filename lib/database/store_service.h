// The store's modules, and its service, which opens and re-encrypts a database.
//
// The caller holds the lock and is inside the folder. For one thread at a time. Failures throw.
#ifndef LIB_DATABASE_STORE_SERVICE_H
#define LIB_DATABASE_STORE_SERVICE_H

#include <memory>
#include <span>

#include "client/s_filestoreC.h"
#include "lib/base/held_lock.h"
#include "lib/base/observer.h"
#include "lib/base/secret.h"
#include "lib/database/inside.h"
#include "lib/database/place.h"
#include "os/handles.h"

namespace fstore {

class StoreService {
public:
    explicit StoreService(const Place& place);
    StoreService(const StoreService&) = delete;
    StoreService& operator=(const StoreService&) = delete;
    ~StoreService() = default;  // closes the database

    // Loads the modules, and makes the store's context for the database in `folder`, which
    // stays open, and which is changed under `lock`; to be called first. Later calls do nothing.
    // Throws kNoObject.
    void start(const os::File& folder, HeldLock& lock);

    // Where operations of this database are inside. After start().
    const StoreContext& context() const noexcept { return *context_; }

    bool isOpen() { return service_.isOpen() != 0; }

    // Opens the database with P, also when it is open already. Throws kWrongPassword.
    void open(SecretText p);
    // The P that it was opened with.
    const SecretText& p() const noexcept { return p_; }
    void close();

    // Whether the key that follows from P decrypts these bytes. For open and closed databases; asks
    // nothing of the record "key".
    bool decrypts(const SecretText& p, std::span<const unsigned char> bytes);

    // Creates the database's missing folders; first puts "./old_db" back if there is no
    // "./db".
    void makeFolders();

    // Re-encrypts everything for another P; each encryption and decryption is a step of the
    // observer's work. kInterrupted when that was cancelled. After a failure the folders show
    // how far it came, and the ciphers may have either key: close().
    [[nodiscard]] Status recrypt(const SecretText& p, Observer& observer);

private:
    [[noreturn]] void failOnFolders() const;

    const Place& place_;
    std::unique_ptr<StoreContext> context_;  // outlives the stub, which uses its modules
    aFileStoreSrv service_{nullptr};
    SecretText p_;
};

}  // namespace fstore

#endif  // LIB_DATABASE_STORE_SERVICE_H
