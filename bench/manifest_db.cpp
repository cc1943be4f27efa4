// Loading a Manifest.db of many rows (500,000 by default; QUIVER_BENCH_ROWS sets another count) into a
// manifest, beside a bare SQLite scan of the same rows that touches every column (the floor), and
// writing the manifest back. Reports the heap memory that the loaded manifest holds per entry.
//
// The rows are a realistic mix: a few dozen domains, nested paths, regular files with digests and
// wrapped keys (two thirds), directories, and some symlinks.
#include <benchmark/benchmark.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <malloc.h>
#include <unistd.h>

#include "Quiver/QVManifestDB.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/Support/Random.hpp"

namespace fs = std::filesystem;
using namespace Quiver;

namespace {

fs::path gDir;
fs::path gDatabase;
int64_t gRows = 0;

int64_t benchRows() {
    if (const char* text = std::getenv("QUIVER_BENCH_ROWS")) {
        long long n = std::atoll(text);
        if (n > 0) return n;
    }
    return 500000;
}

// Heap bytes in use: unlike the resident size, it does not hide allocations that reuse freed memory.
long residentBytes() { return static_cast<long>(mallinfo2().uordblks); }

Manifest makeManifest(int64_t rows) {
    std::vector<Entry> entries;
    entries.reserve(static_cast<size_t>(rows));
    std::vector<CF::String> domains;
    for (int d = 0; d < 40; ++d)
        domains.emplace_back(d == 0 ? std::string("HomeDomain") : "AppDomain-com.example.app" + std::to_string(d));
    std::vector<uint8_t> key(44, 0x5a);
    key[0] = 3;
    key[1] = key[2] = key[3] = 0;
    for (int64_t i = 0; i < rows; ++i) {
        const CF::String& domain = domains[static_cast<size_t>(i % 40)];
        std::string path = "Library/Caches/Group" + std::to_string(i % 997) + "/Item" + std::to_string(i) + ".dat";
        Entry entry;
        if (i % 3 != 2) {
            entry = QVManifestEntryCreateForDirectory(domain.get(), CF::String(path).get());
            entry->mode = 0x81A4;
            entry->fileType = 1;
            entry->size = static_cast<uint64_t>(i * 37 % 1000000);
            entry->digest = CF::Data(Support::RandomBytes(20));
            entry->encryptionKey = CF::Data(key);
            entry->protectionClass = EntryProtectionClassCompleteUntilUnlocked;
        } else if (i % 30 == 2) {
            entry = QVManifestEntryCreateForSymlink(domain.get(), CF::String(path).get(), CFSTR("../elsewhere"));
        } else {
            entry = QVManifestEntryCreateForDirectory(domain.get(), CF::String(path).get());
        }
        entry->inode = static_cast<uint64_t>(1000000 + i);
        entries.push_back(std::move(entry));
    }
    Manifest m = QVManifestCreateEmpty();
    QVManifestUpdateEntries(m, std::move(entries));
    return m;
}

void BM_BareScan(benchmark::State& state) {
    for (auto _ : state) {
        SQLite::Database db(gDatabase.string(), SQLite::OPEN_READONLY);
        SQLite::Statement q(db, "SELECT fileID, domain, relativePath, flags, file FROM Files;");
        int64_t rows = 0, bytes = 0;
        while (q.executeStep()) {
            bytes += q.getColumn(0).getBytes() + q.getColumn(1).getBytes() + q.getColumn(2).getBytes();
            bytes += q.getColumn(3).getInt();
            const void* blob = q.getColumn(4).getBlob();
            benchmark::DoNotOptimize(blob);
            bytes += q.getColumn(4).getBytes();
            ++rows;
        }
        benchmark::DoNotOptimize(bytes);
        if (rows != gRows) state.SkipWithError("row count differs");
    }
    state.SetItemsProcessed(state.iterations() * gRows);
}

void BM_LoadManifest(benchmark::State& state) {
    double perEntry = 0;
    for (auto _ : state) {
        long before = residentBytes();
        CFErrorRef error = nullptr;
        Manifest m = QVManifestCreateFromManifestDatabase(CF::String(gDatabase.string()).get(), QVManifestDataVersion33,
                                                          nullptr, nullptr, &error);
        long after = residentBytes();
        if (!m || static_cast<int64_t>(m->entries.size()) != gRows) {
            state.SkipWithError("load failed");
            if (error) CFRelease(error);
            break;
        }
        if (perEntry == 0) perEntry = static_cast<double>(after - before) / static_cast<double>(gRows);
        state.PauseTiming();
        m.reset();
        state.ResumeTiming();
    }
    state.counters["heap_bytes_per_entry"] = perEntry;
    state.SetItemsProcessed(state.iterations() * gRows);
}

void BM_WriteManifest(benchmark::State& state) {
    Manifest m = makeManifest(gRows);
    size_t size = 0;
    for (auto _ : state) size = QVManifestCreateManifestDBRepresentation(m, QVManifestDataVersion33).size();
    state.counters["database_bytes"] = static_cast<double>(size);
    state.SetItemsProcessed(state.iterations() * gRows);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::string pattern = (fs::temp_directory_path() / "quiver-bench-db-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return 1;
    gDir = pattern;
    QuiverSetTemporaryPath(CF::String((gDir / "storage").string()).get());
    gRows = benchRows();
    {
        Manifest m = makeManifest(gRows);
        auto bytes = QVManifestCreateManifestDBRepresentation(m, QVManifestDataVersion33);
        gDatabase = gDir / "Manifest.db";
        std::ofstream(gDatabase, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    benchmark::AddCustomContext("rows", std::to_string(gRows));
    benchmark::RegisterBenchmark("BareSQLiteScan", BM_BareScan)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("LoadManifestDB", BM_LoadManifest)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("WriteManifestDB", BM_WriteManifest)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(gDir, ec);
    return 0;
}
