// The container's model and loading: constructors, the metadata files, the encryption checks, the
// manifest (Manifest.db, decrypted to a private copy for an encrypted backup, or Manifest.mbdb), the
// lazy file getter and the metadata getters and setters.
#include "Quiver/QVBackupContainer.hpp"

#include <algorithm>
#include <unordered_set>
#include <array>
#include <filesystem>
#include <fstream>

#include "Quiver/FileManager.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVManifestDB.hpp"
#include "Quiver/QVManifestMBDB.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/Support/Cryptor.hpp"

namespace fs = std::filesystem;

namespace {

const CF::String& reservedName(size_t i) {
    static const std::array<CF::String, 5>* names = new std::array<CF::String, 5>{
        CF::String("Manifest.plist"), CF::String("Info.plist"), CF::String("Status.plist"),
        CF::String("Manifest.mbdb"), CF::String("Manifest.db")};
    return (*names)[i];
}

Quiver::Support::software_version readSourceIOSVersion(const CF::Dictionary& manifest) {
    CF::Dictionary lockdown = manifest.Get<CF::Dictionary>("Lockdown");
    return Quiver::Support::make_software_version(lockdown.Get<CF::String>("ProductVersion").utf8());
}

CF::Dictionary mutableEmpty() { return CF::Dictionary::CreateMutable(); }

// Replaces the contents of a container dictionary in place.
void replaceContents(CF::Dictionary& target, CFDictionaryRef source) {
    CFDictionaryRemoveAllValues(const_cast<CFMutableDictionaryRef>(target.get()));
    if (source) CFDictionarySetValues(const_cast<CFMutableDictionaryRef>(target.get()), source);
}

}  // namespace

QVBackupContainerClass::QVBackupContainerClass()
    : manifestDict(mutableEmpty()), infoDict(mutableEmpty()), statusDict(mutableEmpty()) {
    sourceIOSVersion = readSourceIOSVersion(manifestDict);
}

QVBackupContainerClass::~QVBackupContainerClass() {
    Quiver::CloseZipSource(*this);
}

