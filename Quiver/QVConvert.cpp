// Conversions: a new password in place, and a backup written again encrypted, plain, or with a
// Manifest.db manifest.
//
// The conversions that write a new backup take a copy of the container, change its metadata, its
// encryption and its entries, and hand it to the export, which writes it whole or not at all. The
// export reads each stored file once: it checks it as a read of the source entry would, writes what
// the conversion makes of it, and hands back the length and digest of what it wrote, which the
// conversion records before the manifest is written. A file that cannot be read is found before the
// manifest is written, and nothing is left at the destination unless the caller leaves such files out.
#include "Quiver/QVConvert.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVVerify.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/Support/File.hpp"

namespace fs = std::filesystem;

namespace Quiver {

namespace {

// ---- A new password ----

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    // Closes now and reports whether the close succeeded; a deferred write error shows only here.
    bool close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

private:
    int fd_;
};

CF::Error errnoFailure(int err, const std::string& what) {
    return MakeErrnoError(err, fmt::format("{} ({})", what, std::strerror(err)));
}

// Replaces the file at path with bytes so that a crash at any moment leaves either the old file or
// the new one whole: written beside it under another name, flushed, renamed over it, and the folder
// flushed so that the rename itself survives.
void replaceFileDurably(const fs::path& path, std::span<const uint8_t> bytes) {
    struct stat old{};
    const mode_t mode = ::stat(path.c_str(), &old) == 0 ? (old.st_mode & 07777) : 0644;
    const fs::path temporary = path.parent_path() / fmt::format(".{}.{}.partial", path.filename().string(), ::getpid());
    Descriptor out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (out.get() < 0) throw errnoFailure(errno, fmt::format("Failed to create {}", temporary.string()));
    struct Unlink {
        const fs::path& path;
        bool keep = false;
        ~Unlink() {
            if (!keep) ::unlink(path.c_str());
        }
    } unlinkUnlessDone{temporary};
    ::fchmod(out.get(), mode);  // the umask must not narrow what the old file allowed
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(out.get(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw errnoFailure(n < 0 ? errno : EIO, fmt::format("Failed to write {}", temporary.string()));
        done += static_cast<size_t>(n);
    }
    if (::fsync(out.get()) != 0) throw errnoFailure(errno, fmt::format("Failed to write {}", temporary.string()));
    if (!out.close()) throw errnoFailure(errno, fmt::format("Failed to write {}", temporary.string()));
    if (::rename(temporary.c_str(), path.c_str()) != 0)
        throw errnoFailure(errno, fmt::format("Failed to replace {}", path.string()));
    unlinkUnlessDone.keep = true;
    const fs::path folder = path.parent_path().empty() ? fs::path(".") : path.parent_path();
    Descriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0 && ::fsync(directory.get()) != 0)
        throw errnoFailure(errno, fmt::format("Failed to flush the folder {}", folder.string()));
}

uint32_t bigEndian32(const std::vector<uint8_t>& value) {
    if (value.size() != 4) return 0;
    return (uint32_t{value[0]} << 24) | (uint32_t{value[1]} << 16) | (uint32_t{value[2]} << 8) | uint32_t{value[3]};
}

// The classes that the key bag marks as wrapped with the device's key as well as the password, so
// that the new key bag says the same of them.
std::vector<uint32_t> deviceMarkedClasses(const MB::KeyBag& keyBag) {
    std::vector<uint32_t> marked;
    uint32_t current = 0;  // no class yet: classes start at 1
    for (const auto& [tag, value] : keyBag.GetRaw()) {
        if (tag == "UUID") current = 0;
        if (tag == "CLAS") current = bigEndian32(value);
        if (tag == "WRAP" && current != 0 && bigEndian32(value) == 3) marked.push_back(current);
    }
    return marked;
}

// Classes that only the device opens could not be wrapped under a password again.
void refuseDeviceOnlyClasses(const MB::KeyBag& keyBag) {
    if (!keyBag.GetLockedClasses().empty())
        throw Error(QVErrorEncryptionNotSupported, CF::Error(),
                    fmt::format("The key bag holds {} classes that only the device opens; they cannot be "
                                "wrapped under a new password",
                                keyBag.GetLockedClasses().size()),
                    ErrorContext::File("Manifest.plist"));
}

// The class keys of `old`, wrapped again under the key derived from `password`, with `old`'s version,
// type and device marks: in two derivation passes (`parameters.iterations`, then
// `parameters.sha1Iterations`) or, without firstPass, in the one pass of devices before iOS 10.2.
MB::KeyBag wrapAgain(const MB::KeyBag& old, const std::string& password, const QVPasswordParameters& parameters,
                     bool firstPass) {
    refuseDeviceOnlyClasses(old);
    MB::KeyBag::Parameters shape;
    shape.version = old.GetVersion();
    shape.type = static_cast<uint32_t>(old.GetType());
    shape.iterations = parameters.sha1Iterations;
    shape.dpIterations = parameters.iterations;
    shape.dpwt = old.GetManifestInfo().firstPass && old.GetManifestInfo().dpwt != 0 ? old.GetManifestInfo().dpwt : 1;
    shape.firstPass = firstPass;
    shape.deviceMarkedClasses = deviceMarkedClasses(old);
    MB::KeyBag fresh = MB::KeyBag::Create(password, old.GetUnlockedKeys(), shape);
    if (fresh.GetUnlockedKeys() != old.GetUnlockedKeys())
        throw Error(QVErrorCryptoOperation, CF::Error(), "The new key bag does not hold the class keys of the old one");
    return fresh;
}

// ---- Writing a converted copy ----

// The error that stops a conversion before it writes anything because files could not be read.
CF::Error unreadableFiles(size_t failures) {
    return Error(QVErrorInvalidBackup, CF::Error(),
                 fmt::format("{} {} could not be read; nothing was written (leave {} out to write the rest)", failures,
                             failures == 1 ? "file" : "files", failures == 1 ? "it" : "them"));
}

// The stored file of a source entry, as the source holds it.
std::shared_ptr<QVFileClass> storedFileOf(const Entry& source) {
    CFErrorRef fileError = nullptr;
    std::shared_ptr<QVFileClass> stored = QVManifestEntryGetFile(source, &fileError);
    if (!stored) throw CF::Error::Adopt(fileError);
    if (fileError) CFRelease(fileError);
    return stored;
}

// Writes the copy, each file read once from the source as `carried` says (its functions set; the
// source and the pairs of entries are filled in here): checked as a read of the source entry checks
// it, reported when it cannot be read, and left out where the options say so; otherwise such a file
// makes the conversion write nothing.
void writeCarried(const Backup& backup, const Backup& copy, std::shared_ptr<CarriedFiles> carried,
                  CFStringRef destination, const QVConversionOptions& options,
                  const QVConversionProblemFunction& problems, const ExportProgress& progress) {
    const std::vector<Entry> entries = QVManifestGetEntries(backup->manifest);
    const std::vector<Entry> copies = QVManifestGetEntries(copy->manifest);
    QV_ASSERT(copies.size() == entries.size());
    carried->source = backup;
    carried->sources.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i)
        if (QVManifestEntryIsFile(entries[i])) carried->sources.emplace_back(copies[i].get(), entries[i]);
    std::sort(carried->sources.begin(), carried->sources.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    copy->carried = std::move(carried);

    size_t failures = 0;
    auto check = std::make_shared<QVExportCheck>();
    check->mode = QVVerifyMode::Digests;
    check->skipDamaged = options.skipDamaged;
    check->problem = [&](const QVProblem& p) {
        if (p.warning) return;
        ++failures;
        if (problems)
            problems({p.domain, p.path, p.fileID, to_string(p.kind),
                      fmt::format("the stored file {} ({} bytes) {}", p.storedName, p.storedLength, p.detail)});
    };
    copy->exportCheck = check;

    CFErrorRef error = nullptr;
    const bool written = options.zip ? QVBackupContainerExportToZip(copy, destination, progress, &error)
                                     : QVBackupContainerExportToDirectory(copy, destination, progress, &error);
    copy->carried.reset();
    copy->exportCheck.reset();
    if (!written) {
        CF::Error failure = CF::Error::Adopt(error);
        if (failures > 0 && !options.skipDamaged) throw unreadableFiles(failures);
        throw failure;
    }
}

// Moves the copy to the newest generation: Status "Version" 3.3 with Manifest.db in the two-digit
// layout, Manifest.plist "Version" as devices write it beside Manifest.db, and a type on every entry
// (Manifest.mbdb has none of its own, the mode says it; a Manifest.db row must carry one). Given a key
// bag, the copy is encrypted under it, with Manifest.db enciphered under a new "ManifestKey".
void moveToNewestGeneration(const Backup& copy, const std::optional<MB::KeyBag>& keyBag) {
    if (copy->manifestVersion == QVManifestDataVersion24) copy->manifestDict.Set("Version", CF::String("10.0"));
    copy->manifestVersion = QVManifestDataVersion33;
    copy->statusDict.Set("Version", CF::String("3.3"));
    for (const Entry& entry : QVManifestGetEntries(copy->manifest))
        if (entry->fileType == 0)
            entry->fileType = QVManifestEntryIsFile(entry) ? 1 : QVManifestEntryIsDirectory(entry) ? 2 : 4;
    if (!keyBag) return;
    MB::ManifestEncryption encryption = MB::ManifestEncryption::Create(*keyBag, 4);
    copy->manifestDict.Set("IsEncrypted", kCFBooleanTrue);
    copy->manifestDict.Set("BackupKeyBag", keyBag->CopyData());
    copy->manifestDict.Set("ManifestKey", encryption.LockKey(4, encryption.GetManifestKey()));
    copy->manifestEncryption = std::move(encryption);
}

std::string_view asText(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

bool QVBackupChangePassword(CFStringRef directory, CFStringRef oldPassword, CFStringRef newPassword,
                            const QVPasswordParameters& parameters, CFErrorRef* error) {
    QV_ASSERT(directory);
    return Boundary(error, [&]() -> bool {
        const fs::path root(CF::UTF8(directory));
        const std::string password = newPassword ? CF::UTF8(newPassword) : std::string();
        if (password.empty()) throw Error(QVErrorInvalidArgument, CF::Error(), "The new password is empty");
        std::error_code ec;
        if (!fs::is_directory(root, ec))
            throw Error(QVErrorInvalidArgument, CF::Error(),
                        fmt::format("{} is not a backup directory; a zip file cannot be changed in place, export it "
                                    "to a directory first",
                                    root.string()));
        const fs::path plistPath = root / "Manifest.plist";
        if (!fs::is_regular_file(plistPath, ec))
            throw Error(QVErrorInvalidBackup, CF::Error(), fmt::format("{} has no Manifest.plist", root.string()),
                        ErrorContext::File("Manifest.plist", "missing"));
        const std::vector<uint8_t> bytes = Support::readable_file(plistPath).read_whole_file(64u << 20);
        CF::Data data(bytes);
        CFPropertyListFormat format = kCFPropertyListBinaryFormat_v1_0;
        CFErrorRef parseError = nullptr;
        CFPropertyListRef parsed =
            CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(), kCFPropertyListImmutable, &format, &parseError);
        const CF::Error parseFailure = CF::Error::Adopt(parseError);
        if (!parsed || CFGetTypeID(parsed) != CFDictionaryGetTypeID()) {
            if (parsed) CFRelease(parsed);
            throw Error(QVErrorInvalidBackup, parseFailure, "Manifest.plist is not a property list",
                        ErrorContext::File("Manifest.plist", "not-a-property-list"));
        }
        CF::Dictionary manifest = CF::Dictionary::Adopt(static_cast<CFDictionaryRef>(parsed)).MutableCopy();
        const CFTypeRef encrypted = manifest.Get("IsEncrypted");
        if (encrypted != kCFBooleanTrue)
            throw Error(QVErrorNotEncrypted, CF::Error(), "The backup is not encrypted; it has no password to change",
                        ErrorContext::File("Manifest.plist"));
        const CF::Data keyBagData = manifest.Get<CF::Data>("BackupKeyBag");
        if (!keyBagData)
            throw Error(QVErrorInvalidMetadata, CF::Error(), "Manifest.plist holds no key bag",
                        ErrorContext::File("Manifest.plist"));
        const MB::KeyBag old(keyBagData, CF::UTF8(oldPassword ? oldPassword : CFSTR("")));
        refuseDeviceOnlyClasses(old);
        // A manifest key that no longer unwraps would be carried over unnoticed; it is damage to report now.
        const CF::Data manifestKey = manifest.Get<CF::Data>("ManifestKey");
        const MB::ManifestEncryption check(old, manifestKey);
        const MB::KeyBag fresh = wrapAgain(old, password, parameters, old.GetManifestInfo().firstPass);
        manifest.Set("BackupKeyBag", fresh.CopyData());

        CFErrorRef writeError = nullptr;
        CF::Data written = CF::Data::Adopt(CFPropertyListCreateData(kCFAllocatorDefault, manifest.get(), format, 0, &writeError));
        if (!written)
            throw Error(QVErrorWritingExternalRepresentation, CF::Error::Adopt(writeError),
                        "Manifest.plist could not be written", ErrorContext::File("Manifest.plist"));
        if (writeError) CFRelease(writeError);
        try {
            replaceFileDurably(plistPath, written.bytes());
        } catch (const CF::Error& e) {
            throw Error(QVErrorWritingExternalRepresentation, e,
                        fmt::format("Manifest.plist could not be replaced: {}", e.Reason()),
                        ErrorContext::File("Manifest.plist"));
        }
        log_fmt(log_level::info, "Changed the password of {}", root.string());
        return true;
    });
}

bool QVBackupContainerExportDecrypted(const Backup& backup, CFStringRef destination, const QVConversionOptions& options,
                                      const QVConversionProblemFunction& problems, const ExportProgress& progress,
                                      CFErrorRef* error) {
    QV_ASSERT(backup);
    QV_ASSERT(destination);
    return Boundary(error, [&]() -> bool {
        if (!backup->manifestEncryption)
            throw Error(QVErrorNotEncrypted, CF::Error(), "The backup is not encrypted; export it instead");
        Backup copy = QVBackupContainerCreateCopy(backup);
        copy->manifestEncryption.reset();
        copy->password = CF::String();
        auto carrying = std::make_shared<CarriedFiles>();
        carrying->file = [&](const Entry&, const Entry& source) {
            std::shared_ptr<QVFileClass> stored = storedFileOf(source);
            // A file put in since loading holds its plaintext already.
            if (source->external) return stored;
            CFErrorRef keyError = nullptr;
            auto key = QVManifestEntryUnlockFileKey(source, *backup->manifestEncryption, &keyError);
            if (!key) throw CF::Error::Adopt(keyError);
            std::shared_ptr<QVFileClass> plain = QVFileCreateCopy(stored);
            _QVFileSetDecryptionKey(plain, *key);
            return plain;
        };
        // A plain manifest records the digest of the plaintext, where its generation records one.
        carrying->wantsDigest = [](const Entry& target) { return !target->digest().empty(); };
        carrying->written = [](const Entry& target, const std::vector<uint8_t>& digest, uint64_t length) {
            target->SetTexts({{QVManifestEntryClass::kEncryptionKey, {}}, {QVManifestEntryClass::kDigest, asText(digest)}});
            target->size = length;
        };
        copy->manifestDict.Remove("BackupKeyBag");
        copy->manifestDict.Remove("ManifestKey");
        copy->manifestDict.Set("IsEncrypted", kCFBooleanFalse);
        writeCarried(backup, copy, std::move(carrying), destination, options, problems, progress);
        return true;
    });
}

bool QVBackupContainerExportEncrypted(const Backup& backup, CFStringRef destination, CFStringRef password,
                                      const QVPasswordParameters& parameters, const QVConversionOptions& options,
                                      const QVConversionProblemFunction& problems, const ExportProgress& progress,
                                      CFErrorRef* error) {
    QV_ASSERT(backup);
    QV_ASSERT(destination);
    return Boundary(error, [&]() -> bool {
        const std::string text = password ? CF::UTF8(password) : std::string();
        if (text.empty()) throw Error(QVErrorInvalidArgument, CF::Error(), "The new password is empty");
        if (backup->manifestEncryption || QVBackupContainerIsEncrypted(backup))
            throw Error(QVErrorInvalidArgument, CF::Error(),
                        "The backup is encrypted already; give it a new password instead");

        MB::KeyBag::Parameters shape;
        shape.iterations = parameters.sha1Iterations;
        shape.dpIterations = parameters.iterations;
        static constexpr uint32_t kClasses[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
        Backup copy = QVBackupContainerCreateCopy(backup);
        moveToNewestGeneration(copy, MB::KeyBag::Create(text, std::span<const uint32_t>(kClasses), shape));
        copy->password = CF::String(text);
        const MB::ManifestEncryption& encryption = *copy->manifestEncryption;

        // Each file is enciphered as it is written, under a key of its own, like a file put in by an
        // edit; its record keeps the digest of the ciphertext, taken as it is written.
        for (const Entry& target : QVManifestGetEntries(copy->manifest)) {
            if (!QVManifestEntryIsFile(target)) continue;
            target->external = true;
            target->SetTexts({{QVManifestEntryClass::kEncryptionKey, {}}, {QVManifestEntryClass::kDigest, {}}});
            if (target->protectionClass == EntryProtectionClassNotSet) target->protectionClass = EntryProtectionClassNone;
            AssignFileKey(target, encryption);
        }
        auto carrying = std::make_shared<CarriedFiles>();
        carrying->file = [](const Entry& target, const Entry& source) {
            std::shared_ptr<QVFileClass> stored = storedFileOf(source);
            target->size = QVFileGetSize(stored);
            std::shared_ptr<QVFileClass> enciphering = QVFileCreateCopy(stored);
            _QVFileSetEncryptionKey(enciphering, *target->unlockedKey());
            return enciphering;
        };
        carrying->wantsDigest = [](const Entry&) { return true; };
        carrying->written = [](const Entry& target, const std::vector<uint8_t>& digest, uint64_t) {
            target->SetTexts({{QVManifestEntryClass::kDigest, asText(digest)}});
        };
        writeCarried(backup, copy, std::move(carrying), destination, options, problems, progress);
        return true;
    });
}

bool QVBackupContainerExportWithManifestDB(const Backup& backup, CFStringRef destination,
                                          const QVPasswordParameters& parameters, const QVConversionOptions& options,
                                          const QVConversionProblemFunction& problems, const ExportProgress& progress,
                                          CFErrorRef* error) {
    QV_ASSERT(backup);
    QV_ASSERT(destination);
    return Boundary(error, [&]() -> bool {
        const bool upgrade = backup->manifestVersion == QVManifestDataVersion24;
        // The same class keys under the same password, derived in two passes as devices now do; made
        // first, so that a key bag that cannot be wrapped again fails before the files are read.
        std::optional<MB::KeyBag> keyBag;
        if (upgrade && (backup->manifestEncryption || backup->manifestDict.Get("IsEncrypted") == kCFBooleanTrue)) {
            if (!backup->manifestEncryption || !backup->password || backup->password.length() == 0)
                throw Error(QVErrorPasswordRequired, CF::Error(), "The backup is encrypted: open it with its password");
            keyBag = wrapAgain(backup->manifestEncryption->GetKeyBag(), backup->password.utf8(), parameters, true);
        }
        // Every stored file is written as it is, under its own wrapped key where it has one.
        Backup copy = QVBackupContainerCreateCopy(backup);
        if (upgrade) moveToNewestGeneration(copy, keyBag);
        auto carrying = std::make_shared<CarriedFiles>();
        carrying->file = [](const Entry&, const Entry& source) { return storedFileOf(source); };
        writeCarried(backup, copy, std::move(carrying), destination, options, problems, progress);
        if (!upgrade) log_fmt(log_level::info, "The backup had a Manifest.db manifest already; it was written as is");
        return true;
    });
}

}  // namespace Quiver
