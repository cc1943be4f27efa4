// The backup container: one whole backup, behind an opaque handle, with its three metadata
// dictionaries, its manifest, the data source its stored files are read from (a backup directory or a
// zip file), and, for an encrypted backup, the password and unlocked manifest encryption. Stored files
// are opened lazily, when an entry's content is first asked for, so the source must stay in place
// while the container lives.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <quiver/Api.hpp>
#include <quiver/QVFile.hpp>
#include <quiver/QVManifest.hpp>
#include <quiver/QVManifestEntry.hpp>

enum QVDataSourceType : uint32_t {
    QVDataSourceTypeZip = 0,
    QVDataSourceTypeDirectory = 1,
};

class QVBackupContainerClass;

namespace Quiver {

using Backup = std::shared_ptr<QVBackupContainerClass>;
using LoadProgress = std::function<void(int64_t completed, int64_t total, double fraction)>;

// ---- Construction and loading ----

QV_EXPORT Backup QVBackupContainerCreateEmpty(CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromDirectory(CFStringRef path, CFStringRef password, LoadProgress progress,
                                                      CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromDirectory(CFStringRef path, LoadProgress progress, CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromZipFile(CFStringRef path, CFStringRef password, LoadProgress progress,
                                                    CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateFromZipFile(CFStringRef path, LoadProgress progress, CFErrorRef* error);
QV_EXPORT Backup QVBackupContainerCreateCopy(const Backup& source);

// ---- Metadata ----

QV_EXPORT CFDictionaryRef QVBackupContainerCopyInfoDict(const Backup& backup);
QV_EXPORT CFDictionaryRef QVBackupContainerCopyStatusDict(const Backup& backup);
QV_EXPORT CFDictionaryRef QVBackupContainerCopyManifestDict(const Backup& backup);
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

}  // namespace Quiver
