// Many threads on records of one folder, their own and shared ones.
#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "format/dsc_text.h"
#include "gtest/gtest.h"
#include "tests/support/test_store.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 40;

class RecordThreadsTest : public testing::Test {
protected:
    static void inThreads(const std::function<void(int)>& work) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back(work, i);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    // Every descriptor with its body, and nothing that a write has left over.
    static void expectNothingLeftOver(std::size_t records, std::size_t bodies) {
        std::size_t descriptors = 0;
        const auto files = TestStore::files();
        for (const auto& [name, content] : files) {
            descriptors += name.ends_with(".dsc") ? 1 : 0;
        }
        EXPECT_EQ(records, descriptors);
        EXPECT_EQ(records + bodies, files.size());
    }

    TestStore store;
};

// All parts tell the same, so that a mixed record is seen.
Contents telling(const std::string& text) {
    return {{{kTypeBinary, 1, text, true}, {kTypeText, 2, text, false}}, text, true};
}

TEST_F(RecordThreadsTest, OwnRecordsAreWholeAndListed) {
    inThreads([](int thread) {
        const std::string name = "own" + std::to_string(thread);
        for (int round = 0; round < kRounds; ++round) {
            const Contents contents = telling(name + " round " + std::to_string(round));
            EXPECT_EQ(kOk, TestStore::save(name, contents));
            EXPECT_EQ(contents, TestStore::load(name));
            aFileStoreList list;
            EXPECT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
            int mine = 0;
            for (aFileStore record = list.getFirst(); record.target() != nullptr;
                 record = list.getNext()) {
                mine += record.getName() == name ? 1 : 0;
            }
            EXPECT_EQ(1, mine);
            if (round % 8 == 7) {
                EXPECT_EQ(kOk, TestStore::erase(name));
                EXPECT_EQ(0, TestStore::record(name).isExist());
            }
        }
        EXPECT_EQ(kOk, TestStore::save(name, telling("last")));
    });
    expectNothingLeftOver(kThreads, kThreads);
}

TEST_F(RecordThreadsTest, SharedRecordIsWholeForEveryReader) {
    ASSERT_EQ(kOk, TestStore::save("shared", telling("first")));
    inThreads([](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            if (thread % 2 == 0) {
                EXPECT_EQ(kOk, TestStore::save("shared", telling(std::to_string(thread) + "." +
                                                                 std::to_string(round))));
            }
            Contents found;
            EXPECT_EQ(kOk, TestStore::tryLoad("shared", found));
            EXPECT_EQ(telling(found.body.value_or("no body")), found);
            EXPECT_EQ(1, TestStore::record("shared").isExist());
        }
    });
    expectNothingLeftOver(1, 1);
}

TEST_F(RecordThreadsTest, RemovedAndWrittenAgainItIsWholeOrGone) {
    inThreads([](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            switch (thread % 4) {
                case 0:
                    EXPECT_EQ(kOk, TestStore::save("shared", telling(std::to_string(round))));
                    break;
                case 1: {
                    const Status status = TestStore::erase("shared");
                    EXPECT_TRUE(status == kOk || status == kIo) << status;
                    break;
                }
                default: {
                    Contents found;
                    const Status status = TestStore::tryLoad("shared", found);
                    EXPECT_TRUE(status == kOk || status == kMissing) << status;
                    if (status == kOk) {
                        EXPECT_EQ(telling(found.body.value_or("no body")), found);
                    }
                }
            }
        }
    });
    EXPECT_EQ(kOk, TestStore::save("shared", telling("last")));
    expectNothingLeftOver(1, 1);
}

// Readers find an interrupted write and repair it side by side.
TEST_F(RecordThreadsTest, ReadersRepairSideBySide) {
    const std::string descriptor = store.path("a.dsc");
    for (int round = 0; round < kRounds; ++round) {
        support::writeFile(descriptor + ".$o$", "00000004 00000001 saved\n");
        inThreads([](int /*thread*/) {
            Contents found;
            EXPECT_EQ(kOk, TestStore::tryLoad("a", found));
        });
        ASSERT_EQ(kOk, TestStore::erase("a"));
    }
    expectNothingLeftOver(0, 0);
}

TEST_F(RecordThreadsTest, UnnamedRecordsGetNamesOfTheirOwn) {
    std::mutex mutex;
    std::set<std::string> names;
    inThreads([&](int /*thread*/) {
        for (int round = 0; round < kRounds; ++round) {
            aFileStore record = TestStore::record();
            fill(record, telling("x"));
            EXPECT_EQ(kOk, record.write());
            const std::lock_guard locked(mutex);
            EXPECT_TRUE(names.insert(record.getName()).second);
        }
    });
    EXPECT_EQ(std::size_t{kThreads * kRounds}, names.size());
    expectNothingLeftOver(names.size(), names.size());
}

// One record object, held and asked by all; and the service besides.
TEST_F(RecordThreadsTest, HandlesOfOneRecordAreEveryThreads) {
    ASSERT_EQ(kOk, TestStore::save("shared", telling("x")));
    aFileStore shared = TestStore::record("shared");
    ASSERT_EQ(kOk, shared.read());
    const unsigned int id = shared.getUniqueID();
    inThreads([&](int /*thread*/) {
        for (int round = 0; round < kRounds; ++round) {
            aFileStore copy(shared);
            const aFileStoreExt extension(copy);
            EXPECT_EQ(id, extension.getUniqueID());
            EXPECT_EQ(1, copy.isExist());
            EXPECT_EQ(2U, copy.getAttrCount());
            aFileStoreList list;
            EXPECT_EQ(kOk, list.pushBack(copy));
            EXPECT_EQ(id, list.getFirst().getUniqueID());
            EXPECT_EQ(kOk, list.remove(copy));
            EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
            aBuf out(static_cast<TBuf*>(nullptr));
            EXPECT_EQ(kOk,
                      CMN_FILESTORE_S.encode(aBuf(static_cast<TBuf*>(nullptr)), aBuf("x"), out));
        }
    });
    EXPECT_EQ(1, shared.target()->references());
    EXPECT_EQ(0, shared.target()->getGuard()->calls());
}

}  // namespace
