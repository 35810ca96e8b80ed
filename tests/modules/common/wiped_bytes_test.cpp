#include "modules/common/wiped_bytes.h"

#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <utility>

#include "gtest/gtest.h"
#include "tests/modules/secret_heap.h"

namespace {

using support::freedWithMarker;

std::span<const unsigned char> bytesOf(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

std::string textOf(const WipedBytes& bytes) {
    return {bytes.view().begin(), bytes.view().end()};
}

// What stands in the memory behind the contents, where nothing may be left.
bool restIsClean(const WipedBytes& bytes) {
    const std::string whole(bytes.data(), bytes.data() + bytes.capacity());
    return whole.find(support::kMarker) == std::string::npos;
}

// Made in place: a copy elsewhere would be found there.
WipedBytes secret(std::size_t size) {
    WipedBytes made;
    EXPECT_TRUE(made.reset(size));
    std::memset(made.data(), 'x', size);
    std::memcpy(made.data() + size / 2, support::kMarker, sizeof support::kMarker - 1);
    return made;
}

TEST(SecretHeapTest, SeesAFreedSecret) {
    const long before = freedWithMarker();
    delete new std::string(std::string(100, 'x') + support::kMarker);
    EXPECT_LT(before, freedWithMarker());
}

TEST(WipedBytesTest, StartsWithNothing) {
    const WipedBytes none;
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(0U, none.capacity());
    EXPECT_EQ(nullptr, none.data());
}

TEST(WipedBytesTest, FreedMemoryHoldsNoTrace) {
    const long before = freedWithMarker();
    { const WipedBytes destroyed = secret(100); }
    {
        WipedBytes cleared = secret(5000);
        cleared.clear();
        EXPECT_TRUE(cleared.empty());
    }
    {
        WipedBytes grown = secret(100);
        ASSERT_TRUE(grown.append(bytesOf(std::string(1000, 'y'))));
        EXPECT_EQ(1100U, grown.size());
    }
    {
        WipedBytes replaced = secret(100);
        ASSERT_TRUE(replaced.assign(bytesOf(std::string(1000, 'y'))));
        EXPECT_EQ(std::string(1000, 'y'), textOf(replaced));
    }
    {
        WipedBytes assigned = secret(100);
        assigned = secret(200);
        EXPECT_EQ(200U, assigned.size());
    }
    EXPECT_EQ(before, freedWithMarker());
}

TEST(WipedBytesTest, WhatIsCutOffLeavesNoTrace) {
    const std::string text = std::string("ab") + support::kMarker;

    WipedBytes back;
    ASSERT_TRUE(back.assign(bytesOf(text)));
    back.dropBack(sizeof support::kMarker - 1);
    EXPECT_EQ("ab", textOf(back));
    EXPECT_TRUE(restIsClean(back));

    WipedBytes front;
    ASSERT_TRUE(front.assign(bytesOf(support::kMarker + text)));
    front.dropFront(text.size());
    EXPECT_EQ(support::kMarker, textOf(front));
    front.dropFront(sizeof support::kMarker - 3);
    EXPECT_EQ(">>", textOf(front));
    EXPECT_TRUE(restIsClean(front));

    WipedBytes overwritten;
    ASSERT_TRUE(overwritten.assign(bytesOf(text)));
    ASSERT_TRUE(overwritten.assign(bytesOf("c")));
    EXPECT_EQ("c", textOf(overwritten));
    EXPECT_TRUE(restIsClean(overwritten));

    WipedBytes reset;
    ASSERT_TRUE(reset.assign(bytesOf(text)));
    ASSERT_TRUE(reset.reset(1));
    EXPECT_EQ(1U, reset.size());
    EXPECT_TRUE(restIsClean(reset));
}

TEST(WipedBytesTest, TakesPartsOfItself) {
    for (const std::size_t size : {4U, 100U, 128U, 5000U}) {  // with and without room to spare
        SCOPED_TRACE(size);
        const std::string text(size, 'z');

        WipedBytes doubled;
        ASSERT_TRUE(doubled.assign(bytesOf(text)));
        ASSERT_TRUE(doubled.append(doubled.view()));
        EXPECT_EQ(text + text, textOf(doubled));

        WipedBytes shortened;
        ASSERT_TRUE(shortened.assign(bytesOf(text + "tail")));
        ASSERT_TRUE(shortened.assign(shortened.view().subspan(2)));
        EXPECT_EQ(text.substr(2) + "tail", textOf(shortened));
    }
}

TEST(WipedBytesTest, RefusesWhatMemoryCannotHold) {
    WipedBytes bytes = secret(100);
    const std::string before = textOf(bytes);
    // Nothing is read of what does not fit. Opaque, or the compiler objects.
    volatile const std::size_t most = std::numeric_limits<std::size_t>::max();
    for (const std::size_t size : {most / 2 + 1, most - 200, most}) {
        SCOPED_TRACE(size);
        EXPECT_FALSE(bytes.reset(size));
        EXPECT_FALSE(bytes.assign({bytes.data(), size}));
        EXPECT_FALSE(bytes.append({bytes.data(), size}));
    }
    EXPECT_EQ(before, textOf(bytes));
}

// A frame is a header, a message and a trailer: the message goes to its place once.
TEST(WipedBytesTest, GrowsWithRoomToSpare) {
    WipedBytes frame;
    ASSERT_TRUE(frame.append(bytesOf(std::string(13, 'h'))));
    ASSERT_TRUE(frame.append(bytesOf(std::string(2048, 'm'))));
    const unsigned char* const place = frame.data();
    ASSERT_TRUE(frame.append(bytesOf(std::string(16, 't'))));
    EXPECT_EQ(place, frame.data());
}

TEST(WipedBytesTest, MovedFromHoldsNothing) {
    WipedBytes from = secret(50);
    const std::string text = textOf(from);
    WipedBytes to(std::move(from));
    EXPECT_EQ(text, textOf(to));
    EXPECT_TRUE(from.empty());  // NOLINT(bugprone-use-after-move): the promise under test
    from = std::move(to);
    EXPECT_EQ(text, textOf(from));
    WipedBytes& self = from;
    from = std::move(self);
    EXPECT_EQ(text, textOf(from));
}

}  // namespace
