// Manifest entries: one item of the backed-up device's file system (a regular file, a directory or a
// symbolic link) with its domain, relative path, attributes, digest, protection class and wrapped
// per-file key, and the way to reach its content, behind an opaque handle. Every manifest format is
// read into and written from these entries.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <quiver/Api.hpp>
#include <quiver/QVFile.hpp>

enum EntryProtectionClass : uint32_t {
    EntryProtectionClassNotSet = 0,
    EntryProtectionClassComplete = 1,
    EntryProtectionClassWriteOnly = 2,
    EntryProtectionClassCompleteUntilUnlocked = 3,
    EntryProtectionClassNone = 4,
};

// How an entry reaches its content: given the file ID, the file, or empty with *error set.
using QVGetFileFunction = std::function<std::shared_ptr<QVFileClass>(CFStringRef, CFErrorRef*)>;

class QVManifestEntryClass;

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

// Borrowed references, kept with the entry.
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
// The inode number the device recorded; 0 for entries made since loading.
QV_EXPORT uint64_t QVManifestEntryGetInode(const Entry& entry);
QV_EXPORT bool QVManifestEntryIsFile(const Entry& entry);
QV_EXPORT bool QVManifestEntryIsDirectory(const Entry& entry);
QV_EXPORT bool QVManifestEntryIsSymlink(const Entry& entry);

// The same without making CF objects, for callers that walk every entry: views that live as long as
// the entry and its texts stay unchanged.
QV_EXPORT std::string_view QVManifestEntryGetDomainUTF8(const Entry& entry);
QV_EXPORT std::string_view QVManifestEntryGetPathUTF8(const Entry& entry);
QV_EXPORT std::string_view QVManifestEntryGetTargetUTF8(const Entry& entry);
QV_EXPORT std::string QVManifestEntryCopyFileIDUTF8(const Entry& entry);
QV_EXPORT std::span<const uint8_t> QVManifestEntryGetDataHashBytes(const Entry& entry);
QV_EXPORT std::span<const uint8_t> QVManifestEntryGetEncryptionDataBytes(const Entry& entry);
// Birth, last modification and last status change as absolute times (seconds since 2001).
QV_EXPORT void QVManifestEntryGetTimes(const Entry& entry, double* birth, double* lastModified,
                                       double* lastStatusChange);

// Each out-pointer may be null; dates are new objects that the caller releases.
QV_EXPORT void QVManifestEntryCopyFilesystemAttributes(const Entry& entry, uint16_t* mode, uint32_t* uid, uint32_t* gid,
                                                       CFDateRef* birth, CFDateRef* lastModified,
                                                       CFDateRef* lastStatusChange);
// The content of a regular file, fetched once through the entry's callback; empty for directories
// and symlinks.
QV_EXPORT std::shared_ptr<QVFileClass> QVManifestEntryGetFile(const Entry& entry, CFErrorRef* error);
QV_EXPORT void _QVManifestEntryCloneAttributes(const Entry& destination, const Entry& source);

// One Manifest.db row to an entry: the MBFile blob decoded, the row's file ID kept as stored. Empty
// when the blob does not decode (logged).
QV_EXPORT Entry QVManifestEntryCreateFromMBFileData(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath,
                                                    int flags, CFDataRef fileData, QVGetFileFunction getFileFunc);
// The MBFile blob of an entry (+1 reference); NULL when it cannot be made (logged).
QV_EXPORT CFDataRef QVManifestEntryCreateMBFileDataRepresentation(const Entry& entry);

// Whether a's "<domain>-<path>" sorts before b's (bytewise), without making either text.
QV_EXPORT bool DomainPathPairLess(const Entry& a, const Entry& b);

QV_EXPORT std::string to_string(const Entry& entry);

}  // namespace Quiver