namespace Quiver {

// ---- Names ----

bool IsReservedName(CFStringRef name) {
    if (!name) return false;
    for (size_t i = 0; i < 5; ++i)
        if (CFStringCompare(name, reservedName(i).get(), 0) == kCFCompareEqualTo) return true;
    return false;
}

CF::String LocalFilenameForFileID(const CF::String& fileID, QVManifestDataVersion version, bool forwardSlashes) {
    if (IsReservedName(fileID.get())) return fileID;
    switch (version) {
        case QVManifestDataVersionUnset:
        case QVManifestDataVersion24:
            return fileID;
        case QVManifestDataVersion30:
        case QVManifestDataVersion31:
        case QVManifestDataVersion32:
        case QVManifestDataVersion33: {
            std::string id = fileID.utf8();
            if (id.size() < 2) return CF::String(fmt::format("{}{}", forwardSlashes ? "/" : "\\", id));
            return CF::String(fmt::format("{}{}{}{}", id[0], id[1], forwardSlashes ? "/" : "\\", id));
        }
        default:
            return CF::String("");
    }
}

std::vector<MetadataFile> MetadataFileList(QVBackupContainerClass& backup) {
    return {{"Manifest.plist", true, &backup.manifestDict},
            {"Info.plist", false, &backup.infoDict},
            {"Status.plist", true, &backup.statusDict}};
}

// ---- The source ----

std::shared_ptr<QVFileClass> SourceLoadFile(const Backup& backup, const CF::String& name) {
    QV_ASSERT(backup);
    switch (backup->sourceType) {
        case QVDataSourceTypeDirectory: {
            CFErrorRef error = nullptr;
            auto file = QVFileCreateFromFileAtPath(CF::String(fmt::format("{}/{}", backup->path, name)), 0, &error);
            if (!file) throw CF::Error::Adopt(error);
            return file;
        }
        case QVDataSourceTypeZip:
            return SourceLoadZipMember(*backup, name);
        default:
            throw Error(QVErrorInvalidArgument, CF::Error(), "No data source type set for backup container");
    }
}

std::shared_ptr<QVFileClass> SourceLoadFileForFileID(const Backup& backup, CFStringRef fileID, CFErrorRef* error) {
    CF::String local = LocalFilenameForFileID(CF::String::Retain(fileID), backup->manifestVersion, true);
    try {
        return SourceLoadFile(backup, local);
    } catch (const CF::Error& e) {
        StoreError(error, Error(QVErrorLoadingExternalRepresentation, e, fmt::format("Failed to load file ({})", local)));
        return nullptr;
    }
}

namespace {

// The file getter handed to manifests and their entries. It holds the container weakly: a strong
// reference would make a loaded container and its manifest keep each other alive for ever. A manifest
// that outlives its container can no longer fetch stored files, and says so.
QVGetFileFunction getterFor(const Backup& backup) {
    std::weak_ptr<QVBackupContainerClass> weak = backup;
    return [weak](CFStringRef fileID, CFErrorRef* error) -> std::shared_ptr<QVFileClass> {
        Backup owner = weak.lock();
        if (!owner) {
            StoreError(error, Error(QVErrorInvalidArgument, CF::Error(),
                                    "The backup container of this manifest no longer exists"));
            return nullptr;
        }
        return SourceLoadFileForFileID(owner, fileID, error);
    };
}

std::vector<uint8_t> readWhole(const std::shared_ptr<QVFileClass>& file, uint64_t chunk) {
    std::vector<uint8_t> bytes;
    QVFileGetData(file, chunk, [&](const std::vector<uint8_t>& piece) {
        bytes.insert(bytes.end(), piece.begin(), piece.end());
        return true;
    });
    return bytes;
}

// A metadata file that is present must be a property-list dictionary: anything else is damage, not
// an empty dictionary (a damaged Manifest.plist must not pass for a plain backup).
void loadMetadataDictFile(const Backup& backup, const char* name, CF::Dictionary& dictionary) {
    auto file = SourceLoadFile(backup, CF::String(name));
    std::vector<uint8_t> bytes = readWhole(file, 32768);
    replaceContents(dictionary, nullptr);
    CF::Data data = CF::Data::NoCopy(bytes);
    CFPropertyListRef plist =
        bytes.empty() ? nullptr : CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(), 0, nullptr, nullptr);
    const bool isDictionary = plist && CFGetTypeID(plist) == CFDictionaryGetTypeID();
    if (isDictionary) replaceContents(dictionary, static_cast<CFDictionaryRef>(plist));
    if (plist) CFRelease(plist);
    if (!isDictionary)
        throw Error(QVErrorInvalidMetadata, CF::Error(),
                    fmt::format("{} holds no property-list dictionary", name));
}

bool sourceHas(const Backup& backup, const char* name) {
    if (backup->sourceType == QVDataSourceTypeZip) return ZipSourceHasMember(*backup, name);
    std::error_code ec;
    return fs::exists(fs::path(backup->path.utf8()) / name, ec);
}

// Backups of iOS 3 and earlier kept one .mdinfo and one .mddata file per item and no manifest.
bool looksLikeMdinfoLayout(const Backup& backup) {
    std::error_code ec;
    for (fs::directory_iterator it(fs::path(backup->path.utf8()), ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() == ".mdinfo") return true;
    }
    return false;
}

// Said before anything else about a folder of that generation, whatever its metadata claims.
void refuseMdinfoLayout(const Backup& backup) {
    if (backup->sourceType != QVDataSourceTypeDirectory) return;
    if (!sourceHas(backup, "Manifest.db") && !sourceHas(backup, "Manifest.mbdb") && looksLikeMdinfoLayout(backup))
        throw Error(QVErrorUnknownManifestVersion, CF::Error(),
                    "This backup was made by iOS 3 or earlier (one .mdinfo and one .mddata file per item, no "
                    "manifest), a generation that is not supported");
}

void warn(const Backup& backup, std::string text) {
    log_fmt(log_level::warning, "(QVBackupContainer {}) {}", static_cast<const void*>(backup.get()), text);
    backup->loadWarnings.push_back(std::move(text));
}

static const std::pair<const char*, QVManifestDataVersion> kVersions[] = {
    {"2.4", QVManifestDataVersion24}, {"3.0", QVManifestDataVersion30}, {"3.1", QVManifestDataVersion31},
    {"3.2", QVManifestDataVersion32}, {"3.3", QVManifestDataVersion33}};

// The manifest version: Status.plist's "Version", or, in a partial copy, the kind of manifest present.
std::string manifestVersionText(const Backup& backup) {
    std::string version = backup->statusDict.Get<CF::String>("Version").utf8();
    if (!version.empty()) {
        for (const auto& [text, value] : kVersions) {
            if (version == text) {
                backup->manifestVersion = value;
                break;
            }
        }
        return version;
    }
    const bool statusMissing = std::find(backup->missingMetadata.begin(), backup->missingMetadata.end(),
                                         "Status.plist") != backup->missingMetadata.end();
    if (!statusMissing) backup->missingMetadata.push_back("Version in Status.plist");
    const bool statusUnreadable = std::find(backup->unreadableMetadata.begin(), backup->unreadableMetadata.end(),
                                            "Status.plist") != backup->unreadableMetadata.end();
    const char* why = statusUnreadable ? "Status.plist is not a property list"
                      : statusMissing  ? "there is no Status.plist"
                                       : "Status.plist holds no \"Version\"";
    if (sourceHas(backup, "Manifest.db")) {
        backup->manifestVersion = QVManifestDataVersion33;
        warn(backup, fmt::format("{}: read as a Manifest.db backup (manifest version 3.3)", why));
        return "3.3";
    }
    if (sourceHas(backup, "Manifest.mbdb")) {
        backup->manifestVersion = QVManifestDataVersion24;
        warn(backup, fmt::format("{}: read as a Manifest.mbdb backup (manifest version 2.4)", why));
        return "2.4";
    }
    refuseMdinfoLayout(backup);
    throw Error(QVErrorInvalidBackup, CF::Error(), "The manifest version is missing");
}

bool isPlainDatabase(const fs::path& path) {
    static constexpr char kHeader[] = "SQLite format 3";  // and its NUL
    std::array<char, sizeof kHeader> start{};
    std::ifstream in(path, std::ios::binary);
    return in.read(start.data(), start.size()) && std::equal(start.begin(), start.end(), kHeader);
}

void loadManifestDatabase(const Backup& backup, const LoadProgress& progress) {
    QV_ASSERT(backup);
    refuseMdinfoLayout(backup);
    const std::string version = manifestVersionText(backup);
    const bool encrypted = backup->manifestEncryption.has_value();
    if (backup->manifestVersion == QVManifestDataVersion24) {
        // Manifest.mbdb is never enciphered; in an encrypted backup its records hold the file keys.
        try {
            auto file = SourceLoadFile(backup, CF::String("Manifest.mbdb"));
            CF::Data data(readWhole(file, 0));
            backup->manifest = QVManifestCreateFromManifestData(data.get(), backup->manifestVersion, getterFor(backup),
                                                                progress);
            if (!backup->manifest)
                throw Error(QVErrorInvalidBackup, CF::Error(),
                            "The backup manifest could not be loaded because it is corrupted.");
            if (backup->countOnly) backup->contents = CountEntries(backup->manifest);
        } catch (const CF::Error& e) {
            throw Error(QVErrorLoadingExternalRepresentation, e, "An error ocurred while loading manifest file",
                        Quiver::ErrorContext::File("Manifest.mbdb"));
        }
        return;
    }
    if (backup->manifestVersion < QVManifestDataVersion30 || backup->manifestVersion > QVManifestDataVersion33)
        throw Error(QVErrorUnknownManifestVersion, CF::Error(), fmt::format("Unsupported version '{}' specified", version));

    // A directory's Manifest.db is read where it lies (a file object would hash it whole first); a
    // zip member is taken out to a file.
    fs::path databasePath;
    std::shared_ptr<QVFileClass> member;
    if (backup->sourceType == QVDataSourceTypeDirectory) {
        databasePath = fs::path(backup->path.utf8()) / "Manifest.db";
        std::error_code ec;
        if (!fs::is_regular_file(databasePath, ec))
            throw Error(QVErrorFileNotFound, CF::Error(),
                        fmt::format("File does not exist at path '{}'", databasePath.string()));
    } else {
        member = SourceLoadFile(backup, CF::String("Manifest.db"));
        CFStringRef localPath = QVFileGetLocalPath(member);
        if (!localPath) throw Error(QVErrorInvalidArgument, CF::Error(), "No path for manifest database");
        databasePath = fs::path(CF::String::Retain(localPath).utf8());
    }
    // Devices enciphered Manifest.db from iOS 10.2 on, with a "ManifestKey" beside the key bag; the
    // encrypted backups of iOS 10.0 and 10.1 keep it plain, with the file keys in its rows.
    if (!encrypted || !backup->manifestEncryption->HasManifestKey()) {
        if (!isPlainDatabase(databasePath)) {
            if (encrypted)
                throw Error(QVErrorInvalidMetadata, CF::Error(), "ManifestKey is missing, and Manifest.db is enciphered");
            if (std::find(backup->missingMetadata.begin(), backup->missingMetadata.end(), "Manifest.plist") !=
                backup->missingMetadata.end()) {
                const bool unreadable = !backup->unreadableMetadata.empty() &&
                                        std::find(backup->unreadableMetadata.begin(), backup->unreadableMetadata.end(),
                                                  "Manifest.plist") != backup->unreadableMetadata.end();
                throw Error(QVErrorInvalidBackup, CF::Error(),
                            unreadable ? "Manifest.plist is not a property list, and Manifest.db is enciphered: without "
                                         "its key bag it cannot be read"
                                       : "Manifest.db is enciphered, and without Manifest.plist (its key bag) it cannot be read",
                            Quiver::ErrorContext::File("Manifest.plist", unreadable ? "not-a-property-list" : "missing"));
            }
        }
    }
    const bool enciphered = encrypted && backup->manifestEncryption->HasManifestKey();
    if (backup->countOnly) {
        try {
            backup->contents = enciphered ? QVManifestCountEncipheredManifestDatabase(
                                                databasePath, backup->manifestEncryption->GetManifestKey(), progress)
                                          : QVManifestCountManifestDatabase(databasePath, progress);
        } catch (const CF::Error& e) {
            throw AddErrorContext(e, Quiver::ErrorContext::File("Manifest.db"));
        }
        backup->manifest = QVManifestCreateEmpty();
        backup->manifest->dataVersion = backup->manifestVersion;
        return;
    }
    CFErrorRef slot = nullptr;
    if (enciphered) {
        // The plaintext is the user's private data: deciphered page by page as SQLite reads it, never
        // to a file, and never the whole of it at once.
        log_fmt(log_level::debug, "(QVBackupContainer {}) Will read enciphered manifest version '{}'",
                static_cast<const void*>(backup.get()), version);
        backup->manifest = QVManifestCreateFromEncipheredManifestDatabase(
            CF::String(databasePath.string()).get(), backup->manifestEncryption->GetManifestKey(),
            backup->manifestVersion, getterFor(backup), progress, &slot);
    } else {
        backup->manifest = QVManifestCreateFromManifestDatabase(CF::String(databasePath.string()).get(),
                                                               backup->manifestVersion, getterFor(backup), progress,
                                                               &slot);
    }
    if (!backup->manifest) throw AddErrorContext(CF::Error::Adopt(slot), Quiver::ErrorContext::File("Manifest.db"));
}

}  // namespace

