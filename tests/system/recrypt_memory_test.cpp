// A change of password for which memory is short: whatever the limit, all of the database
// opens with one password afterwards, the new one if and only if the change succeeded.
//
// TORTURE_FULL=1 adds, in 32 bits, a body for which the whole address space is too small.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <malloc.h>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"
#include "tests/support/contents.h"
#include "tests/support/doubles/toy_cipher.h"
#include "tests/support/temp_dir.h"
#include "tests/system/store_modules.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr const char* kOld = "old";
constexpr const char* kNew = "new";

constexpr int kNotStarted = 100;  // beside the statuses of a change, which are 0, 1 and 9

// Runs `body` in a child of this process, which has one thread, and gives its answer.
int inChild(const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(body());
    }
    int ended = 0;
    EXPECT_EQ(child, ::waitpid(child, &ended, 0));
    EXPECT_TRUE(WIFEXITED(ended)) << "signal " << WTERMSIG(ended);
    return WEXITSTATUS(ended);
}

std::size_t usedAddressSpace() {
    std::ifstream file("/proc/self/statm");
    std::size_t pages = 0;
    file >> pages;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// From now on the process may take as much more as this, rounded to pages.
bool limitAddressSpace(std::size_t more) {
    const rlim_t most = usedAddressSpace() + more;
    const rlimit limit{most, most};
    return ::setrlimit(RLIMIT_AS, &limit) == 0;
}

Contents large(std::size_t size) {
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        body[i] = static_cast<char>(i * 31 >> 3);
    }
    return {{{2, 1, "attribute", true}}, std::move(body), true};
}

const Contents kSmall{{{2, 1, "small secret", true}}, "small body", true};

aFileStore recordOf(const char* name) {
    aFileStore record;
    EXPECT_EQ(kOk, record.setFolderName("./db/keys"));
    EXPECT_EQ(kOk, record.setName(name));
    return record;
}

void save(const char* name, const Contents& contents) {
    aFileStore record = recordOf(name);
    fill(record, contents);
    ASSERT_EQ(kOk, record.write());
}

void expectKept(const char* name, const Contents& contents) {
    SCOPED_TRACE(name);
    aFileStore record = recordOf(name);
    ASSERT_EQ(kOk, record.read());
    ASSERT_EQ(kOk, record.decrypt());
    EXPECT_TRUE(contents == contentsOf(record));  // too long to be printed
}

class RecryptMemoryTest : public testing::Test {
protected:
    explicit RecryptMemoryTest(StoreModules modules = doubledServices())
        : modules_(std::move(modules)) {
        // What is freed goes back to the system, so that a child has what its limit leaves.
        (void)::mallopt(M_MMAP_THRESHOLD, 64 * 1024);
        (void)::mallopt(M_TRIM_THRESHOLD, 64 * 1024);
    }

    // A host of its own for each step; a started one is not there while a child is made.
    template <class Step>
    void inStore(Step step) {
        StoreHost host;
        const Result started = host.start(modules_.setup);
        ASSERT_TRUE(started.ok()) << started.message;
        aFileStoreSrv store;
        step(store);
    }

    void makeDatabase(const Contents& contents) {
        inStore([&](aFileStoreSrv& store) {
            ASSERT_EQ(kOk, store.prepareDBFolders());
            ASSERT_EQ(kOk, store.recrypt("", kOld));
            ASSERT_EQ(kOk, store.open(kOld));
            save("a", kSmall);
            save("large", contents);
            save("z", kSmall);
        });
        fs::remove_all("old_db");
        fs::rename("db", "kept");
    }

    static void beginAgain() {
        for (const char* const folder : {"db", "new_db", "old_db"}) {
            fs::remove_all(folder);
        }
        fs::copy("kept", "db", fs::copy_options::recursive);
    }

    // The status of a change in a process that has `more` bytes of address space for it,
    // or all that there are.
    int change(std::optional<std::size_t> more) const {
        return inChild([&] {
            StoreHost host;
            if (!host.start(modules_.setup).ok()) {
                return kNotStarted;
            }
            aFileStoreSrv store;
            if (store.open(kOld) != kOk || (more && !limitAddressSpace(*more))) {
                return kNotStarted;
            }
            return static_cast<int>(store.recrypt(kOld, kNew));
        });
    }

    void expectOpensAndKeeps(const char* password, const Contents& contents) {
        inStore([&](aFileStoreSrv& store) {
            ASSERT_EQ(kOk, store.prepareDBFolders());
            ASSERT_EQ(kOk, store.open(password));
            expectKept("a", kSmall);
            expectKept("large", contents);
            expectKept("z", kSmall);
        });
    }

private:
    const StoreModules modules_;
    support::TempWorkingDir dir_;
};

class RecryptLimitTest : public RecryptMemoryTest,
                         public testing::WithParamInterface<StoreModules> {
protected:
    RecryptLimitTest() : RecryptMemoryTest(GetParam()) {}
};

TEST_P(RecryptLimitTest, NothingIsLeftUnderTheOldKeyWhateverTheLimit) {
    constexpr std::size_t kSize = 4 * kMiB;
    const Contents contents = large(kSize);
    ASSERT_NO_FATAL_FAILURE(makeDatabase(contents));
    int failures = 0;
    int successes = 0;
    for (std::size_t quarters = 0; quarters <= 32; ++quarters) {
        SCOPED_TRACE(std::to_string(quarters) + " quarters of the body");
        beginAgain();
        const int status = change(quarters * kSize / 4);
        ASSERT_TRUE(status == kOk || status == kNoMemory || status == kIo) << status;
        (status == kOk ? successes : failures) += 1;
        ASSERT_NO_FATAL_FAILURE(expectOpensAndKeeps(status == kOk ? kNew : kOld, contents));
    }
    EXPECT_LT(0, failures);
    EXPECT_LT(0, successes);
}

INSTANTIATE_TEST_SUITE_P(Services, RecryptLimitTest, testing::ValuesIn(allServices()),
                         [](const auto& row) { return std::string(row.param.name); });

// In 32 bits the whole address space is too small for this one; to try that takes a minute
// and 3 GiB of memory.
bool isFull() {
    return sizeof(void*) == 4 && std::getenv("TORTURE_FULL") != nullptr;
}

// What a process with more address space has written.
TEST_F(RecryptMemoryTest, BodyThatOnlyAnotherProcessHasRoomForEndsTheChange) {
    const std::size_t size = isFull() ? 1100 * kMiB : 8 * kMiB;
    ASSERT_NO_FATAL_FAILURE(makeDatabase(large(1)));
    const std::string descriptor = support::readFile("kept/keys/large.dsc");
    {
        std::ofstream body("kept/keys/" + descriptor.substr(18, 8), std::ios::binary);
        toy::sealZeros(toy::derive({kOld, "", 1000, 16, 0x20000, 9, 0}), 1, size,
                       [&](std::string_view piece) { body << piece; });
        ASSERT_TRUE(body.flush());
    }
    fs::rename("kept", "db");
    const int status = change(isFull() ? std::nullopt : std::optional(2 * size));
    EXPECT_TRUE(status == kNoMemory || status == kIo) << status;
    fs::remove_all("new_db");
    EXPECT_FALSE(fs::exists("old_db"));
    inStore([&](aFileStoreSrv& store) {
        ASSERT_EQ(kOk, store.open(kOld));
        expectKept("a", kSmall);
        expectKept("z", kSmall);
    });
    EXPECT_EQ(descriptor, support::readFile("db/keys/large.dsc"));
}

}  // namespace
