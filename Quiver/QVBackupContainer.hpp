// The backup container's layout and what its parts share; its interface is <quiver/QVBackupContainer.hpp>.
#pragma once

#include <quiver/QVBackupContainer.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/QVManifest.hpp"
#include "Quiver/QVManifestEntry.hpp"
#include "Quiver/Support/SoftwareVersion.hpp"

namespace Quiver {
struct QVExportCheck;
struct CarriedFiles;
}

class QVBackupContainerClass {
public:
    QVBackupContainerClass();
    ~QVBackupContainerClass();
    QVBackupContainerClass(const QVBackupContainerClass&) = delete;
    QVBackupContainerClass& operator=(const QVBackupContainerClass&) = delete;

    QVDataSourceType sourceType = QVDataSourceTypeZip;
    QVManifestDataVersion manifestVersion = QVManifestDataVersionUnset;
    void* zipFile = nullptr;  // a zip source's read handle and member prefix (QVBackupContainerZip.cpp)
    CF::String path;
    Quiver::Manifest manifest;
    CF::Dictionary manifestDict;
    CF::Dictionary infoDict;
    CF::Dictionary statusDict;
    CF::String password;
    std::optional<MB::ManifestEncryption> manifestEncryption;
    CF::String baseDirectory;
    Quiver::Support::software_version sourceIOSVersion;
    // A partial copy (a folder with a manifest but without Status.plist or Manifest.plist, or a
    // Status.plist without "Version"): what is missing, and what loading made of it.
    std::vector<std::string> missingMetadata;
    // Metadata files that are there but are no property list: read as empty, and counted as missing.
    std::vector<std::string> unreadableMetadata;
    std::vector<std::string> loadWarnings;
    // Told what an export of this container turns to: "files", "manifest", then "metadata".
    std::function<void(const char* phase)> exportPhase;
    // How an export checks the stored files it copies (QVBackupContainerSetExportCheck); none when null.
    std::shared_ptr<const Quiver::QVExportCheck> exportCheck;
    // Set on a conversion's copy: the stored files it writes are another container's (see CarriedFiles).
    std::shared_ptr<const Quiver::CarriedFiles> carried;
    // Set before loading by QVBackupContainerCount: a Manifest.db's entries are counted into `contents`
    // and not kept (the manifest stays empty); a Manifest.mbdb, small, is loaded and counted.
    bool countOnly = false;
    Quiver::ManifestContents contents;
};

namespace Quiver {

class QVBackupContainer {
public:
    QVBackupContainer() = default;
    QVBackupContainer(std::shared_ptr<QVBackupContainerClass> backup) : backup_(std::move(backup)) {}
    operator std::shared_ptr<QVBackupContainerClass>() const { return backup_; }
    explicit operator bool() const { return backup_ != nullptr; }
    QVBackupContainer Copy() const;
    Support::software_version get_source_ios_version() const;
    const std::shared_ptr<QVBackupContainerClass>& get() const { return backup_; }

private:
    std::shared_ptr<QVBackupContainerClass> backup_;
};

// What a backup's metadata files say, read without its password and without loading its manifest:
// enough to tell backups apart and to say which device each came from.
struct QVBackupMetadata {
    CF::Dictionary info;      // empty when the file is missing
    CF::Dictionary status;
    CF::Dictionary manifest;
    std::vector<std::string> missing;  // "Manifest.plist", "Info.plist", "Status.plist"
    std::vector<std::string> unreadable;  // of those, the ones there that are no property list
    std::string manifestFile;          // "Manifest.db", "Manifest.mbdb", or "" when neither is there
};
// Fails as loading the same backup fails for what is not a backup, a damaged metadata file, or a zip
// that does not open; an encrypted backup reads like any other.
bool QVBackupContainerCopyMetadata(CFStringRef path, QVDataSourceType type, QVBackupMetadata* metadata,
                                   CFErrorRef* error);

const CF::Dictionary& QVBackupContainerGetManifestDict(const Backup& backup);

// Opens a backup as QVBackupContainerCreateFromDirectory or QVBackupContainerCreateFromZipFile do, with
// the same checks and failures, but counts the manifest's entries into `contents` instead of keeping
// them. The container returned is for its metadata and `contents` alone: its manifest is empty.
Backup QVBackupContainerCount(QVDataSourceType type, CFStringRef path, CFStringRef password, LoadProgress progress,
                              CFErrorRef* error);

// ---- Internal, shared by the container's parts ----

// A conversion writes a copy of a container whose file entries stand for entries of the source: the
// export reads each stored file through the source entry, checks it as a read of that entry would
// (with its export check, which a conversion always sets), writes what `file` makes of it, and tells
// `written` what went out, so that the conversion can record it before the manifest is written. The
// stored files are read once, whatever the conversion.
struct CarriedFiles {
    Backup source;
    // The copy's entries and the source's, in pairs sorted by the copy's entry.
    std::vector<std::pair<const QVManifestEntryClass*, Entry>> sources;
    // The file written for the copy's entry; throws CF::Error.
    std::function<std::shared_ptr<QVFileClass>(const Entry& copy, const Entry& source)> file;
    // Whether `written` wants the SHA-1 of what was written for this entry of the copy.
    std::function<bool(const Entry& copy)> wantsDigest;
    // Told what was written for the copy's entry: its length, and its SHA-1 where wanted (else empty).
    std::function<void(const Entry& copy, const std::vector<uint8_t>& digest, uint64_t length)> written;

