// Opening a zip file as a backup and reading its members: any bytes must load or fail with an error,
// and every member that the manifest names must read or fail with an error; never a crash or a hang.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVTemporaryPath.hpp"

namespace fs = std::filesystem;

namespace {

fs::path scratch() {
    static const fs::path dir = [] {
        std::string pattern = (fs::temp_directory_path() / "quiver-fuzz-zip-XXXXXX").string();
        if (!mkdtemp(pattern.data())) std::abort();
        QuiverSetTemporaryPath(CF::String((fs::path(pattern) / "storage").string()).get());
        Quiver::Logger().set_level(spdlog::level::off);
        return fs::path(pattern);
    }();
    return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fs::path file = scratch() / "input.zip";
    if (FILE* f = std::fopen(file.c_str(), "wb")) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    CFErrorRef error = nullptr;
    Quiver::Backup backup = Quiver::QVBackupContainerCreateFromZipFile(CF::String(file.string()).get(), nullptr,
                                                                       nullptr, &error);
    if (!backup) {
        if (!error) std::abort();  // a failure always says why
        CFRelease(error);
        return 0;
    }
    for (const Quiver::Entry& entry : Quiver::QVManifestGetEntries(backup->manifest)) {
        if (!Quiver::QVManifestEntryIsFile(entry)) continue;
        CFErrorRef readError = nullptr;
        auto content = Quiver::QVBackupContainerCopyFileForPath(backup, Quiver::QVManifestEntryGetDomain(entry),
                                                                Quiver::QVManifestEntryGetPath(entry), &readError);
        if (content) Quiver::QVFileGetData(content, 0, [](const std::vector<uint8_t>&) { return true; });
        if (readError) CFRelease(readError);
    }
    // The cache grows with every member read; the fuzzer runs long.
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(scratch() / "storage" / "QVFileManager", ec)) fs::remove(e.path(), ec);
    return 0;
}
