#include "cmn/cmn_obj_mgr.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
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

namespace {

// Waits for threads that need the lock, and so a turn at it. On a busy machine a loop
// of yields takes seconds to get and to give one; a sleeper is back in time.
void letOthersRun() {
    std::this_thread::sleep_for(std::chrono::microseconds(50));
}

}  // namespace

// Owns the lock of a registry for a walk. Pinning an object that has no reference
// yet, or none any more, would wait for a thread that itself waits for the lock; so
// the wait is done here, without it. Each such object is waited for once: were they
// all to have references at the same moment, busy threads could hold a walk up for
// ever.
class CMN_HIDDEN CMN_ObjectManager::Settled {
public:
    explicit Settled(CMN_ObjectManager& registry) CMN_NO_TSA : lock_(*registry.lock) {
        lock_.enter();
        std::vector<const CMN_GuardedRef*> unheld;
        for (const CMN_GuardedRef* obj = registry.head; obj != nullptr; obj = obj->next) {
            if (obj->references() == 0) {
                unheld.push_back(obj);
            }
        }
        while (!unheld.empty()) {
            lock_.exit();
            letOthersRun();
            lock_.enter();
            std::erase_if(unheld,
                          [&](const CMN_GuardedRef* obj) { return !isUnheld(registry, obj); });
        }
    }
    Settled(const Settled&) = delete;
    Settled& operator=(const Settled&) = delete;
    ~Settled() CMN_NO_TSA { lock_.exit(); }

    // `obj`, or the first after it that has a reference. Those that have none entered
    // while others were waited for, as if after the walk.
    static CMN_GuardedRef* held(CMN_GuardedRef* obj) {
        while (obj != nullptr && obj->references() == 0) {
            obj = obj->next;
        }
        return obj;
    }

private:
    // `wanted` may be gone, so it is looked for before it is looked at.
    static bool isUnheld(const CMN_ObjectManager& registry, const CMN_GuardedRef* wanted) {
        const CMN_GuardedRef* obj = registry.head;
        while (obj != nullptr && obj != wanted) {
            obj = obj->next;
        }
        return obj != nullptr && obj->references() == 0;
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
        letOthersRun();
    }
}

void CMN_ObjectManager::init(CMN_ObjectManager* parent) {
    parent->giveUp(MakeObject);
}

namespace {

struct EndPin {
    void operator()(DummyHolder* pin) const { pin->die(); }
};

}  // namespace

void CMN_ObjectManager::giveUp(Successor make) {
    while (const std::unique_ptr<DummyHolder, EndPin> pinned{getObj()}) {
        while (!handOver(*pinned, make)) {
            sched_yield();
        }
    }
}

// Redirects the holders of an object of this registry, unless a call or a release is
// in progress. The registry's lock comes before the guard's mutex, as in the walks.
// The pin stays: with the last reference the object would go while its own lock is
// held. What nothing but the pin holds gets no successor, for nobody would keep it.
bool CMN_ObjectManager::handOver(const DummyHolder& pinned, Successor make) {
    CMN_GuardedRef& obj = *pinned.object();
    CMN_Guard* const guard = obj.getGuard();
    if (guard != nullptr && guard->calls() != 0) {
        return false;
    }
    const CMN_Entered entered(*lock);
    std::unique_lock<CMN_Mutex> callsWait;
    if (guard != nullptr) {
        callsWait = std::unique_lock<CMN_Mutex>(*guard);
        if (guard->calls() != 0) {
            return false;
        }
    }
    const CMN_Entered holdersStay(obj.holderMutex);
    if (obj.holders.size() > 1) {
        CMN_GuardedRef* const successor = make(obj.getType(), obj);
        CMN_GuardedRef::redirectHolders(successor, obj.holders, pinned.holder());
    }
    return true;
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
class CMN_HIDDEN CMN_ObjectManager::Orphans {
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

namespace {

DummyHolder* pin(CMN_GuardedRef* obj) {
    return obj == nullptr ? nullptr : new DummyHolder(obj);
}

}  // namespace

// The object that is visited and the one after it are pinned, so that whatever a
// visit lets go of, the walk can go on.
template <class Visit>
void CMN_ObjectManager::forEachPinned(Visit visit) {
    Orphans orphans;
    const Settled settled(*this);
    DummyHolder* current = pin(Settled::held(head));
    while (current != nullptr) {
        CMN_GuardedRef& obj = *current->object();
        DummyHolder* const following = pin(Settled::held(obj.next));
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

int CMN_ObjectManager::size() {
    const CMN_Entered entered(*lock);
    int objects = 0;
    for (const CMN_GuardedRef* obj = head; obj != nullptr; obj = obj->next) {
        ++objects;
    }
    return objects;
}

// The guard's mutex orders this look after a raise that some thread began before:
// a caller that is not seen here finds that its holder has let go.
bool CMN_ObjectManager::isBusy() {
    const CMN_Entered entered(*lock);
    for (const CMN_GuardedRef* obj = head; obj != nullptr; obj = obj->next) {
        if (obj->references() == 0) {
            return true;
        }
        if (CMN_Guard* const guard = obj->guard) {
            guard->lock();
            const int calls = guard->calls();
            guard->unlock();
            if (calls > 0) {
                return true;
            }
        }
    }
    return false;
}

int CMN_ObjectManager::unhookForeign(const TypifiedID& home) {
    int busy = 0;
    forEachPinned([&](CMN_GuardedRef& obj, const CMN_GRPHolder* pin) {
        std::unique_lock<CMN_Mutex> callsWait;
        if (obj.guard != nullptr) {
            callsWait = std::unique_lock<CMN_Mutex>(*obj.guard);
            if (obj.guard->calls() > 0) {
                ++busy;
                return;
            }
        }
        detachHolders(obj, [&](CMN_GRPHolder* holder) {
            return holder != pin && !(holder->getModuleID() == home);
        });
    });
    return busy;
}