void SourceLoadMetadataDictionaries(const Backup& backup) {
    QV_ASSERT(backup);
    backup->missingMetadata.clear();
    backup->unreadableMetadata.clear();
    backup->loadWarnings.clear();
    std::vector<CF::Error> missingRequired;
    for (const MetadataFile& record : MetadataFileList(*backup)) {
        try {
            loadMetadataDictFile(backup, record.name, *record.dictionary);
        } catch (const CF::Error& e) {
            if (e.Matches(kQVErrorDomain, QVErrorFileNotFound)) {
                replaceContents(*record.dictionary, nullptr);
                backup->missingMetadata.push_back(record.name);
                if (record.required)
                    missingRequired.push_back(Error(
                        QVErrorInvalidBackup, e,
                        fmt::format("Backup metadata file missing. Are you sure this is a valid backup? ({})",
                                    record.name),
                        Quiver::ErrorContext::File(record.name, "missing")));
                continue;
            }
            // A file that is there but is no property list reads as an empty dictionary, as if it were
            // missing: what the backup holds may still be read (and is checked as it is), while
            // verification reports the damage and no copy is written of it. An unreadable Info.plist
            // (written by the host, not the device) costs nothing that matters.
            if (!e.Matches(kQVErrorDomain, QVErrorInvalidMetadata)) {
                throw Error(QVErrorInvalidBackup, e, fmt::format("Failed to load backup metadata file ({})", record.name),
                            Quiver::ErrorContext::File(record.name, "not-a-property-list"));
            }
            replaceContents(*record.dictionary, nullptr);
            if (!record.required) {
                warn(backup, fmt::format("Info.plist is not a property list and is left out"));
                continue;
            }
            backup->missingMetadata.push_back(record.name);
            backup->unreadableMetadata.push_back(record.name);
            warn(backup, fmt::format("{} is not a property list: it is read as if it were missing", record.name));
        }
    }
    // Forensic copies often hold the manifest alone: without Status.plist or Manifest.plist, a folder
    // that has a manifest reads as a partial copy; one without is no backup.
    if (!missingRequired.empty()) {
        if (!sourceHas(backup, "Manifest.db") && !sourceHas(backup, "Manifest.mbdb")) {
            refuseMdinfoLayout(backup);
            throw missingRequired.front();
        }
        if (std::find(backup->missingMetadata.begin(), backup->missingMetadata.end(), "Manifest.plist") !=
            backup->missingMetadata.end())
            warn(backup, "there is no Manifest.plist, so the backup is read as a plain one");
    }
}

