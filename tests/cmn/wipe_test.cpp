#include "cmn/wipe.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>

#include <gtest/gtest.h>

#include "tests/cmn/wipe_probe.h"
#include "tests/support/own_stack.h"
#include "tests/support/watched_heap.h"

namespace {

// Made anew byte by byte: whoever writes the secret needs no copy of it.
void writeSecret(unsigned char* to) {
    for (std::size_t i = 0; i < kProbeSize; ++i) {
        to[i] = static_cast<unsigned char>(0x5a ^ (i * 37 + i / 7));
    }
}

using Secret = std::array<unsigned char, kProbeSize>;

Secret secret() {
    Secret bytes;
    writeSecret(bytes.data());
    return bytes;
}

// Whether a piece of the secret is left on the stack.
bool leftOn(const OwnStack& stack) {
    const Secret bytes = secret();
    for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
        if (stack.contains(bytes.data() + at, 8)) {
            return true;
        }
    }
    return false;
}

TEST(WipeTest, SetsTheGivenBytesAndNoOthersToZero) {
    unsigned char bytes[] = {1, 2, 3, 4, 5};
    wipe(bytes + 1, 3);
    const unsigned char expected[] = {1, 0, 0, 0, 5};
    EXPECT_TRUE(std::equal(std::begin(bytes), std::end(bytes), std::begin(expected)));
}

TEST(WipeTest, OfNothingTouchesNothing) {
    unsigned char byte = 7;
    wipe(&byte, 0);
    wipe(nullptr, 0);
    EXPECT_EQ(7, byte);
}

TEST(WipeTest, DyingLocalLeavesNothingOnTheStack) {
    OwnStack stack;
    stack.run([] { leaveLocalWiped(writeSecret); });
    EXPECT_FALSE(leftOn(stack));
}

// Why the test above would notice a wipe that the optimiser dropped.
TEST(WipeTest, DyingLocalThatIsNotWipedIsFound) {
    OwnStack stack;
    stack.run([] { leaveLocalAsItIs(writeSecret); });
    EXPECT_TRUE(leftOn(stack));
}

TEST(WipeTest, BlockIsZeroWhenItIsFreed) {
    WatchedHeap heap(kProbeSize);
    freeHeapWiped(writeSecret);
    ASSERT_EQ(1, heap.freed());
    const Secret zeros{};
    EXPECT_TRUE(std::equal(zeros.begin(), zeros.end(), heap.lastFreed()));
}

TEST(WipeTest, BlockThatIsNotWipedIsFreedWithItsSecret) {
    WatchedHeap heap(kProbeSize);
    freeHeapAsItIs(writeSecret);
    ASSERT_EQ(1, heap.freed());
    const Secret bytes = secret();
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), heap.lastFreed()));
}

}  // namespace