    // The source's entry for the copy's; null for an entry the copy gained since.
    Entry SourceOf(const Entry& copy) const;
};

struct MetadataFile {
    const char* name;
    bool required;
    CF::Dictionary* dictionary;
};
std::vector<MetadataFile> MetadataFileList(QVBackupContainerClass& backup);
bool IsReservedName(CFStringRef name);
CF::String LocalFilenameForFileID(const CF::String& fileID, QVManifestDataVersion version, bool forwardSlashes);
// What QVBackupContainerCopyFileForLocalFilename gives for the stored file `name` once it has found its
// entry: for a caller that holds the entry already.
std::shared_ptr<QVFileClass> CopyStoredFileForEntry(const Backup& backup, const Entry& entry, std::string_view name,
                                                    CFErrorRef* error);
// The names of a finished backup after its stored files: the manifest, then the metadata files.
std::vector<CF::String> ManifestAndMetadataNames(const Backup& backup);
std::shared_ptr<QVFileClass> SourceLoadFile(const Backup& backup, const CF::String& name);
std::shared_ptr<QVFileClass> SourceLoadFileForFileID(const Backup& backup, CFStringRef fileID, CFErrorRef* error);
// The zip source: a member read whole into an appendable file.
std::shared_ptr<QVFileClass> SourceLoadZipMember(QVBackupContainerClass& backup, const CF::String& name);
bool ZipSourceHasMember(QVBackupContainerClass& backup, const std::string& name);
// The names of the backup's members (folders and clutter left out), relative to the backup's root.
std::vector<std::string> ZipSourceMemberNames(QVBackupContainerClass& backup);
void CloseZipSource(QVBackupContainerClass& backup);
void OpenZipSource(QVBackupContainerClass& backup);
// Loads the three metadata dictionaries, noting what a partial copy lacks; throws CF::Error.
void SourceLoadMetadataDictionaries(const Backup& backup);
// Loads metadata, checks encryption and loads the manifest; throws CF::Error.
void SourceLoadMetadataFiles(const Backup& backup, const LoadProgress& progress);

}  // namespace Quiver

namespace Quiver {
// "<QVBackupContainerClass 0x...> (Zip) path:... base_dir:..." for a zip container, "" for a directory
// container; throws std::logic_error for a container without a source type.
std::string to_string(const QVBackupContainer& backup);
}  // namespace Quiver

template <>
struct fmt::formatter<Quiver::QVBackupContainer> : fmt::formatter<std::string_view> {
    auto format(const Quiver::QVBackupContainer& backup, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(Quiver::to_string(backup), ctx);
    }
};
