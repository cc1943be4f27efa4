// Conversions between encrypted and plain backups, a new password for an encrypted one, and a
// Manifest.mbdb backup moved to Manifest.db.
//
// A new password touches Manifest.plist alone: the class keys stay as they are and are wrapped again
// under the key derived from the new password, so no stored file and no wrapped per-file key changes,
// and the work costs the two derivations whatever the backup's size.
//
// Decrypting, encrypting and moving to Manifest.db write a new backup, whole or absent as an export
// is: each file is read once, checked as it is copied, and a file that cannot be read makes the
// conversion write nothing, unless the caller asks for such files to be left out. The source is never
// changed.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <functional>
#include <string>

#include <quiver/Api.hpp>
#include <quiver/QVBackupContainer.hpp>

namespace Quiver {

// How a new password becomes the key-encryption key. The defaults are what devices use.
struct QVPasswordParameters {
    uint32_t iterations = 10'000'000;  // PBKDF2-HMAC-SHA256, "DPIC"
    uint32_t sha1Iterations = 10'000;  // PBKDF2-HMAC-SHA1, "ITER"
};

// Gives the encrypted backup directory at `directory` a new password in place. The key bag keeps its
// derivation scheme: one that derives in one pass (before iOS 10.2) is written again with one pass
// (`iterations` unused), so that devices of its generation still take it. Manifest.plist is written
// to a temporary file beside it, flushed to the disk and renamed over the old one, so that a crash
// leaves the old or the new file whole. Fails (nothing changed) for a wrong old password
// (QVErrorUnlockFailed, "password" under kQVErrorCheckKey), a plain backup (QVErrorNotEncrypted), a
// key bag with classes that only the device opens (they could not be wrapped again), or an empty new
// password (QVErrorInvalidArgument).
QV_EXPORT bool QVBackupChangePassword(CFStringRef directory, CFStringRef oldPassword, CFStringRef newPassword,
                                      const QVPasswordParameters& parameters, CFErrorRef* error);

// A file that a conversion could not read: missing, damaged, or of a class the password cannot open.
struct QVConversionProblem {
    std::string domain;
    std::string path;
    std::string fileID;
    std::string check;   // as kQVErrorCheckKey names it ("digest-mismatch", "bad-padding"...), when known
    std::string detail;  // one sentence for people
};
using QVConversionProblemFunction = std::function<void(const QVConversionProblem& problem)>;

struct QVConversionOptions {
    bool zip = false;  // write a zip file rather than a directory
    // Leave out the files that cannot be read (each is still reported) instead of writing nothing.
    bool skipDamaged = false;
};

// Writes the encrypted backup, opened with its password, as the plain backup a device would have
// written: every stored file deciphered (its length from the padding), the manifest plain, without
// wrapped keys, digests of the plaintext where the manifest records digests, and Manifest.plist with
// "IsEncrypted" false and neither "BackupKeyBag" nor "ManifestKey". Every file that cannot be read is
// reported through `problems`; unless options.skipDamaged, any of them fails the conversion
// (QVErrorInvalidBackup) and nothing is written. Progress covers the writing, which checks as it goes.
QV_EXPORT bool QVBackupContainerExportDecrypted(const Backup& backup, CFStringRef destination,
                                                const QVConversionOptions& options,
                                                const QVConversionProblemFunction& problems,
                                                const ExportProgress& progress, CFErrorRef* error);

// Writes the plain backup as an encrypted one of the newest generation: Status "Version" 3.3 with a
// Manifest.db manifest (a Manifest.mbdb backup moves to the two-digit layout), a new two-pass key bag
// for `password` holding fresh class keys, each file under a fresh key of its own wrapped under its
// entry's protection class (class 4 for a file that records none), and Manifest.db enciphered under a
// new "ManifestKey". An encrypted source is refused (QVErrorInvalidArgument): give it a new password
// instead. Damaged files as for QVBackupContainerExportDecrypted.
QV_EXPORT bool QVBackupContainerExportEncrypted(const Backup& backup, CFStringRef destination, CFStringRef password,
                                                const QVPasswordParameters& parameters,
                                                const QVConversionOptions& options,
                                                const QVConversionProblemFunction& problems,
                                                const ExportProgress& progress, CFErrorRef* error);

// Writes the Manifest.mbdb backup (iOS 4 to 9) as a backup with a Manifest.db manifest, laid out as
// devices of iOS 10.2 and later write one: stored files in two-hex-digit folders, Status "Version" 3.3,
// Manifest.plist "Version" 10.0. Every entry is carried over with its attributes, times, size, digest,
// protection class, extended attributes, link target and wrapped key, and every stored file byte for
// byte. An encrypted backup, opened with its password, stays encrypted under the same class keys and
// per-file keys: its key bag is written again for the same password with two derivation passes (DPSL
// and DPIC, `parameters`), and Manifest.db is enciphered under a new "ManifestKey". A backup with a
// Manifest.db manifest already is written as it is. Damaged files as for
// QVBackupContainerExportDecrypted; the source is never changed.
QV_EXPORT bool QVBackupContainerExportWithManifestDB(const Backup& backup, CFStringRef destination,
                                                    const QVPasswordParameters& parameters,
                                                    const QVConversionOptions& options,
                                                    const QVConversionProblemFunction& problems,
                                                    const ExportProgress& progress, CFErrorRef* error);

}  // namespace Quiver