void SourceLoadMetadataFiles(const Backup& backup, const LoadProgress& progress) {
    SourceLoadMetadataDictionaries(backup);
    bool encrypted = backup->manifestDict.Get<CF::Boolean>("IsEncrypted").value();
    bool hasPassword = backup->password && backup->password.length() > 0;
    if (encrypted && !hasPassword) throw Error(QVErrorPasswordRequired);
    if (encrypted) {
        backup->manifestEncryption.reset();
        backup->manifestEncryption.emplace(backup->manifestDict, backup->password.utf8());
    } else if (hasPassword) {
        if (std::find(backup->unreadableMetadata.begin(), backup->unreadableMetadata.end(), "Manifest.plist") !=
            backup->unreadableMetadata.end())
            throw Error(QVErrorInvalidBackup, CF::Error(),
                        "Manifest.plist is not a property list: it cannot say whether the backup is encrypted, nor "
                        "give the key bag that the password opens",
                        ErrorContext::File("Manifest.plist", "not-a-property-list"));
        throw Error(QVErrorNotEncrypted);
    }
    loadManifestDatabase(backup, progress);
    // A Manifest.plist that is no property list leaves an encrypted backup looking plain: entries that
    // carry wrapped keys tell, and the error names the file at fault rather than the contents.
    if (!encrypted && std::find(backup->unreadableMetadata.begin(), backup->unreadableMetadata.end(), "Manifest.plist") !=
                          backup->unreadableMetadata.end()) {
        const auto& entries = backup->manifest->entries;
        const bool wrappedKeys =
            backup->countOnly ? backup->contents.wrappedKeys
                              : std::any_of(entries.begin(), entries.end(),
                                            [](const Entry& entry) { return !entry->encryptionKey().empty(); });
        if (wrappedKeys)
            throw Error(QVErrorInvalidBackup, CF::Error(),
                        "Manifest.plist is not a property list, and the manifest's entries carry wrapped keys: "
                        "without its key bag the encrypted backup cannot be read",
                        ErrorContext::File("Manifest.plist", "not-a-property-list"));
    }
}

