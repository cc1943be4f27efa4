// Export: every name of the finished backup (stored files, manifest, metadata), produced by
// QVBackupContainerCopyFileForLocalFilename, written to a new directory or a new zip file. Contents
// stream chunk by chunk, so a file of any size costs about one chunk of memory.
//
// A backup is whole or absent: everything is written under a hidden name beside the destination and
// renamed into place only once the last byte is in, so no reader ever takes half a backup for a whole
// one. A failure removes what was written; an interruption that ends the process leaves at most the
// hidden name, which carries the writer's process ID.
#include <minizip/zip.h>
#include <zlib.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <system_error>
#include <thread>

#include <fmt/ranges.h>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVVerify.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/Hash.hpp"

namespace fs = std::filesystem;

namespace Quiver {

namespace {

constexpr size_t kWritePiece = size_t{1} << 20;  // bytes read and written at a time

// Zip members of 4 GiB or more need zip64 records; without them the archive would be silently corrupt.
constexpr uint64_t kZip64Threshold = 0xFFFFFFFFULL - 16;

void report(const CF::Error& error) { LogError(log_level::error, error); }

// Bytes written, counted by every thread of an export; reported by the calling thread alone.
struct Progress {
    int64_t total;
    int64_t threshold;
    std::atomic<int64_t> written = 0;
    const ExportProgress& callback;

    Progress(int64_t totalSize, const ExportProgress& cb)
        : total(totalSize), threshold(std::max<int64_t>(totalSize / 1000, 3)), callback(cb) {}
    void tick() const {
        const int64_t now = written.load(std::memory_order_relaxed);
        if (callback && now >= threshold) callback(static_cast<double>(now) / static_cast<double>(total));
    }
};

// The destination as a name in its folder: "out/" is "out".
fs::path destinationName(const fs::path& destination) {
    return destination.has_filename() ? destination : destination.parent_path();
}

// Refuses an existing destination.
void requireFree(const fs::path& destination) {
    std::error_code ec;
    if (fs::exists(fs::symlink_status(destination, ec)))
        throw Error(QVErrorWritingExternalRepresentation, CF::Error(),
                    fmt::format("File already exists at path {}", destination.string()));
}

// A partial copy lacks what a device needs to restore it; writing one out would pass it off as whole.
void requireComplete(const Backup& backup) {
    std::vector<std::string> lacking;
    for (const std::string& name : backup->missingMetadata)
        if (name != "Info.plist") lacking.push_back(name);
    if (lacking.empty()) return;
    throw Error(QVErrorInvalidBackup, CF::Error(),
                fmt::format("This backup is a partial copy without {}: it can be read, not written as a backup",
                            fmt::join(lacking, " or ")));
}

// Removes the partial write when the export does not finish.
class PartialWrite {
public:
    explicit PartialWrite(fs::path path) : path_(std::move(path)) {}
    ~PartialWrite() {
        if (path_.empty()) return;
        std::error_code ec;
        fs::remove_all(path_, ec);
        if (ec) log_fmt(log_level::error, "Failed to remove the unfinished export {}: {}", path_.string(), ec.message());
    }
    PartialWrite(const PartialWrite&) = delete;
    PartialWrite& operator=(const PartialWrite&) = delete;
    const fs::path& path() const { return path_; }
    void Keep() { path_.clear(); }

private:
    fs::path path_;
};

// Moves the finished export into place; something that appeared at the destination meanwhile is
// never replaced.
void moveIntoPlace(const fs::path& partial, const fs::path& destination) {
    if (::renameat2(AT_FDCWD, partial.c_str(), AT_FDCWD, destination.c_str(), RENAME_NOREPLACE) == 0) return;
    int err = errno;
    if (err == EINVAL || err == ENOSYS) {  // a file system without the flag: check, then rename
        std::error_code ec;
        if (fs::exists(fs::symlink_status(destination, ec))) {
            err = EEXIST;
        } else if (::rename(partial.c_str(), destination.c_str()) == 0) {
            return;
        } else {
            err = errno;
        }
    }
    throw MakeErrnoError(err, fmt::format("Failed to move the finished export {} to {} ({})", partial.string(),
                                          destination.string(), std::strerror(err)));
}

// The error that ends an export: it names the destination, and the first failure is the cause.
CF::Error failedExport(const fs::path& destination, const CF::Error& cause) {
    return Error(QVErrorWritingExternalRepresentation, cause,
                 fmt::format("The backup could not be written to {}{}", destination.string(),
                             cause ? fmt::format(": {}", cause.Reason()) : std::string()));
}

// Thrown where an export has to start again: it wrote a file that it is to leave out.
struct RewriteWithoutDamage {};

// The damaged files an export found among those it checked. Once the last stored file is checked
// (before the manifest is written), the export stops, writing nothing, or, when told to skip them,
// takes their entries out so that the manifest it writes names only what was copied. A carried file
// (a conversion's) is checked as its source entry.
class DamageCheck {
public:
    explicit DamageCheck(const Backup& backup) : backup_(backup), check_(backup->exportCheck) {}
    bool enabled() const { return check_ != nullptr; }

