// The one way the C++ front fails: it throws quiver::Error. Nothing in it returns an error code
// instead, and nothing else is thrown on purpose (std::bad_alloc aside).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "quiver/Api.hpp"

namespace quiver {

// The library's error codes, stable across versions.
enum class ErrorCode : int32_t {
    Unknown = 1,
    InvalidArgument = 2,
    Filesystem = 3,
    ReadWrite = 4,
    NoItemAtPath = 5,
    FileNotInCache = 6,
    CachedFileAccess = 7,
    LoadingExternalRepresentation = 8,
    ArchiveFile = 9,
    InvalidBackup = 10,
    InvalidManifestDatabase = 11,
    UnknownManifestVersion = 12,
    DatabaseOperation = 13,
    WritingExternalRepresentation = 14,
    EncryptionNotSupported = 15,
    FileNotFound = 16,
    InvalidKeyBag = 17,
    CryptoOperation = 18,
    PasswordRequired = 19,
    InvalidMetadata = 20,
    IncorrectPassword = 21,
    UnlockFailed = 22,
    NotEncrypted = 23,
    InvalidMBFile = 24,
};

class QUIVER_API Error : public std::runtime_error {
public:
    struct Details {
        ErrorCode code = ErrorCode::Unknown;
        std::string domain;  // "Quiver.ErrorDomain" for the library's own errors, else the system's
        // From the outermost reason to the innermost cause, each in plain words; what() joins them
        // with ": ".
        std::vector<std::string> reasons;
        // What the error is about, each empty when it does not apply.
        std::string backupFile;  // "Manifest.plist", "Manifest.db", "ab/ab12…" (relative, "/"-separated)
        std::string entryDomain;
        std::string entryPath;
        std::string fileID;
        // What failed, for a program to act on: "password", "manifest-key", "missing",
        // "not-a-property-list", "zip", "source" (a file given to put into a backup), or a
        // verification problem's name ("digest-mismatch"...).
        std::string check;
        // Every error of the chain with its domain and code, for a log or a report; not for people.
        std::string trace;
    };

    explicit Error(Details details);

    ErrorCode code() const { return details_.code; }
    const std::string& domain() const { return details_.domain; }
    const std::vector<std::string>& reasons() const { return details_.reasons; }
    const std::string& backupFile() const { return details_.backupFile; }
    const std::string& entryDomain() const { return details_.entryDomain; }
    const std::string& entryPath() const { return details_.entryPath; }
    const std::string& fileID() const { return details_.fileID; }
    const std::string& check() const { return details_.check; }
    const std::string& trace() const { return details_.trace; }

    // A password that is missing, does not open the backup, or cannot be one (not UTF-8 text).
    bool isPasswordProblem() const;
    // What is not a readable backup: damaged, of an unsupported generation, or not a backup at all.
    bool isBadBackup() const;

private:
    Details details_;
};

}  // namespace quiver