// ---- Constructors ----

Backup QVBackupContainerCreateEmpty(CFErrorRef* error) {
    auto backup = std::make_shared<QVBackupContainerClass>();
    fs::path directory;
    try {
        directory = GetTemporaryFilesystemPath() / "QVBackupContainer" /
                    fmt::format("{}", static_cast<const void*>(backup.get()));
        fs::create_directories(directory);
    } catch (const std::exception& e) {
        StoreError(error, Error(QVErrorFilesystem, CF::Error(), fmt::format("{}", e.what())));
        return nullptr;
    }
    backup->sourceType = QVDataSourceTypeDirectory;
    backup->path = CF::String(directory.string());
    backup->manifest = QVManifestCreateEmpty();
    backup->manifestVersion = QVManifestDataVersionUnset;
    return backup;
}

namespace {

Backup load(QVDataSourceType type, CFStringRef path, CFStringRef password, const LoadProgress& progress,
            CFErrorRef* error, bool countOnly = false) {
    auto backup = std::make_shared<QVBackupContainerClass>();
    backup->countOnly = countOnly;
    backup->sourceType = type;
    backup->path = CF::String::Retain(path);
    if (password) backup->password = CF::String::Retain(password);
    try {
        if (type == QVDataSourceTypeZip) OpenZipSource(*backup);
        SourceLoadMetadataFiles(backup, progress);
    } catch (const CF::Error& e) {
        StoreError(error, e);
        return nullptr;
    }
    return backup;
}

}  // namespace

