#include "service/md5.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/own_stack.h"
#include "tests/support/watched_heap.h"

// The layout is a contract with other modules.
static_assert(offsetof(rk5_MD5Context, state) == 0);
static_assert(offsetof(rk5_MD5Context, count) == 16);
static_assert(offsetof(rk5_MD5Context, buffer) == 24);
static_assert(offsetof(rk5_MD5Context, flags) == 88);
static_assert(sizeof(rk5_MD5Context) == 92);

namespace {

using Digest = std::array<unsigned char, 16>;

std::string hex(const Digest& digest) {
    std::string text;
    for (const unsigned char byte : digest) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

unsigned int lengthOf(const std::string& text) {
    return static_cast<unsigned int>(text.size());
}

// The digest of one message given in pieces, or a word on what failed.
std::string digestOf(std::initializer_list<std::string> pieces) {
    rk5_MD5Context context;
    rk5_MD5Init(&context);
    for (const std::string& piece : pieces) {
        if (rk5_MD5Update(&context, piece.data(), lengthOf(piece)) != 1) {
            return "update failed";
        }
    }
    Digest digest;
    return rk5_MD5Final(&context, digest.data()) == 1 ? hex(digest) : "final failed";
}

// The first bytes of what make_md5_lengths.sh gave to md5sum.
std::string patternOf(std::size_t length) {
    std::string message;
    for (std::size_t i = 0; i < length; ++i) {
        message += static_cast<char>((i * i + 7 * i) % 251);
    }
    return message;
}

// Line n is the digest of patternOf(n).
std::vector<std::string> digestsByLength() {
    std::ifstream file(MD5_LENGTHS_FILE);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(Md5Test, DigestsTheTestSuiteOfRfc1321) {
    const struct {
        const char* name;
        const char* message;
        const char* digest;
    } rows[] = {
        {"empty", "", "d41d8cd98f00b204e9800998ecf8427e"},
        {"one letter", "a", "0cc175b9c0f1b6a831c399e269772661"},
        {"three letters", "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"words", "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"alphabet", "abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"letters and digits", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"80 digits",
         "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Digest digest;
        EXPECT_EQ(1, rk5_MD5Compute(nullptr, digest.data(), row.message, lengthOf(row.message)));
        EXPECT_EQ(row.digest, hex(digest));
        EXPECT_EQ(row.digest, digestOf({row.message}));
    }
}

TEST(Md5Test, DigestsEveryLengthUpToAThousandBytes) {
    const std::vector<std::string> expected = digestsByLength();
    ASSERT_EQ(1001U, expected.size());
    for (std::size_t length = 0; length < expected.size(); ++length) {
        SCOPED_TRACE(length);
        const std::string message = patternOf(length);
        Digest digest;
        ASSERT_EQ(1, rk5_MD5Compute(nullptr, digest.data(), message.data(), lengthOf(message)));
        ASSERT_EQ(expected[length], hex(digest));
    }
}

TEST(Md5Test, EverySplitGivesTheDigestOfTheWhole) {
    const std::vector<std::string> expected = digestsByLength();
    ASSERT_LT(200U, expected.size());
    for (std::size_t length = 0; length <= 200; ++length) {
        const std::string message = patternOf(length);
        for (std::size_t first = 0; first <= length; ++first) {
            SCOPED_TRACE(std::to_string(first) + " bytes of " + std::to_string(length));
            ASSERT_EQ(expected[length],
                      digestOf({message.substr(0, first), message.substr(first)}));
        }
    }
}

TEST(Md5Test, ByteByByteGivesTheDigestOfTheWhole) {
    const std::vector<std::string> expected = digestsByLength();
    ASSERT_EQ(1001U, expected.size());
    rk5_MD5Context context;
    rk5_MD5Init(&context);
    for (const char byte : patternOf(1000)) {
        ASSERT_EQ(1, rk5_MD5Update(&context, &byte, 1));
    }
    Digest digest;
    EXPECT_EQ(1, rk5_MD5Final(&context, digest.data()));
    EXPECT_EQ(expected[1000], hex(digest));
}

TEST(Md5Test, MessageMayLieAtAnyAddress) {
    const std::vector<std::string> expected = digestsByLength();
    ASSERT_LT(130U, expected.size());
    for (std::size_t offset = 0; offset < 16; ++offset) {
        SCOPED_TRACE(offset);
        const std::string memory = std::string(offset, '?') + patternOf(130);
        Digest digest;
        EXPECT_EQ(1, rk5_MD5Compute(nullptr, digest.data(), memory.data() + offset, 130));
        EXPECT_EQ(expected[130], hex(digest));
    }
}

TEST(Md5Test, LowCountWordCarriesIntoTheHighWord) {
    rk5_MD5Context context;
    rk5_MD5Init(&context);
    context.count[0] = 0xfffffe00;
    context.count[1] = 7;
    EXPECT_EQ(1, rk5_MD5Update(&context, patternOf(65).data(), 65));
    EXPECT_EQ(8U, context.count[0]);
    EXPECT_EQ(8U, context.count[1]);
}

TEST(Md5Test, CountWrapsAtTwoToThe64Bits) {
    rk5_MD5Context context;
    rk5_MD5Init(&context);
    context.count[0] = 0xfffffe00;
    context.count[1] = 0xffffffff;
    EXPECT_EQ(1, rk5_MD5Update(&context, patternOf(64).data(), 64));
    EXPECT_EQ(0U, context.count[0]);
    EXPECT_EQ(0U, context.count[1]);
}

// 2^29 bytes in one piece: their number of bits does not fit in the low word.
TEST(Md5Test, HalfAGibibyteInOnePieceIsCountedAndDigested) {
    constexpr unsigned int kLength = 0x20000000;
    void* const zeros =
        mmap(nullptr, kLength, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, zeros);
    rk5_MD5Context context;
    rk5_MD5Init(&context);
    EXPECT_EQ(1, rk5_MD5Update(&context, zeros, 69));
    EXPECT_EQ(1, rk5_MD5Update(&context, zeros, kLength));
    EXPECT_EQ(0, munmap(zeros, kLength));
    EXPECT_EQ(69U * 8, context.count[0]);
    EXPECT_EQ(1U, context.count[1]);
    Digest digest;
    EXPECT_EQ(1, rk5_MD5Final(&context, digest.data()));
    EXPECT_EQ("d8dbed915896f4cbb655df0b23dfdc0a", hex(digest));  // by md5sum
}

TEST(Md5Test, InitOfACallersContextKeepsAllFlagsButBitZero) {
    rk5_MD5Context context;
    std::memset(&context, 0xff, sizeof context);
    EXPECT_EQ(&context, rk5_MD5Init(&context));
    const std::uint32_t initial[] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    EXPECT_TRUE(std::equal(std::begin(initial), std::end(initial), context.state));
    EXPECT_EQ(0U, context.count[0]);
    EXPECT_EQ(0U, context.count[1]);
    EXPECT_EQ(0xfffffffeU, context.flags);
}

TEST(Md5Test, ContextOfTheCallerIsNeitherFreedNorWiped) {
    WatchedHeap heap(sizeof(rk5_MD5Context));
    rk5_MD5Context context;
    context.flags = 0xffffffff;
    Digest digest;
    EXPECT_EQ(1, rk5_MD5Compute(&context, digest.data(), "abc", 3));
    EXPECT_EQ(0, heap.made());
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", hex(digest));
    EXPECT_EQ(0, std::memcmp(context.buffer, "abc\x80", 4));
    EXPECT_EQ(0x98500190U, context.state[0]);
}

TEST(Md5Test, ContextOfTheCallerMayBeUsedAgain) {
    rk5_MD5Context context;
    for (int round = 0; round < 3; ++round) {
        Digest digest;
        EXPECT_EQ(1, rk5_MD5Compute(&context, digest.data(), "abc", 3));
        EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", hex(digest));
    }
}

// Whether the block that was freed last held zeros only.
bool freedAllZeros(const WatchedHeap& heap) {
    const unsigned char* const bytes = heap.lastFreed();
    return std::all_of(bytes, bytes + sizeof(rk5_MD5Context),
                       [](unsigned char byte) { return byte == 0; });
}

TEST(Md5Test, ContextFromTheHeapIsWipedAndFreedByFinal) {
    WatchedHeap heap(sizeof(rk5_MD5Context));
    rk5_MD5Context* const context = rk5_MD5Init(nullptr);
    ASSERT_NE(nullptr, context);
    EXPECT_EQ(1, heap.made());
    EXPECT_EQ(1U, context->flags);
    EXPECT_EQ(1, rk5_MD5Update(context, "abc", 3));
    Digest digest;
    EXPECT_EQ(1, rk5_MD5Final(context, digest.data()));
    EXPECT_EQ(1, heap.freed());
    EXPECT_TRUE(freedAllZeros(heap));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", hex(digest));
}

TEST(Md5Test, ComputeWithoutContextWipesAndFreesItsOwn) {
    WatchedHeap heap(sizeof(rk5_MD5Context));
    Digest digest;
    EXPECT_EQ(1, rk5_MD5Compute(nullptr, digest.data(), "abc", 3));
    EXPECT_EQ(1, heap.made());
    EXPECT_EQ(1, heap.freed());
    EXPECT_TRUE(freedAllZeros(heap));
}

TEST(Md5Test, WithoutMemoryThereIsNoContextAndNoDigest) {
    WatchedHeap heap(sizeof(rk5_MD5Context));
    heap.refuse();
    Digest digest{};
    EXPECT_EQ(nullptr, rk5_MD5Init(nullptr));
    EXPECT_EQ(-1, rk5_MD5Compute(nullptr, digest.data(), "abc", 3));
    EXPECT_EQ(Digest{}, digest);
}

TEST(Md5Test, NullArgumentsAreRefused) {
    WatchedHeap heap(sizeof(rk5_MD5Context));
    rk5_MD5Context context;
    rk5_MD5Init(&context);
    Digest digest{};
    EXPECT_EQ(-1, rk5_MD5Update(nullptr, "abc", 3));
    EXPECT_EQ(-1, rk5_MD5Update(&context, nullptr, 3));
    EXPECT_EQ(-1, rk5_MD5Final(nullptr, digest.data()));
    EXPECT_EQ(-1, rk5_MD5Final(&context, nullptr));
    EXPECT_EQ(-1, rk5_MD5Compute(&context, nullptr, "abc", 3));
    EXPECT_EQ(-1, rk5_MD5Compute(&context, digest.data(), nullptr, 3));
    EXPECT_EQ(-1, rk5_MD5Compute(nullptr, nullptr, "abc", 3));
    EXPECT_EQ(-1, rk5_MD5Compute(nullptr, digest.data(), nullptr, 0));
    EXPECT_EQ(Digest{}, digest);
    EXPECT_EQ(0, heap.made());

    // None of the refusals has touched the message, which goes on as begun.
    EXPECT_EQ(1, rk5_MD5Update(&context, nullptr, 0));
    EXPECT_EQ(1, rk5_MD5Update(&context, "abc", 3));
    EXPECT_EQ(1, rk5_MD5Final(&context, digest.data()));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", hex(digest));
}

TEST(Md5Test, FinalWithoutDigestLeavesAHeapContextAlive) {
    WatchedHeap heap(sizeof(rk5_MD5Context));
    rk5_MD5Context* const context = rk5_MD5Init(nullptr);
    ASSERT_NE(nullptr, context);
    EXPECT_EQ(-1, rk5_MD5Final(context, nullptr));
    EXPECT_EQ(0, heap.freed());
    Digest digest;
    EXPECT_EQ(1, rk5_MD5Final(context, digest.data()));
    EXPECT_EQ(1, heap.freed());
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", hex(digest));
}

// Neither words of the message nor chaining values may outlive the call.
TEST(Md5Test, NoSecretIsLeftOnTheStack) {
    std::mt19937 random(1321);
    std::uint32_t message[50];
    std::generate(std::begin(message), std::end(message), random);
    Digest digest;
    int result = 0;
    const auto compute = [&] {
        result = rk5_MD5Compute(nullptr, digest.data(), message, sizeof message);
    };
    // The dynamic linker saves registers on the stack when a function is first
    // called: that is behind us after one call.
    compute();
    OwnStack stack;
    stack.run(compute);
    EXPECT_EQ(1, result);

    // Not before: whatever touches them may leave them in registers, which a new
    // thread inherits.
    std::vector<std::uint32_t> secrets(std::begin(message), std::end(message));
    rk5_MD5Context context;
    rk5_MD5Init(&context);
    for (int block = 0; block < 3; ++block) {
        ASSERT_EQ(1, rk5_MD5Update(&context, message + 16 * block, 64));
        secrets.insert(secrets.end(), std::begin(context.state), std::end(context.state));
    }
    for (std::size_t i = 0; i < secrets.size(); ++i) {
        EXPECT_FALSE(stack.contains(&secrets[i], sizeof secrets[i])) << i;
    }
}

}  // namespace
