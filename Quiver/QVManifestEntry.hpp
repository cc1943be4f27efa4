// Manifest entries: one item of the backed-up device's file system (a regular file, a directory or a
// symbolic link) with its domain, relative path, attributes, digest, protection class and wrapped
// per-file key, and the way to reach its content. Every manifest format is read into and written from
// these entries.
#pragma once

#include <quiver/QVManifestEntry.hpp>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/QVFile.hpp"

namespace MB {
class File;
class FileWriter;
class ManifestEncryption;
}

// One entry, kept small: a loaded manifest holds hundreds of thousands of them. Its texts and bytes
// (path, target, digest, wrapped key) sit side by side in one buffer that the entry does not allocate
// itself: a loader puts them in its manifest's pool, and an entry made or changed on its own owns a
// buffer of its own (`SetTexts`). File IDs are 20 raw bytes. The CF objects that the interface hands
// out (QVManifestEntryGetPath and the like) are made on first request and kept with the entry.
class QVManifestEntryClass {
public:
    enum Text : uint8_t { kPath, kTarget, kDigest, kEncryptionKey, kFileIDText, kTextCount };

    QVManifestEntryClass();
    ~QVManifestEntryClass();
    QVManifestEntryClass(const QVManifestEntryClass&) = delete;
    QVManifestEntryClass& operator=(const QVManifestEntryClass&) = delete;

    CF::String domain;  // shared by the entries of one domain
    std::string_view domainText;  // its UTF-8, kept by `domain`
    uint8_t fileType = 0;  // 1 file, 2 directory, 4 symlink; Manifest.db flags as stored
    bool external = false;
    bool fileFetched = false;  // `file` came through `getFileFunc`, which can fetch it again
    bool fileIDIsHex = false;  // the file ID is `fileIDBytes` as 40 lower-case hexadecimal digits
    uint16_t mode = 0;
    EntryProtectionClass protectionClass = EntryProtectionClassNotSet;
    uint32_t userID = 0;
    uint32_t groupID = 0;
    std::array<uint8_t, 20> fileIDBytes{};
    double birth = 0;  // absolute times
    double lastModified = 0;
    double lastStatusChange = 0;
    uint64_t size = 0;
    uint64_t inode = 0;
    int64_t archiveFlags = 0;  // the MBFile record's "Flags" and unmodelled keys, kept to be written back
    CF::Dictionary properties;
    CF::Dictionary archiveExtras;
    std::shared_ptr<QVFileClass> file;
    std::shared_ptr<const QVGetFileFunction> getFileFunc;

    // The UTF-8 of a text, or the bytes of the digest or key; empty when absent.
    std::string_view text(Text which) const;
    std::span<const uint8_t> bytes(Text which) const {
        const std::string_view t = text(which);
        return {reinterpret_cast<const uint8_t*>(t.data()), t.size()};
    }
    std::string_view path() const { return text(kPath); }
    std::string_view target() const { return text(kTarget); }
    std::span<const uint8_t> digest() const { return bytes(kDigest); }
    std::span<const uint8_t> encryptionKey() const { return bytes(kEncryptionKey); }
    // The file ID as text: 40 hexadecimal digits, or the text a manifest recorded when it was not that.
    std::string fileID() const;

    // Replaces texts: all of the entry's texts move to one new buffer of its own. Drops the CF objects
    // already made of what changed.
    void SetTexts(std::initializer_list<std::pair<Text, std::string_view>> values);
    void SetDomain(CF::String domain);
    // Takes a file ID as text: kept as raw bytes when it is 40 lower-case hexadecimal digits.
    void SetFileID(std::string_view text);
    // Points the entry at texts laid out in order (path, target, digest, key, file ID text) in storage
    // that someone else keeps alive as long as the entry: `keep`, or nothing when the entry itself
    // lives in that storage's owner.
    void AdoptTexts(const char* base, const std::array<uint32_t, kTextCount>& lengths, std::shared_ptr<const void> keep);
    // The texts of another entry, shared rather than copied.
    void ShareTexts(const std::shared_ptr<const QVManifestEntryClass>& source);

    // CF objects handed out by the interface, made on first request.
    struct Objects;
    Objects& objects() const;
    std::optional<std::array<uint8_t, 32>>& unlockedKey() const;

private:
    const char* text_ = nullptr;
    std::array<uint32_t, kTextCount> lengths_{};
    std::shared_ptr<const void> keep_;
    mutable std::unique_ptr<Objects> objects_;
};

namespace Quiver {

// Lets go of a stored file fetched through the entry's getter (it is fetched again when asked for),
// so that a walk over every file of a large backup does not keep a file object for each.
void QVManifestEntryForgetFetchedFile(const Entry& entry);

// QVManifestEntryCreateCopy with a getter shared by many copies.
Entry CopyEntrySharingGetter(const Entry& entry, std::shared_ptr<const QVGetFileFunction> getFileFunc);

// Gives a new regular file of an encrypted backup its own key: the entry's file becomes an enciphering
// copy and its encryption data the wrapped key.
bool QVManifestEntryGenerateFileKey(const Entry& entry, const MB::ManifestEncryption& encryption, CFErrorRef* error);
// The key part of that alone: a fresh key, wrapped under the entry's protection class into its
// record and kept unwrapped with it; the entry's file and digest are left as they are. Throws CF::Error.
const std::array<uint8_t, 32>& AssignFileKey(const Entry& entry, const MB::ManifestEncryption& encryption);
// The entry's per-file key, unwrapped once and cached; nothing (and no error) when it has none.
std::optional<std::array<uint8_t, 32>> QVManifestEntryUnlockFileKey(const Entry& entry,
                                                                    const MB::ManifestEncryption& encryption,
                                                                    CFErrorRef* error);

// The MBFile record of an entry, for the general archiver (MB::File::Encode).
MB::File MBFileRecordForEntry(const QVManifestEntryClass& entry);
// The same record's blob appended to `out`, written straight from the entry: the bytes that
// MBFileRecordForEntry(entry).Encode() holds. Throws what that throws.
void AppendMBFileData(MB::FileWriter& writer, const QVManifestEntryClass& entry, std::vector<uint8_t>& out);

// 40 lower-case hexadecimal digits: SHA-1 of "<domain>-<relativePath>", as raw bytes.
std::array<uint8_t, 20> FileIDBytesForPath(std::string_view domain, std::string_view relativePath);
// The raw bytes of a file ID written as 40 lower-case hexadecimal digits; false for any other text.
bool FileIDBytesFromText(std::string_view text, std::array<uint8_t, 20>& bytes);
// Orders two entries by file ID as text, comparing the raw bytes where both hold them.
inline std::strong_ordering CompareFileIDs(const QVManifestEntryClass& a, const QVManifestEntryClass& b) {
    if (a.fileIDIsHex && b.fileIDIsHex) return a.fileIDBytes <=> b.fileIDBytes;
    return a.fileID() <=> b.fileID();
}

// The same as DomainPathPairLess for the domains and paths as texts.
bool DomainPathTextLess(std::string_view aDomain, std::string_view aPath, std::string_view bDomain,
                        std::string_view bPath);

}  // namespace Quiver

template <>
struct fmt::formatter<Quiver::Entry> : fmt::formatter<std::string_view> {
    auto format(const Quiver::Entry& entry, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(Quiver::to_string(entry), ctx);
    }
};
