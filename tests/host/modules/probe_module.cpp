// The module of probe.h. Macros say what is built:
//
//   PROBE_ID          the module's number; PROBE_VERSION, its version
//   PROBE_USES        the number of the module that it uses
//   PROBE_REPLACEABLE what isReplaceable() answers
//   PROBE_REMAKES     defined: MakeObject() makes successors
//   PROBE_FAULT       what goes wrong, one of the values below
#include <new>
#include <thread>

#include "cmn/objmgrfunc.h"
#include "tests/host/modules/probe.h"

#ifndef PROBE_FAULT
#define PROBE_FAULT kNone
#endif

namespace {

enum Fault { kNone, kNullEntry, kThrowingEntry, kNoService, kFailingInit };
constexpr Fault kFault = PROBE_FAULT;

std::vector<std::string>* log = nullptr;

void note(const char* event) {
    if (log != nullptr) {
        log->push_back(std::to_string(PROBE_VERSION) + " " + event);
    }
}

// Destroyed when the file is unmapped.
struct Unmapped {
    ~Unmapped() { note("unmapped"); }
} unmapped;

constinit Tuint32ID otherID(PROBE_USES);
aProbe other(otherID);
aProbe self(*pModuleID);

class Thing final : public TThing {
public:
    explicit Thing(int value = 0) : TThing(TProbe::kThing), value_(value) {}
    ~Thing() override { note("thing gone"); }

    int value() override { return value_; }
    void setValue(int value) override { value_ = value; }
    unsigned int madeBy() override { return PROBE_VERSION; }
    void wait(std::atomic<bool>* begun, const std::atomic<bool>* end) override {
        *begun = true;
        while (!*end) {
            std::this_thread::yield();
        }
    }
    Status init() override { return kOk; }
    Status fini() override {
        note("thing fini");
        return kOk;
    }

private:
    std::atomic<int> value_;
};

class Probe final : public TProbe {
public:
    Probe() : TProbe(kService) {}
    ~Probe() override { note("service gone"); }

    unsigned int getModuleID() override { return PROBE_ID; }
    unsigned int getVersion() override { return PROBE_VERSION; }
    unsigned int getBuild() override { return 1; }
    int isReplaceable() override { return PROBE_REPLACEABLE; }
    CMN_GuardedRef* createObject(unsigned int) override { return nullptr; }
    Status addModule(unsigned int, BaseModuleInterface*) override { return kIo; }
    CMN_GuardedRef* getService(const TypifiedID& id) override {
        return kFault != kNoService && id == ModuleID ? this : nullptr;
    }

    unsigned int version() override { return PROBE_VERSION; }
    CMN_GuardedRef* create() override { return new Thing; }
    void observe(std::vector<std::string>* events) override { log = events; }
    Status keepThingOfOther() override {
        kept_ = static_cast<TThing*>(other.create());
        return kept_.get() != nullptr ? kOk : kNoObject;
    }
    Status keepItself() override { return self.acquire() ? kOk : kNoObject; }
    CMN_GuardedRef* leaveThing() override {
        CMN_GuardedRef* const left = create();
        left->CMN_Reference::addReference();
        return left;
    }
    Status init() override { return kFault == kFailingInit ? kNoDigest : kOk; }
    Status fini() override {
        note("service fini");
        return kOk;
    }

private:
    CMN_GRefPtr<TThing> kept_;
};

Probe* service = nullptr;

}  // namespace

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(PROBE_ID);

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    if (manager == nullptr) {
        ObjectManager.finiAll();
        note("stopped");
        return nullptr;
    }
    ModMgr = manager;
    if (flag != 0 || kFault == kNullEntry) {
        return nullptr;
    }
    if (kFault == kThrowingEntry) {
        throw std::bad_alloc();
    }
    service = new Probe;
    return service;
}

CMN_GuardedRef* MakeObject([[maybe_unused]] unsigned int type,
                           [[maybe_unused]] CMN_GuardedRef& old) {
#ifdef PROBE_REMAKES
    if (type == TProbe::kThing) {
        return new Thing(static_cast<TThing&>(old).value());
    }
    if (type == TProbe::kService) {
        return service;
    }
#endif
    return nullptr;
}
