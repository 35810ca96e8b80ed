// The module of probe.h. Macros say what is built:
//
//   PROBE_ID          the module's number; PROBE_VERSION, its version
//   PROBE_USES        the number of the module that it uses
//   PROBE_REPLACEABLE what isReplaceable() answers
//   PROBE_REMAKES     defined: MakeObject() makes successors
//   PROBE_FAULT       what goes wrong, one of the values below
//
// The environment may say more. PROBE_THROWS, "<where> <what>", names a call that throws
// and an exception; stopping such a module sets it to "stopped". PROBE_<id>_start and
// PROBE_<id>_stop name what the entry asks of the host, "load <path>" or "unload <id>";
// the status answered is put in its place. With PROBE_APART the module's object is not
// its service.
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <thread>

#include "cmn/objmgrfunc.h"
#include "tests/host/modules/probe.h"

#ifndef PROBE_FAULT
#define PROBE_FAULT kNone
#endif

namespace {

enum Fault { kNone, kNullEntry, kNoService, kFailingInit };
constexpr Fault kFault = PROBE_FAULT;

std::vector<std::string>* log = nullptr;

void note(const char* event) {
    if (log != nullptr) {
        log->push_back(std::to_string(PROBE_VERSION) + " " + event);
    }
}

// Exceptions whose types, destructors and words are in this file.
class OwnException {
public:
    OwnException() = default;
    OwnException(const OwnException&) = default;
    OwnException& operator=(const OwnException&) = default;
    virtual ~OwnException() { note("exception gone"); }
};
class OwnStdException : public std::exception {
public:
    const char* what() const noexcept override { return "words of its own"; }
};

void mayThrow(const std::string& where) {
    const char* const wanted = std::getenv("PROBE_THROWS");
    const std::string throws = wanted == nullptr ? "" : wanted;
    if (throws == where + " bad_alloc") {
        throw std::bad_alloc();
    }
    if (throws == where + " std") {
        throw OwnStdException();
    }
    if (throws == where + " own") {
        throw OwnException();
    }
    if (throws == where + " number") {
        throw 7;
    }
}

void noteStop() {
    note("stopped");
    if (std::getenv("PROBE_THROWS") != nullptr) {
        setenv("PROBE_THROWS", "stopped", 1);
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

    unsigned int getModuleID() override {
        mayThrow("getModuleID");
        return PROBE_ID;
    }
    unsigned int getVersion() override { return PROBE_VERSION; }
    unsigned int getBuild() override { return 1; }
    int isReplaceable() override {
        mayThrow("isReplaceable");
        return PROBE_REPLACEABLE;
    }
    CMN_GuardedRef* createObject(unsigned int) override { return nullptr; }
    Status addModule(unsigned int, BaseModuleInterface*) override { return kIo; }
    CMN_GuardedRef* getService(const TypifiedID& id) override {
        mayThrow("getService");
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
    Status init() override {
        mayThrow("init");
        return kFault == kFailingInit ? kNoDigest : kOk;
    }
    Status fini() override {
        note("service fini");
        return kOk;
    }

private:
    CMN_GRefPtr<TThing> kept_;
};

Probe* service = nullptr;

class Apart final : public BaseModuleInterface {
public:
    ~Apart() override { note("object gone"); }

    unsigned int getModuleID() override { return service->getModuleID(); }
    unsigned int getVersion() override { return service->getVersion(); }
    unsigned int getBuild() override { return service->getBuild(); }
    int isReplaceable() override { return service->isReplaceable(); }
    CMN_GuardedRef* createObject(unsigned int) override { return nullptr; }
    Status addModule(unsigned int, BaseModuleInterface*) override { return kIo; }
    CMN_GuardedRef* getService(const TypifiedID& id) override { return service->getService(id); }
};

void ask(const std::string& when) {
    const std::string name = "PROBE_" + std::to_string(PROBE_ID) + "_" + when;
    const char* const set = std::getenv(name.c_str());
    if (set == nullptr) {
        return;
    }
    const std::string wish = set;
    const std::string what = wish.substr(wish.find(' ') + 1);
    const Status status =
        wish.rfind("load ", 0) == 0
            ? ModMgr->loadModule(what.c_str())
            : ModMgr->unloadModule(Tuint32ID(static_cast<unsigned int>(std::stoul(what))));
    setenv(name.c_str(), std::to_string(status).c_str(), 1);
}

}  // namespace

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(PROBE_ID);

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    if (manager == nullptr) {
        ObjectManager.finiAll();
        noteStop();
        ask("stop");
        mayThrow("stop");
        return nullptr;
    }
    ModMgr = manager;
    if (flag != 0 || kFault == kNullEntry) {
        return nullptr;
    }
    mayThrow("entry");
    ask("start");
    service = new Probe;
    if (std::getenv("PROBE_APART") != nullptr) {
        return new Apart;
    }
    return service;
}

CMN_GuardedRef* MakeObject([[maybe_unused]] unsigned int type,
                           [[maybe_unused]] CMN_GuardedRef& old) {
    mayThrow("MakeObject");
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
