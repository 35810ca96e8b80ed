#include "service/contexts.h"

#include <memory>
#include <unordered_map>
#include <utility>

#include "api/filestore_context.h"
#include "cmn/no_throw.h"
#include "os/fs.h"
#include "store/context.h"

namespace {

struct OpenContext : Context {
    using Context::Context;

    OpenState state;
    unsigned int inside = 0;  // how often threads are in it
    bool ended = false;       // nobody enters it any more
};

using Contexts = std::unordered_map<unsigned int, std::unique_ptr<OpenContext>>;

// A leaf of the order of locks: contexts are let go of when it is free again, since that
// calls other modules.
constinit CMN_Mutex lock;
Contexts contexts CMN_GUARDED_BY(lock);
unsigned int lastId CMN_GUARDED_BY(lock) = 0;

// A number that no context has, also when the numbers come round.
unsigned int freshId() {
    const CMN_Locked locked(lock);
    do {
        ++lastId;
    } while (lastId == 0 || contexts.contains(lastId));
    return lastId;
}

bool isFolder(int descriptor) {
    struct stat status {};
    return os::fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
}

OpenContext* entered() noexcept {
    return static_cast<OpenContext*>(Context::entered());
}

// Counts somebody out who was in it. Returns the context if this ends it.
std::unique_ptr<OpenContext> countOut(OpenContext& context) CMN_REQUIRES(lock) {
    if (--context.inside != 0 || !context.ended) {
        return nullptr;
    }
    return std::move(contexts.extract(context.id).mapped());
}

// The context of this number, which nobody is inside.
Status findIdle(unsigned int id, Contexts::iterator& found) CMN_REQUIRES(lock) {
    found = contexts.find(id);
    if (found == contexts.end() || found->second->ended) {
        return kEnd;
    }
    return found->second->inside == 0 ? kOk : kAlreadyOpen;
}

// Ends one of those that have not ended, and counts the caller in, so that it stays.
OpenContext* endNext() noexcept {
    const CMN_Locked locked(lock);
    for (const auto& [id, context] : contexts) {
        if (!context->ended) {
            context->ended = true;
            ++context->inside;
            return context.get();
        }
    }
    return nullptr;
}

}  // namespace

OpenState* enteredState() noexcept {
    OpenContext* const context = entered();
    return context == nullptr ? nullptr : &context->state;
}

void dropContexts() {
    while (OpenContext* const context = endNext()) {
        context->state.drop();
        std::unique_ptr<OpenContext> last;  // goes when the lock is free
        const CMN_Locked locked(lock);
        last = countOut(*context);
    }
}

Status filestore_contextMake(int folder, unsigned int* context) {
    if (context == nullptr || !isFolder(folder)) {
        return kInvalid;
    }
    return noThrow([&] {
        auto made = std::make_unique<OpenContext>(freshId(), folder);
        const unsigned int id = made->id;
        const CMN_Locked locked(lock);
        contexts.emplace(id, std::move(made));
        *context = id;
        return kOk;
    });
}

Status filestore_contextEnter(unsigned int context, unsigned int* before) {
    if (before == nullptr) {
        return kInvalid;
    }
    OpenContext* next = nullptr;
    if (context != 0) {
        const CMN_Locked locked(lock);
        const auto found = contexts.find(context);
        if (found == contexts.end() || found->second->ended) {
            return kEnd;
        }
        next = found->second.get();
        ++next->inside;
    }
    *before = Context::enteredId();
    (void)Context::exchange(next);
    return kOk;
}

Status filestore_contextLeave(unsigned int before) {
    std::unique_ptr<OpenContext> last;  // goes when the lock is free
    const CMN_Locked locked(lock);
    OpenContext* outer = nullptr;
    if (before != 0) {
        const auto found = contexts.find(before);
        if (found == contexts.end()) {
            return kEnd;
        }
        outer = found->second.get();
    }
    if (OpenContext* const left = entered()) {
        last = countOut(*left);
    }
    (void)Context::exchange(outer);
    return kOk;
}

Status filestore_contextWatch(unsigned int context, Status (*ask)(void* argument), void* argument) {
    const CMN_Locked locked(lock);
    Contexts::iterator found;
    const Status status = findIdle(context, found);
    if (status == kOk) {
        found->second->watch(ask, argument);
    }
    return status;
}

Status filestore_contextDelete(unsigned int context) {
    std::unique_ptr<OpenContext> last;
    {
        const CMN_Locked locked(lock);
        Contexts::iterator found;
        if (const Status status = findIdle(context, found); status != kOk) {
            return status;
        }
        last = std::move(found->second);
        contexts.erase(found);
    }
    last->state.drop();
    return kOk;
}
