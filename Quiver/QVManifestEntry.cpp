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
    entry->SetDomain(CF::String::Retain(domain));
    const std::string path = CF::UTF8(relativePath);
    entry->SetTexts({{QVManifestEntryClass::kPath, path}});
    entry->fileIDBytes = FileIDBytesForPath(entry->domainText, path);
    entry->fileIDIsHex = true;
    entry->properties = CF::EmptyDictionary();
    entry->userID = kMobileUser;
    entry->groupID = kMobileUser;
    const double now = CFAbsoluteTimeGetCurrent();
    entry->birth = entry->lastModified = entry->lastStatusChange = now;
    return entry;
}

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

}  // namespace Quiver

struct QVManifestEntryClass::Objects {
    CF::String path, target, fileID, pair, filename;
    CF::Data digest, key;
    std::optional<std::array<uint8_t, 32>> unlockedKey;
};

using Quiver::log_fmt;
using Quiver::log_level;

QVManifestEntryClass::QVManifestEntryClass() = default;
QVManifestEntryClass::~QVManifestEntryClass() = default;

std::string_view QVManifestEntryClass::text(Text which) const {
    if (!text_ || lengths_[which] == 0) return {};
    size_t offset = 0;
    for (int i = 0; i < which; ++i) offset += lengths_[i];
    return {text_ + offset, lengths_[which]};
}

std::string QVManifestEntryClass::fileID() const {
    if (fileIDIsHex) return Quiver::Support::hex_encode(std::span<const uint8_t>(fileIDBytes));
    return std::string(text(kFileIDText));
}

void QVManifestEntryClass::SetTexts(std::initializer_list<std::pair<Text, std::string_view>> values) {
    std::array<std::string_view, kTextCount> texts;
    for (int i = 0; i < kTextCount; ++i) texts[i] = text(static_cast<Text>(i));
    for (const auto& [which, value] : values) {
        texts[which] = value;
        if (!objects_) continue;
        switch (which) {
            case kPath: objects_->path.Reset(), objects_->pair.Reset(), objects_->filename.Reset(); break;
            case kTarget: objects_->target.Reset(); break;
            case kDigest: objects_->digest.Reset(); break;
            case kEncryptionKey: objects_->key.Reset(), objects_->unlockedKey.reset(); break;
            case kFileIDText: objects_->fileID.Reset(); break;
            case kTextCount: break;
        }
    }
    auto buffer = std::make_shared<std::string>();
    std::array<uint32_t, kTextCount> lengths{};
    for (int i = 0; i < kTextCount; ++i) {
        if (texts[i].size() > UINT32_MAX) throw std::length_error("entry text too long");
        lengths[i] = static_cast<uint32_t>(texts[i].size());
        buffer->append(texts[i]);  // the old views stay valid until the new buffer is complete
    }
    const char* base = buffer->data();
    AdoptTexts(base, lengths, std::move(buffer));
}

void QVManifestEntryClass::AdoptTexts(const char* base, const std::array<uint32_t, kTextCount>& lengths,
                                      std::shared_ptr<const void> keep) {
    text_ = base;
    lengths_ = lengths;
    keep_ = std::move(keep);
}

void QVManifestEntryClass::ShareTexts(const std::shared_ptr<const QVManifestEntryClass>& source) {
    // Whoever keeps the source's texts keeps the copy's; an entry of a manifest's pool is kept by the
    // handle itself, which holds the pool.
    AdoptTexts(source->text_, source->lengths_, source->keep_ ? source->keep_ : source);
}

void QVManifestEntryClass::SetDomain(CF::String value) {
    domain = std::move(value);
    domainText = CF::UTF8View(domain.get());
    if (objects_) objects_->pair.Reset();
}

void QVManifestEntryClass::SetFileID(std::string_view id) {
    if (Quiver::FileIDBytesFromText(id, fileIDBytes)) {
        fileIDIsHex = true;
        if (text_ && lengths_[kFileIDText] != 0) SetTexts({{kFileIDText, {}}});
    } else {
        fileIDIsHex = false;
        SetTexts({{kFileIDText, id}});
    }
    if (objects_) objects_->fileID.Reset();
}