bool QVBackupContainerCopyMetadata(CFStringRef path, QVDataSourceType type, QVBackupMetadata* metadata,
                                   CFErrorRef* error) {
    QV_ASSERT(metadata);
    auto backup = std::make_shared<QVBackupContainerClass>();
    backup->sourceType = type;
    backup->path = CF::String::Retain(path);
    try {
        if (type == QVDataSourceTypeZip) OpenZipSource(*backup);
        SourceLoadMetadataDictionaries(backup);
        metadata->info = backup->infoDict;
        metadata->status = backup->statusDict;
        metadata->manifest = backup->manifestDict;
        metadata->missing = backup->missingMetadata;
        metadata->unreadable = backup->unreadableMetadata;
        metadata->manifestFile = sourceHas(backup, "Manifest.db")     ? "Manifest.db"
                                 : sourceHas(backup, "Manifest.mbdb") ? "Manifest.mbdb"
                                                                      : "";
    } catch (const CF::Error& e) {
        StoreError(error, e);
        return false;
    }
    return true;
}

Backup QVBackupContainerCreateFromDirectory(CFStringRef path, CFStringRef password, LoadProgress progress,
                                            CFErrorRef* error) {
    return load(QVDataSourceTypeDirectory, path, password, progress, error);
}

Backup QVBackupContainerCreateFromDirectory(CFStringRef path, LoadProgress progress, CFErrorRef* error) {
    return QVBackupContainerCreateFromDirectory(path, nullptr, std::move(progress), error);
}

Backup QVBackupContainerCreateFromZipFile(CFStringRef path, CFStringRef password, LoadProgress progress,
                                          CFErrorRef* error) {
    return load(QVDataSourceTypeZip, path, password, progress, error);
}

Backup QVBackupContainerCreateFromZipFile(CFStringRef path, LoadProgress progress, CFErrorRef* error) {
    return QVBackupContainerCreateFromZipFile(path, nullptr, std::move(progress), error);
}

