// Writes a backup the size of a real phone's manifest (LargeBackup.hpp), for timing whole commands of
// the tool against other programs on the same files (`/usr/bin/time quiver ls --json DIR`,
// `sqlite3 DIR/Manifest.db ...`).
//
//   bench-large_backup DIR [--encrypted | --stored]
//
// --stored writes the stored files too (about 1.6 GB for the default rows), for timing exports against
// `cp -r`.
// QUIVER_BENCH_ROWS sets the number of manifest rows (306,386 by default: a phone with years of photos
// and messages).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Quiver/QVTemporaryPath.hpp"
#include "bench/LargeBackup.hpp"

namespace fs = std::filesystem;
using namespace Quiver;

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s DIR [--encrypted | --stored]\n", argv[0]);
        return 2;
    }
    const fs::path dir = argv[1];
    const bool encrypted = argc > 2 && std::string(argv[2]) == "--encrypted";
    const bool stored = argc > 2 && std::string(argv[2]) == "--stored";
    int64_t rows = 306386;
    if (const char* text = std::getenv("QUIVER_BENCH_ROWS"); text && std::atoll(text) > 0) rows = std::atoll(text);
    fs::create_directories(dir / ".storage");
    QuiverSetTemporaryPath(CF::String((dir / ".storage").string()).get());
    const size_t size = QuiverBench::WriteLargeBackup(dir, rows, encrypted, stored);
    fs::remove_all(dir / ".storage");
    std::printf("%s: %lld rows, Manifest.db %zu bytes%s\n", dir.c_str(), static_cast<long long>(rows), size,
                encrypted ? ", enciphered" : "");
    return 0;
}
