// Is our MD5 at least as fast as libcrypto's, on a block of a file and on a password?
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "service/md5.h"

namespace {

std::vector<unsigned char> messageOf(benchmark::State& state) {
    std::vector<unsigned char> message(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < message.size(); ++i) {
        message[i] = static_cast<unsigned char>(i * 7);
    }
    return message;
}

void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void ours(benchmark::State& state) {
    const std::vector<unsigned char> message = messageOf(state);
    const auto size = static_cast<unsigned int>(message.size());
    rk5_MD5Context context;
    unsigned char digest[16];
    for ([[maybe_unused]] auto _ : state) {
        rk5_MD5Compute(&context, digest, message.data(), size);
        benchmark::DoNotOptimize(digest);
    }
    countBytes(state);

    unsigned char expected[16];
    if (EVP_Digest(message.data(), size, expected, nullptr, EVP_md5(), nullptr) != 1 ||
        std::memcmp(digest, expected, sizeof digest) != 0) {
        state.SkipWithError("the digests differ");
    }
}

void libcrypto(benchmark::State& state) {
    const std::vector<unsigned char> message = messageOf(state);
    // What costs more than the digest of a short message is done only once.
    const std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> md5(EVP_MD_fetch(nullptr, "MD5", nullptr),
                                                              EVP_MD_free);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    unsigned char digest[16];
    for ([[maybe_unused]] auto _ : state) {
        if (EVP_DigestInit_ex2(context.get(), md5.get(), nullptr) != 1 ||
            EVP_DigestUpdate(context.get(), message.data(), message.size()) != 1 ||
            EVP_DigestFinal_ex(context.get(), digest, nullptr) != 1) {
            state.SkipWithError("libcrypto has no MD5");
            break;
        }
        benchmark::DoNotOptimize(digest);
    }
    countBytes(state);
}

BENCHMARK(ours)->Name("md5/ours")->Arg(64)->Arg(8192);
BENCHMARK(libcrypto)->Name("md5/libcrypto")->Arg(64)->Arg(8192);

}  // namespace

BENCHMARK_MAIN();