QVManifestEntryClass::Objects& QVManifestEntryClass::objects() const {
    if (!objects_) objects_ = std::make_unique<Objects>();
    return *objects_;
}

std::optional<std::array<uint8_t, 32>>& QVManifestEntryClass::unlockedKey() const { return objects().unlockedKey; }

namespace Quiver {

std::array<uint8_t, 20> FileIDBytesForPath(std::string_view domain, std::string_view relativePath) {
    Support::Hasher hasher(Support::HashAlgorithm::SHA1);
    hasher.Update(reinterpret_cast<const uint8_t*>(domain.data()), domain.size());
    hasher.Update(reinterpret_cast<const uint8_t*>("-"), 1);
    hasher.Update(reinterpret_cast<const uint8_t*>(relativePath.data()), relativePath.size());
    const std::vector<uint8_t> digest = hasher.Finalize();
    std::array<uint8_t, 20> bytes{};
    std::copy_n(digest.begin(), bytes.size(), bytes.begin());
    return bytes;
}

// A file ID kept as raw bytes when it is the usual 40 lower-case hexadecimal digits; else as text.
bool FileIDBytesFromText(std::string_view text, std::array<uint8_t, 20>& bytes) {
    // Every row of a manifest passes through here when it loads: one table look-up per digit.
    static constexpr auto kDigit = [] {
        std::array<uint8_t, 256> table{};
        table.fill(0xFF);
        for (int c = '0'; c <= '9'; ++c) table[c] = static_cast<uint8_t>(c - '0');
        for (int c = 'a'; c <= 'f'; ++c) table[c] = static_cast<uint8_t>(c - 'a' + 10);
        return table;
    }();
    if (text.size() != 40) return false;
    uint8_t bad = 0;
    for (size_t i = 0; i < 20; ++i) {
        const uint8_t high = kDigit[static_cast<uint8_t>(text[2 * i])], low = kDigit[static_cast<uint8_t>(text[2 * i + 1])];
        bad |= static_cast<uint8_t>(high | low);
        bytes[i] = static_cast<uint8_t>(high << 4 | (low & 0x0F));
    }
    return (bad & 0xF0) == 0;
}

CFStringRef QVManifestEntryCopyFileIDForPath(CFStringRef domain, CFStringRef relativePath) {
    const auto bytes = FileIDBytesForPath(CF::UTF8(domain), CF::UTF8(relativePath));
    return CF::String(Support::hex_encode(std::span<const uint8_t>(bytes))).Detach();
}

Entry QVManifestEntryCreateForFile(const std::shared_ptr<QVFileClass>& file, CFStringRef domain,
                                   CFStringRef relativePath, CFDataRef encryptionKey, CFErrorRef* error) {
    QV_ASSERT(file);
    return Boundary(error, [&]() -> Entry {
        Entry entry = newEntry(domain, relativePath);
        if (encryptionKey)
            entry->SetTexts({{QVManifestEntryClass::kEncryptionKey,
                              {reinterpret_cast<const char*>(CFDataGetBytePtr(encryptionKey)),
                               static_cast<size_t>(CFDataGetLength(encryptionKey))}}});
        entry->mode = kFileMode;
        entry->fileType = 1;
        entry->protectionClass = EntryProtectionClassNone;
        std::vector<uint8_t> hash = QVFileGetHash(file);
        // A cache file without a name is reached through the object that keeps it open, never by path.
        auto reference = file->anonymous ? QVFileCreateCopy(file)
                                         : FileManager::CopyCachedFileReference(
                                               std::filesystem::path(CF::String::Retain(QVFileGetLocalPath(file)).utf8()),
                                               hash, nullptr);
        if (!reference)
            throw Error(QVErrorCachedFileAccess, CF::Error(),
                        fmt::format("No valid cache reference available for created file ({})",
                                    Support::hex_encode(hash)));
        entry->file = reference;
        entry->size = QVFileGetSize(reference);
        entry->SetTexts({{QVManifestEntryClass::kDigest, {reinterpret_cast<const char*>(hash.data()), hash.size()}}});
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
    if (target) entry->SetTexts({{QVManifestEntryClass::kTarget, CF::UTF8(target)}});
    return entry;
}

Entry CopyEntrySharingGetter(const Entry& source, std::shared_ptr<const QVGetFileFunction> getFileFunc) {
    QV_ASSERT(source);
    auto entry = std::make_shared<QVManifestEntryClass>();
    entry->domain = source->domain;
    entry->domainText = source->domainText;
    entry->fileType = source->fileType;
    entry->external = source->external;
    entry->fileIDIsHex = source->fileIDIsHex;
    entry->mode = source->mode;
    entry->protectionClass = source->protectionClass;
    entry->userID = source->userID;
    entry->groupID = source->groupID;
    entry->fileIDBytes = source->fileIDBytes;
    entry->birth = source->birth;
    entry->lastModified = source->lastModified;
    entry->lastStatusChange = source->lastStatusChange;
    entry->size = source->size;
    entry->inode = source->inode;
    entry->archiveFlags = source->archiveFlags;
    entry->properties = source->properties;
    entry->archiveExtras = source->archiveExtras;
    entry->ShareTexts(source);
    if (source->file) entry->file = QVFileCreateCopy(source->file);
    entry->getFileFunc = std::move(getFileFunc);
    return entry;
}

Entry QVManifestEntryCreateCopy(const Entry& source, QVGetFileFunction getFileFunc) {
    return CopyEntrySharingGetter(
        source, getFileFunc ? std::make_shared<const QVGetFileFunction>(std::move(getFileFunc)) : nullptr);
}

#define QV_ENTRY_GETTER(type, name, expression) \
    type name(const Entry& entry) {             \
        QV_ASSERT(entry);                       \
        return expression;                      \
    }

namespace {

// A CF object for a text, made on first request and kept: the interface lends these out.
CFStringRef lentString(CF::String& slot, std::string_view text) {
    if (!slot) slot = text.empty() ? CF::EmptyString() : CF::String(text);
    return slot.get();
}

CFDataRef lentData(CF::Data& slot, std::span<const uint8_t> bytes) {
    if (!slot) slot = bytes.empty() ? CF::EmptyData() : CF::Data(bytes);
    return slot.get();
}

}  // namespace

QV_ENTRY_GETTER(CFStringRef, QVManifestEntryGetDomain, entry->domain.get())
QV_ENTRY_GETTER(CFStringRef, QVManifestEntryGetPath, lentString(entry->objects().path, entry->path()))
QV_ENTRY_GETTER(CFStringRef, QVManifestEntryGetTarget, lentString(entry->objects().target, entry->target()))

CFStringRef QVManifestEntryGetDomainPathPair(const Entry& entry) {
    QV_ASSERT(entry);
    auto& objects = entry->objects();
    if (!objects.pair) {
        std::string pair(entry->domainText);
        pair.append("-").append(entry->path());
        objects.pair = CF::String(pair);
    }
    return objects.pair.get();
}

CFStringRef QVManifestEntryGetDeviceFilename(const Entry& entry) {
    QV_ASSERT(entry);
    const std::string_view path = entry->path();
    const size_t slash = path.rfind('/');
    return lentString(entry->objects().filename, slash == std::string_view::npos ? path : path.substr(slash + 1));
}

CFStringRef QVManifestEntryGetFileID(const Entry& entry) {
    QV_ASSERT(entry);
    auto& objects = entry->objects();
    if (!objects.fileID) objects.fileID = CF::String(entry->fileID());
    return objects.fileID.get();
}

QV_ENTRY_GETTER(CFDataRef, QVManifestEntryGetDataHash, lentData(entry->objects().digest, entry->digest()))
QV_ENTRY_GETTER(CFDataRef, QVManifestEntryGetEncryptionData, lentData(entry->objects().key, entry->encryptionKey()))
QV_ENTRY_GETTER(CFDictionaryRef, QVManifestEntryGetProperties,
                entry->properties ? entry->properties.get() : CF::EmptyDictionary().get())
QV_ENTRY_GETTER(uint16_t, QVManifestEntryGetFileMode, entry->mode)
QV_ENTRY_GETTER(uint64_t, QVManifestEntryGetFileSize, entry->size)
QV_ENTRY_GETTER(uint8_t, QVManifestEntryGetFileType, entry->fileType)
QV_ENTRY_GETTER(EntryProtectionClass, QVManifestEntryGetProtectionClass, entry->protectionClass)
QV_ENTRY_GETTER(uint64_t, QVManifestEntryGetInode, entry->inode)
QV_ENTRY_GETTER(bool, QVManifestEntryIsFile, (entry->mode & 0xE000) == 0x8000)
QV_ENTRY_GETTER(bool, QVManifestEntryIsDirectory, (entry->mode & 0xE000) == 0x4000)
QV_ENTRY_GETTER(bool, QVManifestEntryIsSymlink, (entry->mode & 0xE000) == 0xA000)
QV_ENTRY_GETTER(std::string_view, QVManifestEntryGetDomainUTF8, entry->domainText)
QV_ENTRY_GETTER(std::string_view, QVManifestEntryGetPathUTF8, entry->path())
QV_ENTRY_GETTER(std::string_view, QVManifestEntryGetTargetUTF8, entry->target())
QV_ENTRY_GETTER(std::string, QVManifestEntryCopyFileIDUTF8, entry->fileID())
QV_ENTRY_GETTER(std::span<const uint8_t>, QVManifestEntryGetDataHashBytes, entry->digest())
QV_ENTRY_GETTER(std::span<const uint8_t>, QVManifestEntryGetEncryptionDataBytes, entry->encryptionKey())

#undef QV_ENTRY_GETTER

void QVManifestEntryGetTimes(const Entry& entry, double* birth, double* lastModified, double* lastStatusChange) {
    QV_ASSERT(entry);
    if (birth) *birth = entry->birth;
    if (lastModified) *lastModified = entry->lastModified;
    if (lastStatusChange) *lastStatusChange = entry->lastStatusChange;
}

void QVManifestEntryCopyFilesystemAttributes(const Entry& entry, uint16_t* mode, uint32_t* uid, uint32_t* gid,
                                             CFDateRef* birth, CFDateRef* lastModified, CFDateRef* lastStatusChange) {
    QV_ASSERT(entry);
    if (mode) *mode = entry->mode;
    if (uid) *uid = entry->userID;
    if (gid) *gid = entry->groupID;
    if (birth) *birth = CF::Date(entry->birth).Detach();
    if (lastModified) *lastModified = CF::Date(entry->lastModified).Detach();
    if (lastStatusChange) *lastStatusChange = CF::Date(entry->lastStatusChange).Detach();
}

std::shared_ptr<QVFileClass> QVManifestEntryGetFile(const Entry& entry, CFErrorRef* error) {
    QV_ASSERT(entry);
    if (!QVManifestEntryIsFile(entry)) return nullptr;
    if (entry->file) return entry->file;
    if (!entry->getFileFunc || !*entry->getFileFunc) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error(),
                                "Tried to get a File ref for entry, but getFileFunc is not set!"));
        return nullptr;
    }
    auto file = (*entry->getFileFunc)(CF::String(entry->fileID()).get(), error);
    if (file) {
        entry->file = file;
        entry->fileFetched = true;
        _QVFileSetModifiedDate(file, CF::Date(entry->lastModified).get());
    }
    return file;
}

