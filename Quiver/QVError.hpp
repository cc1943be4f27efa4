// The library's errors: the error domain, its codes, the one factory that makes every error of the
// domain, and the rule by which failures cross the exported interface.
//
// Inside the library a failure is thrown as a CF::Error made by Quiver::Error. Exported functions take
// a CFErrorRef* last and run their body through Quiver::Boundary, which turns what was thrown into one
// retained error for the caller and the function's failure value. Programming errors (a null handle)
// are not failures: QV_ASSERT throws std::invalid_argument, which is placed outside the boundary so that
// it reaches the caller.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "Quiver/CF/Error.hpp"
#include "Quiver/Export.hpp"

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
// errors (Quiver::ErrorContextValue looks along the chain); values are strings.
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

// Makes a new error of the library's domain. `reason`, when not empty, becomes the failure reason;
// `underlying`, when it holds an error, the underlying error.
QV_EXPORT CF::Error Error(QVError code, const CF::Error& underlying = CF::Error(), std::string_view reason = {});
// What an error is about, for the keys above; empty members are left out.
struct ErrorContext {
    std::string backupFile;
    std::string domain;
    std::string path;
    std::string fileID;
    std::string check;

    // A file of the backup as a whole (metadata, the manifest, the zip), not an entry's.
    static ErrorContext File(std::string backupFile, std::string check = {}) {
        return {std::move(backupFile), {}, {}, {}, std::move(check)};
    }
};
QV_EXPORT CF::Error Error(QVError code, const CF::Error& underlying, std::string_view reason, const ErrorContext& context);
// The same error (domain, code, text, cause) with the context's keys added where it has none.
QV_EXPORT CF::Error AddErrorContext(const CF::Error& error, const ErrorContext& context);
// The first value of `key` on the error or, failing that, on its underlying errors; "" when none has one.
QV_EXPORT std::string ErrorContextValue(const CF::Error& error, CFStringRef key);

// QVErrorFilesystem with the reason "<exception text> (<path>)".
QV_EXPORT CF::Error MakeFilesystemError(const std::exception& e, const std::filesystem::path& p);
// QVErrorFilesystem with `reason`; for a non-zero errno value the underlying error is the POSIX error.
QV_EXPORT CF::Error MakeErrnoError(int errnoValue, std::string_view reason);

// Stores a new reference to `error` in *out when out is not null; the caller of the exported function
// owns it.
QV_EXPORT void StoreError(CFErrorRef* out, const CF::Error& error);

// The default translation of a standard exception at the boundary: QVErrorFilesystem, "text ()".
struct FilesystemErrorFromException {
    CF::Error operator()(const std::exception& e) const { return MakeFilesystemError(e, {}); }
};

// Runs `body` and returns its result. When it throws a CF::Error, or a standard exception (translated
// by `translate`), `onFailure` runs, the error is stored in *error (if not null) and the result type's
// empty value is returned: an empty handle, nullptr, false, or an empty optional. *error is written
// only on failure.
template <typename Body, typename Translate = FilesystemErrorFromException, typename OnFailure = void (*)()>
auto Boundary(CFErrorRef* error, Body&& body, Translate&& translate = {}, OnFailure&& onFailure = [] {})
    -> std::invoke_result_t<Body> {
    using Result = std::invoke_result_t<Body>;
    CF::Error failure;
    try {
        return body();
    } catch (const CF::Error& e) {
        failure = e;
    } catch (const std::exception& e) {
        failure = translate(e);
    }
    onFailure();
    StoreError(error, failure);
    if constexpr (std::is_void_v<Result>) {
        return;
    } else {
        return Result{};
    }
}

[[noreturn]] QV_EXPORT void AssertionFailed(const char* file, int line, const char* function, const char* expression);

}  // namespace Quiver

// Throws std::invalid_argument "<file>:<line>:  <function> Assertion <expr> failed." when expr is false.
#define QV_ASSERT(expr)                                                                    \
    do {                                                                                   \
        if (!(expr)) ::Quiver::AssertionFailed(__FILE__, __LINE__, __PRETTY_FUNCTION__, #expr); \
    } while (0)
