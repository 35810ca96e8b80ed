// SPDX-License-Identifier: Apache-2.0
// Client stubs: how code calls objects and services, of other modules and of its own.
//
// A service stub stands for one service, found through the host on first use. An
// object stub wraps one object that a service made, and keeps the service in use while
// it lives. A proxy derives from one of them and adds a forwarding method for each
// operation; every call runs with the target's guard raised.
//
// All threads share a service stub. Many threads may call one object stub at once;
// building, assigning and destroying it is one thread's at a time.
//
// The order of fields and of virtual operations is a binary contract between
// modules.
#ifndef CMN_CMN_STUB_H
#define CMN_CMN_STUB_H

#include <atomic>
#include <mutex>
#include <type_traits>
#include <utility>

#include "cmn/cmn_gref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/export.h"
#include "cmn/host_mgr.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

// Keeps a guard's count of calls raised for a scope; null raises nothing.
class CMN_EXPORT GuardLock {
public:
    explicit GuardLock(CMN_Guard* g) : guard(g) {
        if (guard != nullptr) {
            guard->inc();
        }
    }
    GuardLock(const GuardLock&) = delete;
    GuardLock& operator=(const GuardLock&) = delete;
    ~GuardLock() {
        if (guard != nullptr) {
            guard->dec();
        }
    }

protected:
    struct AlreadyRaised {
        CMN_Guard* guard;
    };
    explicit GuardLock(AlreadyRaised raised) noexcept : guard(raised.guard) {}

private:
    CMN_Guard* guard;
};

// The guard lock of a call through a holder; `target` becomes the object to call, or null.
class CMN_EXPORT GuardLockVar : public GuardLock {
public:
    template <class T>
    GuardLockVar(const CMN_GRefPtr<T>& holder, T*& target) : GuardLock(raise(holder, target)) {}

private:
    template <class T>
    CMN_HIDDEN static AlreadyRaised raise(const CMN_GRefPtr<T>& holder, T*& target) {
        AlreadyRaised raised{};
        target = holder.raise(raised.guard);
        return raised;
    }
};

// Calls `operation` of the object that `ref` holds, with its guard raised, also while
// an exception passes; without an object returns what `missing()` returns.
template <class T, class Missing, class Operation>
auto forwardTo(const CMN_GRefPtr<T>& ref, Missing missing, Operation operation)
    -> decltype(operation(*ref.get())) {
    if (ref.get() == nullptr) {
        return missing();
    }
    T* target = nullptr;
    const GuardLockVar raised(ref, target);
    if (target == nullptr) {
        return missing();
    }
    return operation(*target);
}

class CMN_EXPORT CMN_ServiceStubInterface {
public:
    virtual void ref() = 0;
    virtual void unref() = 0;

protected:
    ~CMN_ServiceStubInterface() = default;
};

template <class T>
class CMN_ServiceStub : public CMN_ServiceStubInterface {
public:
    // A stub for the service of module `service`, an identifier that must outlive it;
    // bound at once to `target` unless that is null.
    explicit CMN_ServiceStub(const TypifiedID& service, T* target = nullptr)
        : m_ref(target, &service) {}
    CMN_ServiceStub(const CMN_ServiceStub&) = delete;

    // Takes over the other's service object, as an assignment of its holder.
    CMN_ServiceStub& operator=(const CMN_ServiceStub& other) {
        m_ref = other.m_ref;
        return *this;
    }

    // One more object depends on the service. Acquires it if the host has it, and counts
    // the use in any case.
    void ref() override {
        if (changeUses(1)) {
            return;
        }
        const std::lock_guard locked(mutex);
        bind();
        ++count;
    }

    // Undoes one ref(); the last one releases the service and its module.
    void unref() override {
        if (changeUses(-1)) {
            return;
        }
        const std::lock_guard locked(mutex);
        if (--count == 0 && m_ref.get() != nullptr) {
            m_ref = nullptr;
        }
    }

    virtual ~CMN_ServiceStub() = default;

    // Acquires the service unless that is done; false when it cannot be reached now.
    bool acquire() {
        if (m_ref.get() != nullptr) {
            return true;
        }
        if (ModMgr == nullptr) {
            return false;
        }
        const std::lock_guard locked(mutex);
        bind();
        return m_ref.get() != nullptr;
    }

    // The service's interface, or null while it is not acquired.
    T* service() const noexcept { return m_ref.get(); }

