#include "lib/database/inside.h"

#include <utility>

#include "lib/base/error.h"

namespace fstore {

StoreContext::StoreContext(std::shared_ptr<StoreModules> modules, int folder)
    : modules_(std::move(modules)), folder_(folder) {
    check(modules_->contexts().make(folder, &id_), "cannot prepare the store for a database");
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
