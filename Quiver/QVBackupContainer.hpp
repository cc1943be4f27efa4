// The backup container: one whole backup with its three metadata dictionaries, its manifest, the data
// source its stored files are read from (a backup directory or a zip file), and, for an encrypted
// backup, the password and unlocked manifest encryption. Stored files are opened lazily, when an
// entry's content is first asked for, so the source must stay in place while the container lives.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/QVManifest.hpp"
#include "Quiver/QVManifestEntry.hpp"
#include "Quiver/Support/SoftwareVersion.hpp"

enum QVDataSourceType : uint32_t {
    QVDataSourceTypeZip = 0,
    QVDataSourceTypeDirectory = 1,
};

class QV_EXPORT QVBackupContainerClass {
public:
    QVBackupContainerClass();
    ~QVBackupContainerClass();
    QVBackupContainerClass(const QVBackupContainerClass&) = delete;
    QVBackupContainerClass& operator=(const QVBackupContainerClass&) = delete;

    QVDataSourceType sourceType = QVDataSourceTypeZip;
    QVManifestDataVersion manifestVersion = QVManifestDataVersionUnset;
    void* zipFile = nullptr;  // a zip source's read handle and member prefix (QVBackupContainerZip.cpp)
    CF::String path;
    Quiver::Manifest manifest;
    CF::Dictionary manifestDict;
    CF::Dictionary infoDict;
    CF::Dictionary statusDict;
    CF::String password;
    std::optional<MB::ManifestEncryption> manifestEncryption;
    CF::String baseDirectory;
    Quiver::Support::software_version sourceIOSVersion;
    // A partial copy (a folder with a manifest but without Status.plist or Manifest.plist, or a
    // Status.plist without "Version"): what is missing, and what loading made of it.
    std::vector<std::string> missingMetadata;
    // Metadata files that are there but are no property list: read as empty, and counted as missing.
    std::vector<std::string> unreadableMetadata;
    std::vector<std::string> loadWarnings;
    // Told what an export of this container turns to: "files", "manifest", then "metadata".
    std::function<void(const char* phase)> exportPhase;
};

