#include "lib/base/secret.h"

#include <sys/mman.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace fstore {
namespace {

// Of the mapping that holds the address, as the system shows it: "rd wr mr mw me lo ac dd ".
std::string flagsAt(const void* address) {
    std::ifstream maps("/proc/self/smaps");
    std::string line;
    bool isIn = false;
    while (std::getline(maps, line)) {
        std::uintptr_t first = 0, last = 0;
        if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR, &first, &last) == 2) {
            const auto place = reinterpret_cast<std::uintptr_t>(address);
            isIn = first <= place && place < last;
        } else if (isIn && line.starts_with("VmFlags: ")) {
            return line.substr(std::string("VmFlags: ").size());
        }
    }
    return {};
}

// Whether this process may lock memory: a limit may forbid it, and sanitizers do nothing for it.
bool mayLock() {
    constexpr std::size_t kSize = 64 << 10;
    void* const memory =
        ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const bool may =
        ::mlock(memory, kSize) == 0 && flagsAt(memory).find("lo ") != std::string::npos;
    (void)::munmap(memory, kSize);
    return may;
}

TEST(SecretTest, IsNeitherDumpedNorSwapped) {
    const SecretText text("a password");
    const SecretKey key(32);
    for (const void* const address :
         {static_cast<const void*>(text.c_str()), static_cast<const void*>(key.data())}) {
        const std::string flags = flagsAt(address);
        EXPECT_NE(std::string::npos, flags.find("dd ")) << flags;               // not dumped
        EXPECT_EQ(mayLock(), flags.find("lo ") != std::string::npos) << flags;  // locked
    }
}

TEST(SecretTest, IsWipedWhenItIsFreed) {
    const unsigned char* freed = nullptr;
    std::size_t size = 0;
    {
        const SecretText text("a password that is longer than what a string keeps in itself");
        freed = reinterpret_cast<const unsigned char*>(text.c_str());
        size = text.size();
        EXPECT_EQ('a', freed[0]);
    }
    // The pool's memory stays mapped, and nobody has taken this piece since.
    EXPECT_TRUE(std::all_of(freed, freed + size, [](unsigned char byte) { return byte == 0; }));
}

TEST(SecretTest, KeepsItsTextThroughCopiesAndMoves) {
    SecretText first("one");
    SecretText second = first;
    const SecretText third = std::move(first);
    second = SecretText("two");
    EXPECT_EQ("one", third.view());
    EXPECT_EQ("two", second.view());
    EXPECT_STREQ("two", second.c_str());
    EXPECT_TRUE(SecretText().empty());
    EXPECT_STREQ("", SecretText().c_str());
}

TEST(SecretPoolTest, PiecesOfAllSizesDoNotOverlapAndAreZeroed) {
    struct Piece {
        unsigned char* memory;
        std::size_t size;
    };
    for (int round = 0; round < 3; ++round) {
        std::vector<Piece> pieces;
        for (std::size_t size : {1, 64, 128, 129, 8192, 20, 4097, 8191, 300, 32, 65}) {
            auto* const memory = static_cast<unsigned char*>(takeFromPool(size));
            ASSERT_NE(nullptr, memory) << size;
            EXPECT_TRUE(std::all_of(memory, memory + size, [](auto byte) { return byte == 0; }));
            std::fill_n(memory, size, static_cast<unsigned char>(pieces.size() + 1));
            pieces.push_back({memory, size});
        }
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            const auto& [memory, size] = pieces[i];
            EXPECT_TRUE(
                std::all_of(memory, memory + size, [&](auto byte) { return byte == i + 1; }));
            EXPECT_TRUE(giveToPool(memory, size));
        }
    }
    EXPECT_EQ(nullptr, takeFromPool(0));
    EXPECT_EQ(nullptr, takeFromPool(8193));
    int other = 0;
    EXPECT_FALSE(giveToPool(&other, sizeof other));
}

TEST(SecretPoolTest, WhatDoesNotFitIsOnTheHeap) {
    std::vector<SecretText> many;
    for (int i = 0; i < 2000; ++i) {
        many.emplace_back("secret " + std::to_string(i));
    }
    const SecretText large(std::string(100000, 'x'));
    EXPECT_EQ(std::string::npos, flagsAt(large.c_str()).find("dd "));
    for (int i = 0; i < 2000; ++i) {
        EXPECT_EQ("secret " + std::to_string(i), many[static_cast<std::size_t>(i)].view());
    }
    many.clear();
    EXPECT_NE(std::string::npos, flagsAt(SecretText("again").c_str()).find("dd "));
}

TEST(SecretPoolTest, ThreadsGetPiecesOfTheirOwn) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([number] {
            for (int i = 0; i < 5000; ++i) {
                const std::string wanted(static_cast<std::size_t>(i % 700),
                                         static_cast<char>('a' + number));
                const SecretText text(wanted);
                ASSERT_EQ(wanted, text.view());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace fstore