Backup QVBackupContainerCount(QVDataSourceType type, CFStringRef path, CFStringRef password, LoadProgress progress,
                              CFErrorRef* error) {
    return load(type, path, password, progress, error, true);
}

Backup QVBackupContainerCreateCopy(const Backup& source) {
    QV_ASSERT(source);
    auto backup = std::make_shared<QVBackupContainerClass>();
    backup->sourceType = source->sourceType;
    backup->path = source->path;
    backup->manifestVersion = source->manifestVersion;
    if (backup->sourceType == QVDataSourceTypeZip) OpenZipSource(*backup);
    backup->manifest = QVManifestCreateCopy(source->manifest, getterFor(backup));
    backup->manifestDict = source->manifestDict.MutableCopy();
    backup->infoDict = source->infoDict.MutableCopy();
    backup->statusDict = source->statusDict.MutableCopy();
    backup->baseDirectory = source->baseDirectory;
    backup->missingMetadata = source->missingMetadata;
    backup->unreadableMetadata = source->unreadableMetadata;
    backup->loadWarnings = source->loadWarnings;
    if (source->password && source->password.length() > 0 && source->manifestEncryption) {
        backup->password = source->password;
        backup->manifestEncryption = source->manifestEncryption;
    }
    backup->sourceIOSVersion = readSourceIOSVersion(backup->manifestDict);
    return backup;
}

Entry CarriedFiles::SourceOf(const Entry& copy) const {
    const auto at = std::lower_bound(sources.begin(), sources.end(), copy.get(),
                                     [](const auto& pair, const QVManifestEntryClass* e) { return pair.first < e; });
    return at != sources.end() && at->first == copy.get() ? at->second : nullptr;
}

QVBackupContainer QVBackupContainer::Copy() const {
    if (!backup_) return {};
    return QVBackupContainer(QVBackupContainerCreateCopy(backup_));
}

Support::software_version QVBackupContainer::get_source_ios_version() const {
    if (!backup_) return {};
    return backup_->sourceIOSVersion;
}

std::string to_string(const QVBackupContainer& handle) {
    const Backup& backup = handle.get();
    QV_ASSERT(backup);
    switch (backup->sourceType) {
        case QVDataSourceTypeZip:
            return fmt::format("<QVBackupContainerClass {}> (Zip) path:{} base_dir:{}",
                               static_cast<const void*>(backup.get()), backup->path, backup->baseDirectory);
        case QVDataSourceTypeDirectory:
            return {};
    }
    throw std::logic_error("backup container without a data source type");
}

// ---- Metadata ----

namespace {
CFDictionaryRef mutableCopy(const CF::Dictionary& d) {
    return d ? CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, d.get()) : nullptr;
}
}  // namespace

CFDictionaryRef QVBackupContainerCopyInfoDict(const Backup& backup) {
    QV_ASSERT(backup);
    return mutableCopy(backup->infoDict);
}

CFDictionaryRef QVBackupContainerCopyStatusDict(const Backup& backup) {
    QV_ASSERT(backup);
    return mutableCopy(backup->statusDict);
}

CFDictionaryRef QVBackupContainerCopyManifestDict(const Backup& backup) {
    QV_ASSERT(backup);
    return mutableCopy(backup->manifestDict);
}

const CF::Dictionary& QVBackupContainerGetManifestDict(const Backup& backup) {
    QV_ASSERT(backup);
    return backup->manifestDict;
}

void QVBackupContainerSetDictionaries(const Backup& backup, CFDictionaryRef info, CFDictionaryRef status,
                                      CFDictionaryRef manifest) {
    QV_ASSERT(backup);
    if (info) backup->infoDict = CF::Dictionary::Adopt(CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, info));
    if (status)
        backup->statusDict = CF::Dictionary::Adopt(CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, status));
    if (manifest) {
        backup->manifestDict =
            CF::Dictionary::Adopt(CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, manifest));
        backup->sourceIOSVersion = readSourceIOSVersion(backup->manifestDict);
    }
}

