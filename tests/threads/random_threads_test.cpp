// Random operations of many threads on records of their own and on shared ones, while the
// password changes and the database closes and opens. A thread finds of its own records
// exactly what it was told, and of a shared one whatever somebody wrote, whole.
//
// The choices come from $TORTURE_SEED, and go on for $TORTURE_SECONDS.
#include <atomic>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "gtest/gtest.h"
#include "tests/crash/figures.h"
#include "tests/support/run_together.h"
#include "tests/support/test_store.h"

namespace {

constexpr int kWorkers = 8;
constexpr int kOperations = 100;  // of a worker in a round
constexpr int kOwnRecords = 3;
constexpr int kSharedRecords = 3;

// All parts tell the same text, so that parts of two records are seen to be mixed.
Contents saying(const std::string& text, bool encrypted) {
    return {{{4, 1, text, false}, {2, 2, "attribute of " + text, encrypted}},
            "body of " + text,
            encrypted};
}

bool isWhole(const Contents& contents) {
    if (contents.attributes.size() != 2) {
        return false;
    }
    return contents == saying(contents.attributes[0].data, contents.encrypted);
}

// Statuses of a database that is closed at the moment, or has been since the keys were
// taken.
bool tellsClosed(Status status) {
    return status == kNotOpen || status == kIo;
}

class Worker {
public:
    Worker(int number, unsigned long seed)
        : prefix_(std::to_string(number) + " "), random_(seed * 64 + std::size_t(number)) {}

    void step() {
        const std::string own = "own " + prefix_ + std::to_string(random_() % kOwnRecords);
        const std::string shared = "shared " + std::to_string(random_() % kSharedRecords);
        switch (random_() % 10) {
            case 0:
            case 1:
                return writeOwn(own);
            case 2:
                return writeShared(shared);
            case 3:
            case 4:
                return readOwn(own);
            case 5:
            case 6:
                return readShared(shared);
            case 7:
                return removeOwn(own);
            case 8:
                return (void)TestStore::erase(shared);  // another may have been first
            default:
                return list();
        }
    }

    // Nobody else is at work, and the database is open.
    void checkAll() {
        for (const auto& [name, contents] : own_) {
            Contents found;
            const Status status = TestStore::tryLoad(name, found);
            EXPECT_EQ(contents ? kOk : kMissing, status) << name;
            EXPECT_TRUE(!contents || *contents == found) << name;
        }
    }

private:
    Contents next() { return saying(prefix_ + std::to_string(++written_), random_() % 2 == 0); }

    void writeOwn(const std::string& name) {
        const Contents contents = next();
        const Status status = TestStore::save(name, contents);
        if (status == kOk) {
            own_[name] = contents;
        } else {
            EXPECT_TRUE(contents.encrypted && status == kIo) << name << ": " << status;
        }
    }

    void writeShared(const std::string& name) {
        const Contents contents = next();
        const Status status = TestStore::save(name, contents);
        EXPECT_TRUE(status == kOk || (contents.encrypted && status == kIo)) << status;
    }

    void readOwn(const std::string& name) {
        Contents found;
        const Status status = TestStore::tryLoad(name, found);
        const std::optional<Contents>& known = own_[name];
        if (!known) {
            EXPECT_EQ(kMissing, status) << name;
        } else if (status != kOk) {
            EXPECT_TRUE(known->encrypted && tellsClosed(status)) << name << ": " << status;
        } else {
            EXPECT_EQ(*known, found) << name;
        }
    }

    static void readShared(const std::string& name) {
        Contents found;
        const Status status = TestStore::tryLoad(name, found);
        EXPECT_TRUE(status == kOk || status == kMissing || tellsClosed(status)) << status;
        EXPECT_TRUE(status != kOk || isWhole(found)) << found;
    }

    void removeOwn(const std::string& name) {
        std::optional<Contents>& known = own_[name];
        EXPECT_EQ(known ? kOk : kIo, TestStore::erase(name)) << name;
        EXPECT_EQ(0, TestStore::record(name).isExist()) << name;
        known.reset();
    }

    void list() {
        aFileStoreList list;
        ASSERT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
        std::map<std::string, int> listed;
        for (aFileStore record = list.getFirst(); record.target() != nullptr;
             record = list.getNext()) {
            ++listed[record.getName()];
        }
        for (const auto& [name, contents] : own_) {
            EXPECT_EQ(contents ? 1 : 0, listed[name]) << name;
        }
    }

    std::string prefix_;
    std::mt19937 random_;
    unsigned long written_ = 0;
    std::map<std::string, std::optional<Contents>> own_;
};

// Opens, closes and changes the password, as one client of many would: these are
// serialised among themselves, and not against records.
void keepChanging(const std::atomic<int>& working, std::string& password, unsigned long seed) {
    std::mt19937 random(seed);
    do {
        if (random() % 3 == 0) {
            ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
            ASSERT_EQ(kOk, CMN_FILESTORE_S.open(password.c_str()));
        } else {
            const std::string next = "password " + std::to_string(random() % 1000);
            ASSERT_EQ(kOk, CMN_FILESTORE_S.recrypt(password.c_str(), next.c_str()));
            password = next;
        }
        crash::count("changes among thread operations");
    } while (working.load() != 0);
}

TEST(RandomThreadsTest, EachFindsWhatItWasTold) {
    const unsigned long seed = crash::seed();
    std::string password = "password";
    TestStore store(password);
    std::vector<Worker> workers;
    for (int number = 0; number < kWorkers; ++number) {
        workers.emplace_back(number, seed);
    }
    const crash::Overtime overtime;
    for (unsigned long round = 0; !HasFailure() && (round == 0 || overtime.isLeft()); ++round) {
        std::atomic<int> working{kWorkers};
        runTogether(kWorkers + 1, [&](int thread) {
            if (thread == kWorkers) {
                return keepChanging(working, password, seed + round);
            }
            for (int i = 0; i < kOperations && !testing::Test::HasFailure(); ++i) {
                workers[static_cast<std::size_t>(thread)].step();
            }
            --working;
        });
        crash::count("thread operations", long{kWorkers} * kOperations);
        store.restart(password.c_str());
        for (Worker& worker : workers) {
            worker.checkAll();
        }
    }
}

}  // namespace
