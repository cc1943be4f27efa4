// Reading a backup's files out safely: one file's plaintext checked as it is read, and whole trees
// written into a folder without ever writing outside it.
//
// The names in a manifest come from whoever made the backup. Extraction treats each domain and path
// as hostile: a name that is absolute, climbs with "..", holds a NUL or a "/" in its domain is refused
// with a reason, and no folder is entered through a symbolic link (each step is opened relative to
// the one before with O_NOFOLLOW), so nothing lands outside the destination whatever the manifest and
// whatever is already in the destination.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <quiver/Api.hpp>
#include <quiver/QVBackupContainer.hpp>
#include <quiver/QVVerify.hpp>

namespace Quiver {

// What a name is about to be used for: read out of a backup, or written into one (stricter: no
// empty or "." components, so that every name has one spelling).
enum class QVNameUse : uint32_t { Extract = 0, Write = 1 };

// Why a domain and path may not be used so; nothing when they may.
QV_EXPORT std::optional<std::string> QVEntryNameProblem(std::string_view domain, std::string_view path, QVNameUse use);

// Streams a regular file's plaintext to `sink` (which returns false to stop), checking it on the way:
// the quick checks first, then the recorded digest in the same pass as the read. So that damage found
// at the end is never passed off as a whole file, plaintext is held back until it is known good: a
// file of up to 4 MiB entirely, a larger one its last MiB. Warnings (a size that disagrees with no
// digest to decide) go to `warnings` when given. On failure *error says what went wrong
// (QVErrorInvalidBackup with the problem under kQVErrorCheckKey when the stored file is damaged) and
// *delivered, when not null, how many bytes the sink had already been given.
QV_EXPORT bool QVBackupContainerReadEntry(const Backup& backup, const Entry& entry,
                                          const std::function<bool(const uint8_t*, size_t)>& sink,
                                          const QVProblemFunction& warnings, uint64_t* delivered, CFErrorRef* error);

enum class QVExtractResult : uint32_t {
    Extracted = 0,
    Unsafe = 1,   // the name is refused (see QVEntryNameProblem), or it would be written through a link
    Failed = 2,   // the system refused: a clash with what is there, a full disk, permissions
    Damaged = 3,  // the stored file is damaged; nothing of it is left in the destination
};

struct QVExtractEvent {
    Entry entry;
    QVExtractResult result = QVExtractResult::Failed;
    std::string reason;
};

struct QVExtractSummary {
    uint64_t extracted = 0;
    uint64_t unsafe = 0;
    uint64_t failed = 0;
    uint64_t damaged = 0;
};

// Writes the entries as DEST/DOMAIN/PATH (folders, files with their modes and times, symbolic links
// as links), creating DEST when missing. Every entry that is not extracted is reported through
// `report` and the rest go on; so is every entry extracted with a warning (result Extracted). `progress` gets the fraction of file bytes written and returns false to
// stop early. Nothing (and *error) when the destination cannot be opened or the work was stopped.
QV_EXPORT std::optional<QVExtractSummary> QVBackupContainerExtractEntries(
    const Backup& backup, const std::vector<Entry>& entries, const std::filesystem::path& destination,
    const std::function<void(const QVExtractEvent&)>& report, const std::function<bool(double)>& progress,
    CFErrorRef* error);

}  // namespace Quiver
