// Opening an encrypted backup costs one password derivation: PBKDF2-HMAC-SHA256 over DPIC rounds, then
// PBKDF2-HMAC-SHA1 over ITER rounds (10,000,000 and 10,000 on devices since iOS 10.2). Three figures,
// side by side in one run:
//
//   Quiver/GenerateKEK      the library's derivation
//   OpenSSL/PKCS5_PBKDF2    the same two passes through OpenSSL's PKCS5_PBKDF2_HMAC
//   Limit/BlockTransforms   the bare block transforms that the two passes need (two per round:
//                           2 x DPIC SHA-256 and 4 x ITER SHA-1, for a 32-byte SHA-1 output is two
//                           blocks), i.e. the fastest any PBKDF2 over these transforms can be
//
// QUIVER_KDF_DPIC and QUIVER_KDF_ITER change the counts (e.g. 100000 and 1000 for a quick run),
// QUIVER_KDF_REPETITIONS the number of runs of each (3). Run on a quiet machine; with
// --benchmark_enable_random_interleaving=true the three take turns, which evens out a changing load.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"

namespace {

uint32_t EnvCount(const char* name, uint32_t fallback) {
    const char* text = std::getenv(name);
    if (!text || !*text) return fallback;
    char* end = nullptr;
    unsigned long value = std::strtoul(text, &end, 10);
    if (*end || value == 0 || value > 0xFFFFFFFFul) {
        std::fprintf(stderr, "%s must be a count from 1 to 4294967295, not '%s'\n", name, text);
        std::exit(2);
    }
    return static_cast<uint32_t>(value);
}

const uint32_t kDPIC = EnvCount("QUIVER_KDF_DPIC", 10'000'000);
const uint32_t kITER = EnvCount("QUIVER_KDF_ITER", 10'000);
const std::vector<uint8_t> kPassword = {'t', 'e', 's', 't', '1', '2', '3'};

MB::KeyBag::ManifestInfo Info(uint32_t dpic, uint32_t iter) {
    MB::KeyBag::ManifestInfo info;
    for (std::size_t i = 0; i < 20; ++i) {
        info.dpsl[i] = static_cast<uint8_t>(0x66 + i);
        info.salt[i] = static_cast<uint8_t>(0xF0 - i);
    }
    info.dpic = dpic;
    info.iter = iter;
    return info;
}

std::array<uint8_t, 32> OpenSSLKEK(const MB::KeyBag::ManifestInfo& info) {
    std::array<uint8_t, 32> firstPass{}, kek{};
    PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(kPassword.data()), static_cast<int>(kPassword.size()),
                      info.dpsl.data(), static_cast<int>(info.dpsl.size()), static_cast<int>(info.dpic), EVP_sha256(),
                      static_cast<int>(firstPass.size()), firstPass.data());
    PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(firstPass.data()), static_cast<int>(firstPass.size()),
                      info.salt.data(), static_cast<int>(info.salt.size()), static_cast<int>(info.iter), EVP_sha1(),
                      static_cast<int>(kek.size()), kek.data());
    return kek;
}

void Counters(benchmark::State& state) {
    state.counters["DPIC"] = kDPIC;
    state.counters["ITER"] = kITER;
}

void QuiverGenerateKEK(benchmark::State& state) {
    const MB::KeyBag::ManifestInfo info = Info(kDPIC, kITER);
    for (auto _ : state) {
        std::array<uint8_t, 32> kek = MB::ManifestEncryption::GenerateKEKFromPassword(kPassword, info);
        benchmark::DoNotOptimize(kek);
    }
    Counters(state);
}

void OpenSSLPKCS5(benchmark::State& state) {
    const MB::KeyBag::ManifestInfo info = Info(kDPIC, kITER);
    for (auto _ : state) {
        std::array<uint8_t, 32> kek = OpenSSLKEK(info);
        benchmark::DoNotOptimize(kek);
    }
    Counters(state);
}

void BlockTransforms(benchmark::State& state) {
    const std::array<uint8_t, 64> block{};
    for (auto _ : state) {
        // Each transform starts from the state the previous one left, as in the derivation.
        SHA256_CTX sha256;
        SHA256_Init(&sha256);
        for (uint64_t i = 0; i < 2ull * kDPIC; ++i) SHA256_Transform(&sha256, block.data());
        SHA_CTX sha1;
        SHA1_Init(&sha1);
        for (uint64_t i = 0; i < 4ull * kITER; ++i) SHA1_Transform(&sha1, block.data());
        benchmark::DoNotOptimize(sha256);
        benchmark::DoNotOptimize(sha1);
    }
    Counters(state);
}

void Register() {
    const int repetitions = static_cast<int>(EnvCount("QUIVER_KDF_REPETITIONS", 3));
    for (auto [name, function] : {std::pair{"Quiver/GenerateKEK", &QuiverGenerateKEK},
                                  std::pair{"OpenSSL/PKCS5_PBKDF2", &OpenSSLPKCS5},
                                  std::pair{"Limit/BlockTransforms", &BlockTransforms}}) {
        benchmark::RegisterBenchmark(name, function)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(1)
            ->Repetitions(repetitions);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // The comparison means nothing unless both compute the same key.
    const MB::KeyBag::ManifestInfo check = Info(1000, 100);
    if (MB::ManifestEncryption::GenerateKEKFromPassword(kPassword, check) != OpenSSLKEK(check)) {
        std::fprintf(stderr, "the library's key differs from OpenSSL's\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Register();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