namespace Quiver {

using Backup = std::shared_ptr<QVBackupContainerClass>;
using LoadProgress = std::function<void(int64_t completed, int64_t total, double fraction)>;

class QV_EXPORT QVBackupContainer {
public:
    QVBackupContainer() = default;
    QVBackupContainer(std::shared_ptr<QVBackupContainerClass> backup) : backup_(std::move(backup)) {}
    operator std::shared_ptr<QVBackupContainerClass>() const { return backup_; }
    explicit operator bool() const { return backup_ != nullptr; }
    QVBackupContainer Copy() const;
    Support::software_version get_source_ios_version() const;
    const std::shared_ptr<QVBackupContainerClass>& get() const { return backup_; }

private:
    std::shared_ptr<QVBackupContainerClass> backup_;
};

// ---- Construction and loading ----

QV_EXPORT Backup QVBackupContainerCreateEmpty(CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromDirectory(CFStringRef path, CFStringRef password, LoadProgress progress,
                                                      CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromDirectory(CFStringRef path, LoadProgress progress, CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromZipFile(CFStringRef path, CFStringRef password, LoadProgress progress,
                                                    CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromZipFile(CFStringRef path, LoadProgress progress, CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateCopy(const Backup& source);

// What a backup's metadata files say, read without its password and without loading its manifest:
// enough to tell backups apart and to say which device each came from.
struct QVBackupMetadata {
    CF::Dictionary info;      // empty when the file is missing
    CF::Dictionary status;
    CF::Dictionary manifest;
    std::vector<std::string> missing;  // "Manifest.plist", "Info.plist", "Status.plist"
    std::vector<std::string> unreadable;  // of those, the ones there that are no property list
    std::string manifestFile;          // "Manifest.db", "Manifest.mbdb", or "" when neither is there
};
// Fails as loading the same backup fails for what is not a backup, a damaged metadata file, or a zip
// that does not open; an encrypted backup reads like any other.
QV_EXPORT bool QVBackupContainerCopyMetadata(CFStringRef path, QVDataSourceType type, QVBackupMetadata* metadata,
                                             CFErrorRef* error);

// ---- Metadata ----

QV_EXPORT CFDictionaryRef QVBackupContainerCopyInfoDict(const Backup& backup);
QV_EXPORT CFDictionaryRef QVBackupContainerCopyStatusDict(const Backup& backup);
QV_EXPORT CFDictionaryRef QVBackupContainerCopyManifestDict(const Backup& backup);
QV_EXPORT const CF::Dictionary& QVBackupContainerGetManifestDict(const Backup& backup);
QV_EXPORT void QVBackupContainerSetDictionaries(const Backup& backup, CFDictionaryRef info, CFDictionaryRef status,
                                                CFDictionaryRef manifest);
QV_EXPORT CFNumberRef QVBackupContainerCopySystemDomainsVersion(const Backup& backup);
QV_EXPORT void QVBackupContainerSetSystemDomainsVersion(const Backup& backup, CFNumberRef version);
QV_EXPORT unsigned char QVBackupContainerIsEncrypted(const Backup& backup);
QV_EXPORT int64_t QVBackupContainerGetTotalFileCount(const Backup& backup);
QV_EXPORT CFStringRef QVBackupContainerGetBaseDirectory(const Backup& backup);
QV_EXPORT void QVBackupContainerSetBaseDirectory(const Backup& backup, CFStringRef directory);
// Every name an export writes, relative to the backup root; the caller releases the array.
QV_EXPORT CFArrayRef QVBackupContainerCopyFilesystemPathsList(const Backup& backup, unsigned char forwardSlashes);
QV_EXPORT Manifest QVBackupContainerGetManifest(const Backup& backup);
// What a partial copy lacks: "Manifest.plist", "Status.plist", "Info.plist" or "Version in Status.plist";
// empty for a complete backup. Such a backup reads, but is refused by export.
QV_EXPORT std::vector<std::string> QVBackupContainerCopyMissingMetadata(const Backup& backup);
// Of those, the files that are there but are not property lists (damage, where a missing file is a
// partial copy): each was read as an empty dictionary, and verification reports it.
QV_EXPORT std::vector<std::string> QVBackupContainerCopyUnreadableMetadata(const Backup& backup);
// One sentence for each thing that loading had to make up (the manifest version, plain for want of
// Manifest.plist); also logged as warnings.
QV_EXPORT std::vector<std::string> QVBackupContainerCopyLoadWarnings(const Backup& backup);
// Whether the manifest of this backup is enciphered (encrypted backups of iOS 10.2 and later).
QV_EXPORT bool QVBackupContainerHasEncipheredManifest(const Backup& backup);

// ---- Entry operations ----

QV_EXPORT Entry QVBackupContainerGetEntryForPath(const Backup& backup, CFStringRef domain, CFStringRef path);
QV_EXPORT Entry QVBackupContainerGetEntryForLocalFilename(const Backup& backup, CFStringRef localFilename,
                                                          unsigned char* isMetadataFile);
QV_EXPORT std::vector<Entry> QVBackupContainerCopyEntriesContainedInDirectoryAtPath(const Backup& backup,
                                                                                   CFStringRef domain, CFStringRef path);
// The content as a caller reads it: deciphered for a file of an encrypted backup.
QV_EXPORT std::shared_ptr<QVFileClass> QVBackupContainerCopyFileForPath(const Backup& backup, CFStringRef domain,
                                                                        CFStringRef path, CFErrorRef* error);
// What an export writes under a name: enciphered where the backup is encrypted.
QV_EXPORT std::shared_ptr<QVFileClass> QVBackupContainerCopyFileForLocalFilename(const Backup& backup,
                                                                                 CFStringRef localFilename,
                                                                                 CFErrorRef* error);
QV_EXPORT Entry QVBackupContainerAddEntry(std::shared_ptr<QVBackupContainerClass> backup,
                                          std::shared_ptr<QVManifestEntryClass> entry, CFErrorRef* error);
QV_EXPORT Entry QVBackupContainerStoreFileForPath(const Backup& backup, CFStringRef domain, CFStringRef path,
                                                  std::shared_ptr<QVFileClass> file, CFErrorRef* error);
QV_EXPORT Entry QVBackupContainerCreateDirectoryAtPath(const Backup& backup, CFStringRef domain, CFStringRef path);
QV_EXPORT Entry QVBackupContainerCreateSymlinkAtPath(const Backup& backup, CFStringRef domain, CFStringRef path,
                                                     CFStringRef target);
QV_EXPORT unsigned char QVBackupContainerRemovePath(const Backup& backup, CFStringRef domain, CFStringRef path);

// ---- Export ----

using ExportProgress = std::function<void(double fraction)>;
// Tells `phase` what each export of the container turns to, in order: "files" (the stored files, which
// the fraction counts), "manifest" (the manifest, made and written), "metadata" (the three property
// lists). Null stops the telling.
QV_EXPORT void QVBackupContainerSetExportPhaseFunction(const Backup& backup, std::function<void(const char* phase)> phase);
// Writes the container, edits included, as a new backup directory; 1 when every file was written.
// The backup is written under QVBackupContainerPartialPath(destination) and renamed to destination
// only when whole, so the destination is a whole backup or absent: an existing path is never written
// into or replaced, and a failure (a file that cannot be read, a full disk) removes what was written.
// The error, which is also logged, names the destination, with the first failure as its cause.
QV_EXPORT unsigned char QVBackupContainerExportToDirectory(const Backup& backup, CFStringRef destination,
                                                           const ExportProgress& progress, CFErrorRef* error);
QV_EXPORT unsigned char QVBackupContainerExportToDirectory(const Backup& backup, CFStringRef destination,
                                                           const ExportProgress& progress);
// The same as a new zip file.
QV_EXPORT unsigned char QVBackupContainerExportToZip(const Backup& backup, CFStringRef destination,
                                                     const ExportProgress& progress, CFErrorRef* error);
QV_EXPORT unsigned char QVBackupContainerExportToZip(const Backup& backup, CFStringRef destination,
                                                     const ExportProgress& progress);
// Where an export of this process to destination writes until it is whole: a hidden name beside it
// that holds the process ID. A program that may be ended by a signal during an export removes it then.
QV_EXPORT std::filesystem::path QVBackupContainerPartialPath(CFStringRef destination);

// ---- Internal, shared by the container's parts ----

struct MetadataFile {
    const char* name;
    bool required;
    CF::Dictionary* dictionary;
};
std::vector<MetadataFile> MetadataFileList(QVBackupContainerClass& backup);
bool IsReservedName(CFStringRef name);
CF::String LocalFilenameForFileID(const CF::String& fileID, QVManifestDataVersion version, bool forwardSlashes);
std::shared_ptr<QVFileClass> SourceLoadFile(const Backup& backup, const CF::String& name);
std::shared_ptr<QVFileClass> SourceLoadFileForFileID(const Backup& backup, CFStringRef fileID, CFErrorRef* error);
// The zip source: a member read whole into an appendable file.
std::shared_ptr<QVFileClass> SourceLoadZipMember(QVBackupContainerClass& backup, const CF::String& name);
bool ZipSourceHasMember(QVBackupContainerClass& backup, const std::string& name);
// The names of the backup's members (folders and clutter left out), relative to the backup's root.
std::vector<std::string> ZipSourceMemberNames(QVBackupContainerClass& backup);
void CloseZipSource(QVBackupContainerClass& backup);
void OpenZipSource(QVBackupContainerClass& backup);
// Loads the three metadata dictionaries, noting what a partial copy lacks; throws CF::Error.
void SourceLoadMetadataDictionaries(const Backup& backup);
// Loads metadata, checks encryption and loads the manifest; throws CF::Error.
void SourceLoadMetadataFiles(const Backup& backup, const LoadProgress& progress);

}  // namespace Quiver

namespace Quiver {
// "<QVBackupContainerClass 0x...> (Zip) path:... base_dir:..." for a zip container, "" for a directory
// container; throws std::logic_error for a container without a source type.
QV_EXPORT std::string to_string(const QVBackupContainer& backup);
}  // namespace Quiver

template <>
struct fmt::formatter<Quiver::QVBackupContainer> : fmt::formatter<std::string_view> {
    auto format(const Quiver::QVBackupContainer& backup, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(Quiver::to_string(backup), ctx);
    }
};
