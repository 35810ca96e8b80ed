// A host for tests: offers service objects under numbers, hands out guards, and
// writes down who asked for what.
//
// Any thread may call it as the framework does; setting it up and reading the
// calls is the test's own thread's business. It must outlive whatever the tested
// code keeps of it, so declare it before holders and stubs.
#ifndef TESTS_SUPPORT_FAKE_HOST_H
#define TESTS_SUPPORT_FAKE_HOST_H

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "cmn/cmn_gref.h"
#include "cmn/host_mgr.h"
#include "cmn/status.h"

class FakeHost : public TModuleManager {
public:
    FakeHost() = default;
    ~FakeHost() override;  // gives its references on guards and services back

    // Offers `service` as the service of module `id`, in place of an earlier one,
    // and holds it until it is withdrawn or the host goes.
    void offer(unsigned int id, CMN_GuardedRef* service);
    void withdraw(unsigned int id);

    // Which guard currentGuard() gives: none (the default), a new one for each
    // object, or always `guard`, which stays the caller's.
    void giveNoGuards();
    void giveNewGuards();
    void giveGuard(CMN_Guard* guard);

    // What the framework asked for, in order, as "acquire 67 by 107" and
    // "release 67 by 107"; an acquisition that was refused is told as "refuse ...".
    std::vector<std::string> calls() const;
    void forgetCalls();

    // The acquisitions of module `id` less the releases, so below 0 when it was
    // released too often.
    int uses(unsigned int id) const;

    Status loadModule(const char* path) override;            // kMissing: there are no files
    Status unloadModule(const TypifiedID& module) override;  // kIo
    int isLoaded(const TypifiedID& module) override;         // 1 while a service is offered
    CMN_Guard* currentGuard() override;
    CMN_GuardedRef* acquireService(const TypifiedID& service, const TypifiedID& asker) override;
    void releaseModule(const TypifiedID& module, const TypifiedID& asker) override;

private:
    void record(const char* what, const TypifiedID& module, const TypifiedID& asker, int uses);

    // For calls_, uses_ and made_; nothing is called while it is held.
    mutable std::mutex mutex_;
    std::map<unsigned int, CMN_GRefPtr<CMN_GuardedRef>> offers_;  // empty when withdrawn
    std::map<unsigned int, int> uses_;
    std::vector<std::string> calls_;
    std::vector<CMN_Guard*> made_;  // one reference is held on each
    std::atomic<bool> makeGuards_{false};
    std::atomic<CMN_Guard*> chosen_{nullptr};
};

// Makes `host`, which may be null, this program's module manager for a scope.
class InstalledHost {
public:
    explicit InstalledHost(TModuleManager* host) : before_(ModMgr) { ModMgr = host; }
    InstalledHost(const InstalledHost&) = delete;
    InstalledHost& operator=(const InstalledHost&) = delete;
    ~InstalledHost() { ModMgr = before_; }

private:
    TModuleManager* before_;
};

#endif  // TESTS_SUPPORT_FAKE_HOST_H
