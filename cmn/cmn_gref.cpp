#include "cmn/cmn_gref.h"

#include <utility>

#include <sched.h>

#include "cmn/cmn_obj_mgr.h"

CMN_Guard::~CMN_Guard() = default;

int CMN_Guard::change(int by) {
    lock();
    const int now = calls() + by;
    counter.store(now, std::memory_order_relaxed);
    unlock();
    return now;
}

CMN_GuardedRef::CMN_GuardedRef(unsigned int objectType)
    : type(objectType), guard(ModMgr != nullptr ? ModMgr->currentGuard() : nullptr) {
    if (guard != nullptr) {
        guard->addReference();
    }
    pObjMgr->storeObj(this);
}

CMN_GuardedRef::CMN_GuardedRef(const CMN_GuardedRef& src)
    : CMN_Reference(src), type(src.type), guard(src.guard) {
    if (guard != nullptr) {
        guard->addReference();
    }
    pObjMgr->storeObj(this);
}

CMN_GuardedRef::~CMN_GuardedRef() {
    if (guard != nullptr) {
        guard->remReference();
    }
    pObjMgr->removeObj(this);
}

// In this order, or a guard of which this object has the last reference is gone when it
// is given again.
void CMN_GuardedRef::setGuard(CMN_Guard* g) {
    g->addReference();
    CMN_Guard* const before = std::exchange(guard, g);
    if (before != nullptr) {
        before->remReference();
    }
}

namespace {

// A reference that is given back, without any lock, unless its holder gets listed.
class Claim {
public:
    explicit Claim(CMN_Reference& object) : object_(&object) {}
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    ~Claim() {
        if (object_ != nullptr) {
            object_->remReference();
        }
    }

    void keep() noexcept { object_ = nullptr; }

private:
    CMN_Reference* object_;
};

}  // namespace

// Counted and listed under the registry's lock: an object that is counted and not yet listed would
// look as if nobody outside held it, and its module be unloaded under the thread in between. Only
// when the list is in use it is waited for without that lock, which its user may want.
void CMN_GuardedRef::addReference(CMN_GRPHolder* holder) {
    Claim claim(*this);
    {
        const CMN_Entered registryWaits(countLock());
        changeCount(1);
        if (const CMN_EnteredIfFree list(holderMutex); list.isEntered()) {
            holders.push_front(holder);
            claim.keep();
            return;
        }
    }
    const CMN_Entered entered(holderMutex);
    holders.push_front(holder);
    claim.keep();
}

bool CMN_GuardedRef::passReference(const CMN_GRPHolder* from, CMN_GRPHolder* to) noexcept {
    const CMN_Entered entered(holderMutex);
    sitem<CMN_GRPHolder>* const node = listed(from);
    if (node == nullptr) {
        return false;
    }
    const bool isLong = holders.size() >= CMN_HolderList::kNear;
    if (CMN_HolderList* const made = isLong ? CMN_HolderList::of(holders) : nullptr) {
        made->rename(node, to);
    } else {
        node->value = to;
    }
    return true;
}

void CMN_GuardedRef::renewReference(CMN_GRPHolder* holder) {
    {
        const CMN_Entered entered(holderMutex);
        if (sitem<CMN_GRPHolder>* const node = listed(holder)) {
            holders.push_front(holder);
            unlist(node);
            return;
        }
    }
    addReference(holder);
}

// As addReference(), but for the end of the object: from then on it has no reference, which walks
// wait for.
int CMN_GuardedRef::remReference(CMN_GRPHolder* holder) {
    bool isCounted = false;
    int left = 0;
    {
        const CMN_Entered registryWaits(countLock());
        if (const CMN_EnteredIfFree list(holderMutex); list.isEntered()) {
            if (!takeOff(holder)) {
                return references();
            }
            isCounted = true;
            left = changeCount(-1);
        }
    }
    if (!isCounted) {
        return remReferenceInTurn(holder);
    }
    if (left == 0) {
        delete this;
    }
    return left;
}

int CMN_GuardedRef::remReferenceInTurn(CMN_GRPHolder* holder) {
    {
        const CMN_Entered entered(holderMutex);
        if (!takeOff(holder)) {
            return references();
        }
    }
    return CMN_Reference::remReference();
}

// Takes the newest reference by `holder` off the list, if there is one.
bool CMN_GuardedRef::takeOff(const CMN_GRPHolder* holder) {
    sitem<CMN_GRPHolder>* const node = listed(holder);
    if (node != nullptr) {
        unlist(node);
    }
    return node != nullptr;
}

// The newest node that holds `holder`, or null. Most lists are short, and most of those
// who leave a long one have come late.
sitem<CMN_GRPHolder>* CMN_GuardedRef::listed(const CMN_GRPHolder* holder) {
    auto* node = holders.first();
    for (int i = 0; i != CMN_HolderList::kNear; ++i) {
        if (node == nullptr || node->value == holder) {
            return node;
        }
        node = node->next;
    }
    if (node == nullptr) {
        return nullptr;
    }
    CMN_HolderList* const made = CMN_HolderList::of(holders);
    return made != nullptr ? made->newest(holder) : HolderList::find(holder, node);
}

void CMN_GuardedRef::unlist(sitem<CMN_GRPHolder>* node) {
    CMN_HolderList::asMade(holders).eraseitem(node);
}

void CMN_GuardedRef::detachAll() {
    pObjMgr->detachAll(*this);
}

// Each redirected holder leaves `list`, hence the snapshot; pushing to its front
// turns the order round, so that the oldest holder comes first.
void CMN_GuardedRef::redirectHolders(CMN_GuardedRef* to, HolderList& list,
                                     const CMN_GRPHolder* spared) {
    HolderList snapshot;
    for (const auto* node = list.first(); node != nullptr; node = node->next) {
        if (node->value != spared) {
            snapshot.push_front(node->value);
        }
    }
    for (const auto* node = snapshot.first(); node != nullptr; node = node->next) {
        node->value->replacePointee(to);
    }
}

DummyHolder::DummyHolder(CMN_GuardedRef* object) : pin(object) {
    while (object != nullptr && object->references() == 1) {
        sched_yield();
    }
}

void DummyHolder::die() {
    delete this;
}

void DummyHolder::die(DummyHolder* holder) {
    if (holder != nullptr) {
        holder->die();
    }
}
