// SPDX-License-Identifier: Apache-2.0
// Objects that modules share, and the holders that keep them alive.
//
// A CMN_GuardedRef knows every holder that references it, so the framework can
// redirect all of them to a replacement, or detach those of a module that is being
// unloaded. A holder is in practice a CMN_GRefPtr<T>. A CMN_Guard, made by the host,
// counts the calls and releases in progress, so that no redirection overlaps one.
//
// The order of fields and of virtual operations is a binary contract between
// modules. Locks: see docs/locking.md.
#ifndef CMN_CMN_GREF_H
#define CMN_CMN_GREF_H

#include <atomic>

#include "cmn/cmn_ref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/export.h"
#include "cmn/holder_list.h"
#include "cmn/host_mgr.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

class CMN_GuardedRef;
class CMN_ObjectManager;

// Made by the host with `new`, counted by the objects that use it; the host
// keeps a reference of its own for as long as a late caller may still raise it.
class CMN_EXPORT CMN_Guard : public CMN_Mutex, public CMN_Reference {
public:
    CMN_Guard() = default;
    // `counts` takes the place of RefMutex for the count of references.
    explicit CMN_Guard(CMN_RecursiveMutex* counts) noexcept : CMN_Reference(counts) {}
    CMN_Guard(const CMN_Guard&) = delete;
    CMN_Guard& operator=(const CMN_Guard&) = delete;
    ~CMN_Guard() override;

    // Raise and lower the count of calls and releases in progress, and return the new
    // count.
    int inc() { return change(1); }
    int dec() { return change(-1); }

    // The count, read without the mutex; for waiting until it is 0.
    int calls() const noexcept { return counter.load(std::memory_order_relaxed); }

private:
    CMN_HIDDEN int change(int by);

    // Changed under the mutex only; atomic for the unlocked reads.
    std::atomic<int> counter{0};
};

// A reference from module `getModuleID()` to a guarded object.
class CMN_EXPORT CMN_GRPHolder {
public:
    CMN_GRPHolder(const CMN_GRPHolder&) = delete;
    CMN_GRPHolder& operator=(const CMN_GRPHolder&) = delete;

    // Lets go of the present object and attaches `object`, or nothing for null.
    virtual void replacePointee(CMN_GuardedRef* object) = 0;

    virtual const TypifiedID& getModuleID() = 0;

    // The guard of the object held; null when nothing was ever held.
    CMN_Guard* heldGuard() const noexcept { return guard.load(std::memory_order_acquire); }

protected:
    CMN_GRPHolder() = default;
    ~CMN_GRPHolder() = default;

    // Changes while other threads look, when the object is replaced.
    std::atomic<CMN_Guard*> guard{nullptr};
};

// Base of every object that modules share. Objects are made with `new`, register
// themselves with their module's object manager, and delete themselves when the
// last holder lets go.
class CMN_EXPORT CMN_GuardedRef : public CMN_Reference {
public:
    using HolderList = slist<CMN_GRPHolder>;

    // `objectType` is what the framework asks MakeObject() of a successor module for.
    explicit CMN_GuardedRef(unsigned int objectType);
    // A new object with the type and the guard of `src`, and no holder.
    CMN_GuardedRef(const CMN_GuardedRef& src);
    CMN_GuardedRef& operator=(const CMN_GuardedRef&) = delete;
    ~CMN_GuardedRef() override;

    // Start and end of the object's service life; the host's side calls them.
    virtual Status init() = 0;
    virtual Status fini() = 0;

    unsigned int getType() const noexcept { return type; }
    void setType(unsigned int objectType) noexcept { type = objectType; }
    CMN_Guard* getGuard() const noexcept { return guard; }
    void setGuard(CMN_Guard* g);  // not null; it may be the one that the object has

    // The holders, newest first; look at them under the holder lock only.
    HolderList& _getHolders() noexcept { return holders; }
    void lockHolderList() CMN_NO_TSA { holderMutex.enter(); }
    void unlockHolderList() CMN_NO_TSA { holderMutex.exit(); }

    using CMN_Reference::addReference;
    using CMN_Reference::remReference;

    // Counts and lists one more reference by `holder`; a holder may be listed more than
    // once. Without memory to list it, throws std::bad_alloc and takes the count back:
    // an object that nobody else has a reference on is then gone.
    void addReference(CMN_GRPHolder* holder);

    // Takes back the newest reference by `holder` and returns the new count; at 0
    // the object is gone. A holder that is not listed changes nothing.
    int remReference(CMN_GRPHolder* holder);

