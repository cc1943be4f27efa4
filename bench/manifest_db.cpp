// Loading a Manifest.db of many rows (500,000 by default; QUIVER_BENCH_ROWS sets another count) into a
// manifest, beside a bare SQLite scan of the same rows that touches every column (the floor), and
// writing the manifest back. Reports the heap memory that the loaded manifest holds per entry.
//
// The rows are those of the phone-sized backup of LargeBackup.hpp, with wrapped keys: a few dozen
// domains, two thirds files (half with digests), directories and some symlinks.
#include <benchmark/benchmark.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <malloc.h>
#include <unistd.h>

#include "Quiver/QVFile.hpp"
#include "Quiver/QVManifestDB.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/Support/Random.hpp"
#include "bench/LargeBackup.hpp"

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

Manifest makeManifest(int64_t rows) { return QuiverBench::MakeLargeManifest(rows, true); }

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

// The same into a file without a name, as an export writes it.
void BM_WriteManifestFile(benchmark::State& state) {
    Manifest m = makeManifest(gRows);
    uint64_t size = 0;
    for (auto _ : state) size = QVFileGetSize(QVManifestCreateManifestDBFile(m, QVManifestDataVersion33));
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
    benchmark::RegisterBenchmark("WriteManifestDBFile", BM_WriteManifestFile)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(gDir, ec);
    return 0;
}
