// What does a message cost through the proxies, the host's guards and two modules,
// beside the bare cipher on the same bytes?
#include <cstddef>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "client/cmn_abuf.h"
#include "client/pkcs5C.h"
#include "client/pkixakey.h"
#include "host/store_host.h"

namespace {

constexpr std::size_t kHeader = 13;
constexpr std::size_t kTag = 16;
constexpr unsigned char kKey[16] = {1, 2, 3};

std::unique_ptr<mmPBES> shared;  // one object for all threads

aBuf messageOf(benchmark::State& state) {
    const std::vector<unsigned char> bytes(static_cast<std::size_t>(state.range(0)), 'm');
    return aBuf(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void encryptByProxy(benchmark::State& state) {
    const aBuf plain = messageOf(state);
    for ([[maybe_unused]] auto _ : state) {
        if (shared->encrypt(plain).target() == nullptr) {
            state.SkipWithError("not encrypted");
        }
    }
    countBytes(state);
}

void decryptByProxy(benchmark::State& state) {
    const aBuf cipher = shared->encrypt(messageOf(state));
    for ([[maybe_unused]] auto _ : state) {
        if (shared->decrypt(cipher).target() == nullptr) {
            state.SkipWithError("not decrypted");
        }
    }
    countBytes(state);
}

using Ctx = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

const EVP_CIPHER* cipher() {
    static const EVP_CIPHER* const fetched = EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr);
    return fetched;
}

// The frame of a message by the cipher alone, with a context of its own as a plain
// caller makes it; the memory is there already.
bool seal(const std::vector<unsigned char>& plain, std::vector<unsigned char>& frame) {
    const Ctx ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    int size = 0;
    frame[0] = 1;
    return RAND_bytes(frame.data() + 1, 12) == 1 &&
           EVP_EncryptInit_ex2(ctx.get(), cipher(), kKey, frame.data() + 1, nullptr) == 1 &&
           EVP_EncryptUpdate(ctx.get(), nullptr, &size, frame.data(), 1) == 1 &&
           EVP_EncryptUpdate(ctx.get(), frame.data() + kHeader, &size, plain.data(),
                             static_cast<int>(plain.size())) == 1 &&
           EVP_EncryptFinal_ex(ctx.get(), frame.data() + kHeader + size, &size) == 1 &&
           EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kTag,
                               frame.data() + kHeader + plain.size()) == 1;
}

bool open(std::vector<unsigned char>& frame, std::vector<unsigned char>& plain) {
    const Ctx ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    int size = 0;
    return EVP_DecryptInit_ex2(ctx.get(), cipher(), kKey, frame.data() + 1, nullptr) == 1 &&
           EVP_DecryptUpdate(ctx.get(), nullptr, &size, frame.data(), 1) == 1 &&
           EVP_DecryptUpdate(ctx.get(), plain.data(), &size, frame.data() + kHeader,
                             static_cast<int>(plain.size())) == 1 &&
           EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kTag,
                               frame.data() + kHeader + plain.size()) == 1 &&
           EVP_DecryptFinal_ex(ctx.get(), plain.data() + size, &size) == 1;
}

void encryptBare(benchmark::State& state) {
    const std::vector<unsigned char> plain(static_cast<std::size_t>(state.range(0)), 'm');
    std::vector<unsigned char> frame(kHeader + plain.size() + kTag);
    for ([[maybe_unused]] auto _ : state) {
        if (!seal(plain, frame)) {
            state.SkipWithError("not encrypted");
        }
        benchmark::DoNotOptimize(frame.data());
    }
    countBytes(state);
}

void decryptBare(benchmark::State& state) {
    std::vector<unsigned char> plain(static_cast<std::size_t>(state.range(0)), 'm');
    std::vector<unsigned char> frame(kHeader + plain.size() + kTag);
    if (!seal(plain, frame)) {
        state.SkipWithError("not encrypted");
    }
    for ([[maybe_unused]] auto _ : state) {
        if (!open(frame, plain)) {
            state.SkipWithError("not decrypted");
        }
        benchmark::DoNotOptimize(plain.data());
    }
    countBytes(state);
}

// The derivation with the record cipher's parameters, once for a password.
void deriveKey(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        mmPBES pbes(PBES::kPbkdf2);
        pbes << PBES::kPassword << aBuf("password") << PBES::kSalt << aBuf("") << PBES::kIterations
             << 1000U << PBES::kKeyLength << 16U << PBES::kFirstAlg << PKI_ALG_PBKDF2_HMAC_SHA256
             << PBES::kSecondAlg << PKI_ALG_AES_GCM;
        if (pbes.getKey().target() == nullptr) {
            state.SkipWithError("no key");
        }
    }
}

// Prints besides the ratio that counts: proxy to bare, in CPU time, which other
// programs on the machine disturb least.
class Ratios : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration) {
                times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        for (const auto& [name, time] : times_) {
            const std::size_t at = name.find("ByProxy/");
            if (at == std::string::npos) {
                continue;
            }
            const auto bare = times_.find(name.substr(0, at) + "Bare" + name.substr(at + 7));
            if (bare != times_.end()) {
                std::printf("%s: %.2f times the bare cipher\n", name.c_str(), time / bare->second);
            }
        }
    }

private:
    std::map<std::string, double> times_;
};

}  // namespace

BENCHMARK(encryptByProxy)->Arg(64)->Arg(2048)->Arg(1 << 20);
BENCHMARK(encryptBare)->Arg(64)->Arg(2048)->Arg(1 << 20);
BENCHMARK(decryptByProxy)->Arg(64)->Arg(2048)->Arg(1 << 20);
BENCHMARK(decryptBare)->Arg(64)->Arg(2048)->Arg(1 << 20);
BENCHMARK(encryptByProxy)->Arg(2048)->Threads(2)->UseRealTime();
BENCHMARK(encryptBare)->Arg(2048)->Threads(2)->UseRealTime();
BENCHMARK(deriveKey);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    StoreHost host;
    StoreHost::Setup setup;
    setup.modules = {"x509cmn.so", "pkixkey.so", "pkcs5.so"};
    if (const Result started = host.start(setup); !started.ok()) {
        std::fprintf(stderr, "%s\n", started.message.c_str());
        return 1;
    }
    shared = std::make_unique<mmPBES>(PBES::kPbkdf2);
    if (shared->setKey(aKey(TKey::kSymmetric, kKey, sizeof kKey)) != kOk) {
        std::fprintf(stderr, "the modules take no key\n");
        return 1;
    }
    Ratios reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    shared.reset();
    return host.stop().ok() ? 0 : 1;
}
