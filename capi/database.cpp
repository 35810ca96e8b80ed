// Opening, unlocking and closing; what is done with a whole database.
#include <fmt/format.h>

#include "capi/blocks.h"
#include "capi/border.h"
#include "capi/db.h"
#include "capi/filestore.h"
#include "capi/key.h"
#include "lib/work/create.h"

using fstore::Access;
using fstore::Hold;
using fstore::Need;
using fstore::Protection;
using fstore::SecretText;
using fstore::Unlocked;
using fstore::UnlockSecret;

namespace {

constexpr std::uint32_t kVersion =
    FILESTORE_VERSION_MAJOR * 1'000'000 + FILESTORE_VERSION_MINOR * 1'000;

// P from a key of the caller's, for one unlocking.
class UnlockKeys final : public fstore::KeySource {
public:
    UnlockKeys(const filestore_key& key, const fstore::Place& place) : key_(key), place_(place) {}

    std::optional<Unlocked> known(const Protection&) override { return std::nullopt; }
    Unlocked obtain(const Protection& protection) override {
        return unlock(protection, secret(), place_);
    }
    // Read once, as a file or a caller may have no second one.
    const UnlockSecret& secret() {
        if (!secret_) {
            secret_ = capi::readSecret(key_);
        }
        return *secret_;
    }

private:
    const filestore_key& key_;
    const fstore::Place& place_;
    std::optional<UnlockSecret> secret_;
};

// What the database is open with, while a Hold of it lives.
capi::OpenKey keyOf(const fstore::Database& database) {
    return {database.protection().inForce.key(), {database.p(), database.openedBy()}};
}

}  // namespace

extern "C" {

const char* filestore_status_name(filestore_status status) {
    return fstore::nameOf(status);
}

uint32_t filestore_version(void) {
    return kVersion;
}

filestore_status filestore_open(const char* path, const filestore_open_options* options,
                                filestore_db** db, filestore_error* error) {
    return capi::border(error, [&] {
        capi::require(db != nullptr, "db is null");
        *db = nullptr;
        capi::watchForks();
        const capi::Operation running;
        *db = new filestore_db(
            path, capi::accepted(options, filestore_open_options(FILESTORE_OPEN_OPTIONS_INIT)));
        return FILESTORE_OK;
    });
}

void filestore_close(filestore_db* db) {
    if (capi::wasTorn()) {  // its memory and descriptors can go, though no operation can run
        delete db;
        return;
    }
    (void)capi::operation(nullptr, [db] {
        delete db;
        return FILESTORE_OK;
    });
}

filestore_status filestore_unlock(filestore_db* db, const filestore_key* key,
                                  const filestore_callbacks* callbacks, filestore_error* error) {
    return capi::operation(error, [&] {
        capi::Handle& handle = capi::handleOf(db);
        const filestore_key own = capi::acceptedKey(key);
        UnlockKeys keys(own, handle.place());
        capi::Lease lease(handle, callbacks, &keys);
        fstore::Database& database = lease.database();
        if (handle.creates() && own.kind == FILESTORE_PASSWORD) {
            (void)createDatabase(database, handle.cost(),
                                 [&]() -> const SecretText& { return keys.secret().text; });
        }
        const Hold hold = database.enter(Access::kReadNamed, Need::kSecrets);
        handle.setKey(keyOf(database));
        if (own.opened != nullptr) {
            *own.opened = database.openedBy();
        }
        return FILESTORE_OK;
    });
}

void filestore_lock(filestore_db* db) {
    (void)capi::operation(nullptr, [&] {
        capi::handleOf(db).forgetKey();
        return FILESTORE_OK;
    });
}

int filestore_is_unlocked(filestore_db* db) {
    bool unlocked = false;
    (void)capi::operation(nullptr, [&] {
        unlocked = capi::handleOf(db).hasKey();
        return FILESTORE_OK;
    });
    return unlocked ? 1 : 0;
}

filestore_status filestore_copy_key(filestore_db* db, void** key, size_t* length,
                                    filestore_error* error) {
    return capi::operation(error, [&] {
        capi::require(key != nullptr && length != nullptr, "key or length is null");
        *key = nullptr;
        *length = 0;
        const std::optional<capi::OpenKey> own = capi::handleOf(db).key();
        if (!own) {
            throw fstore::Failure(kNotOpen, "the database is locked; unlock it first");
        }
        const std::string_view text = own->unlocked.p.view();
        *key = capi::blockOf({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
        *length = text.size();
        return FILESTORE_OK;
    });
}

void filestore_free(void* block) {
    capi::freeBlock(block);
}

}  // extern "C"
