// The container's entry operations: lookups, reading files (deciphered for the caller of an encrypted
// backup), the names of a finished backup as files (enciphered where the backup is), and edits. Edits
// add and remove entries in the manifest in place, which keeps its lookups up to date.
#include <algorithm>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVManifestDB.hpp"
#include "Quiver/QVManifestMBDB.hpp"

namespace Quiver {

namespace {

size_t depthOf(const std::string& path) { return static_cast<size_t>(std::count(path.begin(), path.end(), '/')); }

CF::String fileIDForLocalFilename(const Backup& backup, CFStringRef localFilename) {
    CF::String name = CF::String::Retain(localFilename);
    if (IsReservedName(localFilename)) return name;
    std::string text = name.utf8();
    if (text.find('/') == std::string::npos && text.find('\\') == std::string::npos) return name;
    switch (backup->manifestVersion) {
        case QVManifestDataVersionUnset:
        case QVManifestDataVersion24:
            return name;
        case QVManifestDataVersion30:
        case QVManifestDataVersion31:
        case QVManifestDataVersion32:
        case QVManifestDataVersion33:
            return CF::String(text.size() > 3 ? text.substr(3) : std::string());
        default:
            return CF::String("");
    }
}

}  // namespace

Entry QVBackupContainerGetEntryForPath(const Backup& backup, CFStringRef domain, CFStringRef path) {
    QV_ASSERT(backup);
    CF::String id = CF::String::Adopt(QVManifestEntryCopyFileIDForPath(domain, path));
    if (Entry entry = QVManifestGetEntryForFileID(backup->manifest, id.get())) return entry;
    // A damaged manifest may record an entry under a file ID that is not its path's: it is still the
    // entry at that path (verification reports the ID).
    return QVManifestGetEntryMatchingPath(backup->manifest, domain, path);
}

Entry QVBackupContainerGetEntryForLocalFilename(const Backup& backup, CFStringRef localFilename,
                                                unsigned char* isMetadataFile) {
    QV_ASSERT(backup);
    if (isMetadataFile) *isMetadataFile = 0;
    Entry entry = QVManifestGetEntryForFileID(backup->manifest, fileIDForLocalFilename(backup, localFilename).get());
    if (!entry && isMetadataFile && IsReservedName(localFilename)) *isMetadataFile = 1;
    return entry;
}

std::vector<Entry> QVBackupContainerCopyEntriesContainedInDirectoryAtPath(const Backup& backup, CFStringRef domain,
                                                                         CFStringRef path) {
    QV_ASSERT(backup);
    Entry directory = QVManifestGetEntryMatchingPath(backup->manifest, domain, path);
    if (!directory || !QVManifestEntryIsDirectory(directory)) return {};
    std::string directoryPath = CF::UTF8(QVManifestEntryGetPath(directory));
    size_t wanted = directoryPath.empty() ? 0 : depthOf(directoryPath) + 1;
    std::vector<Entry> below = QVManifestCopyEntriesAtPath(backup->manifest, domain, path);
    if (below.size() < 2) return {};
    std::vector<Entry> children;
    for (const Entry& entry : below) {
        std::string p = CF::UTF8(QVManifestEntryGetPath(entry));
        if (!p.empty() && depthOf(p) == wanted) children.push_back(entry);
    }
    return children;
}

std::shared_ptr<QVFileClass> QVBackupContainerCopyFileForPath(const Backup& backup, CFStringRef domain,
                                                              CFStringRef path, CFErrorRef* error) {
    QV_ASSERT(backup);
    Entry entry = QVBackupContainerGetEntryForPath(backup, domain, path);
    if (!entry) {
        StoreError(error, Error(QVErrorNoItemAtPath, CF::Error(), "File not in backup"));
        return nullptr;
    }
    auto file = QVManifestEntryGetFile(entry, error);
    if (!file) return nullptr;
    if (backup->manifestEncryption && !entry->external && QVManifestEntryIsFile(entry)) {
        auto key = QVManifestEntryUnlockFileKey(entry, *backup->manifestEncryption, error);
        if (!key) return nullptr;
        auto reader = QVFileCreateCopy(file);
        _QVFileSetDecryptionKey(reader, *key);
        return reader;
    }
    return file;
}

std::shared_ptr<QVFileClass> QVBackupContainerCopyFileForLocalFilename(const Backup& backup,
                                                                       CFStringRef localFilename, CFErrorRef* error) {
    QV_ASSERT(backup);
    const std::string name = CF::UTF8(localFilename);
    if (name == "Manifest.mbdb") {
        CF::Data data = CF::Data::Adopt(
            QVManifestCreateManifestDataRepresentation(backup->manifest, backup->manifestVersion, error));
        if (!data) {
            StoreError(error, Error(QVErrorUnknown, CF::Error(), "Failed to create data representation of Manifest"));
            return nullptr;
        }
        return QVFileCreateFromData(data.get(), error);
    }
    if (name == "Manifest.db") {
        return Boundary(error, [&]() -> std::shared_ptr<QVFileClass> {
            try {
                auto file = QVManifestCreateManifestDBFile(backup->manifest, backup->manifestVersion);
                // Only iOS 10.2 and later encipher Manifest.db; older encrypted backups keep it plain.
                if (QVBackupContainerHasEncipheredManifest(backup))
                    _QVFileSetEncryptionKey(file, backup->manifestEncryption->GetManifestKey());
                return file;
            } catch (const CF::Error& e) {
                throw Error(QVErrorUnknown, e, "Failed to create data representation of Manifest DB");
            } catch (const std::exception& e) {
                throw Error(QVErrorUnknown, MakeFilesystemError(e, {}),
                            "Failed to create data representation of Manifest DB");
            }
        });
    }
    for (const MetadataFile& record : MetadataFileList(*backup)) {
        if (name != record.name) continue;
        CF::Data data = CF::Data::Adopt(CFPropertyListCreateData(kCFAllocatorDefault, record.dictionary->get(),
                                                                 kCFPropertyListXMLFormat_v1_0, 0, nullptr));
        if (!data) {
            StoreError(error, Error(QVErrorUnknown, CF::Error(),
                                    fmt::format("Failed to create data representation of metadata ({})", name)));
            return nullptr;
        }
        return QVFileCreateFromData(data.get(), error);
    }
    Entry entry = QVBackupContainerGetEntryForLocalFilename(backup, localFilename, nullptr);
    if (!entry) {
        StoreError(error, Error(QVErrorNoItemAtPath, CF::Error(), fmt::format("File not present in backup ({})", name)));
        return nullptr;
    }
    return CopyStoredFileForEntry(backup, entry, name, error);
}

std::shared_ptr<QVFileClass> CopyStoredFileForEntry(const Backup& backup, const Entry& entry, std::string_view name,
                                                    CFErrorRef* error) {
    if (!QVManifestEntryIsFile(entry)) {
        StoreError(error,
                   Error(QVErrorNoItemAtPath, CF::Error(), fmt::format("Found entry referencing a non-file ({})", name)));
        return nullptr;
    }
    CFErrorRef fetchError = nullptr;
    auto file = QVManifestEntryGetFile(entry, &fetchError);
    if (!file) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error::Adopt(fetchError),
                                fmt::format("Found file entry but no file ref is present ({})", name)));
        return nullptr;
    }
    if (fetchError) CFRelease(fetchError);
    if (backup->manifestEncryption && entry->external && QVManifestEntryIsFile(entry)) {
        auto key = QVManifestEntryUnlockFileKey(entry, *backup->manifestEncryption, error);
        if (!key) return nullptr;
        auto writer = QVFileCreateCopy(file);
        _QVFileSetEncryptionKey(writer, *key);
        return writer;
    }
    return file;
}

