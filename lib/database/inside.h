// Being in the folder of a database.
//
// While an Inside lives, the relative paths of its thread begin at that folder, and the
// store's operations of its thread work on the database there. Other threads are not affected.
#ifndef LIB_DATABASE_INSIDE_H
#define LIB_DATABASE_INSIDE_H

#include <memory>

#include "lib/base/held_lock.h"
#include "lib/database/store_modules.h"
#include "os/base.h"

namespace fstore {

// The database of one folder, as the store knows it (api/filestore_context.h).
class StoreContext {
public:
    // `folder` stays open for as long as this lives, and before the store makes a change visible
    // it asks the lock, which lives as long. Throws.
    StoreContext(std::shared_ptr<StoreModules> modules, int folder, HeldLock& lock);
    StoreContext(const StoreContext&) = delete;
    StoreContext& operator=(const StoreContext&) = delete;
    ~StoreContext();  // closes the database

    StoreModules& modules() const noexcept { return *modules_; }
    int folder() const noexcept { return folder_; }
    unsigned int id() const noexcept { return id_; }

private:
    const std::shared_ptr<StoreModules> modules_;
    const int folder_;
    unsigned int id_ = 0;
};

// For one thread, which destroys its Insides in reverse order.
class Inside {
public:
    explicit Inside(const StoreContext& context);
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside();

private:
    const StoreModules::Contexts& contexts_;
    const os::Base base_;
    unsigned int before_ = 0;
};

}  // namespace fstore

#endif  // LIB_DATABASE_INSIDE_H
