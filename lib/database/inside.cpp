#include "lib/database/inside.h"

#include <utility>

#include "lib/base/error.h"

namespace fstore {

namespace {

Status mayChange(void* lock) noexcept {
    return static_cast<HeldLock*>(lock)->whyLost().empty() ? kOk : kIo;
}

}  // namespace

StoreContext::StoreContext(std::shared_ptr<StoreModules> modules, int folder, HeldLock& lock)
    : modules_(std::move(modules)), folder_(folder) {
    check(modules_->contexts().make(folder, &id_), "cannot prepare the store for a database");
    (void)modules_->contexts().watch(id_, &mayChange, &lock);  // it is there, and nobody inside
}

StoreContext::~StoreContext() {
    (void)modules_->contexts().end(id_);  // nobody is inside
}

Inside::Inside(const StoreContext& context)
    : contexts_(context.modules().contexts()), base_(context.folder()) {
    check(contexts_.enter(context.id(), &before_), "cannot enter the database");
}

Inside::~Inside() {
    (void)contexts_.leave(before_);  // the thread is still in there
}

}  // namespace fstore
