// Verification: whether a backup's stored files are the ones its manifest describes, and whether the
// manifest itself hangs together. Every program that reads backups needs this before it trusts one,
// so it lives here rather than in the tool.
//
// A check never stops at the first problem: each is reported as a record saying which entry, which
// stored file, what kind of problem and the details, so that a caller can list them all, skip the
// damaged files, or act on one kind and not another.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <quiver/Api.hpp>
#include <quiver/QVBackupContainer.hpp>

namespace Quiver {

enum class QVProblemKind : uint32_t {
    StoredFileMissing = 1,  // an entry's stored file is not in the backup
    DigestMismatch,         // the stored bytes are not those whose SHA-1 the manifest records
    NotWholeBlocks,         // an enciphered file's length is not a whole number of cipher blocks
    KeyDoesNotUnwrap,       // the entry's wrapped key does not unwrap under its class key
    KeyClassLocked,         // the class key is wrapped with the device's own key (as the device wrote it)
    BadPadding,             // the last cipher block does not end in valid padding: cut short or altered
    SizeDisagrees,          // the stored or deciphered length differs from the recorded size, no digest deciding
    Unreadable,             // the stored file cannot be read (a system error)
    OrphanStoredFile,       // a stored file that no entry names
    DuplicateFileID,        // two entries with one file ID
    WrongFileID,            // an entry whose file ID is not the SHA-1 of "domain-path"
    MissingParent,          // a file or symbolic link whose parent directory has no entry
    MetadataUnreadable,     // Status.plist or Manifest.plist is there but is no property list
};

// The name a program or person can use: "stored-file-missing", "digest-mismatch"...
QV_EXPORT const char* to_string(QVProblemKind kind);

struct QVProblem {
    QVProblemKind kind = QVProblemKind::Unreadable;
    // A warning leaves the backup sound: devices write files that change during a backup, and
    // classes that only the device can open.
    bool warning = false;
    std::string domain;      // the entry's; empty for an orphan stored file
    std::string path;
    std::string fileID;
    std::string storedName;  // relative to the backup's root, "/"-separated; empty when no file is meant
    std::string detail;      // one sentence for people
    std::optional<uint32_t> protectionClass;  // for key problems
    uint64_t storedLength = 0;                // the stored file's length, when it was found
};

enum class QVVerifyMode : uint32_t {
    // What costs no more than opening each stored file: presence, length, whole blocks, the key, and
    // the last block's padding.
    Quick = 0,
    // The quick checks and the recorded digests, which read the files that have one. What a copy
    // checks before it writes.
    Digests = 1,
    // Every stored byte read once: digests where recorded, and read errors anywhere.
    Full = 2,
};

using QVProblemFunction = std::function<void(const QVProblem& problem)>;

// The problems of one entry's stored file; none for directories, symbolic links and entries added
// since loading. When the mode skips the digest, `digest` (when not null) receives the recorded one
// for a caller that hashes as it reads.
QV_EXPORT std::vector<QVProblem> QVBackupContainerVerifyEntry(const Backup& backup, const Entry& entry,
                                                              QVVerifyMode mode,
                                                              std::vector<uint8_t>* digest = nullptr);

// How an export of the container checks the stored files it copies from the source: each as
// QVBackupContainerVerifyEntry does in `mode` (Digests: the recorded digests too), in the same read
// as the copy. Every problem goes to `problem`, warnings included. A stored file with a problem that
// is not a warning is damaged: the export then fails once every file has been checked, and writes
// nothing, unless `skipDamaged` is set, when the damaged files' entries are taken out of the
// container's manifest and the rest is written (a zip that held one already is written again).
struct QVExportCheck {
    QVVerifyMode mode = QVVerifyMode::Digests;
    bool skipDamaged = false;
    QVProblemFunction problem;
};

// Sets how the container's exports check the files they copy; null checks nothing (the default).
QV_EXPORT void QVBackupContainerSetExportCheck(const Backup& backup, std::shared_ptr<const QVExportCheck> check);

// Every entry's stored file, then the manifest as a whole (duplicate and wrong file IDs, missing
// parents) and the stored files that no entry names, reporting each problem as it is found.
// Progress counts entries. Returns the number of problems that are not warnings; nothing (and *error)
// when the walk itself failed.
QV_EXPORT std::optional<int64_t> QVBackupContainerVerify(const Backup& backup, QVVerifyMode mode, const QVProblemFunction& report,
                                          const LoadProgress& progress, CFErrorRef* error);

}  // namespace Quiver
