// A program with a CoreFoundation of its own, linked against the shared library as any program is,
// through the public headers: the library's calls must reach its own functions, never the
// program's, and the program's names must not be taken by the library. Ends with status 0 when
// that holds.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <quiver/quiver.hpp>

// The other CoreFoundation's functions, under the names any CoreFoundation uses.
namespace {
int foreignCalls = 0;
}
extern "C" __attribute__((visibility("default"))) void CFRelease(const void*) { ++foreignCalls; }
extern "C" __attribute__((visibility("default"))) const void* CFRetain(const void* object) {
    ++foreignCalls;
    return object;
}

int main() {
    std::string scratch = (std::filesystem::temp_directory_path() / "quiver-abi-XXXXXX").string();
    if (!mkdtemp(scratch.data())) return 1;
    int status = 0;
    try {
        // Work inside the library that makes, retains and releases objects of its own: metadata as
        // property lists, entries, a whole backup written and read back.
        quiver::Backup backup = quiver::Backup::create();
        backup.setMetadata(quiver::Value::dictionary({{"Device Name", quiver::Value::string("abi")}}),
                           quiver::Value::dictionary({{"Version", quiver::Value::string("3.3")}}),
                           quiver::Value::dictionary({{"IsEncrypted", quiver::Value::boolean(false)}}));
        for (int i = 0; i < 50; ++i) {
            const std::string text = "file " + std::to_string(i);
            backup.putData("HomeDomain", "Library/f" + std::to_string(i),
                           std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
        }
        backup.write(scratch + "/copy");
        quiver::Backup copy = quiver::Backup::open(scratch + "/copy");
        if (copy.readAll(*copy.find("HomeDomain", "Library/f7")) != "file 7") {
            std::fprintf(stderr, "the backup read back wrong\n");
            status = 1;
        }
    } catch (const quiver::Error& e) {
        std::fprintf(stderr, "%s\n", e.what());
        status = 1;
    }
    std::filesystem::remove_all(scratch);
    if (foreignCalls != 0) {
        std::fprintf(stderr, "the library called the program's CFRelease or CFRetain %d times\n", foreignCalls);
        return 1;
    }
    return status;
}
