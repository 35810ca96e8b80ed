// Long lists of holders: who is found, in whatever order they leave, and in what time.
#include "cmn/holder_list.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/test_objects.h"

namespace {

using Holder = CMN_GRefPtr<TestObject>;
using Node = CMN_HolderList::Node;

constexpr int kHolders = 10 * CMN_HolderList::kNear;
constexpr std::size_t kLong = kHolders;

// Holders by their numbers; their modules do not matter.
class Holders {
public:
    explicit Holders(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            holders_.push_back(std::make_unique<TestHolder>(107));
        }
    }
    CMN_GRPHolder* operator[](std::size_t i) const { return holders_[i].get(); }

private:
    std::vector<std::unique_ptr<TestHolder>> holders_;
};

// The nodes of a list, newest first.
std::vector<Node*> nodesOf(const CMN_HolderList& list) {
    std::vector<Node*> nodes;
    for (Node* node = list.first(); node != nullptr; node = node->next) {
        nodes.push_back(node);
    }
    return nodes;
}

// As a module of another build takes a node out: the list's own operation is not asked.
void eraseBehindItsBack(CMN_HolderList& list, Node* node) {
    list.slist<CMN_GRPHolder>::eraseitem(node);
}

TEST(HolderListTest, FindsTheNewestNodeOfEachHolder) {
    const Holders holders(kLong);
    CMN_HolderList list;
    for (std::size_t i = 0; i < kLong; ++i) {
        list.push_front(holders[i]);
    }
    list.push_front(holders[5]);
    list.push_front(holders[7]);
    for (std::size_t i = 0; i < kLong; ++i) {
        EXPECT_EQ(list.find(holders[i]), list.newest(holders[i])) << i;
    }
    const TestHolder other(107);
    EXPECT_EQ(nullptr, list.newest(&other));
}

// Whatever is done to it, also without its knowledge, the list answers as one without an
// index: the search from its head.
TEST(HolderListTest, AgreesWithASearchAfterEveryOperation) {
    std::minstd_rand random(20240517);
    const auto below = [&](std::size_t bound) {
        return static_cast<std::size_t>(random()) % bound;
    };
    const Holders holders(40 + kLong);
    for (int round = 0; round < 20; ++round) {
        CMN_HolderList list;
        for (int step = 0; step < 4000; ++step) {
            // Some holders are listed often, most of them once.
            CMN_GRPHolder* const holder = holders[below(4) == 0 ? below(40) : 40 + below(kLong)];
            const std::vector<Node*> nodes = nodesOf(list);
            switch (nodes.size() < 20 ? 0 : below(9)) {
                default:
                    list.push_front(holder);
                    break;
                case 4:
                case 5:
                    list.eraseitem(list.newest(holder));
                    break;
                case 6:
                    list.eraseitem(nodes[below(nodes.size())]);
                    break;
                case 7:
                    list.rename(nodes[below(nodes.size())], holder);
                    break;
                case 8:
                    if (round % 2 == 0) {
                        eraseBehindItsBack(list, nodes[below(nodes.size())]);
                    }
                    break;
            }
            if (nodes.size() > CMN_HolderList::kNear) {
                CMN_GRPHolder* const sought = holders[below(40 + kLong)];
                ASSERT_EQ(list.find(sought), list.newest(sought)) << round << ", " << step;
            }
        }
    }
}

TEST(HolderListTest, HolderThatIsListedManyTimesLeavesNewestFirst) {
    const Holders holders(kLong);
    CMN_HolderList list;
    for (int time = 0; time < 3; ++time) {
        for (std::size_t i = 0; i < kLong; ++i) {
            list.push_front(holders[i]);
        }
    }
    for (int left = 2; left >= 0; --left) {
        for (std::size_t i = 0; i < kLong; ++i) {
            Node* const found = list.newest(holders[i]);
            ASSERT_EQ(list.find(holders[i]), found);
            list.eraseitem(found);
        }
        EXPECT_EQ(left * kHolders, list.size());
    }
}

// --- lists that another module has made

// Takes the first word of `list`, its table of operations, and gives another in its place.
void setOperations(slist<CMN_GRPHolder>& list, const void* operations) {
    std::memcpy(static_cast<void*>(&list), &operations, sizeof operations);
}

const void* const* operationsOf(const slist<CMN_GRPHolder>& list) {
    const void* const* operations = nullptr;
    std::memcpy(&operations, static_cast<const void*>(&list), sizeof operations);
    return operations;
}

