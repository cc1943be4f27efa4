// Manifest entries: one item of the backed-up device's file system (a regular file, a directory or a
// symbolic link) with its domain, relative path, attributes, digest, protection class and wrapped
// per-file key, and the way to reach its content. Every manifest format is read into and written from
// these entries.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/QVFile.hpp"

namespace MB {
class ManifestEncryption;
}

enum EntryProtectionClass : uint32_t {
    EntryProtectionClassNotSet = 0,
    EntryProtectionClassComplete = 1,
    EntryProtectionClassWriteOnly = 2,
    EntryProtectionClassCompleteUntilUnlocked = 3,
    EntryProtectionClassNone = 4,
};

using QVGetFileFunction = std::function<std::shared_ptr<QVFileClass>(CFStringRef, CFErrorRef*)>;

class QV_EXPORT QVManifestEntryClass {
public:
    CF::String domain;
    CF::String relativePath;
    CF::String pathCopy;  // the path as recorded in the entry's MBFile blob
    CF::String target;
    CF::Data digest;
    CF::Data encryptionKey;
    uint8_t fileType = 0;  // 1 file, 2 directory, 4 symlink; Manifest.db flags as stored
    uint16_t mode = 0;
    uint32_t userID = 0;
    uint32_t groupID = 0;
    CF::Date birth;
    CF::Date lastModified;
    CF::Date lastStatusChange;
    uint64_t size = 0;
    uint64_t inode = 0;
    EntryProtectionClass protectionClass = EntryProtectionClassNotSet;
    CF::Dictionary properties;
    int64_t archiveFlags = 0;      // the MBFile record's "Flags" and unmodelled keys, kept to be written back
    CF::Dictionary archiveExtras;
    // Derived from domain and path on first use (QVManifestEntryGetDomainPathPair and
    // QVManifestEntryGetDeviceFilename), so that a loaded manifest does not hold two more strings per
    // entry that most callers never ask for. Read them through those functions.
    mutable CF::String domainPathPair;
    mutable CF::String deviceFilename;
    CF::String fileID;
    CF::Array stringList;
    std::shared_ptr<QVFileClass> file;
    bool external = false;
    QVGetFileFunction getFileFunc;
    std::optional<std::array<uint8_t, 32>> unlockedKey;
};

namespace Quiver {

using Entry = std::shared_ptr<QVManifestEntryClass>;

// The name of a protection class; a value outside 0 to 4 is a fault that ends the process.
QV_EXPORT std::string to_string(EntryProtectionClass protectionClass);
// A stored code to the class; throws std::invalid_argument "invalid protection class code" outside 0 to 4.
QV_EXPORT EntryProtectionClass ProtectionClassFromCode(int64_t code);
QV_EXPORT uint32_t ProtectionClassCode(EntryProtectionClass protectionClass);

// 40 lowercase hexadecimal digits: SHA-1 of "<domain>-<relativePath>".
QV_EXPORT CFStringRef QVManifestEntryCopyFileIDForPath(CFStringRef domain, CFStringRef relativePath);

QV_EXPORT Entry QVManifestEntryCreateForFile(const std::shared_ptr<QVFileClass>& file, CFStringRef domain,
                                             CFStringRef relativePath, CFDataRef encryptionKey, CFErrorRef* error);
QV_EXPORT Entry QVManifestEntryCreateForDirectory(CFStringRef domain, CFStringRef relativePath);
QV_EXPORT Entry QVManifestEntryCreateForSymlink(CFStringRef domain, CFStringRef relativePath, CFStringRef target);
QV_EXPORT Entry QVManifestEntryCreateCopy(const Entry& entry, QVGetFileFunction getFileFunc);

QV_EXPORT CFStringRef QVManifestEntryGetDomain(const Entry& entry);
QV_EXPORT CFStringRef QVManifestEntryGetPath(const Entry& entry);
QV_EXPORT CFStringRef QVManifestEntryGetTarget(const Entry& entry);
QV_EXPORT CFStringRef QVManifestEntryGetDomainPathPair(const Entry& entry);
QV_EXPORT CFStringRef QVManifestEntryGetDeviceFilename(const Entry& entry);
QV_EXPORT CFStringRef QVManifestEntryGetFileID(const Entry& entry);
QV_EXPORT CFDataRef QVManifestEntryGetDataHash(const Entry& entry);
QV_EXPORT CFDataRef QVManifestEntryGetEncryptionData(const Entry& entry);
QV_EXPORT CFDictionaryRef QVManifestEntryGetProperties(const Entry& entry);
QV_EXPORT uint16_t QVManifestEntryGetFileMode(const Entry& entry);
QV_EXPORT uint64_t QVManifestEntryGetFileSize(const Entry& entry);
QV_EXPORT uint8_t QVManifestEntryGetFileType(const Entry& entry);
QV_EXPORT EntryProtectionClass QVManifestEntryGetProtectionClass(const Entry& entry);
QV_EXPORT bool QVManifestEntryIsFile(const Entry& entry);
QV_EXPORT bool QVManifestEntryIsDirectory(const Entry& entry);
QV_EXPORT bool QVManifestEntryIsSymlink(const Entry& entry);

// Each out-pointer may be null; dates are new objects that the caller releases.
QV_EXPORT void QVManifestEntryCopyFilesystemAttributes(const Entry& entry, uint16_t* mode, uint32_t* uid, uint32_t* gid,
                                                       CFDateRef* birth, CFDateRef* lastModified,
                                                       CFDateRef* lastStatusChange);
// The content of a regular file, fetched once through the entry's callback; empty for directories
// and symlinks.
QV_EXPORT std::shared_ptr<QVFileClass> QVManifestEntryGetFile(const Entry& entry, CFErrorRef* error);
QV_EXPORT void _QVManifestEntryCloneAttributes(const Entry& destination, const Entry& source);

// Gives a new regular file of an encrypted backup its own key: the entry's file becomes an enciphering
// copy and its encryption data the wrapped key.
QV_EXPORT bool QVManifestEntryGenerateFileKey(const Entry& entry, const MB::ManifestEncryption& encryption,
                                              CFErrorRef* error);
// The entry's per-file key, unwrapped once and cached; nothing (and no error) when it has none.
QV_EXPORT std::optional<std::array<uint8_t, 32>> QVManifestEntryUnlockFileKey(const Entry& entry,
                                                                              const MB::ManifestEncryption& encryption,
                                                                              CFErrorRef* error);

// One Manifest.db row to an entry: the MBFile blob decoded, the row's file ID kept as stored. Empty
// when the blob does not decode (logged).
QV_EXPORT Entry QVManifestEntryCreateFromMBFileData(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath,
                                                    int flags, CFDataRef fileData, QVGetFileFunction getFileFunc);
// The MBFile blob of an entry; empty data when it cannot be made (logged).
QV_EXPORT CF::Data QVManifestEntryCreateMBFileDataRepresentation(const Entry& entry);

// Shared with the manifest readers: fills domain, both paths, the domain-path pair, the device filename
// and (when fileID is null) the file ID.
void SetEntryNames(QVManifestEntryClass& entry, CFStringRef domain, CFStringRef relativePath, CFStringRef fileID);

QV_EXPORT std::string to_string(const Entry& entry);

}  // namespace Quiver

template <>
struct fmt::formatter<Quiver::Entry> : fmt::formatter<std::string_view> {
    auto format(const Quiver::Entry& entry, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(Quiver::to_string(entry), ctx);
    }
};
