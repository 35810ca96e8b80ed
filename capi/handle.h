// What a filestore_db is: the folder, the key, and as many Databases as threads work with it at
// once.
//
// Each Database has a descriptor and so a lock of its own, so that threads keep each other out just
// as processes do. Those that nobody uses are kept for the next, up to a few. They open themselves
// with the handle's key, of which there is one.
//
// Any thread may call anything here, and several at once; but a Lease is for one thread.
#ifndef CAPI_HANDLE_H
#define CAPI_HANDLE_H

#include <array>
#include <cstddef>
#include <memory>
#include <optional>

#include "capi/observer.h"
#include "cmn/cmn_rmutex.h"
#include "lib/database/database.h"
#include "lib/database/folder_lock.h"
#include "lib/database/unlock.h"

namespace capi {

// What opens the database.
struct OpenKey {
    std::optional<fstore::Digest> digest;  // what the record "key" holds for it
    fstore::Unlocked unlocked;
};

class Handle {
public:
    // `options` are complete. Opens the folder, which is made if the options say so.
    Handle(const char* path, const filestore_open_options& options);
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle();

    unsigned int cost() const noexcept { return cost_; }
    bool creates() const noexcept { return creates_; }
    const fstore::Place& place() const noexcept { return place_; }

    // Throws kInvalid when the handle is for reading only.
    void requireWritable() const;

    // The key; none when it is locked.
    std::optional<OpenKey> key();
    // The P that this is the digest of, if the handle has that.
    std::optional<fstore::Unlocked> keyOf(const std::optional<fstore::Digest>& digest);
    bool hasKey();
    void setKey(OpenKey key);
    // Locks it: Databases that are open are used no more.
    void forgetKey() noexcept;

private:
    friend class Lease;
    class Connection;
    // More threads than that are seldom inside at once, and each takes some memory.
    static constexpr std::size_t kMostIdle = 8;
    using Connections = std::array<std::unique_ptr<Connection>, kMostIdle>;

    std::unique_ptr<Connection> takeIdle();
    std::unique_ptr<Connection> connect();
    void keepIdle(std::unique_ptr<Connection> connection) noexcept;

    filestore_callbacks callbacks_;
    unsigned int cost_;
    bool creates_, readOnly_;
    fstore::Place named_;        // as the caller named it
    fstore::FolderLock folder_;  // for its descriptor; never locked
    fstore::Place place_;        // by that descriptor
    CMN_Mutex lock_;
    std::optional<OpenKey> key_ CMN_GUARDED_BY(lock_);
    unsigned int epoch_ CMN_GUARDED_BY(lock_) = 0;  // what is of an older one is closed
    Connections idle_ CMN_GUARDED_BY(lock_);        // empty places are null
};

// A Database of the handle, for one operation.
class Lease {
public:
    // `callbacks` are the caller's; null for those of the handle. With `keys`, a Database that is
    // not open yet, and gets its P from there.
    Lease(Handle& handle, const filestore_callbacks* callbacks, fstore::KeySource* keys = nullptr);
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease();

    fstore::Database& database() noexcept;
    fstore::Observer& observer() noexcept;

private:
    Handle& handle_;
    std::unique_ptr<Handle::Connection> connection_;
};

}  // namespace capi

#endif  // CAPI_HANDLE_H