Entry QVBackupContainerAddEntry(std::shared_ptr<QVBackupContainerClass> backup,
                                std::shared_ptr<QVManifestEntryClass> entry, CFErrorRef* error) {
    QV_ASSERT(backup);
    QV_ASSERT(entry);
    auto file = QVManifestEntryGetFile(entry, nullptr);
    if (!file && QVManifestEntryIsFile(entry)) {
        StoreError(error, Error(QVErrorFileNotInCache, CF::Error(),
                                "A file reference could not be loaded for an entry that represents a file"));
        return nullptr;
    }
    Entry copy = QVManifestEntryCreateCopy(entry, nullptr);
    if (backup->manifestEncryption && QVManifestEntryIsFile(copy)) {
        if (!QVManifestEntryGenerateFileKey(copy, *backup->manifestEncryption, error)) return nullptr;
    }
    QVManifestAddEntries(backup->manifest, {copy});
    return copy;
}

Entry QVBackupContainerStoreFileForPath(const Backup& backup, CFStringRef domain, CFStringRef path,
                                        std::shared_ptr<QVFileClass> file, CFErrorRef* error) {
    QV_ASSERT(backup);
    if (!file) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error(), "No file reference"));
        return nullptr;
    }
    QVBackupContainerCreateDirectoryAtPath(backup, domain, CFSTR(""));
    Entry existing = QVBackupContainerGetEntryForPath(backup, domain, path);
    CFErrorRef createError = nullptr;
    Entry created = QVManifestEntryCreateForFile(file, domain, path, nullptr, &createError);
    if (!created) {
        CF::Error failure = CF::Error::Adopt(createError);
        LogErrorFmt(log_level::error, failure.get(), "{}: Failed to generate entry for {}:{}", __PRETTY_FUNCTION__,
                    CF::UTF8(domain), CF::UTF8(path));
        StoreError(error, failure);
        return nullptr;
    }
    // Edits change the manifest in place: the entries added and removed, never a copy of the whole list.
    std::vector<Entry> added;
    std::vector<Entry> replaced;
    if (existing) {
        if (!QVManifestEntryIsDirectory(existing)) {
            _QVManifestEntryCloneAttributes(created, existing);
            log_fmt(log_level::debug, "{}: Generated new entry {} (replacing FILE {})", __PRETTY_FUNCTION__, created,
                    existing);
            replaced.push_back(existing);
        } else {
            log_fmt(log_level::debug, "{}: Generated new entry {} (replacing DIRECTORY {})", __PRETTY_FUNCTION__,
                    created, existing);
            replaced = QVManifestCopyEntriesAtPath(backup->manifest, domain, path);
        }
    } else {
        log_fmt(log_level::debug, "{}: Generated new entry {}", __PRETTY_FUNCTION__, created);
        std::string text = CF::UTF8(path);
        for (size_t slash = text.find('/'); slash != std::string::npos; slash = text.find('/', slash + 1)) {
            CF::String parent(text.substr(0, slash));
            if (!QVManifestGetEntryMatchingPath(backup->manifest, domain, parent.get()))
                added.push_back(QVManifestEntryCreateForDirectory(domain, parent.get()));
        }
    }
    if (backup->manifestEncryption) {
        if (!QVManifestEntryGenerateFileKey(created, *backup->manifestEncryption, error)) return nullptr;
    }
    added.push_back(created);
    QVManifestRemoveEntries(backup->manifest, replaced);
    QVManifestAddEntries(backup->manifest, added);
    return created;
}

