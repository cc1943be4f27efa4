#include "Quiver/QVManifestEntry.hpp"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "Quiver/FileManager.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/CF/Empty.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/Support/Random.hpp"

namespace Quiver {

namespace {

constexpr uint16_t kFileMode = 0x81A4;       // 0100644
constexpr uint16_t kDirectoryMode = 0x41ED;  // 040755
constexpr uint16_t kSymlinkMode = 0xA1ED;    // 0120755
constexpr uint32_t kMobileUser = 501;

[[noreturn]] void badProtectionClass(uint32_t value) {
    log_fmt(log_level::error, "Protection class value {} is out of range", value);
    std::fprintf(stderr, "Quiver: fatal: protection class value %u is out of range\n", value);
    std::abort();
}

Entry newEntry(CFStringRef domain, CFStringRef relativePath) {
    auto entry = std::make_shared<QVManifestEntryClass>();
    entry->external = true;
    SetEntryNames(*entry, domain, relativePath, nullptr);
    entry->target = CF::EmptyString();
    entry->digest = CF::EmptyData();
    entry->encryptionKey = CF::EmptyData();
    entry->properties = CF::EmptyDictionary();
    entry->userID = kMobileUser;
    entry->groupID = kMobileUser;
    CF::Date now = CF::Date::Now();
    entry->birth = now;
    entry->lastModified = CF::Date(now.AbsoluteTime());
    entry->lastStatusChange = CF::Date(now.AbsoluteTime());
    return entry;
}

CF::Date copyDate(const CF::Date& date) { return date ? CF::Date(date.AbsoluteTime()) : CF::Date(); }

}  // namespace

std::string to_string(EntryProtectionClass protectionClass) {
    switch (protectionClass) {
        case EntryProtectionClassNotSet: return "NotSet";
        case EntryProtectionClassComplete: return "Complete";
        case EntryProtectionClassWriteOnly: return "WriteOnly";
        case EntryProtectionClassCompleteUntilUnlocked: return "CompleteUntilUnlocked";
        case EntryProtectionClassNone: return "None";
    }
    badProtectionClass(static_cast<uint32_t>(protectionClass));
}

EntryProtectionClass ProtectionClassFromCode(int64_t code) {
    if (code < 0 || code > 4) throw std::invalid_argument("invalid protection class code");
    return static_cast<EntryProtectionClass>(code);
}

uint32_t ProtectionClassCode(EntryProtectionClass protectionClass) {
    if (static_cast<uint32_t>(protectionClass) > 4) badProtectionClass(static_cast<uint32_t>(protectionClass));
    return static_cast<uint32_t>(protectionClass);
}

namespace {

std::string pairText(CFStringRef domain, CFStringRef relativePath) {
    std::string pair = CF::UTF8(domain);
    pair.append("-").append(CF::UTF8(relativePath));
    return pair;
}

}  // namespace

void SetEntryNames(QVManifestEntryClass& entry, CFStringRef domain, CFStringRef relativePath, CFStringRef fileID) {
    entry.domain = CF::String::Retain(domain);
    entry.relativePath = CF::String::Retain(relativePath);
    entry.pathCopy = entry.relativePath;
    entry.domainPathPair.Reset();
    entry.deviceFilename.Reset();
    if (fileID) {
        entry.fileID = CF::String::Retain(fileID);
    } else {
        std::string pair = pairText(domain, relativePath);
        std::vector<uint8_t> digest = Support::Sha1({reinterpret_cast<const uint8_t*>(pair.data()), pair.size()});
        entry.fileID = CF::String(Support::hex_encode(digest));
    }
}

CFStringRef QVManifestEntryCopyFileIDForPath(CFStringRef domain, CFStringRef relativePath) {
    std::string pair = CF::UTF8(domain) + "-" + CF::UTF8(relativePath);
    std::vector<uint8_t> digest = Support::Sha1({reinterpret_cast<const uint8_t*>(pair.data()), pair.size()});
    return CF::String(Support::hex_encode(digest)).Detach();
}

Entry QVManifestEntryCreateForFile(const std::shared_ptr<QVFileClass>& file, CFStringRef domain,
                                   CFStringRef relativePath, CFDataRef encryptionKey, CFErrorRef* error) {
    QV_ASSERT(file);
    return Boundary(error, [&]() -> Entry {
        Entry entry = newEntry(domain, relativePath);
        if (encryptionKey) entry->encryptionKey = CF::Data::Retain(encryptionKey);
        entry->mode = kFileMode;
        entry->fileType = 1;
        entry->protectionClass = EntryProtectionClassNone;
        std::vector<uint8_t> hash = QVFileGetHash(file);
        auto reference = FileManager::CopyCachedFileReference(
            std::filesystem::path(CF::String::Retain(QVFileGetLocalPath(file)).utf8()), hash, nullptr);
        if (!reference)
            throw Error(QVErrorCachedFileAccess, CF::Error(),
                        fmt::format("No valid cache reference available for created file ({})",
                                    Support::hex_encode(hash)));
        entry->file = reference;
        entry->size = QVFileGetSize(reference);
        entry->digest = CF::Data(hash);
        return entry;
    });
}

Entry QVManifestEntryCreateForDirectory(CFStringRef domain, CFStringRef relativePath) {
    Entry entry = newEntry(domain, relativePath);
    entry->mode = kDirectoryMode;
    entry->fileType = 2;
    entry->protectionClass = EntryProtectionClassNotSet;
    return entry;
}

Entry QVManifestEntryCreateForSymlink(CFStringRef domain, CFStringRef relativePath, CFStringRef target) {
    Entry entry = newEntry(domain, relativePath);
    entry->mode = kSymlinkMode;
    entry->fileType = 4;
    entry->protectionClass = EntryProtectionClassNotSet;
    entry->target = target ? CF::String::Retain(target) : CF::EmptyString();
    return entry;
}

Entry QVManifestEntryCreateCopy(const Entry& source, QVGetFileFunction getFileFunc) {
    QV_ASSERT(source);
    auto entry = std::make_shared<QVManifestEntryClass>();
    // Strings, data and dictionaries are immutable and shared; dates are copied as new objects.
    entry->domain = source->domain;
    entry->relativePath = source->relativePath;
    entry->pathCopy = source->pathCopy;
    entry->target = source->target;
    entry->digest = source->digest;
    entry->encryptionKey = source->encryptionKey;
    entry->fileType = source->fileType;
    entry->mode = source->mode;
    entry->userID = source->userID;
    entry->groupID = source->groupID;
    entry->birth = copyDate(source->birth);
    entry->lastModified = copyDate(source->lastModified);
    entry->lastStatusChange = copyDate(source->lastStatusChange);
    entry->size = source->size;
    entry->inode = source->inode;
    entry->protectionClass = source->protectionClass;
    entry->properties = source->properties;
    entry->archiveFlags = source->archiveFlags;
    entry->archiveExtras = source->archiveExtras;
    entry->domainPathPair = source->domainPathPair;
    entry->deviceFilename = source->deviceFilename;
    entry->fileID = source->fileID;
    entry->stringList = source->stringList;
    entry->external = source->external;
    if (source->file) entry->file = QVFileCreateCopy(source->file);
    entry->getFileFunc = std::move(getFileFunc);
    return entry;
}

#define QV_ENTRY_GETTER(type, name, expression) \
    type name(const Entry& entry) {             \
        QV_ASSERT(entry);                       \
        return expression;                      \
    }

QV_ENTRY_GETTER(CFStringRef, QVManifestEntryGetDomain, entry->domain.get())
QV_ENTRY_GETTER(CFStringRef, QVManifestEntryGetPath, entry->relativePath.get())
QV_ENTRY_GETTER(CFStringRef, QVManifestEntryGetTarget, entry->target.get())
CFStringRef QVManifestEntryGetDomainPathPair(const Entry& entry) {
    QV_ASSERT(entry);
    if (!entry->domainPathPair) entry->domainPathPair = CF::String(pairText(entry->domain.get(), entry->relativePath.get()));
    return entry->domainPathPair.get();
}

CFStringRef QVManifestEntryGetDeviceFilename(const Entry& entry) {
    QV_ASSERT(entry);
    if (!entry->deviceFilename) {
        std::string path = CF::UTF8(entry->relativePath.get());
        size_t slash = path.rfind('/');
        entry->deviceFilename = slash == std::string::npos ? (entry->relativePath ? entry->relativePath : CF::EmptyString())
                                                           : CF::String(std::string_view(path).substr(slash + 1));
    }
    return entry->deviceFilename.get();
}
QV_ENTRY_GETTER(CFStringRef, QVManifestEntryGetFileID, entry->fileID.get())
QV_ENTRY_GETTER(CFDataRef, QVManifestEntryGetDataHash, entry->digest.get())
QV_ENTRY_GETTER(CFDataRef, QVManifestEntryGetEncryptionData, entry->encryptionKey.get())
QV_ENTRY_GETTER(CFDictionaryRef, QVManifestEntryGetProperties, entry->properties.get())
QV_ENTRY_GETTER(uint16_t, QVManifestEntryGetFileMode, entry->mode)
QV_ENTRY_GETTER(uint64_t, QVManifestEntryGetFileSize, entry->size)
QV_ENTRY_GETTER(uint8_t, QVManifestEntryGetFileType, entry->fileType)
QV_ENTRY_GETTER(EntryProtectionClass, QVManifestEntryGetProtectionClass, entry->protectionClass)
QV_ENTRY_GETTER(bool, QVManifestEntryIsFile, (entry->mode & 0xE000) == 0x8000)
QV_ENTRY_GETTER(bool, QVManifestEntryIsDirectory, (entry->mode & 0xE000) == 0x4000)
QV_ENTRY_GETTER(bool, QVManifestEntryIsSymlink, (entry->mode & 0xE000) == 0xA000)

#undef QV_ENTRY_GETTER

void QVManifestEntryCopyFilesystemAttributes(const Entry& entry, uint16_t* mode, uint32_t* uid, uint32_t* gid,
                                             CFDateRef* birth, CFDateRef* lastModified, CFDateRef* lastStatusChange) {
    QV_ASSERT(entry);
    if (mode) *mode = entry->mode;
    if (uid) *uid = entry->userID;
    if (gid) *gid = entry->groupID;
    if (birth) *birth = copyDate(entry->birth).Detach();
    if (lastModified) *lastModified = copyDate(entry->lastModified).Detach();
    if (lastStatusChange) *lastStatusChange = copyDate(entry->lastStatusChange).Detach();
}

std::shared_ptr<QVFileClass> QVManifestEntryGetFile(const Entry& entry, CFErrorRef* error) {
    QV_ASSERT(entry);
    if (!QVManifestEntryIsFile(entry)) return nullptr;
    if (entry->file) return entry->file;
    if (!entry->getFileFunc) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error(),
                                "Tried to get a File ref for entry, but getFileFunc is not set!"));
        return nullptr;
    }
    auto file = entry->getFileFunc(entry->fileID.get(), error);
    if (file) {
        entry->file = file;
        entry->getFileFunc = nullptr;
        _QVFileSetModifiedDate(file, entry->lastModified.get());
    }
    return file;
}

