// Edits on a backup the size of a real phone's manifest (LargeBackup.hpp; QUIVER_BENCH_ROWS rows,
// 306,386 by default): a thousand folders made, a thousand files put in, a thousand files removed,
// each thousand timed as one run on the loaded container (writing the result out is not counted).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "bench/LargeBackup.hpp"

namespace fs = std::filesystem;
using namespace Quiver;

namespace {

Backup gBackup;
int gRound = 0;

void BM_Mkdir(benchmark::State& state) {
    for (auto _ : state) {
        const std::string base = "Library/Made" + std::to_string(gRound++) + "/Folder";
        for (int i = 0; i < 1000; ++i)
            if (!QVBackupContainerCreateDirectoryAtPath(gBackup, CFSTR("HomeDomain"), CF::String(base + std::to_string(i)).get()))
                state.SkipWithError("mkdir failed");
    }
}

void BM_Put(benchmark::State& state) {
    auto file = QVFileCreateFromData(std::vector<uint8_t>{'n', 'o', 't', 'e'}, nullptr);
    for (auto _ : state) {
        const std::string base = "Library/Put" + std::to_string(gRound++) + "/note";
        for (int i = 0; i < 1000; ++i)
            if (!QVBackupContainerStoreFileForPath(gBackup, CFSTR("HomeDomain"), CF::String(base + std::to_string(i)).get(),
                                                   file, nullptr))
                state.SkipWithError("put failed");
    }
}

void BM_Remove(benchmark::State& state) {
    static int64_t next = 0;
    for (auto _ : state) {
        // Rows 0, 120, 240, ... of the generator are files of HomeDomain (120,000 rows or more hold
        // a thousand of them).
        for (int i = 0; i < 1000; ++i, ++next) {
            const int64_t row = 120 * next;
            const std::string path = "Media/DCIM/" + std::to_string(100 + row % 97) + "APPLE/IMG_" + std::to_string(row) + ".HEIC";
            if (!QVBackupContainerRemovePath(gBackup, CFSTR("HomeDomain"), CF::String(path).get()))
                state.SkipWithError("nothing to remove: use more rows");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::string pattern = (fs::temp_directory_path() / "quiver-bench-edits-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return 1;
    const fs::path dir = pattern;
    QuiverSetTemporaryPath(CF::String((dir / "storage").string()).get());
    Logger().set_level(spdlog::level::err);
    int64_t rows = 306386;
    if (const char* text = std::getenv("QUIVER_BENCH_ROWS"); text && std::atoll(text) > 0) rows = std::atoll(text);
    QuiverBench::WriteLargeBackup(dir / "backup", rows, false);
    gBackup = QVBackupContainerCreateFromDirectory(CF::String((dir / "backup").string()).get(), nullptr, nullptr);
    if (!gBackup) return 1;
    benchmark::AddCustomContext("rows", std::to_string(rows));
    benchmark::RegisterBenchmark("Mkdir1000", BM_Mkdir)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    benchmark::RegisterBenchmark("Put1000", BM_Put)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    benchmark::RegisterBenchmark("Remove1000", BM_Remove)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gBackup.reset();
    std::error_code ec;
    fs::remove_all(dir, ec);
    return 0;
}
