#include "capi/handle.h"

#include <algorithm>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "capi/border.h"
#include "capi/forks.h"
#include "capi/key.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/output_rule.h"

namespace capi {
namespace {

// Loaded once, and for good: a program that opens one database after another does not load them
// each time, and none is unloaded while another thread still ends.
void keepModules(const char* folder) {
    require(folder == nullptr || *folder == '/', "the folder of the modules is no absolute path");
    static const bool kept = (fstore::StoreModules::keepOwn(folder != nullptr ? folder : ""), true);
    (void)kept;
}

// Where it is from any folder, as the process may be in another one later.
std::string cacheAt(const char* folder) {
    std::string path = fstore::realPath(folder);
    if (path.empty() || !fstore::isA(os::EntryType::kFolder, path)) {
        throw fstore::Failure(kMissing, fmt::format("there is no folder {}", folder), folder);
    }
    return path;
}

fstore::Place placeOf(const char* path, const filestore_open_options& options) {
    require(path != nullptr || options.descriptor >= 0,
            "neither a path nor a descriptor was given");
    require(path == nullptr || *path != '\0', "the path is empty");
    require(options.lock_seconds >= 0, "lock_seconds is negative, or not a number");
    fstore::Place place;
    place.folder =
        path != nullptr ? path : fmt::format("the folder of descriptor {}", options.descriptor);
    place.descriptor = path != nullptr ? -1 : options.descriptor;
    place.lockSeconds = options.lock_seconds;
    place.requireSharedLock = (options.flags & FILESTORE_REQUIRE_SHARED_LOCK) != 0;
    if (options.caches != nullptr) {
        place.cache = cacheAt(options.caches);
    }
    return place;
}

}  // namespace

class Handle::Connection final : public fstore::KeySource {
public:
    Connection(Handle& handle, unsigned int epoch)
        : handle_(handle),
          epoch_(epoch),
          forks_(forks()),
          database_(handle.place_, observer_, this) {}

    CallbackObserver& observer() noexcept { return observer_; }
    fstore::Database& database() noexcept { return database_; }
    void ask(fstore::KeySource* keys) noexcept { keys_ = keys; }

    // Opened by this process, and with a key that the handle still has.
    bool isUsable(unsigned int epoch) const noexcept {
        return epoch_ == epoch && forks_ == forks();
    }

    std::optional<fstore::Unlocked> known(const fstore::Protection& protection) override {
        if (!protection.hasPassword()) {
            return fstore::Unlocked();
        }
        return keys_ != nullptr ? keys_->known(protection)
                                : handle_.keyOf(protection.inForce.key());
    }
    fstore::Unlocked obtain(const fstore::Protection& protection) override {
        if (keys_ != nullptr) {
            return keys_->obtain(protection);
        }
        const std::string where = handle_.place_.describe();
        throw fstore::Failure(
            kNotOpen,
            handle_.hasKey()
                ? fmt::format("the password of the database in {} was changed since it "
                              "was unlocked; unlock it again",
                              where)
                : fmt::format("the database in {} is locked; unlock it first", where),
            handle_.place_.folder);
    }

private:
    Handle& handle_;
    unsigned int epoch_;
    unsigned int forks_;
    fstore::KeySource* keys_ = nullptr;
    CallbackObserver observer_;
    fstore::Database database_;
};

Handle::Handle(const char* path, const filestore_open_options& options)
    : callbacks_(accepted(options.callbacks, filestore_callbacks(FILESTORE_CALLBACKS_INIT))),
      cost_(acceptedCost(options.cost)),
      creates_((options.flags & FILESTORE_CREATE) != 0),
      readOnly_((options.flags & FILESTORE_READ_ONLY) != 0),
      named_(placeOf(path, options)),
      folder_(named_),
      place_(named_) {
    constexpr std::uint32_t kKnown =
        FILESTORE_CREATE | FILESTORE_READ_ONLY | FILESTORE_REQUIRE_SHARED_LOCK;
    require((options.flags & ~kKnown) == 0, "unknown flags");
    require(!(creates_ && readOnly_), "a database cannot be created for reading only");
    keepModules(options.modules);
    fstore::setOutputRule(fstore::refuseInDatabase);  // for a backup
    if (creates_) {
        folder_.makeAndOpen();
    } else {
        folder_.open();
    }
    place_.descriptor = folder_.folder().get();
}

Handle::~Handle() {
    if (wasTorn()) {
        // Their destructors would wait for locks that nobody gives back.
        for (auto& connection : idle_) {
            (void)connection.release();
        }
    }
}

void Handle::requireWritable() const {
    require(!readOnly_, "the database was opened for reading only");
}

std::optional<OpenKey> Handle::key() {
    const CMN_Locked locked(lock_);
    return key_;
}

std::optional<fstore::Unlocked> Handle::keyOf(const std::optional<fstore::Digest>& digest) {
    const CMN_Locked locked(lock_);
    return key_ && key_->digest == digest ? std::optional(key_->unlocked) : std::nullopt;
}

bool Handle::hasKey() {
    const CMN_Locked locked(lock_);
    return key_.has_value();
}

void Handle::setKey(OpenKey key) {
    const CMN_Locked locked(lock_);
    key_ = std::move(key);
}

void Handle::forgetKey() noexcept {
    Connections closed;  // end when the lock is free
    const CMN_Locked locked(lock_);
    key_.reset();
    ++epoch_;
    closed.swap(idle_);
}

std::unique_ptr<Handle::Connection> Handle::takeIdle() {
    Connections stale;  // end when the lock is free
    const CMN_Locked locked(lock_);
    for (std::size_t i = 0; i < idle_.size(); ++i) {
        if (idle_[i] && idle_[i]->isUsable(epoch_)) {
            return std::move(idle_[i]);
        }
        stale[i] = std::move(idle_[i]);
    }
    return nullptr;
}

std::unique_ptr<Handle::Connection> Handle::connect() {
    unsigned int epoch = 0;
    {
        const CMN_Locked locked(lock_);
        epoch = epoch_;
    }
    return std::make_unique<Connection>(*this, epoch);
}

void Handle::keepIdle(std::unique_ptr<Connection> connection) noexcept {
    const CMN_Locked locked(lock_);
    const auto place =
        std::ranges::find_if(idle_, [](const auto& each) { return each == nullptr; });
    if (connection->isUsable(epoch_) && place != idle_.end()) {
        *place = std::move(connection);
    }
}

Lease::Lease(Handle& handle, const filestore_callbacks* callbacks, fstore::KeySource* keys)
    : handle_(handle) {
    const filestore_callbacks complete = accepted(callbacks, handle.callbacks_);
    if (keys == nullptr) {
        connection_ = handle.takeIdle();
    }
    if (!connection_) {
        connection_ = handle.connect();
    }
    connection_->observer().use(complete);
    connection_->ask(keys);
}

Lease::~Lease() {
    connection_->ask(nullptr);
    handle_.keepIdle(std::move(connection_));
}

fstore::Database& Lease::database() noexcept {
    return connection_->database();
}

fstore::Observer& Lease::observer() noexcept {
    return connection_->observer();
}

}  // namespace capi
