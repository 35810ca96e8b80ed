#include "modules/pkcs5/bytes_map.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>

#include "client/cmn_abuf.h"
#include "cmn/cmn_stub.h"
#include "modules/common/last_status.h"

namespace {

bool copy(TBuf& from, WipedBytes& to) {
    const GuardLock inUse(from.getGuard());
    return to.assign({from.data(), from.length()});
}

}  // namespace

bool BytesMap::Before::operator()(const WipedBytes& left, const WipedBytes& right) const {
    const auto a = left.view();
    const auto b = right.view();
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
}

Status BytesMap::add(TBuf* key, TBuf* value) {
    return recorded([&] {
        if (key == nullptr || value == nullptr) {
            return kInvalid;
        }
        WipedBytes name;
        WipedBytes bytes;
        if (!copy(*key, name) || !copy(*value, bytes)) {
            return kNoMemory;
        }
        const std::lock_guard locked(mutex_);
        values_.insert_or_assign(std::move(name), std::move(bytes));
        return kOk;
    });
}

TBuf* BytesMap::find(TBuf* key) {
    return recordedObject<TBuf>([&](std::unique_ptr<TBuf>& made) {
        if (key == nullptr) {
            return kInvalid;
        }
        WipedBytes name;
        if (!copy(*key, name)) {
            return kNoMemory;
        }
        const std::shared_lock locked(mutex_);
        const auto found = values_.find(name);
        if (found == values_.end()) {
            return kEnd;
        }
        const auto bytes = found->second.view();
        made.reset(createTBuf(bytes.data(), static_cast<unsigned int>(bytes.size())));
        return made != nullptr ? kOk : kNoObject;
    });
}
