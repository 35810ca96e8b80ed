#include "store/context_objects.h"

#include <typeinfo>

namespace {

template <class OfContext, class Object>
Object* make() {
    if (Context::entered() == nullptr) {
        return new Object;
    }
    return new OfContext;
}

template <class OfContext, class Object>
bool belongsElsewhere(const Object& object) noexcept {
    const bool ofContext = typeid(object) == typeid(OfContext);
    const unsigned int own = ofContext ? static_cast<const OfContext&>(object).context : 0;
    return own != Context::enteredId();
}

}  // namespace

FileStore* newRecord() {
    return make<ContextRecord, FileStore>();
}

FileStoreList* newList() {
    return make<ContextList, FileStoreList>();
}

bool isElsewhere(const FileStore& record) noexcept {
    return belongsElsewhere<ContextRecord>(record);
}

bool isElsewhere(const FileStoreList& list) noexcept {
    return belongsElsewhere<ContextList>(list);
}
