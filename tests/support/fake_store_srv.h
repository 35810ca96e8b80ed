// A store service and a cipher for tests: they write down what they are asked, with
// the guard's count of calls at that time, and answer what they are told to.
#ifndef TESTS_SUPPORT_FAKE_STORE_SRV_H
#define TESTS_SUPPORT_FAKE_STORE_SRV_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "api/t_cryptocoder.h"
#include "api/t_filestore_srv.h"
#include "client/cmn_abuf.h"
#include "client/crypto_coder_exp.h"
#include "cmn/status.h"

// One call: what was asked, and how often the object's guard was raised then.
struct AskedFor {
    std::string what;
    int raised = 0;

    bool operator==(const AskedFor&) const = default;
};

class Asked {
public:
    std::vector<AskedFor> calls;

protected:
    void note(const CMN_GuardedRef& self, std::string what) {
        const CMN_Guard* const guard = self.getGuard();
        calls.push_back({std::move(what), guard == nullptr ? 0 : guard->calls()});
    }
};

class FakeCoder final : public TCryptoCoder, public Asked {
public:
    // What becomes of the bytes; the handle without buffer of a coder that cannot.
    using Transform = std::function<aBuf(aBuf&)>;

    explicit FakeCoder(Transform make = {})
        : TCryptoCoder(0), transform(make ? std::move(make) : [](aBuf& data) { return data; }) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    Status setKey(aBuf& /*password*/) override {
        note(*this, "setKey");
        return answer;
    }
    aBuf encrypt(aBuf& data) override {
        note(*this, "encrypt");
        return transform(data);
    }
    aBuf decrypt(aBuf& data) override {
        note(*this, "decrypt");
        return transform(data);
    }

    Transform transform;
    Status answer = kOk;
};

class FakeStoreSrv final : public TFileStoreSrv, public Asked {
public:
    FakeStoreSrv() : TFileStoreSrv(0) {}

    unsigned int getModuleID() override { return 107; }
    unsigned int getVersion() override { return 1; }
    unsigned int getBuild() override { return 1; }
    int isReplaceable() override { return 1; }
    CMN_GuardedRef* createObject(unsigned int /*kind*/) override { return nullptr; }
    Status addModule(unsigned int /*id*/, BaseModuleInterface* /*module*/) override { return kIo; }
    CMN_GuardedRef* getService(const TypifiedID& /*id*/) override { return this; }
    Status init() override { return kOk; }
    Status fini() override { return kOk; }

    Status open(const char* password) override { return ask("open", password); }
    Status close() override { return ask("close"); }
    int isOpen() override {
        (void)ask("isOpen");
        return opened;
    }
    Status checkPwd(const char* password) override { return ask("checkPwd", password); }
    Status recrypt(const char* oldPassword, const char* newPassword) override {
        return ask("recrypt", oldPassword, newPassword);
    }
    CMN_GuardedRef* create(unsigned int kind) override {
        (void)ask("create");
        return made ? made(kind) : nullptr;
    }
    aCryptoEncoder getEncoder() override {
        (void)ask("getEncoder");
        return aCryptoEncoder(coder.get());
    }
    aCryptoDecoder getDecoder() override {
        (void)ask("getDecoder");
        return aCryptoDecoder(coder.get());
    }
    Status encode(aBuf key, aBuf data, aBuf& out) override {
        out = data;
        return ask("encode", text(key), text(data));
    }
    Status decode(aBuf key, aBuf data, aBuf& out) override {
        out = data;
        return ask("decode", text(key), text(data));
    }
    Status prepareDBFolders() override { return ask("prepareDBFolders"); }

    // The answers.
    Status answer = kOk;
    int opened = 1;
    CMN_GRefPtr<TCryptoCoder> coder;  // of both handles
    std::function<CMN_GuardedRef*(unsigned int)> made;

private:
    static std::string text(const aBuf& buffer) {
        return {reinterpret_cast<const char*>(buffer.datap()), buffer.len()};
    }

    template <class... Args>
    Status ask(std::string what, const Args&... args) {
        ((what += ' ', what += args), ...);
        note(*this, std::move(what));
        return answer;
    }
};

#endif  // TESTS_SUPPORT_FAKE_STORE_SRV_H
