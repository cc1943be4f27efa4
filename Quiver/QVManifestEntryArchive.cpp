// Entries to and from the MBFile records that Manifest.db rows keep in their `file` blobs.
#include <stdexcept>

#include "Quiver/MB/File.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVEntryPool.hpp"
#include "Quiver/QVManifestEntry.hpp"

namespace Quiver {

namespace {

constexpr int64_t kUnixToAbsolute = 978307200;

double absoluteFromUnix(int64_t seconds) { return static_cast<double>(seconds - kUnixToAbsolute); }

// The record keeps whole Unix seconds: the absolute time cut to whole seconds and to its low 32 bits,
// then moved to the Unix epoch.
int64_t unixFromAbsolute(double time) {
    auto seconds = static_cast<int64_t>(time);
    return static_cast<int64_t>(static_cast<uint32_t>(seconds)) + kUnixToAbsolute;
}

std::string_view asText(std::span<const uint8_t> bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// Everything of a decoded record but its texts, which the caller stores where it keeps them.
void fillFromRecord(QVManifestEntryClass& entry, MB::FileView& record, int flags) {
    entry.mode = static_cast<uint16_t>(record.Mode);
    entry.userID = record.UserID;
    entry.groupID = record.GroupID;
    entry.size = record.Size;
    entry.inode = record.InodeNumber;
    entry.protectionClass = ProtectionClassFromCode(record.ProtectionClass);
    if (record.ExtendedAttributes && CFDictionaryGetCount(record.ExtendedAttributes.get()) > 0)
        entry.properties = std::move(record.ExtendedAttributes);
    entry.archiveFlags = record.Flags;
    if (record.Unmodelled) entry.archiveExtras = std::move(record.Unmodelled);
    entry.lastModified = absoluteFromUnix(record.LastModified);
    entry.lastStatusChange = absoluteFromUnix(record.LastStatusChange);
    entry.birth = absoluteFromUnix(record.Birth);
    entry.fileType = static_cast<uint8_t>(flags);
    entry.external = false;
}

}  // namespace

bool DecodeManifestRecord(std::span<const uint8_t> blob, MB::FileView& scratch) {
    try {
        if (MB::File::DecodeView(blob, scratch)) return true;
        log_fmt(log_level::warning, "Failed to deserialize MBFile: Missing or invalid MBFile structure");
    } catch (const std::exception& e) {
        log_fmt(log_level::warning, "Failed to deserialize MBFile: {}", e.what());
    }
    return false;
}

bool DecodeManifestRow(EntryPool& pool, const Entry& entry, std::string_view fileID, const CF::String& domain,
                       std::string_view relativePath, int flags, std::span<const uint8_t> blob,
                       std::shared_ptr<const QVGetFileFunction> getFileFunc, MB::FileView& scratch) {
    if (!DecodeManifestRecord(blob, scratch)) return false;
    try {
        fillFromRecord(*entry, scratch, flags);
        entry->SetDomain(domain);
        entry->fileIDIsHex = FileIDBytesFromText(fileID, entry->fileIDBytes);
        pool.SetTexts(*entry, {relativePath, scratch.Target, asText(scratch.Digest), asText(scratch.EncryptionKey),
                               entry->fileIDIsHex ? std::string_view() : fileID});
        entry->getFileFunc = std::move(getFileFunc);
        return true;
    } catch (const std::exception& e) {
        log_fmt(log_level::warning, "Failed to deserialize MBFile: {}", e.what());
        return false;
    }
}

Entry QVManifestEntryCreateFromMBFileData(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath, int flags,
                                          CFDataRef fileData, QVGetFileFunction getFileFunc) {
    try {
        MB::FileView record;
        if (!fileData || !MB::File::DecodeView({CFDataGetBytePtr(fileData), static_cast<size_t>(CFDataGetLength(fileData))}, record))
            throw std::runtime_error("Missing or invalid MBFile structure");
        auto entry = std::make_shared<QVManifestEntryClass>();
        fillFromRecord(*entry, record, flags);
        entry->SetDomain(CF::String::Retain(domain));
        const std::string path = CF::UTF8(relativePath);
        entry->SetTexts({{QVManifestEntryClass::kPath, path},
                         {QVManifestEntryClass::kTarget, record.Target},
                         {QVManifestEntryClass::kDigest, asText(record.Digest)},
                         {QVManifestEntryClass::kEncryptionKey, asText(record.EncryptionKey)}});
        if (fileID) {
            entry->SetFileID(CF::UTF8(fileID));
        } else {
            entry->fileIDBytes = FileIDBytesForPath(entry->domainText, path);
            entry->fileIDIsHex = true;
        }
        if (getFileFunc) entry->getFileFunc = std::make_shared<const QVGetFileFunction>(std::move(getFileFunc));
        log_fmt(log_level::debug, "Created manifest entry {}", entry);
        return entry;
    } catch (const std::exception& e) {
        log_fmt(log_level::warning, "Failed to deserialize MBFile: {}", e.what());
        return nullptr;
    }
}

namespace {

// What an MBFile record and its view take alike from an entry: everything but the texts and bytes.
template <typename Record>
void SetNumbersAndAttributes(Record& record, const QVManifestEntryClass& entry) {
    record.Mode = entry.mode;
    record.UserID = entry.userID;
    record.GroupID = entry.groupID;
    record.InodeNumber = entry.inode;
    record.Size = entry.size;
    record.LastModified = unixFromAbsolute(entry.lastModified);
    record.LastStatusChange = unixFromAbsolute(entry.lastStatusChange);
    record.Birth = unixFromAbsolute(entry.birth);
    record.ProtectionClass = ProtectionClassCode(entry.protectionClass);
    if (entry.properties && entry.properties.size() > 0) record.ExtendedAttributes = entry.properties;
    record.Flags = entry.archiveFlags;
    if (entry.archiveExtras && entry.archiveExtras.size() > 0) record.Unmodelled = entry.archiveExtras;
}

}  // namespace

MB::File MBFileRecordForEntry(const QVManifestEntryClass& entry) {
    MB::File record;
    record.RelativePath = CF::String(entry.path());
    if (!entry.target().empty()) record.Target = CF::String(entry.target());
    if (!entry.digest().empty()) record.Digest = CF::Data(entry.digest());
    if (!entry.encryptionKey().empty()) record.EncryptionKey = CF::Data(entry.encryptionKey());
    SetNumbersAndAttributes(record, entry);
    return record;
}

void AppendMBFileData(MB::FileWriter& writer, const QVManifestEntryClass& entry, std::vector<uint8_t>& out) {
    // The record of MBFileRecordForEntry, as views of the entry's own texts.
    MB::FileView record;
    record.RelativePath = entry.path();
    record.Target = entry.target();
    record.Digest = entry.digest();
    record.EncryptionKey = entry.encryptionKey();
    SetNumbersAndAttributes(record, entry);
    writer.Append(record, out);
}

CFDataRef QVManifestEntryCreateMBFileDataRepresentation(const Entry& entry) {
    QV_ASSERT(entry);
    try {
        MB::FileWriter writer;
        std::vector<uint8_t> blob;
        AppendMBFileData(writer, *entry, blob);
        return CF::Data(std::span<const uint8_t>(blob)).Detach();
    } catch (const std::exception& e) {
        log_fmt(log_level::warning, "Failed to serialize MBFile -- {}", e.what());
        return nullptr;
    }
}

}  // namespace Quiver
