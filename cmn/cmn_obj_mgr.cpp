#include "cmn/cmn_obj_mgr.h"

#include <vector>

#include <sched.h>

#include "cmn/objmgrfunc.h"

CMN_BUILT_FIRST constinit CMN_ObjectManager ObjectManager;
constinit CMN_ObjectManager* pObjMgr = &ObjectManager;
constinit TModuleManager* ModMgr = nullptr;

void CMN_ObjectManager::storeObj(CMN_GuardedRef* obj) {
    const CMN_Entered entered(*lock);
    obj->prevLink = &head;
    obj->next = head;
    if (head != nullptr) {
        head->prevLink = &obj->next;
    }
    head = obj;
}

void CMN_ObjectManager::removeObj(CMN_GuardedRef* obj) {
    const CMN_Entered entered(*lock);
    *obj->prevLink = obj->next;
    if (obj->next != nullptr) {
        obj->next->prevLink = obj->prevLink;
    }
    obj->prevLink = nullptr;
    obj->next = nullptr;
}

// Owns the lock of a registry in which every object has a reference. Pinning one
// that has none yet, or none any more, would wait for a thread that itself waits
// for the lock; so the wait is done here, without it.
class CMN_ObjectManager::Settled {
public:
    explicit Settled(CMN_ObjectManager& registry) CMN_NO_TSA : lock_(*registry.lock) {
        for (lock_.enter(); !settled(registry.head); lock_.enter()) {
            lock_.exit();
            sched_yield();
        }
    }
    Settled(const Settled&) = delete;
    Settled& operator=(const Settled&) = delete;
    ~Settled() CMN_NO_TSA { lock_.exit(); }

private:
    static bool settled(const CMN_GuardedRef* obj) {
        while (obj != nullptr && obj->references() != 0) {
            obj = obj->next;
        }
        return obj == nullptr;
    }

    CMN_RecursiveMutex& lock_;
};

// Only the first object matters here, so a long list is not looked through.
DummyHolder* CMN_ObjectManager::getObj() {
    for (;;) {
        {
            const CMN_Entered entered(*lock);
            if (head == nullptr) {
                return nullptr;
            }
            if (head->references() != 0) {
                return new DummyHolder(head);
            }
        }
        sched_yield();
    }
}

void CMN_ObjectManager::init(CMN_ObjectManager* parent) {
    while (DummyHolder* const pinned = parent->getObj()) {
        CMN_Guard* const guard = pinned->object()->getGuard();
        for (;;) {
            while (guard != nullptr && guard->calls() != 0) {
                sched_yield();
            }
            // The registry lock comes before the guard's mutex, as in the walks.
            const CMN_Entered entered(*parent->lock);
            if (guard == nullptr) {
                handOver(*pinned);
                break;
            }
            guard->lock();
            const bool idle = guard->calls() == 0;
            if (idle) {
                handOver(*pinned);
            }
            guard->unlock();
            if (idle) {
                break;
            }
        }
        pinned->die();
    }
}

// The pin stays: with the last reference `obj` would go while its lock is held.
void CMN_ObjectManager::handOver(const DummyHolder& pinned) {
    CMN_GuardedRef& obj = *pinned.object();
    CMN_GuardedRef* const successor = MakeObject(obj.getType(), obj);
    obj.lockHolderList();
    CMN_GuardedRef::redirectHolders(successor, obj._getHolders(), pinned.holder());
    obj.unlockHolderList();
}

template <class Test>
bool CMN_ObjectManager::anyHolder(Test test) {
    const CMN_Entered entered(*lock);
    for (CMN_GuardedRef* obj = head; obj != nullptr; obj = obj->next) {
        const CMN_Entered holders(obj->holderMutex);
        for (auto* node = obj->holders.first(); node != nullptr; node = node->next) {
            if (test(node->value->getModuleID())) {
                return true;
            }
        }
    }
    return false;
}

int CMN_ObjectManager::moduleIsUsed() {
    return anyHolder([](const TypifiedID& id) { return !(id == *pModuleID); }) ? 1 : 0;
}

int CMN_ObjectManager::moduleIsUsedBy(const TypifiedID& id) {
    return anyHolder([&id](const TypifiedID& holder) { return holder == id; }) ? 1 : 0;
}

// Objects that a walk let everyone else let go of. They are destroyed when the walk
// has given up the registry's lock: a destructor may need a lock, such as that of a
// service stub, whose owner waits for the registry.
class CMN_ObjectManager::Orphans {
public:
    Orphans() = default;
    Orphans(const Orphans&) = delete;
    Orphans& operator=(const Orphans&) = delete;
    ~Orphans() {
        for (CMN_GuardedRef* const obj : objects_) {
            release(*obj);
        }
    }

    // Keeps the object by a reference without a holder, which no other walk detaches.
    void adopt(CMN_GuardedRef& obj) {
        objects_.push_back(&obj);
        obj.CMN_Reference::addReference();
    }

private:
    // As a holder lets go: with the guard raised, and left so by the last one.
    static void release(CMN_GuardedRef& obj) {
        CMN_Guard* const guard = obj.getGuard();
        if (guard != nullptr) {
            guard->inc();
        }
        if (obj.CMN_Reference::remReference() != 0 && guard != nullptr) {
            guard->dec();
        }
    }

    std::vector<CMN_GuardedRef*> objects_;
};

// The object that is visited and the one after it are pinned, so that whatever a
// visit lets go of, the walk can go on.
template <class Visit>
void CMN_ObjectManager::forEachPinned(Visit visit) {
    Orphans orphans;
    const Settled settled(*this);
    DummyHolder* current = head == nullptr ? nullptr : new DummyHolder(head);
    while (current != nullptr) {
        CMN_GuardedRef& obj = *current->object();
        DummyHolder* const following = obj.next == nullptr ? nullptr : new DummyHolder(obj.next);
        visit(obj, current->holder());
        if (obj.references() == 1) {
            orphans.adopt(obj);
        }
        current->die();
        current = following;
    }
}

// A holder that stays in the list although it was told to let go is cut loose, so
// that a walk always finishes.
template <class Test>
int CMN_ObjectManager::detachHolders(CMN_GuardedRef& obj, Test test) {
    int detached = 0;
    const CMN_Entered entered(obj.holderMutex);
    CMN_GuardedRef::HolderList& holders = obj.holders;
    for (auto* node = holders.first(); node != nullptr;) {
        auto* const following = node->next;
        if (test(node->value)) {
            const int before = holders.size();
            node->value->replacePointee(nullptr);
            if (holders.size() != before) {
                ++detached;
            } else {
                holders.eraseitem(node);
            }
        }
        node = following;
    }
    return detached;
}

int CMN_ObjectManager::unhookObjs(const TypifiedID& id) {
    int detached = 0;
    forEachPinned([&](CMN_GuardedRef& obj, const CMN_GRPHolder* pin) {
        detached += detachHolders(obj, [&](CMN_GRPHolder* holder) {
            return holder != pin && holder->getModuleID() == id;
        });
    });
    return detached;
}

void CMN_ObjectManager::fini() {
    forEachPinned([](CMN_GuardedRef& obj, const CMN_GRPHolder* pin) {
        detachHolders(obj, [pin](const CMN_GRPHolder* holder) { return holder != pin; });
    });
}

void CMN_ObjectManager::finiAll() {
    forEachPinned([](CMN_GuardedRef& obj, const CMN_GRPHolder*) { (void)obj.fini(); });
}
