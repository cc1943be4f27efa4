// The zip data source: a backup packed in a zip file, its members read on demand into appendable
// files of the file manager.
//
// Zipping a backup's folder (what a file manager's "compress" does) puts every member below that one
// folder, so the backup's names are looked up below it. Such a zip may also carry the resource-fork
// folder "__MACOSX" and ".DS_Store" files beside it; they are not part of the backup.
#include <minizip/unzip.h>

#include <array>
#include <string_view>
#include <vector>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/Support/ZipError.hpp"

namespace Quiver {

namespace {

// unzLocateFile's case-sensitivity argument: 1 compares names byte for byte.
constexpr int kCaseSensitive = 1;

// What the container's zipFile points to.
struct ZipSource {
    unzFile handle = nullptr;
    std::string prefix;  // "" or "<folder>/": where the backup's names start
};

ZipSource* SourceOf(QVBackupContainerClass& backup) { return static_cast<ZipSource*>(backup.zipFile); }

bool HasMember(unzFile zip, const std::string& name) {
    return unzGoToFirstFile(zip) == UNZ_OK && unzLocateFile(zip, name.c_str(), kCaseSensitive) == UNZ_OK;
}

bool IsClutter(std::string_view name) {
    if (name.starts_with("__MACOSX/")) return true;
    const size_t slash = name.rfind('/');
    return name.substr(slash == std::string_view::npos ? 0 : slash + 1) == ".DS_Store";
}

// "" when the backup lies at the root of the zip, "<folder>/" when every member but clutter lies below
// one folder that holds a backup's metadata or manifest.
std::string BackupPrefix(unzFile zip) {
    static constexpr const char* kMarkers[] = {"Manifest.plist", "Status.plist", "Manifest.db", "Manifest.mbdb"};
    for (const char* marker : kMarkers)
        if (HasMember(zip, marker)) return {};
    std::string folder;
    std::vector<char> name;
    for (int result = unzGoToFirstFile(zip); result == UNZ_OK; result = unzGoToNextFile(zip)) {
        unz_file_info64 info{};
        if (unzGetCurrentFileInfo64(zip, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK) return {};
        name.assign(info.size_filename + 1, '\0');
        if (unzGetCurrentFileInfo64(zip, &info, name.data(), static_cast<uLong>(name.size()), nullptr, 0, nullptr, 0) !=
            UNZ_OK)
            return {};
        const std::string_view member(name.data(), info.size_filename);
        if (IsClutter(member)) continue;
        const size_t slash = member.find('/');
        if (slash == std::string_view::npos || slash == 0) return {};  // a file at the root
        if (folder.empty()) {
            folder = member.substr(0, slash + 1);
        } else if (member.substr(0, slash + 1) != folder) {
            return {};
        }
    }
    if (folder.empty()) return {};
    for (const char* marker : kMarkers)
        if (HasMember(zip, folder + marker)) return folder;
    return {};
}

}  // namespace

void OpenZipSource(QVBackupContainerClass& backup) {
    CloseZipSource(backup);
    std::string path = backup.path.utf8();
    unzFile zip = unzOpen64(path.c_str());
    if (!zip)
        throw Error(QVErrorInvalidBackup, CF::Error(), fmt::format("Failed to open zip file ({})", path),
                    ErrorContext::File({}, "zip"));
    auto* source = new ZipSource{zip, {}};
    backup.zipFile = source;
    source->prefix = BackupPrefix(zip);
}

void CloseZipSource(QVBackupContainerClass& backup) {
    if (ZipSource* source = SourceOf(backup)) {
        unzClose(source->handle);
        delete source;
        backup.zipFile = nullptr;
    }
}

namespace {

// Closes the current member however the read ends.
struct CurrentMember {
    unzFile zip;
    ~CurrentMember() { unzCloseCurrentFile(zip); }
};

}  // namespace

std::vector<std::string> ZipSourceMemberNames(QVBackupContainerClass& backup) {
    ZipSource* source = SourceOf(backup);
    std::vector<std::string> names;
    if (!source) return names;
    std::vector<char> name;
    for (int result = unzGoToFirstFile(source->handle); result == UNZ_OK; result = unzGoToNextFile(source->handle)) {
        unz_file_info64 info{};
        if (unzGetCurrentFileInfo64(source->handle, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK) break;
        name.assign(info.size_filename + 1, '\0');
        if (unzGetCurrentFileInfo64(source->handle, &info, name.data(), static_cast<uLong>(name.size()), nullptr, 0,
                                    nullptr, 0) != UNZ_OK)
            break;
        const std::string_view member(name.data(), info.size_filename);
        if (IsClutter(member) || member.empty() || member.back() == '/' || !member.starts_with(source->prefix)) continue;
        names.emplace_back(member.substr(source->prefix.size()));
    }
    return names;
}

bool ZipSourceHasMember(QVBackupContainerClass& backup, const std::string& name) {
    ZipSource* source = SourceOf(backup);
    return source && HasMember(source->handle, source->prefix + name);
}

std::shared_ptr<QVFileClass> SourceLoadZipMember(QVBackupContainerClass& backup, const CF::String& name) {
    ZipSource* source = SourceOf(backup);
    if (!source) throw Error(QVErrorInvalidArgument, CF::Error(), "No data source type set for backup container");
    unzFile zip = source->handle;
    std::string member = source->prefix + name.utf8();
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
