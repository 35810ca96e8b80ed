#include "service/md5.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "cmn/wipe.h"

namespace {

constexpr std::uint32_t kOnHeap = 1;  // bit 0 of the flags
constexpr std::size_t kBlock = 64;
constexpr std::size_t kLengthAt = 56;  // where the last block holds the bit count
constexpr std::size_t kFrames = 512;   // stack that the transform and its caller use, and more

// floor(2^32 * |sin(i + 1)|) for step i.
constexpr std::uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// By how much step i rotates: one row a round, and every row four times over.
constexpr int kRotation[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// The order in which each round takes the words of the block: (first + i * stride) % 16.
constexpr std::size_t kFirst[4] = {0, 1, 5, 0};
constexpr std::size_t kStride[4] = {1, 5, 3, 7};

// Little-endian on every host; compilers make one move of it where they can.
inline std::uint32_t load(const unsigned char* from) {
    return from[0] | std::uint32_t{from[1]} << 8 | std::uint32_t{from[2]} << 16 |
           std::uint32_t{from[3]} << 24;
}

inline void store(unsigned char* to, std::uint32_t word) {
    for (int i = 0; i < 4; ++i) {
        to[i] = static_cast<unsigned char>(word >> (8 * i));
    }
}

// The word itself, but the optimiser cannot see that: it neither regroups a sum
// across this point nor packs words into vector registers. Both were measured,
// the first costs clang a fifth of the speed, the second g++ -O3 a twentieth.
inline std::uint32_t opaque(std::uint32_t word) {
    __asm__("" : "+r"(word));
    return word;
}

// Step `i` of the transform. It replaces one of the four working words, and b is
// the one that the step before has made: the chain from b to the new word alone
// decides the speed. All that does not need b is therefore summed up first, and
// the round functions are written with b entering as late as can be.
template <std::size_t i>
[[gnu::always_inline]] inline void step(std::uint32_t& a, std::uint32_t b, std::uint32_t c,
                                        std::uint32_t d, const unsigned char* block) {
    constexpr std::size_t kRound = i / 16;
    constexpr std::size_t kWord = (kFirst[kRound] + i * kStride[kRound]) % 16;
    std::uint32_t ready = a + kSine[i] + load(block + 4 * kWord);
    if constexpr (kRound == 1) {
        ready += c & ~d;  // half of (b & d) | (c & ~d): the halves share no bit
    }
    ready = opaque(ready);

    std::uint32_t f;
    if constexpr (kRound == 0) {
        f = d ^ (b & (c ^ d));  // (b & c) | (~b & d)
    } else if constexpr (kRound == 1) {
        f = b & d;
    } else if constexpr (kRound == 2) {
        f = b ^ (c ^ d);
    } else {
        f = c ^ (b | ~d);
    }
    a = b + std::rotl(ready + f, kRotation[kRound][i % 4]);
}

// The words change places from step to step instead of moving.
template <std::size_t... i>
[[gnu::always_inline]] inline void allSteps(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c,
                                            std::uint32_t& d, const unsigned char* block,
                                            std::index_sequence<i...> /*fours*/) {
    ((step<4 * i>(a, b, c, d, block), step<4 * i + 1>(d, a, b, c, block),
      step<4 * i + 2>(c, d, a, b, block), step<4 * i + 3>(b, c, d, a, block)),
     ...);
}

// Digests `blocks` complete blocks. The message is read where it lies and the
// chaining value stays in `state`; what the compiler spills of either is left
// behind in the stack frame, to be wiped by the caller with wipeStack().
[[gnu::noinline]] void transform(std::uint32_t (&state)[4], const unsigned char* message,
                                 std::size_t blocks) {
    std::uint32_t a = state[0];
    std::uint32_t b = state[1];
    std::uint32_t c = state[2];
    std::uint32_t d = state[3];
    for (; blocks != 0; --blocks, message += kBlock) {
        allSteps(a, b, c, d, message, std::make_index_sequence<16>());
        a = state[0] += opaque(a);
        b = state[1] += opaque(b);
        c = state[2] += opaque(c);
        d = state[3] += opaque(d);
    }
}

// Clears the stack below the caller, where the frame of transform() was. The
// address sanitizer would place the array elsewhere.
[[gnu::noinline]] __attribute__((no_sanitize("address"))) void wipeStack() {
    unsigned char frames[kFrames];
    wipe(frames, sizeof frames);
}

// How many bytes of the buffer are in use; always less than a block.
std::size_t buffered(const rk5_MD5Context& context) {
    return context.count[0] / 8 % kBlock;
}

void addToCount(rk5_MD5Context& context, unsigned int bytes) {
    const std::uint64_t before = std::uint64_t{context.count[1]} << 32 | context.count[0];
    const std::uint64_t after = before + std::uint64_t{bytes} * 8;
    context.count[0] = static_cast<std::uint32_t>(after);
    context.count[1] = static_cast<std::uint32_t>(after >> 32);
}

}  // namespace

rk5_MD5Context* rk5_MD5Init(rk5_MD5Context* context) noexcept {
    if (context == nullptr) {
        context = new (std::nothrow) rk5_MD5Context{};
        if (context == nullptr) {
            return nullptr;
        }
        context->flags = kOnHeap;
    } else {
        context->flags &= ~kOnHeap;
    }
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
    context->count[0] = 0;
    context->count[1] = 0;
    return context;
}

int rk5_MD5Update(rk5_MD5Context* context, const void* data, unsigned int length) noexcept {
    if (context == nullptr || (data == nullptr && length != 0)) {
        return -1;
    }
    if (length == 0) {
        return 1;
    }
    const std::size_t used = buffered(*context);
    addToCount(*context, length);

    const auto* rest = static_cast<const unsigned char*>(data);
    std::size_t left = length;
    if (used != 0) {
        const std::size_t taken = std::min(left, kBlock - used);
        std::memcpy(context->buffer + used, rest, taken);
        if (used + taken < kBlock) {
            return 1;
        }
        transform(context->state, context->buffer, 1);
        rest += taken;
        left -= taken;
    }
    transform(context->state, rest, left / kBlock);
    std::memcpy(context->buffer, rest + left / kBlock * kBlock, left % kBlock);
    wipeStack();
    return 1;
}

int rk5_MD5Final(rk5_MD5Context* context, unsigned char digest[16]) noexcept {
    if (context == nullptr || digest == nullptr) {
        return -1;
    }
    unsigned char* const buffer = context->buffer;
    std::size_t used = buffered(*context);
    buffer[used++] = 0x80;
    if (used > kLengthAt) {  // no room for the bit count: it takes a block of its own
        std::memset(buffer + used, 0, kBlock - used);
        transform(context->state, buffer, 1);
        used = 0;
    }
    std::memset(buffer + used, 0, kLengthAt - used);
    store(buffer + kLengthAt, context->count[0]);
    store(buffer + kLengthAt + 4, context->count[1]);
    transform(context->state, buffer, 1);
    wipeStack();

    for (std::size_t i = 0; i < 4; ++i) {
        store(digest + 4 * i, context->state[i]);
    }
    if ((context->flags & kOnHeap) != 0) {
        wipe(context, sizeof *context);
        delete context;
    }
    return 1;
}

int rk5_MD5Compute(rk5_MD5Context* context, unsigned char digest[16], const void* data,
                   unsigned int length) noexcept {
    if (data == nullptr || digest == nullptr) {
        return -1;
    }
    context = rk5_MD5Init(context);
    if (context == nullptr) {
        return -1;
    }
    const int updated = rk5_MD5Update(context, data, length);
    const int finished = rk5_MD5Final(context, digest);  // also frees a context from the heap
    return updated < 0 ? updated : finished;
}
