// A module for tests of the host: what its service and its objects do, and the
// stubs through which tests and other such modules call them.
//
// probe_module.cpp is built into several files, which differ in their macros.
#ifndef TESTS_HOST_MODULES_PROBE_H
#define TESTS_HOST_MODULES_PROBE_H

#include <atomic>
#include <string>
#include <vector>

#include "api/base_module.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_stub.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

class TThing : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    virtual int value() = 0;
    virtual void setValue(int value) = 0;
    virtual unsigned int madeBy() = 0;  // the version of the module that made it
    // Sets `begun`, and does not return before `end` is set.
    virtual void wait(std::atomic<bool>* begun, const std::atomic<bool>* end) = 0;
};

class TProbe : public BaseModuleInterface, public CMN_GuardedRef {
public:
    static constexpr unsigned int kService = 1;
    static constexpr unsigned int kThing = 2;

    using CMN_GuardedRef::CMN_GuardedRef;

    virtual unsigned int version() = 0;
    virtual CMN_GuardedRef* create() = 0;  // a new TThing, without reference
    // Notes in `events` what happens to the module, from now on.
    virtual void observe(std::vector<std::string>* events) = 0;
    // Makes a thing of the module that this one uses, and keeps it to the end.
    virtual Status keepThingOfOther() = 0;
    // Acquires this module's own service through a stub of its own, and keeps it.
    virtual Status keepItself() = 0;
    // A new thing with a reference that is no holder's.
    virtual CMN_GuardedRef* leaveThing() = 0;
    Status init() override = 0;
    Status fini() override = 0;
};

// Calls are made through call(): tests need no forwarding method of their own each.
class aProbe : public CMN_ServiceStub<TProbe> {
public:
    using CMN_ServiceStub::call;
    using CMN_ServiceStub::CMN_ServiceStub;

    // 0 when there is no service.
    unsigned int version() { return forward(&TProbe::version, 0U); }
    CMN_GuardedRef* create() { return forward(&TProbe::create, nullptr); }
};

class aThing : public CMN_ObjectStub<TThing> {
public:
    // A new thing of the service, or nothing.
    explicit aThing(aProbe& service)
        : CMN_ObjectStub(static_cast<TThing*>(service.create()), &service) {}

    // -1 and 0 when there is no thing.
    int value() const { return forward(&TThing::value, -1); }
    unsigned int madeBy() const { return forward(&TThing::madeBy, 0U); }
    void setValue(int value) const {
        call(0, [&](TThing& thing) {
            thing.setValue(value);
            return 0;
        });
    }
    bool wait(std::atomic<bool>* begun, const std::atomic<bool>* end) const {
        return call(false, [&](TThing& thing) {
            thing.wait(begun, end);
            return true;
        });
    }
};

#endif  // TESTS_HOST_MODULES_PROBE_H
