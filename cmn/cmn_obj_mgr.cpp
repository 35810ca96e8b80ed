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
// all to have references at once, busy threads could hold a walk up for
// ever.
class CMN_HIDDEN CMN_ObjectManager::Settled {
public:
    explicit Settled(CMN_ObjectManager& registry) CMN_NO_TSA : lock_(*registry.lock),
                                                               entered_(lock_) {
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
    ~Settled() = default;

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
    const CMN_Entered entered_;
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

// A successor, kept until its holders have come over. One that nobody holds then goes.
class Kept {
public:
    Kept() = default;
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept() {
        if (object_ != nullptr) {
            object_->CMN_Reference::remReference();
        }
    }

    void keep(CMN_GuardedRef* object) {
        if (object != nullptr) {
            object->CMN_Reference::addReference();
        }
        object_ = object;
    }
    CMN_GuardedRef* object() const noexcept { return object_; }

private:
    CMN_GuardedRef* object_ = nullptr;
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
// in progress. The guard's mutex comes before every other lock here: a factory may need
// any of them. The pin stays: with the last reference the object would go while its own
// lock is held. What nothing but the pin holds gets no successor, for nobody would keep
// it.
bool CMN_ObjectManager::handOver(const DummyHolder& pinned, Successor make) {
    CMN_GuardedRef& obj = *pinned.object();
    CMN_Guard* const guard = obj.getGuard();
    if (guard != nullptr && guard->calls() != 0) {
        return false;
    }
    Kept successor;  // let go of when the locks are free
    std::unique_lock<CMN_Mutex> callsWait;
    if (guard != nullptr) {
        callsWait = std::unique_lock<CMN_Mutex>(*guard);
        if (guard->calls() != 0) {
            return false;
        }
    }
    if (!isHeldBeside(obj)) {
        return true;
    }
    successor.keep(make(obj.getType(), obj));
    const CMN_Entered entered(*lock);
    const CMN_Entered holdersStay(obj.holderMutex);
    CMN_GuardedRef::redirectHolders(successor.object(), obj.holders, pinned.holder());
    return true;
}

// Whether someone has the object besides the pin on it.
bool CMN_ObjectManager::isHeldBeside(CMN_GuardedRef& pinned) {
    const CMN_Entered entered(pinned.holderMutex);
    return pinned.holders.size() > 1;
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

    // Makes room for the objects under all pins that a walk has at a time.
    void makeRoom() {
        constexpr std::size_t kPins = 2;
        if (objects_.capacity() - objects_.size() < kPins) {
            objects_.reserve(2 * objects_.capacity() + kPins);
        }
    }

    // Keeps the object by a reference without a holder, which no other walk detaches.
    // There is room.
    void adopt(CMN_GuardedRef& obj) noexcept {
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

// Pins an object, which may be null, for a walk, under the registry's lock. An object
// that it pins last of all becomes an orphan, for which there is room from the start: so
// it does also when the walk ends for lack of memory.
class CMN_HIDDEN CMN_ObjectManager::Pin {
public:
    Pin(CMN_GuardedRef* obj, Orphans& orphans) : orphans_(&orphans) {
        if (obj != nullptr) {
            orphans.makeRoom();
            holder_ = new DummyHolder(obj);
        }
    }
    Pin(Pin&& other) noexcept
        : orphans_(other.orphans_), holder_(std::exchange(other.holder_, nullptr)) {}
    Pin& operator=(Pin&& other) noexcept {
        std::swap(holder_, other.holder_);
        return *this;
    }
    ~Pin() {
        if (holder_ == nullptr) {
            return;
        }
        if (object()->references() == 1) {
            orphans_->adopt(*object());
        }
        holder_->letGo();
        holder_->die();
    }

    CMN_GuardedRef* object() const noexcept {
        return holder_ == nullptr ? nullptr : holder_->object();
    }
    const CMN_GRPHolder* holder() const noexcept { return holder_->holder(); }

private:
    Orphans* orphans_;
    DummyHolder* holder_ = nullptr;
};

// The object that is visited and the one after it are pinned, so that whatever a
// visit lets go of, the walk can go on.
template <class Visit>
void CMN_ObjectManager::forEachPinned(Visit visit) {
    Orphans orphans;
    const Settled settled(*this);
    for (Pin current(Settled::held(head), orphans); current.object() != nullptr;) {
        CMN_GuardedRef& obj = *current.object();
        Pin following(Settled::held(obj.next), orphans);
        visit(obj, current.holder());
        current = std::move(following);
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
                obj.unlist(node);
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

void CMN_ObjectManager::detachAll(CMN_GuardedRef& obj) {
    const CMN_Entered entered(*lock);
    detachHolders(obj, [](const CMN_GRPHolder*) { return true; });
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
// a caller that is not seen here finds that its holder has let go. Who has that mutex
// begins or ends a call, or takes the object over, and may be waiting for the registry:
// so nobody waits for it here.
bool CMN_ObjectManager::isBusy() {
    const CMN_Entered entered(*lock);
    for (const CMN_GuardedRef* obj = head; obj != nullptr; obj = obj->next) {
        if (obj->references() == 0) {
            return true;
        }
        if (CMN_Guard* const guard = obj->guard) {
            const std::unique_lock<CMN_Mutex> callsWait(*guard, std::try_to_lock);
            if (!callsWait || guard->calls() > 0) {
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
            callsWait = std::unique_lock<CMN_Mutex>(*obj.guard, std::try_to_lock);
            if (!callsWait || obj.guard->calls() > 0) {
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
