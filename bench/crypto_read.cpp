// Reading an encrypted stored file: plain reads against reads that decipher as they go, both at the
// bottom (readable_file + Cryptor, AES-256-CBC, zero IV, 1 MiB pieces) and through a file object
// (QVFileGetData, plain and switched to deciphering), and the openssl command line tool deciphering
// the same file, as the yardstick for what the hardware allows.
//
// The file is 1 GiB by default; QUIVER_BENCH_BYTES sets another size (e.g. 16777216 for a quick run).
// It is written once, before the benchmarks, into a temporary directory that is removed afterwards.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "Quiver/CF/String.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/Random.hpp"

namespace fs = std::filesystem;
using namespace Quiver::Support;

namespace {

constexpr std::size_t kChunk = std::size_t{1} << 20;

struct Fixture {
    fs::path dir;
    fs::path cipherPath;
    std::vector<uint8_t> key;
    uint64_t plainSize = 0;
    uint64_t cipherSize = 0;
};
Fixture g;

uint64_t BenchBytes() {
    if (const char* text = std::getenv("QUIVER_BENCH_BYTES")) {
        char* end = nullptr;
        unsigned long long value = std::strtoull(text, &end, 10);
        if (end != text && *end == '\0' && value > 0) {
            return value;
        }
        std::fprintf(stderr, "ignoring QUIVER_BENCH_BYTES=%s (not a positive number)\n", text);
    }
    return uint64_t{1} << 30;
}

// Incompressible, cheap to make: splitmix64.
void FillPseudorandom(std::vector<uint8_t>& buffer, uint64_t& state) {
    for (std::size_t i = 0; i + 8 <= buffer.size(); i += 8) {
        uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        z ^= z >> 31;
        for (int b = 0; b < 8; ++b) buffer[i + b] = static_cast<uint8_t>(z >> (8 * b));
    }
}

void MakeCipherFile() {
    std::string pattern = (fs::temp_directory_path() / "quiver-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    g.dir = pattern;
    g.cipherPath = g.dir / "cipher";
    g.key = RandomBytes(32);
    g.plainSize = BenchBytes();

    Cryptor cryptor(Cryptor::Operation::Encrypt, Cryptor::Algorithm::AES256, g.key);
    writable_file out(g.cipherPath, writable_file::mode::exclusive);
    std::vector<uint8_t> plain(kChunk), cipher(Cryptor::OutputBound(kChunk));
    uint64_t state = 42;
    for (uint64_t left = g.plainSize; left > 0;) {
        std::size_t n = static_cast<std::size_t>(std::min<uint64_t>(left, kChunk));
        FillPseudorandom(plain, state);
        std::size_t produced = cryptor.Update(plain.data(), n, cipher.data());
        out.write(cipher.data(), produced);
        g.cipherSize += produced;
        left -= n;
    }
    std::size_t produced = cryptor.Finalize(cipher.data());
    out.write(cipher.data(), produced);
    g.cipherSize += produced;
    out.close();
}

void BM_ReadPlain(benchmark::State& state) {
    std::vector<uint8_t> buffer(kChunk);
    for (auto _ : state) {
        readable_file file(g.cipherPath);
        uint64_t total = 0;
        while (std::size_t got = file.read(buffer.data(), buffer.size())) {
            total += got;
            benchmark::DoNotOptimize(buffer.data());
        }
        if (total != g.cipherSize) {
            state.SkipWithError("short read");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g.cipherSize));
}

void BM_ReadDecrypt(benchmark::State& state) {
    std::vector<uint8_t> in(kChunk), out(Cryptor::OutputBound(kChunk));
    for (auto _ : state) {
        readable_file file(g.cipherPath);
        Cryptor cryptor(Cryptor::Operation::Decrypt, Cryptor::Algorithm::AES256, g.key);
        uint64_t total = 0;
        while (std::size_t got = file.read(in.data(), in.size())) {
            total += cryptor.Update(in.data(), got, out.data());
            benchmark::DoNotOptimize(out.data());
        }
        total += cryptor.Finalize(out.data());
        if (total != g.plainSize) {
            state.SkipWithError("plaintext size differs");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g.cipherSize));
}

// Through the file object, as the library's callers read: plain when `decipher` is false.
void BM_FileObject(benchmark::State& state, bool decipher) {
    auto file = Quiver::QVFileCreateFromFileAtPath(CF::String(g.cipherPath.string()), 0, nullptr);
    if (!file) {
        state.SkipWithError("cannot make the file object");
        return;
    }
    if (decipher) {
        std::array<uint8_t, 32> key{};
        std::copy(g.key.begin(), g.key.end(), key.begin());
        file = Quiver::QVFileCreateCopy(file);
        Quiver::_QVFileSetDecryptionKey(file, key);
    }
    const uint64_t expected = decipher ? g.plainSize : g.cipherSize;
    for (auto _ : state) {
        uint64_t total = 0;
        Quiver::QVFileGetData(file, kChunk, [&](const std::vector<uint8_t>& chunk) {
            total += chunk.size();
            benchmark::DoNotOptimize(chunk.data());
            return true;
        });
        if (total != expected) {
            state.SkipWithError("wrong number of bytes");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g.cipherSize));
}

void BM_OpenSSLCommand(benchmark::State& state) {
    const std::string command = "openssl enc -d -aes-256-cbc -K " + hex_encode(g.key) + " -iv " +
                                std::string(32, '0') + " -in '" + g.cipherPath.string() + "' -out /dev/null";
    double seconds = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        int status = std::system(command.c_str());
        auto end = std::chrono::steady_clock::now();
        if (status != 0) {
            state.SkipWithError("openssl command failed");
            break;
        }
        double elapsed = std::chrono::duration<double>(end - start).count();
        state.SetIterationTime(elapsed);
        seconds += elapsed;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g.cipherSize));
    if (seconds > 0) {
        state.counters["openssl_bytes_per_second"] =
            benchmark::Counter(static_cast<double>(state.iterations() * g.cipherSize) / seconds,
                               benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    try {
        MakeCipherFile();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cannot make the test file: %s\n", e.what());
        std::error_code ec;
        fs::remove_all(g.dir, ec);
        return 1;
    }
    benchmark::AddCustomContext("file_bytes", std::to_string(g.cipherSize));
    if (!QuiverSetTemporaryPath(CF::String((g.dir / "storage").string()).get())) {
        std::fprintf(stderr, "cannot set the temporary path\n");
        return 1;
    }
    // Real time throughout: the work is reading as much as computing, and the openssl run happens in
    // a child process whose CPU time the benchmark cannot see.
    benchmark::RegisterBenchmark("ReadPlain/1MiB", BM_ReadPlain)->UseRealTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("ReadDecryptAES256CBC/1MiB", BM_ReadDecrypt)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("FileObjectPlain/1MiB", BM_FileObject, false)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("FileObjectDeciphering/1MiB", BM_FileObject, true)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("OpenSSLCommandDecrypt", BM_OpenSSLCommand)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(g.dir, ec);
    return 0;
}
