// Guarded objects and holders for tests, which write down what happens to them.
#ifndef TESTS_SUPPORT_TEST_OBJECTS_H
#define TESTS_SUPPORT_TEST_OBJECTS_H

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "cmn/cmn_gref.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

using EventLog = std::vector<std::string>;

// A guarded object with one operation of its own. Logs "init name", "fini name"
// and "~name" when it is given a log.
class TestObject : public CMN_GuardedRef {
public:
    static constexpr unsigned int kType = 0x6B0007;

    explicit TestObject(std::string name = {}, EventLog* log = nullptr,
                        unsigned int objectType = kType)
        : CMN_GuardedRef(objectType), name_(std::move(name)), log_(log) {
        ++count_;
    }
    TestObject(const TestObject& src) : CMN_GuardedRef(src), name_(src.name_), log_(src.log_) {
        ++count_;
    }
    TestObject& operator=(const TestObject&) = delete;
    ~TestObject() override {
        tell("~");
        --count_;
    }

    Status init() override {
        tell("init ");
        return kOk;
    }
    Status fini() override {
        tell("fini ");
        return kOk;
    }
    virtual int twice(int number) { return 2 * number; }

    const std::string& name() const { return name_; }

    // The objects of this class that live now.
    static int alive() { return count_; }

private:
    void tell(const char* what) {
        if (log_ != nullptr) {
            log_->push_back(what + name_);
        }
    }

    static inline std::atomic<int> count_{0};
    std::string name_;
    EventLog* log_;
};

// A holder that says which module it lives in. Logs "name: what it attaches"
// when it is redirected, with "nothing" for null.
class TestHolder : public CMN_GRPHolder {
public:
    explicit TestHolder(unsigned int module, std::string name = {}, EventLog* log = nullptr)
        : module_(module), name_(std::move(name)), log_(log) {}
    TestHolder(const TestHolder&) = delete;
    TestHolder& operator=(const TestHolder&) = delete;
    virtual ~TestHolder() { hold(nullptr); }

    // Lets go of the present object and attaches `object`, which may be null.
    void hold(TestObject* object) {
        if (TestObject* const held = std::exchange(object_, nullptr)) {
            held->remReference(this);
        }
        if (object != nullptr) {
            guard = object->getGuard();
            object->addReference(this);
        }
        object_ = object;
    }

    void replacePointee(CMN_GuardedRef* object) override {
        auto* const next = static_cast<TestObject*>(object);
        if (log_ != nullptr) {
            log_->push_back(name_ + ": " + (next == nullptr ? "nothing" : next->name()));
        }
        if (!stubborn_) {
            hold(next);
        }
    }

    const TypifiedID& getModuleID() override { return module_; }

    TestObject* object() const { return object_; }

    // From now on replacePointee() changes nothing.
    void refuse() { stubborn_ = true; }
    // Forgets the object without letting go of it.
    void forget() { object_ = nullptr; }

private:
    Tuint32ID module_;
    TestObject* object_ = nullptr;
    bool stubborn_ = false;
    std::string name_;
    EventLog* log_;
};

// The holders of an object, newest first.
inline std::vector<const CMN_GRPHolder*> holdersOf(CMN_GuardedRef& object) {
    std::vector<const CMN_GRPHolder*> found;
    object.lockHolderList();
    for (const auto* node = object._getHolders().first(); node != nullptr; node = node->next) {
        found.push_back(node->value);
    }
    object.unlockHolderList();
    return found;
}

#endif  // TESTS_SUPPORT_TEST_OBJECTS_H
