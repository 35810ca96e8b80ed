// A thread's stay in a database, from entering it to leaving it.
#ifndef LIB_DATABASE_HOLD_H
#define LIB_DATABASE_HOLD_H

#include <memory>
#include <utility>

#include "lib/base/held_lock.h"
#include "lib/database/folder_lock.h"
#include "lib/database/inside.h"
#include "lib/index/record_index.h"
#include "lib/records/lookup.h"

namespace fstore {

// Keeps other processes out, and this thread in, while it lives. One at a time for a database;
// a thread destroys those of several databases in reverse order.
class [[nodiscard]] Hold {
public:
    Hold(FolderLock& lock, const StoreContext& context)
        : lock_(&lock),
          inside_(std::make_unique<Inside>(context)),
          under_(std::make_unique<UnderLock>(&lock)) {}
    Hold(Hold&&) noexcept = default;
    Hold& operator=(Hold&&) = delete;
    ~Hold() = default;

    // From now on this is known of the records, until the end.
    void know(IndexSetup setup) { known_ = std::make_unique<Known>(std::move(setup)); }

private:
    struct Known {
        explicit Known(IndexSetup setup) : index(std::move(setup)), use(index) {}
        RecordIndex index;
        Lookup::Use use;
    };
    struct Release {
        void operator()(FolderLock* lock) const noexcept { lock->release(); }
    };
    std::unique_ptr<FolderLock, Release> lock_;
    std::unique_ptr<Inside> inside_;
    std::unique_ptr<UnderLock> under_;
    std::unique_ptr<Known> known_;
};

}  // namespace fstore

#endif  // LIB_DATABASE_HOLD_H