    // Lists `to` in place of the newest reference by `from`; the count stays. False, with
    // nothing changed, when `from` is not listed.
    CMN_HIDDEN bool passReference(const CMN_GRPHolder* from, CMN_GRPHolder* to) noexcept;

    // Makes the newest reference by `holder` the newest of all, as if it was taken back and
    // added again; one that is not listed is added. Without memory it throws
    // std::bad_alloc and changes nothing.
    CMN_HIDDEN void renewReference(CMN_GRPHolder* holder);

    // Redirects to this object, oldest first, all holders of the object whose list
    // this is. The caller holds that object's holder lock.
    void updateHolders(HolderList& list) { redirectHolders(this, list); }

    // As updateHolders() of `to`; a null `to` detaches the holders. `spared`, which
    // may be null, stays as it is.
    static void redirectHolders(CMN_GuardedRef* to, HolderList& list,
                                const CMN_GRPHolder* spared = nullptr);

protected:
    // Detaches every holder. For the destructor of an object that its owner deletes
    // although it is held. No call is in progress, and the destructor has taken a
    // reference, so that the last holder to let go does not delete the object again.
    CMN_HIDDEN void detachAll();

private:
    friend class CMN_ObjectManager;  // for the two links, and for holders that do not let go

    CMN_HIDDEN int remReferenceInTurn(CMN_GRPHolder* holder);
    CMN_HIDDEN bool takeOff(const CMN_GRPHolder* holder);
    CMN_HIDDEN sitem<CMN_GRPHolder>* listed(const CMN_GRPHolder* holder);
    CMN_HIDDEN void unlist(sitem<CMN_GRPHolder>* node);

    unsigned int type;
    CMN_HolderList holders;  // under holderMutex
    CMN_Guard* guard;        // shared; one reference is held on it
    CMN_RecursiveMutex holderMutex{""};
    CMN_GuardedRef** prevLink = nullptr;  // under the manager's lock, as is `next`
    CMN_GuardedRef* next = nullptr;
};

// The typed holder through which every reference to a guarded object is kept.
//
// Construction, assignment and destruction belong to one thread at a time. Other
// threads may call the object through the holder, and the framework may redirect
// it, meanwhile. The object that a holder is copied from or assigned must stay until
// that is done, and a holder must not be redirected while it is assigned to: only calls
// and destruction raise the guard that a redirection waits for.
//
// An assignment lets go of the object, releases its module if it is replaced by nothing
// and a release is owed, and then attaches the new object. To be safe for other threads
// that call meanwhile, and for the object, three things differ from that order:
// - A holder that is emptied shows nothing before it lets go, not only at the end: nobody
//   finds an object in it that may be gone, or whose module was released.
// - A holder that is empty already releases no module when it is emptied: it owes none,
//   and the host would take the release for that of another holder.
// - A holder that is assigned the object that it holds does not let go of it in between,
//   which could destroy it. It becomes the newest holder, with the object's current guard.
template <class T>
class CMN_GRefPtr final : public CMN_GRPHolder {
public:
    CMN_GRefPtr() noexcept = default;

    // `supplier` is the module to release when the holder lets go of its object, or null
    // for none.
    explicit CMN_GRefPtr(T* object, const TypifiedID* supplier = nullptr) : moduleRef(supplier) {
        attach(object);
    }

    // Shares the object and owes no module release.
    CMN_GRefPtr(const CMN_GRefPtr& other) : CMN_GRPHolder() { attach(other.get()); }

    ~CMN_GRefPtr() {
        if (get() != nullptr) {
            release();
        }
    }

    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the assignment below looks
    CMN_GRefPtr& operator=(const CMN_GRefPtr& other) {
        *this = other.get();
        return *this;
    }
    CMN_GRefPtr& operator=(T* object) {
        T* const held = get();
        if (object == nullptr) {
            empty(held);
        } else if (held == object) {
            object->renewReference(this);
            guard.store(object->getGuard(), std::memory_order_release);
        } else {
            if (held != nullptr) {
                held->remReference(this);
            }
            attach(object);
        }
        return *this;
    }

    // Takes over the other's reference, which leaves it empty: as an assignment from it and
    // one of null to it, without a change of the count. Neither may owe the release of a
    // module. Memory is needed, and std::bad_alloc possible, only when the object was
    // replaced meanwhile.
    void takeOver(CMN_GRefPtr& other) {
        if (this == &other) {
            return;
        }
        T* const object = other.get();
        if (object != nullptr && object == get()) {
            other = nullptr;
            return;
        }
        *this = nullptr;
        if (object == nullptr) {
            return;
        }
        guard.store(object->getGuard(), std::memory_order_release);
        pointee.store(object, std::memory_order_release);
        if (object->passReference(&other, this)) {
            other.pointee.store(nullptr, std::memory_order_release);
        } else {
            enlist(object);
        }
    }

