// The zip data source: a backup packed in a zip file, its members read on demand into appendable
// files of the file manager.
#include <minizip/unzip.h>

#include <array>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/Support/ZipError.hpp"

namespace Quiver {

void OpenZipSource(QVBackupContainerClass& backup) {
    CloseZipSource(backup);
    std::string path = backup.path.utf8();
    unzFile zip = unzOpen64(path.c_str());
    if (!zip) throw Error(QVErrorInvalidBackup, CF::Error(), fmt::format("Failed to open zip file ({})", path));
    backup.zipFile = zip;
}

void CloseZipSource(QVBackupContainerClass& backup) {
    if (backup.zipFile) {
        unzClose(static_cast<unzFile>(backup.zipFile));
        backup.zipFile = nullptr;
    }
}

namespace {

// unzLocateFile's case-sensitivity argument: 1 compares names byte for byte.
constexpr int kCaseSensitive = 1;

// Closes the current member however the read ends.
struct CurrentMember {
    unzFile zip;
    ~CurrentMember() { unzCloseCurrentFile(zip); }
};

}  // namespace

bool ZipSourceHasMember(QVBackupContainerClass& backup, const std::string& name) {
    auto zip = static_cast<unzFile>(backup.zipFile);
    return zip && unzGoToFirstFile(zip) == UNZ_OK && unzLocateFile(zip, name.c_str(), kCaseSensitive) == UNZ_OK;
}

std::shared_ptr<QVFileClass> SourceLoadZipMember(QVBackupContainerClass& backup, const CF::String& name) {
    auto zip = static_cast<unzFile>(backup.zipFile);
    if (!zip) throw Error(QVErrorInvalidArgument, CF::Error(), "No data source type set for backup container");
    std::string member = name.utf8();
    int result = unzGoToFirstFile(zip);
    if (result == UNZ_OK) result = unzLocateFile(zip, member.c_str(), kCaseSensitive);
    if (result != UNZ_OK)
        throw Error(QVErrorInvalidBackup, Support::zipCreateError(result, member), "Could not locate file record in zip");
    result = unzOpenCurrentFile(zip);
    if (result != UNZ_OK)
        throw Error(QVErrorArchiveFile, Support::zipCreateError(result, member), "Failed to open file record");
    CurrentMember open{zip};
    unz_file_info64 info{};
    result = unzGetCurrentFileInfo64(zip, &info, nullptr, 0, nullptr, 0, nullptr, 0);
    if (result != UNZ_OK)
        throw Error(QVErrorArchiveFile, Support::zipCreateError(result, member), "Failed to read file metadata");

    CFErrorRef error = nullptr;
    auto file = QVFileCreateAppendable(&error);
    if (!file) throw CF::Error::Adopt(error);
    std::array<uint8_t, 32768> buffer{};
    for (;;) {
        int got = unzReadCurrentFile(zip, buffer.data(), static_cast<unsigned>(buffer.size()));
        if (got < 0)
            throw Error(QVErrorArchiveFile, Support::zipCreateError(got, member), "Failed to extract file data");
        if (got == 0) break;
        if (!QVFileAppendBytes(file, buffer.data(), got, &error)) throw CF::Error::Adopt(error);
    }
    // The end of the member is where minizip checks its CRC.
    result = unzCloseCurrentFile(zip);
    if (result != UNZ_OK)
        throw Error(QVErrorArchiveFile, Support::zipCreateError(result, member), "Failed to extract file data");
    if (!QVFileFinalizeAppendable(file, &error)) throw CF::Error::Adopt(error);
    return file;
}

}  // namespace Quiver