Entry QVBackupContainerCreateDirectoryAtPath(const Backup& backup, CFStringRef domain, CFStringRef path) {
    QV_ASSERT(backup);
    if (path && CFStringGetLength(path) > 0) QVBackupContainerCreateDirectoryAtPath(backup, domain, CFSTR(""));
    if (Entry existing = QVBackupContainerGetEntryForPath(backup, domain, path))
        return QVManifestEntryIsDirectory(existing) ? existing : nullptr;
    Entry created = QVManifestEntryCreateForDirectory(domain, path);
    QVManifestAddEntries(backup->manifest, {created});
    return created;
}

Entry QVBackupContainerCreateSymlinkAtPath(const Backup& backup, CFStringRef domain, CFStringRef path,
                                           CFStringRef target) {
    QV_ASSERT(backup);
    Entry existing = QVBackupContainerGetEntryForPath(backup, domain, path);
    if (existing && !QVManifestEntryIsSymlink(existing)) return nullptr;
    QVBackupContainerCreateDirectoryAtPath(backup, domain, CFSTR(""));
    if (existing) QVManifestRemoveEntries(backup->manifest, {existing});
    Entry created = QVManifestEntryCreateForSymlink(domain, path, target);
    QVManifestAddEntries(backup->manifest, {created});
    return created;
}

unsigned char QVBackupContainerRemovePath(const Backup& backup, CFStringRef domain, CFStringRef path) {
    QV_ASSERT(backup);
    Entry existing = QVBackupContainerGetEntryForPath(backup, domain, path);
    if (existing && !QVManifestEntryIsDirectory(existing)) {
        QVManifestRemoveEntries(backup->manifest, {existing});
        return 1;
    }
    std::vector<Entry> below = QVManifestCopyEntriesAtPath(backup->manifest, domain, path);
    if (below.empty()) return 0;
    QVManifestRemoveEntries(backup->manifest, below);
    return 1;
}

}  // namespace Quiver