void QVManifestEntryForgetFetchedFile(const Entry& entry) {
    QV_ASSERT(entry);
    if (!entry->fileFetched || !entry->getFileFunc || !*entry->getFileFunc) return;
    entry->file.reset();
    entry->fileFetched = false;
}

void _QVManifestEntryCloneAttributes(const Entry& destination, const Entry& source) {
    QV_ASSERT(destination);
    QV_ASSERT(source);
    destination->mode = source->mode;
    destination->userID = source->userID;
    destination->groupID = source->groupID;
    destination->birth = source->birth;
    destination->lastModified = source->lastModified;
    destination->lastStatusChange = source->lastStatusChange;
    destination->fileType = source->fileType;
    destination->inode = source->inode;
    destination->protectionClass = source->protectionClass;
}

const std::array<uint8_t, 32>& AssignFileKey(const Entry& entry, const MB::ManifestEncryption& encryption) {
    std::vector<uint8_t> keyData = Support::RandomBytes(32);
    std::array<uint8_t, 32> key{};
    QV_ASSERT(keyData.size() == key.size());
    std::copy(keyData.begin(), keyData.end(), key.begin());
    CF::Data wrapped = encryption.LockKey(ProtectionClassCode(entry->protectionClass), key);
    entry->SetTexts({{QVManifestEntryClass::kEncryptionKey,
                      {reinterpret_cast<const char*>(wrapped.bytes().data()), wrapped.bytes().size()}}});
    entry->unlockedKey() = key;
    return *entry->unlockedKey();
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
    if (!entry->encryptionKey().empty()) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error(),
                                fmt::format("Impossible to generate a file key for an entry that already has one "
                                            "(protection class {})",
                                            to_string(entry->protectionClass))));
        return false;
    }
    try {
        auto copy = QVFileCreateCopy(entry->file);
        if (!copy) throw Error(QVErrorInvalidArgument, CF::Error(), "File is still being written");
        // The entry keeps its plain file: readers get the plaintext, and an export enciphers a copy
        // with the unlocked key.
        _QVFileSetEncryptionKey(copy, AssignFileKey(entry, encryption));
        // Devices record the digest of the bytes they store, here the ciphertext, so that a damaged
        // stored file is caught as it is in a plain backup.
        Support::Hasher stored(Support::HashAlgorithm::SHA1);
        QVFileGetData(copy, 0, [&](const std::vector<uint8_t>& chunk) {
            stored.Update(chunk.data(), chunk.size());
            return true;
        });
        const std::vector<uint8_t> digest = stored.Finalize();
        entry->SetTexts({{QVManifestEntryClass::kDigest, {reinterpret_cast<const char*>(digest.data()), digest.size()}}});
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
    if (entry->encryptionKey().empty()) return std::nullopt;
    auto& unlocked = entry->unlockedKey();
    if (unlocked) return unlocked;
    try {
        unlocked = encryption.UnlockKey(CF::Data(entry->encryptionKey()));
        return unlocked;
    } catch (const CF::Error& e) {
        StoreError(error, Error(QVErrorUnlockFailed, e, "Failed to unlock file key for entry"));
        return std::nullopt;
    }
}