    // A concurrent caller waits for the old object's guard, or sees the new one's and must
    // then find everything else done: the guard comes last.
    void replacePointee(CMN_GuardedRef* object) override {
        if (T* const held = get()) {
            held->remReference(this);
        }
        auto* const next = static_cast<T*>(object);
        pointee.store(next, std::memory_order_release);
        if (next != nullptr) {
            enlist(next);
            guard.store(next->getGuard(), std::memory_order_release);
        }
    }

    const TypifiedID& getModuleID() override { return *moduleID; }

    T* get() const noexcept { return pointee.load(std::memory_order_acquire); }

    // The object held, with its guard raised, so that it is not replaced until the
    // caller lowers `raised`, which is null if there is no guard. The object may be
    // replaced until the guard is up, hence the second look.
    T* raise(CMN_Guard*& raised) const {
        for (;;) {
            raised = heldGuard();
            if (raised != nullptr) {
                raised->inc();
            }
            T* const held = get();
            if (heldGuard() == raised) {
                return held;
            }
            if (raised != nullptr) {
                raised->dec();
            }
        }
    }

    const TypifiedID* supplier() const noexcept { return moduleRef; }

    // Tells the host that this holder's use of the supplying module has ended.
    void releaseModule() const {
        if (moduleRef != nullptr && ModMgr != nullptr) {
            ModMgr->releaseModule(*moduleRef, *pModuleID);
        }
    }

private:
    struct Emptying {
        CMN_GRefPtr* holder;
        ~Emptying() {
            if (holder != nullptr) {
                holder->pointee.store(nullptr, std::memory_order_release);
            }
        }
    };

    // A holder that cannot be listed holds nothing; what it held before it has let go of.
    void enlist(T* object) {
        Emptying unlessListed{this};
        object->addReference(this);
        unlessListed.holder = nullptr;
    }

    // Lets go of `held`, which this holds; does nothing for null.
    void empty(T* held) {
        if (held != nullptr) {
            pointee.store(nullptr, std::memory_order_release);
            held->remReference(this);
            releaseModule();
        }
    }

    // For an empty holder. Whoever sees the object also sees its guard; and once the holder
    // is listed it may be redirected, so that comes last.
    void attach(T* object) {
        if (object != nullptr) {
            guard.store(object->getGuard(), std::memory_order_release);
        }
        pointee.store(object, std::memory_order_release);
        if (object != nullptr) {
            enlist(object);
        }
    }

    // A release that destroys the object leaves the guard raised: the guard may have gone
    // with the object, and if not, the host lowers it.
    void release() {
        CMN_Guard* raised = nullptr;
        T* const held = raise(raised);
        const bool survives = held == nullptr || held->remReference(this) != 0;
        if (survives && raised != nullptr) {
            raised->dec();
        }
        if (held != nullptr) {
            releaseModule();
        }
    }

    const TypifiedID* moduleRef = nullptr;
    std::atomic<T*> pointee{nullptr};
    const TypifiedID* moduleID = pModuleID;
};

// The holder with which the object manager pins an object while it works on it.
class CMN_EXPORT DummyHolder final {
public:
    // Attaches `object`, which may be null, and spins until someone else holds it too:
    // before its creator has attached the first holder, releasing this one would destroy
    // a half-built object. There is no limit and no sleep.
    explicit DummyHolder(CMN_GuardedRef* object);
    DummyHolder(const DummyHolder&) = delete;
    DummyHolder& operator=(const DummyHolder&) = delete;

    // Lets go and frees this holder.
    virtual void die();

    // Lets go without raising the guard, and holds nothing. For who has the lock of the
    // object's registry, which keeps redirections away: a guard's mutex comes before it.
    void letGo() { pin.replacePointee(nullptr); }

    // As die(), ignoring null.
    static void die(DummyHolder* holder);

    CMN_GuardedRef* object() const noexcept { return pin.get(); }
    const CMN_GRPHolder* holder() const noexcept { return &pin; }

private:
    ~DummyHolder() = default;

    CMN_GRefPtr<CMN_GuardedRef> pin;
};

#endif  // CMN_CMN_GREF_H