void _QVManifestEntryCloneAttributes(const Entry& destination, const Entry& source) {
    QV_ASSERT(destination);
    QV_ASSERT(source);
    destination->mode = source->mode;
    destination->userID = source->userID;
    destination->groupID = source->groupID;
    destination->birth = copyDate(source->birth);
    destination->lastModified = copyDate(source->lastModified);
    destination->lastStatusChange = copyDate(source->lastStatusChange);
    destination->fileType = source->fileType;
    destination->inode = source->inode;
    destination->protectionClass = source->protectionClass;
}

bool QVManifestEntryGenerateFileKey(const Entry& entry, const MB::ManifestEncryption& encryption, CFErrorRef* error) {
    QV_ASSERT(entry);
    if (!QVManifestEntryIsFile(entry) || !entry->file) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error(),
                                "Impossible to generate a file key for an entry that doesn't represent a file"));
        return false;
    }
    // Any class whose key the key bag holds will do: a file replaced in place keeps the class of the
    // one it replaces (most files of a device are class 3).
    if (CFDataGetLength(entry->encryptionKey.get()) != 0) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error(),
                                fmt::format("Impossible to generate a file key for an entry that already has one "
                                            "(protection class {})",
                                            to_string(entry->protectionClass))));
        return false;
    }
    std::vector<uint8_t> keyData = Support::RandomBytes(32);
    std::array<uint8_t, 32> key{};
    QV_ASSERT(keyData.size() == key.size());
    std::copy(keyData.begin(), keyData.end(), key.begin());
    try {
        auto copy = QVFileCreateCopy(entry->file);
        if (!copy) throw Error(QVErrorInvalidArgument, CF::Error(), "File is still being written");
        _QVFileSetEncryptionKey(copy, key);
        CF::Data wrapped = encryption.LockKey(ProtectionClassCode(entry->protectionClass), key);
        // The entry keeps its plain file: readers get the plaintext, and an export enciphers a copy
        // with the unlocked key.
        entry->encryptionKey = wrapped;
        entry->unlockedKey = key;
        // Devices record the digest of the bytes they store, here the ciphertext, so that a damaged
        // stored file is caught as it is in a plain backup.
        Support::Hasher stored(Support::HashAlgorithm::SHA1);
        QVFileGetData(copy, 0, [&](const std::vector<uint8_t>& chunk) {
            stored.Update(chunk.data(), chunk.size());
            return true;
        });
        entry->digest = CF::Data(stored.Finalize());
        entry->size = QVFileGetSize(entry->file);
        return true;
    } catch (const CF::Error& e) {
        StoreError(error, Error(QVErrorCryptoOperation, e, "Failed to generate a file key for entry"));
        return false;
    }
}