    // The checks that come before the copy; false when the file is damaged and is not to be copied.
    // `source` is the entry of a carried file, else null. `digest` receives the recorded digest when
    // the copy is to be hashed against it. `sharing` are the entries that name the same stored file,
    // which go with it.
    bool Before(const Entry& entry, const Entry& source, std::span<const Entry> sharing, QVVerifyMode mode,
                std::vector<uint8_t>& digest) {
        std::vector<QVProblem> problems =
            source ? QVBackupContainerVerifyEntry(backup_->carried->source, source, mode, &digest)
                   : QVBackupContainerVerifyEntry(backup_, entry, mode, &digest);
        // A conversion reads every file whole: a class the password cannot open is damage to it.
        if (source)
            for (QVProblem& p : problems)
                if (p.kind == QVProblemKind::KeyClassLocked) p.warning = false;
        return note(entry, sharing, problems);
    }
    // The digest of the bytes copied, against the one recorded.
    bool After(const Entry& entry, const Entry& source, std::span<const Entry> sharing,
               const std::vector<uint8_t>& recorded, const std::vector<uint8_t>& copied, uint64_t storedLength) {
        if (recorded == copied) return true;
        return note(entry, sharing,
                    {source ? QVProblemOfCopiedDigest(backup_->carried->source, source, storedLength)
                            : QVProblemOfCopiedDigest(backup_, entry, storedLength)});
    }
    // A damaged file that was written and cannot be taken back out (a zip member).
    void Written() {
        std::lock_guard lock(mutex_);
        ++written_;
    }
    // Hands the problems found so far to the caller's function, on the calling thread.
    void Deliver() {
        std::vector<QVProblem> found;
        {
            std::lock_guard lock(mutex_);
            found.swap(pending_);
        }
        if (check_ && check_->problem)
            for (const QVProblem& p : found) check_->problem(p);
    }
    // Called once every stored file is checked. Throws RewriteWithoutDamage, once the damaged entries
    // are out, when a file to be left out was written already.
    void Settle() {
        Deliver();
        if (damaged_.empty()) return;
        if (!check_->skipDamaged)
            throw Error(QVErrorInvalidBackup, CF::Error(),
                        fmt::format("{} stored {} damaged; nothing was written (leave {} out to write the rest)",
                                    damaged_.size(), damaged_.size() == 1 ? "file is" : "files are",
                                    damaged_.size() == 1 ? "it" : "them"));
        QVManifestRemoveEntries(backup_->manifest, damaged_);
        damaged_.clear();
        if (written_ > 0) throw RewriteWithoutDamage{};
    }

private:
    bool note(const Entry& entry, std::span<const Entry> sharing, const std::vector<QVProblem>& problems) {
        bool sound = true;
        std::lock_guard lock(mutex_);
        for (const QVProblem& p : problems) {
            pending_.push_back(p);
            if (!p.warning) sound = false;
        }
        if (!sound) {
            damaged_.push_back(entry);
            for (const Entry& other : sharing)
                if (other != entry) damaged_.push_back(other);
        }
        return sound;
    }

