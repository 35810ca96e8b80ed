// Modules come and go while other threads use them.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cmn/status.h"
#include "host/module_manager.h"
#include "tests/host/modules/probe.h"
#include "tests/host/probe_files.h"
#include "tests/support/fake_host.h"
#include "tests/support/temp_dir.h"

namespace {

constinit const Tuint32ID k201(201);

// Threads that repeat their work until they are stopped.
class Crowd {
public:
    template <class Work>
    Crowd(int size, Work work) {
        for (int i = 0; i < size; ++i) {
            threads_.emplace_back([this, work] {
                while (!stop_) {
                    work();
                    ++done_;
                }
            });
        }
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;
    ~Crowd() { stop(); }

    void stop() {
        stop_ = true;
        for (std::thread& thread : threads_) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }
    int done() const { return done_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<int> done_{0};
    std::vector<std::thread> threads_;
};

class ModuleThreadsTest : public testing::Test {
protected:
    ModuleManager manager_;
    InstalledHost installed_{&manager_};
};

// Either a thread finds the module and its calls are answered, or it does not.
TEST_F(ModuleThreadsTest, UnloadNeverTakesAModuleFromThoseWhoUseIt) {
    const std::string path = moduleFile("probe1");
    std::atomic<int> served{0};
    std::atomic<int> wrong{0};
    const auto look = [&](aProbe& service) {
        const aThing thing(service);
        if (thing.target() == nullptr) {
            return;  // the module was not there
        }
        thing.setValue(5);
        const aThing another(service);
        wrong += thing.value() == 5 && another.value() == 0 && service.version() == 1 ? 0 : 1;
        ++served;
    };
    aProbe shared(k201);
    Crowd crowd(2, [&] {
        look(shared);
        aProbe own(k201);
        look(own);
        std::this_thread::yield();
    });
    int unloaded = 0;
    int refused = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < end) {
        const Status loaded = manager_.load(path.c_str()).status;
        ASSERT_TRUE(loaded == kOk || loaded == kAlreadyOpen) << loaded;
        if ((unloaded + refused) % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(500));  // let them find it
        }
        const Result result = manager_.unload(201);
        ASSERT_TRUE(result.ok() || result.status == kAlreadyOpen) << result.message;
        ++(result.ok() ? unloaded : refused);
    }
    crowd.stop();
    EXPECT_EQ(0, wrong.load());
    EXPECT_GT(served.load(), 0);
    EXPECT_GT(unloaded, 0);
    EXPECT_GT(refused, 0);
    RecordProperty("served", served.load());
    RecordProperty("unloaded", unloaded);
    RecordProperty("refused", refused);
}

// Callers keep their handles while the module behind them is exchanged.
TEST_F(ModuleThreadsTest, ReplacedModulesAnswerEveryCall) {
    const support::TempDir dir;
    std::filesystem::copy_file(moduleFile("probe1_remaking"), dir / "even.so");
    std::filesystem::copy_file(moduleFile("probe1_remaking"), dir / "odd.so");
    ASSERT_TRUE(manager_.load((dir / "odd.so").c_str()).ok());
    aProbe service(k201);
    const aThing thing(service);
    thing.setValue(9);
    std::atomic<int> wrong{0};
    Crowd crowd(2, [&] { wrong += thing.value() == 9 && service.version() == 2 ? 0 : 1; });
    for (int i = 0; i < 50; ++i) {
        const int before = crowd.done();
        while (crowd.done() == before) {
            std::this_thread::yield();
        }
        const Result replaced =
            manager_.replace(201, (dir / (i % 2 == 0 ? "even.so" : "odd.so")).c_str());
        ASSERT_TRUE(replaced.ok()) << replaced.message;
    }
    crowd.stop();
    EXPECT_EQ(0, wrong.load());
}

// Callers keep their handles, and find nothing behind them when the module has gone.
TEST_F(ModuleThreadsTest, ForcedUnloadIsMetByCallersAsAMissingObject) {
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(manager_.load(moduleFile("probe1").c_str()).ok());
        aProbe service(k201);
        const aThing thing(service);
        thing.setValue(3);
        std::atomic<int> wrong{0};
        Crowd crowd(2, [&] {
            const int value = thing.value();
            wrong += value == 3 || value == -1 ? 0 : 1;
            std::this_thread::yield();
        });
        while (crowd.done() < 100) {
            std::this_thread::yield();
        }
        const Result unloaded = manager_.forceUnload(201);
        ASSERT_TRUE(unloaded.ok()) << unloaded.message;
        EXPECT_EQ(-1, thing.value());
        crowd.stop();
        EXPECT_EQ(0, wrong.load());
    }
}

}  // namespace