bool DomainPathPairLess(const Entry& a, const Entry& b) {
    return DomainPathTextLess(a->domainText, a->path(), b->domainText, b->path());
}

bool DomainPathTextLess(std::string_view ad, std::string_view ap, std::string_view bd, std::string_view bp) {
    if (ad == bd) return ap < bp;  // the pairs share "domain-"
    auto at = [](std::string_view domain, std::string_view path, size_t i) -> int {
        if (i < domain.size()) return static_cast<unsigned char>(domain[i]);
        if (i == domain.size()) return '-';
        i -= domain.size() + 1;
        return i < path.size() ? static_cast<unsigned char>(path[i]) : -1;
    };
    const size_t an = ad.size() + 1 + ap.size(), bn = bd.size() + 1 + bp.size();
    for (size_t i = 0; i < an && i < bn; ++i) {
        const int ca = at(ad, ap, i), cb = at(bd, bp, i);
        if (ca != cb) return ca < cb;
    }
    return an < bn;
}

std::string to_string(const Entry& entry) {
    QV_ASSERT(entry);
    CF::String properties = CF::String::Format("%@", QVManifestEntryGetProperties(entry));
    return fmt::format("<QVManifestEntryClass {}> {} size:{} mode:{:o} uid:{} gid:{} type:{:#x} inode:{} protection:{} "
                       "external: {}({}) {} ",
                       static_cast<const void*>(entry.get()), CF::UTF8(QVManifestEntryGetDomainPathPair(entry)), entry->size, entry->mode,
                       entry->userID, entry->groupID, entry->fileType, entry->inode,
                       to_string(entry->protectionClass), entry->external, entry->fileID(), properties);
}

}  // namespace Quiver
