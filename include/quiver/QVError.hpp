// The library's errors as a caller meets them: the error domain, its codes, and the keys that say what
// an error is about. Exported functions that can fail take a CFErrorRef* last; on failure they store
// one retained error there (when the pointer is not null), which the caller releases.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>

#include <quiver/Api.hpp>

enum QVError : int32_t {
    QVErrorNone = 0,
    QVErrorUnknown = 1,
    QVErrorInvalidArgument = 2,
    QVErrorFilesystem = 3,
    QVErrorReadWrite = 4,
    QVErrorNoItemAtPath = 5,
    QVErrorFileNotInCache = 6,
    QVErrorCachedFileAccess = 7,
    QVErrorLoadingExternalRepresentation = 8,
    QVErrorArchiveFile = 9,
    QVErrorInvalidBackup = 10,
    QVErrorInvalidManifestDatabase = 11,
    QVErrorUnknownManifestVersion = 12,
    QVErrorDatabaseOperation = 13,
    QVErrorWritingExternalRepresentation = 14,
    QVErrorEncryptionNotSupported = 15,
    QVErrorFileNotFound = 16,
    QVErrorInvalidKeyBag = 17,
    QVErrorCryptoOperation = 18,
    QVErrorPasswordRequired = 19,
    QVErrorInvalidMetadata = 20,
    QVErrorIncorrectPassword = 21,
    QVErrorUnlockFailed = 22,
    QVErrorNotEncrypted = 23,
    QVErrorInvalidMBFile = 24,
};

// "Quiver.ErrorDomain", set when the library is loaded.
QV_EXPORT extern const CFStringRef kQVErrorDomain;

// Keys of an error's user information that say what it is about, so that a program can act on an error
// without reading its text. Each is set where it applies, on the error or on one of its underlying
// errors (kCFErrorUnderlyingErrorKey); values are strings.
//   kQVErrorBackupFileKey   the file of the backup: "Manifest.plist", "Manifest.db", "ab/ab12...", ...
//   kQVErrorEntryDomainKey, kQVErrorEntryPathKey, kQVErrorEntryFileIDKey   the entry
//   kQVErrorCheckKey        what failed: a verification problem ("stored-file-missing", "digest-mismatch",
//                           "bad-padding", ...), or "password" (the key bag does not open with it),
//                           "manifest-key" (the manifest key does not unwrap), "missing" (a file the
//                           backup needs is not there), "not-a-property-list", "zip" (the zip does not open)
QV_EXPORT extern const CFStringRef kQVErrorBackupFileKey;
QV_EXPORT extern const CFStringRef kQVErrorEntryDomainKey;
QV_EXPORT extern const CFStringRef kQVErrorEntryPathKey;
QV_EXPORT extern const CFStringRef kQVErrorEntryFileIDKey;
QV_EXPORT extern const CFStringRef kQVErrorCheckKey;

namespace Quiver {

// The fixed description of a code ("Unknown Error" for codes without one).
QV_EXPORT const char* ErrorDescription(int32_t code);
// Whether errors of this code may be shown to an end user as they stand.
QV_EXPORT bool IsFriendlyErrorCode(int32_t code);

}  // namespace Quiver