CFNumberRef QVBackupContainerCopySystemDomainsVersion(const Backup& backup) {
    QV_ASSERT(backup);
    CF::Number version = backup->manifestDict.Get<CF::Number>("SystemDomainsVersion");
    if (version) return version.CopyRef();
    return CF::Number(int32_t{0}).Detach();
}

void QVBackupContainerSetSystemDomainsVersion(const Backup& backup, CFNumberRef version) {
    QV_ASSERT(backup);
    if (version) backup->manifestDict.Set("SystemDomainsVersion", static_cast<CFTypeRef>(version));
}

unsigned char QVBackupContainerIsEncrypted(const Backup& backup) {
    QV_ASSERT(backup);
    return backup->manifestEncryption.has_value() ? 1 : 0;
}

int64_t QVBackupContainerGetTotalFileCount(const Backup& backup) {
    QV_ASSERT(backup);
    return static_cast<int64_t>(MetadataFileList(*backup).size()) + QVManifestGetTotalFileCount(backup->manifest) + 1;
}

CFStringRef QVBackupContainerGetBaseDirectory(const Backup& backup) { return backup->baseDirectory.get(); }

void QVBackupContainerSetBaseDirectory(const Backup& backup, CFStringRef directory) {
    QV_ASSERT(backup);
    backup->baseDirectory = CF::String::Retain(directory);
}

CFArrayRef QVBackupContainerCopyFilesystemPathsList(const Backup& backup, unsigned char forwardSlashes) {
    QV_ASSERT(backup);
    CF::Array paths = CF::Array::CreateMutable();
    CFArrayRef ids = QVManifestGetFileIDs(backup->manifest);
    // Two entries of a damaged manifest may share a file ID, and so a stored file: it is named once.
    std::unordered_set<std::string> seen;
    for (CFIndex i = 0, n = CFArrayGetCount(ids); i < n; ++i) {
        auto id = CF::String::Retain(static_cast<CFStringRef>(CFArrayGetValueAtIndex(ids, i)));
        if (!seen.insert(id.utf8()).second) continue;
        paths.Append(LocalFilenameForFileID(id, backup->manifestVersion, forwardSlashes != 0));
    }
    for (const CF::String& name : ManifestAndMetadataNames(backup)) paths.Append(name);
    return paths.Detach();
}

std::vector<CF::String> ManifestAndMetadataNames(const Backup& backup) {
    std::vector<CF::String> names;
    if (backup->manifestVersion == QVManifestDataVersion24) {
        names.emplace_back("Manifest.mbdb");
    } else if (backup->manifestVersion >= QVManifestDataVersion30 && backup->manifestVersion <= QVManifestDataVersion33) {
        names.emplace_back("Manifest.db");
    }
    for (const MetadataFile& record : MetadataFileList(*backup)) names.emplace_back(record.name);
    return names;
}

Manifest QVBackupContainerGetManifest(const Backup& backup) {
    QV_ASSERT(backup);
    return backup->manifest;
}

std::vector<std::string> QVBackupContainerCopyMissingMetadata(const Backup& backup) {
    QV_ASSERT(backup);
    return backup->missingMetadata;
}

void QVBackupContainerSetExportPhaseFunction(const Backup& backup, std::function<void(const char* phase)> phase) {
    QV_ASSERT(backup);
    backup->exportPhase = std::move(phase);
}

std::vector<std::string> QVBackupContainerCopyUnreadableMetadata(const Backup& backup) {
    QV_ASSERT(backup);
    return backup->unreadableMetadata;
}

std::vector<std::string> QVBackupContainerCopyLoadWarnings(const Backup& backup) {
    QV_ASSERT(backup);
    return backup->loadWarnings;
}

bool QVBackupContainerHasEncipheredManifest(const Backup& backup) {
    QV_ASSERT(backup);
    return backup->manifestEncryption && backup->manifestEncryption->HasManifestKey() &&
           backup->manifestVersion >= QVManifestDataVersion30;
}

}  // namespace Quiver
