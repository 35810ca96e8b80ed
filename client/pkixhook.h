// SPDX-License-Identifier: Apache-2.0
// Bases of the proxies that remember how their last call ended, and a way to keep a
// decoded object for good.
//
// As with every object stub, many threads may call one proxy at once; building, assigning
// and destroying it is one thread's. error() is then that of any of the latest calls.
#ifndef CLIENT_PKIXHOOK_H
#define CLIENT_PKIXHOOK_H

#include <atomic>
#include <utility>

#include "api/t_buf.h"
#include "client/pkixkeyclnt.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_stub.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

// An object stub with the status of its last call. Without object nothing is called and
// the status is kNoObject; a call that ends in an exception leaves it as it was.
template <class T>
class PKIXAnyObject : public CMN_ObjectStub<T> {
public:
    // As CMN_ObjectStub; a null `target` gives kNoObject.
    PKIXAnyObject(T* target, CMN_ServiceStubInterface* service)
        : CMN_ObjectStub<T>(target, service), m_error(target == nullptr ? kNoObject : kOk) {}

    // Copies share the object and start with the other's status.
    PKIXAnyObject(const PKIXAnyObject& other) : CMN_ObjectStub<T>(other), m_error(other.error()) {}
    PKIXAnyObject& operator=(const PKIXAnyObject& other) {
        CMN_ObjectStub<T>::operator=(other);
        record(other.error());
        return *this;
    }
    // NOLINTNEXTLINE(performance-noexcept-move-constructor): may need memory, as the stub's
    PKIXAnyObject& operator=(PKIXAnyObject&& other) {
        record(other.error());
        CMN_ObjectStub<T>::operator=(std::move(other));
        return *this;
    }

    // How the last call ended: kOk, kNoObject, or a status of the object's own.
    Status error() const noexcept { return m_error.load(std::memory_order_relaxed); }

protected:
    // Takes a new object, or null, in place of none.
    void hold(T* target) {
        this->m_ref = target;
        record(target == nullptr ? kNoObject : kOk);
    }

    Status record(Status status) const noexcept {
        m_error.store(status, std::memory_order_relaxed);
        return status;
    }

    // Calls an operation of the object that answers with a status, and records it.
    template <class Operation>
    Status callForStatus(Operation operation) const {
        return record(forwardTo(
            this->m_ref, [] { return kNoObject; }, operation));
    }

    // Calls an operation that cannot fail; `missing` is the answer without an object.
    template <class R, class Operation>
    R callForValue(R missing, Operation operation) const {
        return forwardTo(
            this->m_ref, [&] { return record(kNoObject), missing; },
            [&](T& target) {
                const R value = operation(target);
                record(kOk);
                return value;
            });
    }

private:
    mutable std::atomic<Status> m_error;  // also getters set it
};

// A proxy of an object of the PKIX key service.
template <class T>
class PKIXKeyObject : public PKIXAnyObject<T> {
public:
    explicit PKIXKeyObject(T* target) : PKIXAnyObject<T>(target, &pkixKeyClnt) {}

protected:
    // Calls an operation, and records what the object's getError() then says; `missing` is
    // the answer without an object.
    template <class R, class Operation>
    R callAndAsk(R missing, Operation operation) const {
        return forwardTo(
            this->m_ref, [&] { return this->record(kNoObject), missing; },
            [&](T& target) {
                const R value = operation(target);
                this->record(target.getError());
                return value;
            });
    }
};

// The holder under which objects are kept for the life of the process. Each of them
// lists it and it points at none, so nothing ever takes their references back.
class XBaseHolder final : public CMN_GRPHolder {
public:
    void replacePointee(CMN_GuardedRef* /*object*/) override {}
    const TypifiedID& getModuleID() override { return *pModuleID; }
};

// The object that `obj` holds, or null. With `keep` not 0 it gains a reference that is
// never given back: it stays alive, and its module loaded, until the process ends. That
// can throw std::bad_alloc. Without `keep` the pointer is valid while a proxy holds the
// object.
XBase* getXBase(const PKIXAnyObject<XBase>& obj, int keep);

#endif  // CLIENT_PKIXHOOK_H
