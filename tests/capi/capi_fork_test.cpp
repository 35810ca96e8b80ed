// Handles on both sides of a fork.
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capi/filestore.h"
#include "tests/capi/support.h"
#include "tests/support/temp_dir.h"

namespace capi_test {
namespace {

using support::TempDir;

const std::string kPassword = "correct horse";

// A child that ends with 0 when work() returns true.
pid_t fork(const std::function<bool()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        bool done = false;
        try {
            done = work();
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "child: %s\n", failure.what());
        }
        ::_exit(done ? 0 : 1);
    }
    return child;
}

bool endsWell(pid_t child) {
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class CapiForkTest : public testing::Test {
protected:
    TempDir folder_;
    Db db_ = openWith(folder_.path(), kPassword, FILESTORE_CREATE);
};

// As servers do that fork before they serve.
TEST_F(CapiForkTest, TenChildrenUseWhatTheParentHasUnlocked) {
    put(db_, "keys/shared", "of the parent");
    std::vector<pid_t> children;
    for (int number = 0; number < 10; ++number) {
        children.push_back(fork([&] {
            bool right = true;
            for (int i = 0; i < 20; ++i) {
                const std::string address = "keys/child" + std::to_string(number);
                const std::string body = address + " " + std::to_string(i);
                put(db_, address, body);
                right = right && bodyOf(get(db_, address)) == body &&
                        bodyOf(get(db_, "keys/shared")) == "of the parent";
            }
            return right;
        }));
    }
    for (const pid_t child : children) {
        EXPECT_TRUE(endsWell(child));
    }
    for (int number = 0; number < 10; ++number) {
        const std::string address = "keys/child" + std::to_string(number);
        EXPECT_EQ(address + " 19", bodyOf(get(db_, address)));
    }
}

// A lock on a descriptor of both would be one lock: either could take it from the other.
TEST_F(CapiForkTest, ParentAndChildKeepEachOtherOut) {
    for (int i = 0; i < 5; ++i) {
        put(db_, "keys/" + std::to_string(i), "body");
    }
    int told[2];
    ASSERT_EQ(0, ::pipe(told));
    int go[2];
    ASSERT_EQ(0, ::pipe(go));
    const pid_t child = fork([&] {
        struct Pipes {
            int told, go;
            bool first = true;
        } pipes{told[1], go[0]};
        filestore_callbacks callbacks = FILESTORE_CALLBACKS_INIT;
        callbacks.user = &pipes;
        callbacks.progress = [](void* user, const char*, std::uint64_t, std::uint64_t) {
            auto* const own = static_cast<Pipes*>(user);
            char byte = 0;
            if (std::exchange(own->first, false)) {
                (void)!::write(own->told, &byte, 1);
                (void)!::read(own->go, &byte, 1);
            }
        };
        filestore_check_options options = FILESTORE_CHECK_OPTIONS_INIT;
        options.flags = FILESTORE_CHECK_DEEP | FILESTORE_CHECK_REPAIR;
        return filestore_check(db_.get(), &options, &callbacks, nullptr) == FILESTORE_OK;
    });
    char byte = 0;
    ASSERT_EQ(1, ::read(told[0], &byte, 1));
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    options.lock_seconds = 0;
    filestore_db* handle = nullptr;
    ASSERT_EQ(FILESTORE_OK, filestore_open(folder_.path().c_str(), &options, &handle, nullptr));
    const Db hasty(handle);
    EXPECT_EQ(FILESTORE_BUSY, statusOfGet(hasty, "keys/0"));
    ASSERT_EQ(1, ::write(go[1], &byte, 1));
    EXPECT_TRUE(endsWell(child));
    EXPECT_EQ("body", bodyOf(get(db_, "keys/0")));
    for (const int fd : {told[0], told[1], go[0], go[1]}) {
        ::close(fd);
    }
}

TEST_F(CapiForkTest, AChildOfAForkWithinAnOperationHearsThat) {
    put(db_, "keys/a", "body");
    std::mutex lock;
    std::condition_variable changed;
    int stage = 0;  // 1: the thread is inside; 2: it may go on
    struct Shared {
        std::mutex* lock;
        std::condition_variable* changed;
        int* stage;
    } shared{&lock, &changed, &stage};
    std::thread inside([&] {
        filestore_callbacks callbacks = FILESTORE_CALLBACKS_INIT;
        callbacks.user = &shared;
        callbacks.progress = [](void* user, const char*, std::uint64_t, std::uint64_t) {
            auto* const own = static_cast<Shared*>(user);
            std::unique_lock<std::mutex> locked(*own->lock);
            if (*own->stage == 0) {
                *own->stage = 1;
                own->changed->notify_all();
                own->changed->wait(locked, [own] { return *own->stage == 2; });
            }
        };
        filestore_check_options options = FILESTORE_CHECK_OPTIONS_INIT;
        options.flags = FILESTORE_CHECK_DEEP;
        EXPECT_EQ(FILESTORE_OK, filestore_check(db_.get(), &options, &callbacks, nullptr));
    });
    {
        std::unique_lock<std::mutex> locked(lock);
        changed.wait(locked, [&] { return stage == 1; });
    }
    const pid_t child = fork([&] {
        filestore_db* fresh = nullptr;
        const bool right =
            statusOfGet(db_, "keys/a") == FILESTORE_CLOSED &&
            filestore_open(folder_.path().c_str(), nullptr, &fresh, nullptr) == FILESTORE_CLOSED;
        db_.reset();
        return right;
    });
    EXPECT_TRUE(endsWell(child));
    {
        const std::lock_guard<std::mutex> locked(lock);
        stage = 2;
        changed.notify_all();
    }
    inside.join();
    EXPECT_EQ("body", bodyOf(get(db_, "keys/a")));
}

}  // namespace
}  // namespace capi_test