std::optional<std::array<uint8_t, 32>> QVManifestEntryUnlockFileKey(const Entry& entry,
                                                                    const MB::ManifestEncryption& encryption,
                                                                    CFErrorRef* error) {
    QV_ASSERT(entry);
    if (entry->unlockedKey) return entry->unlockedKey;
    if (!entry->encryptionKey || CFDataGetLength(entry->encryptionKey.get()) == 0) return std::nullopt;
    try {
        entry->unlockedKey = encryption.UnlockKey(entry->encryptionKey);
        return entry->unlockedKey;
    } catch (const CF::Error& e) {
        StoreError(error, Error(QVErrorUnlockFailed, e, "Failed to unlock file key for entry"));
        return std::nullopt;
    }
}

std::string to_string(const Entry& entry) {
    QV_ASSERT(entry);
    CF::String properties = CF::String::Format("%@", entry->properties.get());
    return fmt::format("<QVManifestEntryClass {}> {} size:{} mode:{:o} uid:{} gid:{} type:{:#x} inode:{} protection:{} "
                       "external: {}({}) {} ",
                       static_cast<const void*>(entry.get()), CF::UTF8(QVManifestEntryGetDomainPathPair(entry)), entry->size, entry->mode,
                       entry->userID, entry->groupID, entry->fileType, entry->inode,
                       to_string(entry->protectionClass), entry->external, entry->fileID, properties);
}

}  // namespace Quiver
