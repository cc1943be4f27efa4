#include "Quiver/QVVerify.hpp"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/Support/Cryptor.hpp"

namespace Quiver {

namespace fs = std::filesystem;

const char* to_string(QVProblemKind kind) {
    switch (kind) {
        case QVProblemKind::StoredFileMissing: return "stored-file-missing";
        case QVProblemKind::DigestMismatch: return "digest-mismatch";
        case QVProblemKind::NotWholeBlocks: return "not-whole-blocks";
        case QVProblemKind::KeyDoesNotUnwrap: return "key-does-not-unwrap";
        case QVProblemKind::KeyClassLocked: return "key-class-locked";
        case QVProblemKind::BadPadding: return "bad-padding";
        case QVProblemKind::SizeDisagrees: return "size-disagrees";
        case QVProblemKind::Unreadable: return "unreadable";
        case QVProblemKind::OrphanStoredFile: return "orphan-stored-file";
        case QVProblemKind::DuplicateFileID: return "duplicate-file-id";
        case QVProblemKind::WrongFileID: return "wrong-file-id";
        case QVProblemKind::MissingParent: return "missing-parent";
        case QVProblemKind::MetadataUnreadable: return "metadata-not-a-property-list";
    }
    return "unknown";
}

namespace {

using Support::Cryptor;

// The padding length that the last block deciphers to, or nothing when it is not valid padding. The
// block before the last (or the zero initial value) is the chaining value, so 32 bytes tell what
// deciphering the whole file would tell at its end; a file cut at a block boundary ends in garbage
// that passes for padding once in 256 tries or less.
std::optional<unsigned> paddingOfStoredFile(const std::string& path, uint64_t length, const std::array<uint8_t, 32>& key) {
    if (length < Cryptor::kBlockSize) return std::nullopt;
    std::array<uint8_t, 32> tail{};
    const size_t wanted = length >= 32 ? 32 : 16;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    const ssize_t got = ::pread(fd, tail.data(), wanted, static_cast<off_t>(length - wanted));
    ::close(fd);
    if (got != static_cast<ssize_t>(wanted)) return std::nullopt;
    std::array<uint8_t, 16> chain{};
    if (wanted == 32) std::copy_n(tail.begin(), 16, chain.begin());
    std::array<uint8_t, 32> plain{};
    try {
        Cryptor cryptor(Cryptor::Operation::Decrypt, Cryptor::Algorithm::AES256, key, chain);
        cryptor.DisablePadding();
        size_t produced = cryptor.Update(tail.data() + wanted - 16, 16, plain.data());
        produced += cryptor.Finalize(plain.data() + produced);
        if (produced != 16) return std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
    const unsigned pad = plain[15];
    const bool valid = pad >= 1 && pad <= 16 && std::all_of(plain.begin() + 16 - pad, plain.begin() + 16, [pad](uint8_t b) { return b == pad; });
    OPENSSL_cleanse(plain.data(), plain.size());
    if (!valid) return std::nullopt;
    return pad;
}

constexpr const char* kNotTheRecordedOne = "is not the one its manifest records";

std::string storedNameOf(const Backup& backup, const Entry& entry) {
    return LocalFilenameForFileID(CF::String(entry->fileID()), backup->manifestVersion, true).utf8();
}

QVProblem problemOf(QVProblemKind kind, const Entry& entry, std::string storedName, std::string detail) {
    QVProblem p;
    p.kind = kind;
    p.domain = std::string(entry->domainText);
    p.path = std::string(entry->path());
    p.fileID = entry->fileID();
    p.storedName = std::move(storedName);
    p.detail = std::move(detail);
    return p;
}

bool notFound(CF::Error error) {
    for (; error; error = error.Underlying())
        if (error.Code() == QVErrorFileNotFound) return true;
    return false;
}

std::string errorText(CF::Error error) {
    std::string text;
    for (int depth = 0; error && depth < 8; ++depth, error = error.Underlying()) {
        std::string part = error.Reason().empty() ? error.Description() : error.Reason();
        if (part.empty() || text.find(part) != std::string::npos) continue;
        if (!text.empty()) text += ": ";
        text += part;
    }
    return text;
}

}  // namespace

QVProblem QVProblemOfCopiedDigest(const Backup& backup, const Entry& entry, uint64_t storedLength) {
    QVProblem p = problemOf(QVProblemKind::DigestMismatch, entry, storedNameOf(backup, entry), kNotTheRecordedOne);
    p.storedLength = storedLength;
    return p;
}

void QVBackupContainerSetExportCheck(const Backup& backup, std::shared_ptr<const QVExportCheck> check) {
    QV_ASSERT(backup);
    backup->exportCheck = std::move(check);
}

std::vector<QVProblem> QVBackupContainerVerifyEntry(const Backup& backup, const Entry& entry, QVVerifyMode mode,
                                                    std::vector<uint8_t>* digest) {
    QV_ASSERT(backup);
    QV_ASSERT(entry);
    std::vector<QVProblem> problems;
    if (!QVManifestEntryIsFile(entry) || entry->external) return problems;
    const std::string stored = storedNameOf(backup, entry);
    auto report = [&](QVProblemKind kind, std::string detail, bool warning = false) -> std::vector<QVProblem>& {
        problems.push_back(problemOf(kind, entry, stored, std::move(detail)));
        problems.back().warning = warning;
        return problems;
    };

    CFErrorRef error = nullptr;
    std::shared_ptr<QVFileClass> file = QVManifestEntryGetFile(entry, &error);
    CF::Error failure = CF::Error::Adopt(error);
    if (!file) {
        if (notFound(failure)) return report(QVProblemKind::StoredFileMissing, "is missing");
        return report(QVProblemKind::Unreadable, "cannot be read: " + errorText(failure));
    }
    const uint64_t length = QVFileGetSize(file);
    const uint64_t size = entry->size;
    const bool encrypted = backup->manifestEncryption.has_value() && !entry->encryptionKey().empty();
    auto withLength = [&](std::vector<QVProblem>& list) -> std::vector<QVProblem>& {
        for (QVProblem& p : list) p.storedLength = length;
        return list;
    };
    if (encrypted && length % Cryptor::kBlockSize != 0)
        return withLength(report(QVProblemKind::NotWholeBlocks, "is cut short: not a whole number of cipher blocks"));

    // Devices record the SHA-1 of the bytes they store, enciphered or not, and that decides.
    const std::span<const uint8_t> recorded = entry->digest();
    const bool hasDigest = recorded.size() == 20;
    if (hasDigest && digest) digest->assign(recorded.begin(), recorded.end());
    bool digestDecided = false;
    if (mode != QVVerifyMode::Quick && (hasDigest || mode == QVVerifyMode::Full)) {
        std::optional<std::vector<uint8_t>> hash;
        try {
            hash = QVFileGetDataAndHash(file, uint64_t{1} << 20, [](const std::vector<uint8_t>&) { return true; });
        } catch (const std::exception& e) {
            return withLength(report(QVProblemKind::Unreadable, std::string("cannot be read: ") + e.what()));
        }
        if (!hash) return withLength(report(QVProblemKind::Unreadable, "cannot be read to its end"));
        if (hasDigest) {
            if (!std::equal(hash->begin(), hash->end(), recorded.begin(), recorded.end()))
                return withLength(report(QVProblemKind::DigestMismatch, kNotTheRecordedOne));
            digestDecided = true;
        }
    }

    std::optional<uint64_t> plainLength;
    if (encrypted && length > 0) {
        const uint32_t code = ProtectionClassCode(entry->protectionClass);
        if (backup->manifestEncryption->GetKeyBag().IsLockedClass(code)) {
            report(QVProblemKind::KeyClassLocked,
                   fmt::format("is of class {}, whose key the device wrapped with its own; no backup password opens it", code),
                   true);
            problems.back().protectionClass = code;
            return withLength(problems);
        }
        CFErrorRef keyError = nullptr;
        const auto key = QVManifestEntryUnlockFileKey(entry, *backup->manifestEncryption, &keyError);
        CF::Error keyFailure = CF::Error::Adopt(keyError);
        if (!key) {
            report(QVProblemKind::KeyDoesNotUnwrap,
                   fmt::format("has a key that does not unwrap under class {}{}", code,
                               keyFailure ? ": " + errorText(keyFailure) : ""));
            problems.back().protectionClass = code;
            return withLength(problems);
        }
        const std::optional<unsigned> pad = paddingOfStoredFile(CF::UTF8(QVFileGetLocalPath(file)), length, *key);
        if (!pad) return withLength(report(QVProblemKind::BadPadding, "does not decipher to its end; it is cut short or altered"));
        plainLength = length - *pad;
    }
    // Without a digest the size is all there is, and devices record it before they copy: a file that
    // grows or shrinks during the backup keeps its old size (seen in real backups).
    // A caller that takes the recorded digest along checks it as it reads: then the digest decides.
    const bool digestWillDecide = hasDigest && digest != nullptr;
    const uint64_t compared = plainLength.value_or(length);
    if (!digestDecided && !digestWillDecide && compared != size && !(encrypted && length == 0 && size == 0))
        report(QVProblemKind::SizeDisagrees,
               fmt::format("holds {} bytes where its manifest records {}; it changed during the backup or is damaged",
                           compared, size),
               true);
    return withLength(problems);
}

std::optional<int64_t> QVBackupContainerVerify(const Backup& backup, QVVerifyMode mode, const QVProblemFunction& report,
                                               const LoadProgress& progress, CFErrorRef* error) {
    QV_ASSERT(backup);
    return Boundary(error, [&]() -> std::optional<int64_t> {
        int64_t damage = 0;
        auto note = [&](const QVProblem& problem) {
            if (!problem.warning) ++damage;
            if (report) report(problem);
        };
        for (const std::string& name : backup->unreadableMetadata) {
            QVProblem p;
            p.kind = QVProblemKind::MetadataUnreadable;
            p.storedName = name;
            p.detail = "is not a property list; the backup was read as if it were missing";
            note(p);
        }
        const std::vector<Entry> entries = QVManifestGetEntries(backup->manifest);
        const auto total = static_cast<int64_t>(entries.size());
        int64_t done = 0;
        if (progress) progress(0, total, 0.0);
        for (const Entry& entry : entries) {
            for (const QVProblem& problem : QVBackupContainerVerifyEntry(backup, entry, mode)) note(problem);
            ++done;
            if (progress && (done % 1024 == 0 || done == total))
                progress(done, total, static_cast<double>(done) / static_cast<double>(std::max<int64_t>(total, 1)));
        }

        // The manifest as a whole.
        std::unordered_map<std::string, const QVManifestEntryClass*> byID;
        std::set<std::pair<std::string_view, std::string_view>> directories;
        for (const Entry& entry : entries)
            if (QVManifestEntryIsDirectory(entry)) directories.emplace(entry->domainText, entry->path());
        std::unordered_set<std::string> storedNames;
        for (const Entry& entry : entries) {
            const std::string id = entry->fileID();
            if (auto [at, fresh] = byID.emplace(id, entry.get()); !fresh)
                note(problemOf(QVProblemKind::DuplicateFileID, entry, {},
                               fmt::format("shares its file ID with {} {}", at->second->domainText, at->second->path())));
            if (!entry->fileIDIsHex || entry->fileIDBytes != FileIDBytesForPath(entry->domainText, entry->path()))
                note(problemOf(QVProblemKind::WrongFileID, entry, {},
                               "has a file ID that is not the SHA-1 of its domain and path, so devices will not find it"));
            if (QVManifestEntryIsDirectory(entry)) continue;
            if (QVManifestEntryIsFile(entry)) storedNames.insert(storedNameOf(backup, entry));
            // A file or link at the top of its domain hangs from the domain itself, which needs no entry.
            const std::string_view path = entry->path();
            const size_t slash = path.rfind('/');
            if (slash == std::string_view::npos) continue;
            if (!directories.count({entry->domainText, path.substr(0, slash)}))
                note(problemOf(QVProblemKind::MissingParent, entry, {},
                               fmt::format("lies in {}, which has no directory entry", path.substr(0, slash))));
        }

        // Stored files that no entry names (metadata and the manifest aside).
        std::vector<std::string> names;
        if (backup->sourceType == QVDataSourceTypeDirectory) {
            const fs::path root(backup->path.utf8());
            std::error_code ec;
            for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
                 it.increment(ec)) {
                if (it->is_regular_file(ec)) names.push_back(it->path().lexically_relative(root).generic_string());
            }
        } else {
            names = ZipSourceMemberNames(*backup);
        }
        for (const std::string& name : names) {
            const std::string base = fs::path(name).filename().string();
            if (base.empty() || base.front() == '.' || IsReservedName(CF::String(name).get()) ||
                name.starts_with("Manifest.db-") || name == "Manifest.mbdx")
                continue;
            if (storedNames.count(name)) continue;
            QVProblem p;
            p.kind = QVProblemKind::OrphanStoredFile;
            p.storedName = name;
            p.detail = "is a stored file that no entry of the manifest names";
            note(p);
        }
        return damage;
    });
}

}  // namespace Quiver
