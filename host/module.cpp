#include "host/module.h"

#include <utility>

#include "cmn/no_throw.h"

Module::~Module() {
    stop();
    (void)noThrow([&] { return unmap().status; });  // nobody is left to be told
}

// Runs a call into the module; `what` names it.
template <class Call>
Result Module::calling(const char* what, Call call) {
    std::string words;
    const Status status = noThrow(
        [&] {
            call();
            return kOk;
        },
        words);
    if (status == kOk) {
        return {};
    }
    return refuse(status, what + std::string(" throws an exception") +
                              (words.empty() ? words : ": " + words));
}

Result Module::refuse(Status status, const std::string& reason) const {
    return {status, path() + ": " + reason};
}

Result Module::start(TModuleManager& manager, std::optional<unsigned int> expected) {
    called_ = true;
    if (Result called = calling("its entry", [&] { face_ = file_.entry()(&manager, 0); });
        !called.ok()) {
        return called;
    }
    if (face_ == nullptr) {
        return refuse(kMalformed, "its entry gives no object");
    }
    started_ = true;
    // Before anything else can fail: without a reference the object could not be taken
    // back, and a walk through the module's objects would wait for its first holder.
    self_ = dynamic_cast<CMN_GuardedRef*>(face_);
    if (self_ != nullptr) {
        self_->addReference();
    }
    CMN_GuardedRef* offered = nullptr;
    if (Result called = calling("its object",
                                [&] {
                                    id_ = face_->getModuleID();
                                    offered = face_->getService(Tuint32ID(id_));
                                });
        !called.ok()) {
        return called;
    }
    if (offered == nullptr) {
        return refuse(kMalformed, "offers no service of its own");
    }
    service_ = offered;
    if (service_ != self_) {
        service_->addReference();
    }
    if (expected && id_ != *expected) {
        return refuse(kMalformed,
                      "is module " + std::to_string(id_) + ", not " + std::to_string(*expected));
    }
    Status begun = kOk;
    if (Result called = calling("its service", [&] { begun = service_->init(); }); !called.ok()) {
        return called;
    }
    return begun == kOk ? Result{} : refuse(begun, "its service does not start");
}

// The entry stops the module's objects. Holders of its own that are left, static
// ones above all, let go before the host does, whose reference is then the last. A
// step that throws does not keep the next one from being taken.
void Module::stop() noexcept {
    if (!std::exchange(started_, false)) {
        return;
    }
    (void)noThrow([&] {
        file_.entry()(nullptr, 0);
        return kOk;
    });
    (void)noThrow([&] {
        objects().fini();
        return kOk;
    });
    letGo();
}

void Module::letGo() noexcept {
    CMN_GuardedRef* const service = std::exchange(service_, nullptr);
    CMN_GuardedRef* const self = std::exchange(self_, nullptr);
    BaseModuleInterface* const face = std::exchange(face_, nullptr);
    (void)noThrow([&] {
        if (service != nullptr && service != self) {
            service->remReference();
        }
        if (self != nullptr) {
            self->remReference();
        } else {
            delete face;
        }
        return kOk;
    });
}

// An object whose code is gone is worse than a file that stays.
Result Module::unmap() {
    const int left = file_.isOpen() && called_ ? objects().size() : 0;
    if (left != 0) {
        file_.abandon();
        return refuse(kIo,
                      "stays mapped, for objects that it has left behind: " + std::to_string(left));
    }
    return file_.close();
}

void Module::abandon() noexcept {
    started_ = false;
    file_.abandon();
}

Result Module::isReplaceable(bool& replaceable) {
    replaceable = false;
    return calling("its object", [&] { replaceable = face_->isReplaceable() != 0; });
}

Result Module::takeOver(CMN_ObjectManager& objects) {
    return calling("its MakeObject()", [&] { objects.giveUp(file_.makeObject()); });
}