    const Backup& backup_;
    std::shared_ptr<const QVExportCheck> check_;
    std::mutex mutex_;  // the copying threads note what they find
    std::vector<QVProblem> pending_;
    std::vector<Entry> damaged_;
    size_t written_ = 0;
};

// What an export hands write(name, file, counter, hash, out) and gets back. `out`, when not null,
// is given every byte written. The result is the SHA-1 of the bytes read when hash was asked for.
struct WrittenBytes {
    Support::Hasher hasher;
    uint64_t length = 0;
    void Add(const uint8_t* bytes, size_t n) {
        hasher.Update(bytes, n);
        length += n;
    }
};
using Copied = std::optional<std::vector<uint8_t>>;

// Produces every name of the finished backup in order and hands each file to write(name, file,
// counter, hash, out), which throws CF::Error on failure. The first name that cannot be produced or
// written ends the export: its error is thrown. With checks, a damaged stored file is reported and
// not written, or, found damaged as it is copied, taken back out with forget(name), which returns
// false where it cannot be. Without checkInline every file is checked before any is written.
template <typename Write, typename Forget>
void writeEachName(const Backup& backup, const ExportProgress& progress, const char* destinationKind,
                   bool checkInline, unsigned threads, Write&& write, Forget&& forget) {
    DamageCheck check(backup);
    const CarriedFiles* carried = backup->carried.get();
    const QVVerifyMode mode = check.enabled() ? backup->exportCheck->mode : QVVerifyMode::Quick;
    // The entry of the source whose stored file a carried entry writes; null for any other.
    auto sourceOf = [carried](const Entry& entry) { return entry && carried ? carried->SourceOf(entry) : nullptr; };
    if (check.enabled() && !checkInline) {
        // Where a file cannot be taken back once written, every file is checked first.
        for (const Entry& entry : QVManifestGetEntries(backup->manifest)) {
            std::vector<uint8_t> ignored;
            const Entry source = sourceOf(entry);
            check.Before(entry, source, {}, mode, ignored);
            QVManifestEntryForgetFetchedFile(source ? source : entry);
        }
        check.Settle();
    }
    Progress counter(QVManifestGetTotalFileSize(backup->manifest), progress);
    std::string_view phase;
    auto announce = [&](std::string_view now) {
        if (now != phase && phase == "files" && checkInline) check.Settle();
        if (now != phase && backup->exportPhase) backup->exportPhase(now.data());
        phase = now;
    };
    // Writes one name; with more than one thread, stored files are written on each of them at once.
    auto writeOne = [&](const CF::String& name, const Entry& entry, std::span<const Entry> sharing) {
        // A failure says which file of the backup it is about, and which entry when it is a stored file.
        auto about = [&] {
            ErrorContext context = ErrorContext::File(name.utf8());
            if (entry) {
                context.domain = std::string(entry->domainText);
                context.path = std::string(entry->path());
                context.fileID = entry->fileID();
            }
            return context;
        };
        // A source file is fetched again if asked for: keeping every one would cost memory in
        // proportion to the backup. The checks and the copy share the one fetched here.
        const Entry source = sourceOf(entry);
        struct LetGo {
            const Entry& fetched;
            ~LetGo() {
                if (fetched) QVManifestEntryForgetFetchedFile(fetched);
            }
        } forgetFetched{source ? source : entry};
        // The checks before the copy: the digest is taken in a pass of its own only where the copy
        // cannot be taken back.
        std::vector<uint8_t> recorded;
        if (entry && check.enabled() && checkInline &&
            !check.Before(entry, source, sharing, mode == QVVerifyMode::Full ? mode : QVVerifyMode::Quick, recorded))
            return;
        if (mode != QVVerifyMode::Digests) recorded.clear();
        auto unloadable = [&](const CF::Error& cause) {
            return Error(QVErrorLoadingExternalRepresentation, cause,
                         fmt::format("File {} could not be loaded for writing to {}", name, destinationKind), about());
        };
        std::shared_ptr<QVFileClass> file;
        CFErrorRef loadError = nullptr;
        try {
            file = source ? carried->file(entry, source)
                 : entry  ? CopyStoredFileForEntry(backup, entry, name.utf8(), &loadError)
                          : QVBackupContainerCopyFileForLocalFilename(backup, name.get(), &loadError);
        } catch (const CF::Error& e) {
            throw unloadable(e);
        }
        if (!file) throw unloadable(CF::Error::Adopt(loadError));
        std::optional<WrittenBytes> out;
        if (source && carried->written) out.emplace();
        Copied copied;
        try {
            copied = write(name, file, counter, !recorded.empty(), out ? &*out : nullptr);
        } catch (const CF::Error& e) {
            throw AddErrorContext(e, about());
        }
        const bool sound = !copied || check.After(entry, source, sharing, recorded, *copied, QVFileGetSize(file));
        if (!sound && !forget(name)) check.Written();
        file.reset();
        if (sound && out) {
            const std::vector<uint8_t> digest = carried->wantsDigest && carried->wantsDigest(entry)
                                                    ? out->hasher.Finalize()
                                                    : std::vector<uint8_t>();
            carried->written(entry, digest, out->length);
            for (const Entry& other : sharing)
                if (other != entry) carried->written(other, digest, out->length);
        }
    };
    // Stored files come first, each named once (two entries of a damaged manifest may share a file ID,
    // and so a stored file), with "/" as the separator: the two-character directory holds the file.
    // Names are made one at a time, not listed first: a large backup has hundreds of thousands. They
    // go in the order of their names, folder by folder, as a copy of the tree would read and write
    // them: the file system then finds and allocates in one folder at a time instead of in all of them
    // in turn, which costs a large backup a quarter of its time.
    std::vector<Entry> files;
    for (const Entry& entry : QVManifestGetEntries(backup->manifest))
        if (!QVManifestEntryIsDirectory(entry) && !QVManifestEntryIsSymlink(entry)) files.push_back(entry);
    auto compare = [](const Entry& a, const Entry& b) { return CompareFileIDs(*a, *b); };
    std::sort(files.begin(), files.end(), [&](const Entry& a, const Entry& b) { return compare(a, b) < 0; });
    // Each stored file once, owned by the entry that a lookup of its ID finds among those that share it
    // (made here, as the lookup builds its index on first use); entries that share it go with it.
    struct StoredFile {
        Entry owner;
        size_t first, end;  // the entries of `files` that name it
    };
    std::vector<StoredFile> stored;
    // Where each folder's files begin in `stored`: a thread takes a folder at a time, so that two
    // threads work in different folders.
    std::vector<size_t> folders;
    auto folderOf = [](const Entry& e) {
        if (e->fileIDIsHex) return int{e->fileIDBytes[0]};
        const std::string id = e->fileID();
        return id.empty() ? -1 : int{static_cast<unsigned char>(id[0])};
    };
    for (size_t i = 0, end = 0; i < files.size(); i = end) {
        end = i + 1;
        while (end < files.size() && compare(files[i], files[end]) == 0) ++end;
        if (!files[i]->fileIDIsHex && files[i]->fileID().empty()) continue;
        Entry owner = end - i == 1 ? files[i]
                                   : QVManifestGetEntryForFileID(backup->manifest, CF::String(files[i]->fileID()).get());
        if (!owner) continue;
        if (stored.empty() || folderOf(stored.back().owner) != folderOf(owner)) folders.push_back(stored.size());
        stored.push_back({std::move(owner), i, end});
    }
    folders.push_back(stored.size());

    if (!stored.empty()) announce("files");
    std::atomic<size_t> nextFolder = 0;
    std::atomic<bool> stop = false;
    std::mutex failed;
    std::exception_ptr failure;
    // The calling thread alone reports progress and problems.
    auto work = [&](bool calling) {
        for (size_t f; !stop.load(std::memory_order_relaxed) && (f = nextFolder.fetch_add(1)) + 1 < folders.size();) {
            for (size_t k = folders[f]; k < folders[f + 1] && !stop.load(std::memory_order_relaxed); ++k) {
                const StoredFile& one = stored[k];
                try {
                    const std::span<const Entry> run(files.data() + one.first, one.end - one.first);
                    writeOne(LocalFilenameForFileID(CF::String(one.owner->fileID()), backup->manifestVersion, true),
                             one.owner, run.size() == 1 ? std::span<const Entry>() : run);
                } catch (...) {
                    std::lock_guard lock(failed);
                    if (!failure) failure = std::current_exception();
                    stop = true;
                    return;
                }
                if (calling) {
                    check.Deliver();
                    counter.tick();
                }
            }
        }
    };
    if (threads > 1 && folders.size() > 2) {
        std::thread helper(work, false);
        work(true);
        helper.join();
    } else {
        work(true);
    }
    if (failure) {
        check.Deliver();
        std::rethrow_exception(failure);
    }
    // Then the manifest (made here, which takes a while), then the metadata.
    for (const CF::String& name : ManifestAndMetadataNames(backup)) {
        const std::string text = name.utf8();
        announce(text == "Manifest.db" || text == "Manifest.mbdb" ? "manifest" : "metadata");
        writeOne(name, nullptr, {});
        counter.tick();
    }
    if (phase == "files" && checkInline) check.Settle();
}

// Threads that copy stored files into a directory: the file system's own work in one folder goes on
// while another thread works in the next, so two take about four fifths of the time of one. A zip's
// members are read through one handle, one at a time.
unsigned copyThreads(const Backup& backup) {
    const bool zipSource = backup->sourceType == QVDataSourceTypeZip ||
                           (backup->carried && backup->carried->source->sourceType == QVDataSourceTypeZip);
    return zipSource ? 1 : std::clamp(std::thread::hardware_concurrency(), 1u, 2u);
}

// Names a file without a name at target, with the mode a new file there would have; false when it cannot
// (a file with a key, another file system), and the caller copies it.
bool linkInto(const std::shared_ptr<QVFileClass>& file, const fs::path& target, Progress& counter) {
    // Only a file made for this export alone: a file of the backup itself, linked, would tie the new
    // backup's file to every later export of it.
    if (!file->anonymous || file.use_count() != 1 || file->anonymous.use_count() != 1 || file->hasKey ||
        file->writer.is_open())
        return false;
    // The folder it goes in was made as the umask allows; so are the files of the export.
    struct stat folder {};
    if (::stat(target.parent_path().c_str(), &folder) != 0) return false;
    if (::fchmod(file->anonymous->descriptor(), folder.st_mode & 0666) != 0) return false;
    if (::linkat(AT_FDCWD, file->anonymous->path().c_str(), AT_FDCWD, target.c_str(), AT_SYMLINK_FOLLOW) != 0)
        return false;
    counter.written += static_cast<int64_t>(QVFileGetSize(file));
    return true;
}

// Photos, videos, compressed data and every enciphered file are as small as they will get: deflating
// them again costs most of an export's time for nothing. A fast deflate of the member's first bytes,
// which are at hand anyway, tells; it is stored when that does not save a tenth.
bool worthDeflating(std::span<const uint8_t> start) {
    constexpr size_t kSample = 65536;
    const std::span<const uint8_t> sample = start.first(std::min(start.size(), kSample));
    if (sample.size() < 64) return true;
    uLongf packed = compressBound(static_cast<uLong>(sample.size()));
    std::vector<uint8_t> out(packed);
    if (compress2(out.data(), &packed, sample.data(), static_cast<uLong>(sample.size()), 1) != Z_OK) return true;
    return packed < sample.size() - sample.size() / 10;
}

struct ZipWriter {
    zipFile zip = nullptr;
    ~ZipWriter() {
        if (zip) zipClose(zip, nullptr);
    }
};

}  // namespace

fs::path QVBackupContainerPartialPath(CFStringRef destination) {
    const fs::path name = destinationName(fs::path(CF::String::Retain(destination).utf8()));
    return name.parent_path() / fmt::format(".{}.{}.partial", name.filename().string(), ::getpid());
}

unsigned char QVBackupContainerExportToDirectory(const Backup& backup, CFStringRef destination,
                                                 const ExportProgress& progress, CFErrorRef* error) {
    QV_ASSERT(backup);
    const fs::path root = destinationName(fs::path(CF::String::Retain(destination).utf8()));
    return Boundary(error, [&]() -> unsigned char {
        try {
            requireComplete(backup);
            requireFree(root);
            std::error_code ec;
            // The folders above the destination are made as before; only the backup itself is whole or absent.
            if (const fs::path parent = root.parent_path(); !parent.empty()) fs::create_directories(parent, ec);
            // Refused when it exists: that would be another export of this process to the same place.
            if (!fs::create_directory(QVBackupContainerPartialPath(destination), ec) || ec)
                throw MakeErrnoError(ec ? ec.value() : EEXIST,
                                     fmt::format("Failed to create directory {} ({})",
                                                 QVBackupContainerPartialPath(destination).string(),
                                                 ec ? ec.message() : std::strerror(EEXIST)));
            PartialWrite partial(QVBackupContainerPartialPath(destination));
            // Each stored file's two-character folder is made once.
            std::set<std::string> folders;
            std::mutex foldersMade;
            auto write = [&](const CF::String& name, const std::shared_ptr<QVFileClass>& file, Progress& counter,
                             bool hash, WrittenBytes* written) -> Copied {
                const std::string relative = name.utf8();
                const fs::path target = partial.path() / relative;
                try {
                    if (const size_t slash = relative.rfind('/'); slash != std::string::npos) {
                        std::lock_guard lock(foldersMade);
                        if (folders.insert(relative.substr(0, slash)).second) fs::create_directories(target.parent_path());
                    }
                    // A finished file without a name and without a key (the new Manifest.db of a plain
                    // backup, hundreds of megabytes for a large one) is given its name in the backup
                    // rather than copied, where it lies on the same file system.
                    if (!hash && !written && linkInto(file, target, counter)) return std::nullopt;
                    Support::writable_file out(target, Support::writable_file::mode::exclusive);
                    auto put = [&](const std::vector<uint8_t>& chunk) {
                        out.write(chunk.data(), chunk.size());
                        if (written) written->Add(chunk.data(), chunk.size());
                        counter.written += static_cast<int64_t>(chunk.size());
                        return true;
                    };
                    Copied copied;
                    if (hash) copied = QVFileGetDataAndHash(file, kWritePiece, put);
                    else QVFileGetData(file, kWritePiece, put);
                    out.close();
                    return copied;
                } catch (const CF::Error& e) {
                    throw Error(static_cast<QVError>(e.Code()), e, fmt::format("File {} could not be written", name));
                } catch (const std::system_error& e) {
                    throw Error(QVErrorFilesystem, MakeErrnoError(e.code().value(), e.what()),
                                fmt::format("File {} could not be written ({})", name, e.code().message()));
                } catch (const std::exception& e) {
                    throw Error(QVErrorFilesystem, CF::Error(), fmt::format("File {} could not be written - {}", name, e.what()));
                }
            };
            // A file found damaged as it was copied is taken back out.
            auto forget = [&](const CF::String& name) {
                std::error_code ec;
                fs::remove(partial.path() / name.utf8(), ec);
                return true;
            };
            writeEachName(backup, progress, "directory", true, copyThreads(backup), write, forget);
            moveIntoPlace(partial.path(), root);
            partial.Keep();
            return 1;
        } catch (const CF::Error& e) {
            CF::Error failure = failedExport(root, e);
            report(failure);
            throw failure;
        }
    });
}

unsigned char QVBackupContainerExportToDirectory(const Backup& backup, CFStringRef destination,
                                                 const ExportProgress& progress) {
    return QVBackupContainerExportToDirectory(backup, destination, progress, nullptr);
}

namespace {

// Writes the zip once; throws RewriteWithoutDamage (see DamageCheck) to be called again.
unsigned char writeZip(const Backup& backup, CFStringRef destination, const fs::path& target,
                       const ExportProgress& progress, bool inline_) {
    requireComplete(backup);
    requireFree(target);
    const fs::path partialPath = QVBackupContainerPartialPath(destination);
    // Made here, exclusively, so that minizip writes into a file of this export alone.
    Support::writable_file(partialPath, Support::writable_file::mode::exclusive).close();
    PartialWrite partial(partialPath);
    ZipWriter writer;
    writer.zip = zipOpen64(partialPath.c_str(), APPEND_STATUS_CREATE);
    if (!writer.zip)
        throw Error(QVErrorWritingExternalRepresentation, CF::Error(),
                    fmt::format("Failed to create zip file {}", partialPath.string()));
    // minizip reports a failed write only as ZIP_ERRNO; errno then says why.
    auto zipFailure = [](const std::string& what, int result) {
        const int err = errno;
        return result == ZIP_ERRNO && err != 0
                   ? Error(QVErrorWritingExternalRepresentation, MakeErrnoError(err, std::strerror(err)),
                           fmt::format("{} ({})", what, std::strerror(err)))
                   : Error(QVErrorWritingExternalRepresentation, CF::Error(), fmt::format("{} ({})", what, result));
    };
    auto write = [&](const CF::String& name, const std::shared_ptr<QVFileClass>& file, Progress& counter,
                     bool hash, WrittenBytes* written) -> Copied {
        zip_fileinfo info{};
        CFDateRef date = QVFileGetModifiedDate(file);
        auto seconds =
            static_cast<time_t>(date ? CFDateGetAbsoluteTime(date) + kCFAbsoluteTimeIntervalSince1970 : 0);
        struct tm local{};
        localtime_r(&seconds, &local);
        info.tmz_date.tm_sec = static_cast<uInt>(local.tm_sec);
        info.tmz_date.tm_min = static_cast<uInt>(local.tm_min);
        info.tmz_date.tm_hour = static_cast<uInt>(local.tm_hour);
        info.tmz_date.tm_mday = static_cast<uInt>(local.tm_mday);
        info.tmz_date.tm_mon = static_cast<uInt>(local.tm_mon);
        info.tmz_date.tm_year = static_cast<uInt>(local.tm_year + 1900);
        const int zip64 = QVFileGetSize(file) >= kZip64Threshold ? 1 : 0;
        const std::string member = name.utf8();
        const std::string what = fmt::format("File {} could not be written in zip", name);
        // The member is opened once its first bytes are read, which decide whether it is deflated.
        bool opened = false;
        auto open = [&](std::span<const uint8_t> start) {
            const bool deflate = worthDeflating(start);
            errno = 0;
            const int r = zipOpenNewFileInZip3_64(writer.zip, member.c_str(), &info, nullptr, 0, nullptr, 0,
                                                  nullptr, deflate ? Z_DEFLATED : 0,
                                                  deflate ? Z_DEFAULT_COMPRESSION : 0, 0, -MAX_WBITS, 8,
                                                  Z_DEFAULT_STRATEGY, nullptr, 0, zip64);
            if (r != ZIP_OK) throw zipFailure(what, r);
            opened = true;
        };
        auto write = [&](const uint8_t* bytes, size_t length) {
            errno = 0;
            const int r = zipWriteInFileInZip(writer.zip, bytes, static_cast<unsigned>(length));
            if (r != ZIP_OK) throw zipFailure(what, r);
            counter.written += static_cast<int64_t>(length);
            if (written) written->Add(bytes, length);
        };
        Copied copied;
        try {
            std::optional<std::vector<uint8_t>> whole;
            if (!hash) whole = QVFileGetDataQuickly(file);
            if (whole) {
                open(*whole);
                write(whole->data(), whole->size());
            } else {
                auto each = [&](const std::vector<uint8_t>& chunk) {
                    if (!opened) open(chunk);
                    write(chunk.data(), chunk.size());
                    return true;
                };
                if (hash) copied = QVFileGetDataAndHash(file, 0, each);
                else QVFileGetData(file, 0, each);
                if (!opened) open({});  // an empty file
            }
        } catch (const CF::Error&) {
            throw;
        } catch (const std::exception& e) {
            throw Error(QVErrorWritingExternalRepresentation, CF::Error(), fmt::format("{} ({})", what, e.what()));
        }
        errno = 0;
        if (const int r = zipCloseFileInZip(writer.zip); r != ZIP_OK) throw zipFailure(what, r);
        return copied;
    };
    // A member cannot be taken back out of a zip once written (see RewriteWithoutDamage).
    writeEachName(backup, progress, "zip", inline_, 1, write, [](const CF::String&) { return false; });
    errno = 0;
    const int closed = zipClose(writer.zip, nullptr);
    writer.zip = nullptr;
    if (closed != ZIP_OK) throw zipFailure(fmt::format("Failed to finish zip file {}", partialPath.string()), closed);
    // The zip is one file: cheap to make durable before it takes the destination's name.
    if (const int fd = ::open(partialPath.c_str(), O_RDONLY | O_CLOEXEC); fd >= 0) {
        const bool synced = ::fsync(fd) == 0;
        const int err = errno;
        ::close(fd);
        if (!synced)
            throw MakeErrnoError(err, fmt::format("Failed to write zip file {} ({})", partialPath.string(),
                                                  std::strerror(err)));
    }
    moveIntoPlace(partialPath, target);
    partial.Keep();
    return 1;
}

}  // namespace

unsigned char QVBackupContainerExportToZip(const Backup& backup, CFStringRef destination,
                                           const ExportProgress& progress, CFErrorRef* error) {
    QV_ASSERT(backup);
    const fs::path target = destinationName(fs::path(CF::String::Retain(destination).utf8()));
    return Boundary(error, [&]() -> unsigned char {
        try {
            // Files are checked as they are written; when a damaged one that is to be left out was
            // written already, the zip is written again without it, the files checked first this time.
            try {
                return writeZip(backup, destination, target, progress, true);
            } catch (const RewriteWithoutDamage&) {
                return writeZip(backup, destination, target, progress, false);
            }
        } catch (const CF::Error& e) {
            CF::Error failure = failedExport(target, e);
            report(failure);
            throw failure;
        }
    });
}

unsigned char QVBackupContainerExportToZip(const Backup& backup, CFStringRef destination,
                                           const ExportProgress& progress) {
    return QVBackupContainerExportToZip(backup, destination, progress, nullptr);
}

}  // namespace Quiver
