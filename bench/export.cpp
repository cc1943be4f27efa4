// Exporting a backup of about 2 GB in a few thousand files (QUIVER_BENCH_BYTES and QUIVER_BENCH_FILES
// set others) to a directory and to a zip file, side by side with `cp -r` and `zip -r` of the same
// tree in the same run. The source is a plain backup directory written first by exporting a
// container whose files were stored from a scratch tree.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVTemporaryPath.hpp"

namespace fs = std::filesystem;
using namespace Quiver;

namespace {

fs::path gDir, gSource;
uint64_t gBytes = 0;

uint64_t envNumber(const char* name, uint64_t fallback) {
    if (const char* text = std::getenv(name)) {
        unsigned long long v = std::strtoull(text, nullptr, 10);
        if (v > 0) return v;
    }
    return fallback;
}

void fill(std::vector<uint8_t>& buffer, uint64_t& state) {
    for (auto& b : buffer) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        b = static_cast<uint8_t>(state >> 56);
    }
}

// A plain backup directory with `files` files adding up to `bytes`.
void makeSource(uint64_t bytes, uint64_t files) {
    fs::path tree = gDir / "tree";
    fs::create_directories(tree);
    Backup backup = QVBackupContainerCreateEmpty(nullptr);
    backup->manifestVersion = QVManifestDataVersion33;
    CF::Dictionary status = CF::Dictionary::CreateMutable();
    status.Set("Version", CF::String("3.3"));
    CF::Dictionary manifest = CF::Dictionary::CreateMutable();
    manifest.Set("IsEncrypted", CF::Boolean(false));
    QVBackupContainerSetDictionaries(backup, CF::Dictionary::CreateMutable().get(), status.get(), manifest.get());
    std::vector<uint8_t> buffer;
    uint64_t state = 7;
    for (uint64_t i = 0; i < files; ++i) {
        uint64_t size = bytes / files;
        buffer.resize(size);
        fill(buffer, state);
        fs::path p = tree / ("f" + std::to_string(i));
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(buffer.data()),
                                                 static_cast<std::streamsize>(buffer.size()));
        auto file = QVFileCreateFromFileAtPath(CF::String(p.string()), 0, nullptr);
        std::string path = "Library/Group" + std::to_string(i % 50) + "/File" + std::to_string(i) + ".bin";
        QVBackupContainerStoreFileForPath(backup, CFSTR("HomeDomain"), CF::String(path).get(), file, nullptr);
        gBytes += size;
    }
    gSource = gDir / "source";
    if (!QVBackupContainerExportToDirectory(backup, CF::String(gSource.string()).get(), nullptr)) std::exit(1);
    fs::remove_all(tree);
}

void BM_ExportToDirectory(benchmark::State& state, bool zip) {
    CFErrorRef error = nullptr;
    Backup backup = QVBackupContainerCreateFromDirectory(CF::String(gSource.string()).get(), nullptr, &error);
    if (!backup) {
        state.SkipWithError("cannot load the source");
        return;
    }
    int round = 0;
    for (auto _ : state) {
        fs::path target = gDir / ((zip ? "out.zip" : "out") + std::to_string(round++));
        bool ok = zip ? QVBackupContainerExportToZip(backup, CF::String(target.string()).get(), nullptr)
                      : QVBackupContainerExportToDirectory(backup, CF::String(target.string()).get(), nullptr);
        state.PauseTiming();
        fs::remove_all(target);
        state.ResumeTiming();
        if (!ok) state.SkipWithError("export failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * gBytes));
}

void BM_Command(benchmark::State& state, const char* what) {
    int round = 0;
    for (auto _ : state) {
        fs::path target = gDir / ("cmd" + std::to_string(round++));
        std::string command = std::string(what) == "cp"
                                  ? "cp -r '" + gSource.string() + "' '" + target.string() + "'"
                                  : "cd '" + gSource.string() + "' && zip -q -r '" + target.string() + ".zip' .";
        auto start = std::chrono::steady_clock::now();
        int status = std::system(command.c_str());
        auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        fs::remove_all(target);
        fs::remove(target.string() + ".zip");
        if (status != 0) state.SkipWithError("command failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * gBytes));
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::string pattern = (fs::temp_directory_path() / "quiver-bench-export-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return 1;
    gDir = pattern;
    QuiverSetTemporaryPath(CF::String((gDir / "storage").string()).get());
    Logger().set_level(spdlog::level::err);
    makeSource(envNumber("QUIVER_BENCH_BYTES", uint64_t{2} << 30), envNumber("QUIVER_BENCH_FILES", 3000));
    benchmark::AddCustomContext("bytes", std::to_string(gBytes));
    benchmark::RegisterBenchmark("ExportToDirectory", BM_ExportToDirectory, false)
        ->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
    benchmark::RegisterBenchmark("CpR", BM_Command, "cp")->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
    benchmark::RegisterBenchmark("ExportToZip", BM_ExportToDirectory, true)
        ->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    benchmark::RegisterBenchmark("ZipR", BM_Command, "zip")->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(gDir, ec);
    return 0;
}