    // The uses that ref() counted and unref() has not undone.
    int uses() {
        const std::lock_guard locked(mutex);
        return count;
    }

protected:
    // Acquires the service and calls operation(T&); `missing` is the answer when it
    // cannot be reached. If another thread's unref() releases the service before the
    // call, it is acquired again.
    template <class R, class Operation>
    R call(R missing, Operation operation) {
        while (acquire()) {
            bool gone = false;
            R answer = forwardTo(
                m_ref, [&] { return gone = true, missing; }, operation);
            if (!gone) {
                return answer;
            }
        }
        return missing;
    }

    // As call(), of an operation of the interface.
    template <class R, class... Params, class... Args>
    R forward(R (T::*operation)(Params...), std::type_identity_t<R> missing, Args&&... args) {
        return call(missing,
                    [&](T& target) { return (target.*operation)(std::forward<Args>(args)...); });
    }

    CMN_GRefPtr<T> m_ref;

private:
    // A use that the host has counted and that is given back when there is no memory to
    // hold the service.
    struct CountedUse {
        const CMN_GRefPtr<T>& holder;
        bool isHeld = false;
        ~CountedUse() {
            if (!isHeld) {
                holder.releaseModule();
            }
        }
    };

    // Counts without the lock where that neither acquires nor releases the service: it is
    // held, and was in use before and is afterwards. False, and nothing counted, elsewhere.
    bool changeUses(int by) noexcept {
        int before = count.load(std::memory_order_relaxed);
        while (before > 0 && before + by > 0 && m_ref.get() != nullptr) {
            if (count.compare_exchange_weak(before, before + by, std::memory_order_acq_rel,
                                            std::memory_order_relaxed)) {
                return true;
            }
        }
        return false;
    }

    // The caller holds `mutex`, so only one thread asks the host.
    void bind() {
        if (ModMgr == nullptr || m_ref.get() != nullptr) {
            return;
        }
        if (CMN_GuardedRef* const found = ModMgr->acquireService(*m_ref.supplier(), *pModuleID)) {
            CountedUse use{m_ref};
            m_ref = static_cast<T*>(found);
            use.isHeld = true;
        }
    }

    std::atomic<int> count{0};  // reaches 0, and leaves it, under mutex
    CMN_Mutex mutex;            // guards the acquisition and the release
};

template <class T>
class CMN_ObjectStub {
public:
    // Holds `target`, which may be null, and takes a use of `service`, the stub of
    // the service that the object comes from, for as long as the stub lives.
    // `service` may be null: then none is taken.
    CMN_ObjectStub(T* target, CMN_ServiceStubInterface* service) : m_ref(target), m_srv(service) {
        if (m_srv != nullptr) {
            m_srv->ref();
        }
    }

    // Shares the object, and takes a use of the service of its own.
    CMN_ObjectStub(const CMN_ObjectStub& other) : CMN_ObjectStub(other.target(), other.m_srv) {}

    // Shares the other's object; the service in use stays what it is.
    CMN_ObjectStub& operator=(const CMN_ObjectStub& other) {
        if (this != &other) {
            m_ref = other.m_ref;
        }
        return *this;
    }

    // Takes the other's object over; both keep their uses of the service. May need memory:
    // see CMN_GRefPtr::takeOver().
    // NOLINTNEXTLINE(performance-noexcept-move-constructor)
    CMN_ObjectStub& operator=(CMN_ObjectStub&& other) {
        m_ref.takeOver(other.m_ref);
        return *this;
    }

    // The object goes before the service that it came from.
    virtual ~CMN_ObjectStub() {
        m_ref = nullptr;
        if (m_srv != nullptr) {
            m_srv->unref();
        }
    }

    // The object held, or null. It stays alive while the stub holds it.
    T* target() const noexcept { return m_ref.get(); }

protected:
    // Calls operation(T&); `missing` is the answer without an object.
    template <class R, class Operation>
    R call(R missing, Operation operation) const {
        return forwardTo(
            m_ref, [&] { return missing; }, operation);
    }

    // As call(), of an operation of the interface.
    template <class R, class... Params, class... Args>
    R forward(R (T::*operation)(Params...), std::type_identity_t<R> missing, Args&&... args) const {
        return call(missing,
                    [&](T& target) { return (target.*operation)(std::forward<Args>(args)...); });
    }

    CMN_GRefPtr<T> m_ref;

private:
    CMN_ServiceStubInterface* m_srv;  // not owned: a global of this module
};

#endif  // CMN_CMN_STUB_H
