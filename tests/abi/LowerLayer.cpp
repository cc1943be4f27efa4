// A program of the layer beneath the front, written against the installed headers alone: CoreFoundation
// objects made and released by the program itself, a backup opened, one file found and its content
// written to standard output. scripts/check-examples builds it against an installation and compares
// what it prints with the tool.
//   LowerLayer BACKUP DOMAIN PATH
#include <CoreFoundation/CoreFoundation.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <quiver/QVBackupContainer.hpp>
#include <quiver/QVError.hpp>
#include <quiver/QVFile.hpp>
#include <quiver/QVTemporaryPath.hpp>

namespace {

CFStringRef Text(const char* text) { return CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8); }

// The error's description on standard error, and the error released.
int Fail(const char* what, CFErrorRef error) {
    std::string text = "no error given";
    if (error) {
        CFStringRef description = CFErrorCopyDescription(error);
        char buffer[1024];
        if (CFStringGetCString(description, buffer, sizeof buffer, kCFStringEncodingUTF8)) text = buffer;
        if (CFEqual(CFErrorGetDomain(error), kQVErrorDomain)) text += " (code " + std::to_string(CFErrorGetCode(error)) + ")";
        CFRelease(description);
        CFRelease(error);
    }
    std::fprintf(stderr, "LowerLayer: %s: %s\n", what, text.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: LowerLayer BACKUP DOMAIN PATH\n");
        return 2;
    }
    std::string scratch = (std::filesystem::temp_directory_path() / "quiver-lower-XXXXXX").string();
    if (!mkdtemp(scratch.data())) return 1;
    CFStringRef temporary = Text(scratch.c_str());
    const bool temporarySet = QuiverSetTemporaryPath(temporary);
    CFRelease(temporary);
    if (!temporarySet) return 1;

    int status = 0;
    CFStringRef path = Text(argv[1]);
    CFStringRef domain = Text(argv[2]);
    CFStringRef relativePath = Text(argv[3]);
    CFErrorRef error = nullptr;
    if (Quiver::Backup backup = Quiver::QVBackupContainerCreateFromDirectory(path, {}, &error)) {
        if (std::shared_ptr<QVFileClass> file =
                Quiver::QVBackupContainerCopyFileForPath(backup, domain, relativePath, &error)) {
            Quiver::QVFileGetData(file, 0, [](const std::vector<uint8_t>& chunk) {
                return std::fwrite(chunk.data(), 1, chunk.size(), stdout) == chunk.size();
            });
        } else {
            status = Fail("no such file", error);
        }
    } else {
        status = Fail("the backup does not open", error);
    }
    CFRelease(relativePath);
    CFRelease(domain);
    CFRelease(path);
    std::filesystem::remove_all(scratch);
    return status;
}