void leaveOldestFirst(TestObject& object, std::vector<Holder>& holders) {
    for (Holder& holder : holders) {
        const int before = object.references();
        holder = nullptr;
        ASSERT_EQ(before - 1, object.references());
    }
}

class OtherBuildTest : public testing::Test {
protected:
    OtherBuildTest() : holders_(kLong, first_) {}
    ~OtherBuildTest() override { setOperations(list(), own_); }

    CMN_GuardedRef::HolderList& list() { return first_.get()->_getHolders(); }

    const Holder first_{new TestObject};
    std::vector<Holder> holders_;
    const void* own_ = operationsOf(list());
};

TEST_F(OtherBuildTest, ListWithoutIndexIsSearched) {
    slist<CMN_GRPHolder> plain;
    setOperations(list(), operationsOf(plain));
    EXPECT_EQ(nullptr, CMN_HolderList::of(list()));
    leaveOldestFirst(*first_.get(), holders_);
    EXPECT_EQ(1, list().size());
}

// Built with the sanitizers, every virtual call asks for that description.
#ifndef __SANITIZE_ADDRESS__
TEST_F(OtherBuildTest, ListWithoutADescriptionOfItsTypeIsSearched) {
    slist<CMN_GRPHolder> plain;
    const void* const* const operations = operationsOf(plain);
    const void* const undescribed[] = {nullptr, nullptr, operations[0], operations[1]};
    setOperations(list(), &undescribed[2]);
    EXPECT_EQ(nullptr, CMN_HolderList::of(list()));
    leaveOldestFirst(*first_.get(), holders_);
    EXPECT_EQ(1, list().size());
}
#endif

TEST_F(OtherBuildTest, OwnListIsRecognised) {
    EXPECT_EQ(&list(), CMN_HolderList::of(list()));
}

// --- holders that pass their references on, and renew them

TEST(LongListTest, ReferencesArePassedOnWhereverTheyStand) {
    const Holder first(new TestObject);
    std::vector<Holder> from(kLong, first);
    std::vector<Holder> to(kLong);
    for (std::size_t i = 0; i < kLong; i += 3) {
        to[i].takeOver(from[i]);
        EXPECT_EQ(nullptr, from[i].get());
    }
    EXPECT_EQ(kHolders + 1, first.get()->references());
    const auto listed = holdersOf(*first.get());
    for (std::size_t i = 0; i < kLong; ++i) {
        EXPECT_EQ(i % 3 == 0 ? &to[i] : &from[i], listed[kLong - 1 - i]) << i;
    }
    to.clear();
    from.clear();
    EXPECT_EQ(1, first.get()->references());
}

TEST(LongListTest, RenewedReferenceIsTheNewest) {
    const Holder first(new TestObject);
    std::vector<Holder> holders(kLong, first);
    holders[3] = first;
    EXPECT_EQ(&holders[3], holdersOf(*first.get()).front());
    EXPECT_EQ(kHolders + 1, first.get()->references());
    holders.clear();
    EXPECT_EQ(1, first.get()->references());
}

// --- time

enum class Order { kOldestFirst, kNewestFirst, kRandom };

// How long so many holders take to leave an object.
std::chrono::duration<double> timeToLeave(std::size_t count, Order order) {
    const Holder first(new TestObject);
    std::vector<Holder> holders(count, first);
    std::vector<std::size_t> turns(count);
    std::iota(turns.begin(), turns.end(), 0U);
    if (order == Order::kNewestFirst) {
        std::reverse(turns.begin(), turns.end());
    } else if (order == Order::kRandom) {
        std::shuffle(turns.begin(), turns.end(), std::minstd_rand(7));
    }
    const auto start = std::chrono::steady_clock::now();
    for (const std::size_t turn : turns) {
        holders[turn] = nullptr;
    }
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(1, first.get()->references());
    return taken;
}

// A search of the list for each takes minutes for the larger number, and for a tenth of it
// a hundredth of that. The bounds leave room for busy machines and instrumented builds.
TEST(LongListTest, HoldersLeaveInTimeThatGrowsWithTheirNumberAlone) {
    constexpr std::size_t kMany = 200'000;
    for (const Order order : {Order::kOldestFirst, Order::kNewestFirst, Order::kRandom}) {
        SCOPED_TRACE(static_cast<int>(order));
        const auto tenth = timeToLeave(kMany / 10, order);
        const auto all = timeToLeave(kMany, order);
        EXPECT_LT(all.count(), 10);
        EXPECT_LT(all.count(), 40 * tenth.count() + 0.5);
    }
}

}  // namespace
