// Entries to and from the MBFile records that Manifest.db rows keep in their `file` blobs.
#include <stdexcept>

#include "Quiver/MB/File.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVManifestEntry.hpp"

namespace Quiver {

namespace {

constexpr int64_t kUnixToAbsolute = 978307200;

CF::Date dateFromUnix(int64_t seconds) { return CF::Date(static_cast<double>(seconds - kUnixToAbsolute)); }

// The record keeps whole Unix seconds: the absolute time cut to whole seconds and to its low 32 bits,
// then moved to the Unix epoch.
int64_t unixFromDate(const CF::Date& date) {
    auto seconds = static_cast<int64_t>(date.AbsoluteTime());
    return static_cast<int64_t>(static_cast<uint32_t>(seconds)) + kUnixToAbsolute;
}

}  // namespace

Entry QVManifestEntryCreateFromMBFileData(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath, int flags,
                                          CFDataRef fileData, QVGetFileFunction getFileFunc) {
    try {
        std::optional<MB::File> record = MB::File::Decode(fileData);
        if (!record) throw std::runtime_error("Missing or invalid MBFile structure");
        auto entry = std::make_shared<QVManifestEntryClass>();
        SetEntryNames(*entry, domain, relativePath, fileID);
        // Most records repeat the row's path: share the row's string rather than hold a second one.
        if (record->RelativePath && relativePath && CFEqual(record->RelativePath.get(), relativePath)) {
            entry->pathCopy = entry->relativePath;
        } else {
            entry->pathCopy = record->RelativePath;
        }
        entry->target = record->Target;
        entry->digest = record->Digest;
        entry->encryptionKey = record->EncryptionKey;
        entry->mode = static_cast<uint16_t>(record->Mode);
        entry->userID = record->UserID;
        entry->groupID = record->GroupID;
        entry->size = record->Size;
        entry->inode = record->InodeNumber;
        entry->protectionClass = ProtectionClassFromCode(record->ProtectionClass);
        entry->properties = record->ExtendedAttributes;
        entry->archiveFlags = record->Flags;
        entry->archiveExtras = record->Unmodelled;
        // Dates are immutable values: equal times share one object (they often are all the same).
        entry->lastModified = dateFromUnix(record->LastModified);
        entry->lastStatusChange = record->LastStatusChange == record->LastModified
                                      ? entry->lastModified
                                      : dateFromUnix(record->LastStatusChange);
        entry->birth = record->Birth == record->LastModified ? entry->lastModified : dateFromUnix(record->Birth);
        entry->fileType = static_cast<uint8_t>(flags);
        entry->getFileFunc = std::move(getFileFunc);
        entry->external = false;
        log_fmt(log_level::debug, "Created manifest entry {}", entry);
        return entry;
    } catch (const std::exception& e) {
        log_fmt(log_level::warning, "Failed to deserialize MBFile: {}", e.what());
        return nullptr;
    }
}

CF::Data QVManifestEntryCreateMBFileDataRepresentation(const Entry& entry) {
    QV_ASSERT(entry);
    try {
        MB::File record;
        if (entry->relativePath) record.RelativePath = entry->relativePath;
        if (entry->target && CFStringGetLength(entry->target.get()) > 0) record.Target = entry->target;
        if (entry->digest && !entry->digest.IsEmpty()) record.Digest = entry->digest;
        if (entry->encryptionKey && !entry->encryptionKey.IsEmpty()) record.EncryptionKey = entry->encryptionKey;
        record.Mode = entry->mode;
        record.UserID = entry->userID;
        record.GroupID = entry->groupID;
        record.InodeNumber = entry->inode;
        record.Size = entry->size;
        record.LastModified = unixFromDate(entry->lastModified);
        record.LastStatusChange = unixFromDate(entry->lastStatusChange);
        record.Birth = unixFromDate(entry->birth);
        record.ProtectionClass = ProtectionClassCode(entry->protectionClass);
        if (entry->properties && entry->properties.size() > 0) record.ExtendedAttributes = entry->properties;
        record.Flags = entry->archiveFlags;
        if (entry->archiveExtras && entry->archiveExtras.size() > 0) record.Unmodelled = entry->archiveExtras;
        return record.Encode();
    } catch (const std::exception& e) {
        log_fmt(log_level::warning, "Failed to serialize MBFile -- {}", e.what());
        return CF::Data();
    }
}

}  // namespace Quiver
