#include "Quiver/QVExtract.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"

namespace Quiver {

namespace {

// A file descriptor that closes itself.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            Close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    ~Descriptor() { Close(); }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Closes and reports whether the close succeeded (a late write error shows up here).
    bool Close() {
        if (fd_ < 0) return true;
        return ::close(std::exchange(fd_, -1)) == 0;
    }

private:
    int fd_ = -1;
};

// The whole "/"-separated components of a path, empty ones included.
std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

CF::Error damageError(const QVProblem& p) {
    return Error(QVErrorInvalidBackup, CF::Error(),
                 fmt::format("the stored file of {} {} ({}, {} bytes) {}", p.domain, p.path, p.fileID, p.storedLength, p.detail),
                 {p.storedName, p.domain, p.path, p.fileID, to_string(p.kind)});
}

}  // namespace

std::optional<std::string> QVEntryNameProblem(std::string_view domain, std::string_view path, QVNameUse use) {
    if (domain.empty()) return "the domain is empty";
    if (domain == "." || domain == "..") return "the domain is not a folder name";
    if (domain.find('/') != std::string_view::npos) return "the domain holds \"/\"";
    if (domain.find('\0') != std::string_view::npos || path.find('\0') != std::string_view::npos)
        return "the name holds a NUL character";
    if (!path.empty() && path.front() == '/') return "the path is absolute";
    for (std::string_view part : components(path)) {
        if (part == "..") return "the path climbs out of its domain with \"..\"";
        // Reading, empty and "." components name the folder they are in and lead nowhere; written into
        // a backup they would give one file two spellings.
        if (use == QVNameUse::Write && !path.empty() && (part.empty() || part == "."))
            return "the path holds an empty or \".\" component";
    }
    return std::nullopt;
}

bool QVBackupContainerReadEntry(const Backup& backup, const Entry& entry,
                                const std::function<bool(const uint8_t*, size_t)>& sink,
                                const QVProblemFunction& warnings, uint64_t* delivered, CFErrorRef* error) {
    QV_ASSERT(backup);
    QV_ASSERT(entry);
    uint64_t given = 0;
    if (delivered) *delivered = 0;
    const bool ok = Boundary(error, [&]() -> bool {
        const std::string shown = fmt::format("{} {}", entry->domainText, entry->path());
        if (!QVManifestEntryIsFile(entry))
            throw Error(QVErrorInvalidArgument, CF::Error(),
                        fmt::format("{} is a {}, not a file", shown, QVManifestEntryIsDirectory(entry) ? "directory" : "symbolic link"),
                        {{}, std::string(entry->domainText), std::string(entry->path()), entry->fileID(), {}});
        std::vector<uint8_t> recorded;
        for (const QVProblem& p : QVBackupContainerVerifyEntry(backup, entry, QVVerifyMode::Quick, &recorded)) {
            if (p.warning) {
                if (warnings) warnings(p);
                continue;
            }
            if (p.kind == QVProblemKind::Unreadable)
                throw Error(QVErrorReadWrite, CF::Error(), fmt::format("{} {}", shown, p.detail),
                            {p.storedName, p.domain, p.path, p.fileID, to_string(p.kind)});
            throw damageError(p);
        }
        CFErrorRef slot = nullptr;
        std::shared_ptr<QVFileClass> file = QVBackupContainerCopyFileForPath(
            backup, QVManifestEntryGetDomain(entry), QVManifestEntryGetPath(entry), &slot);
        if (!file) throw CF::Error::Adopt(slot);
        auto foundWhileReading = [&](QVProblemKind kind, std::string detail) {
            QVProblem p;
            p.kind = kind;
            p.domain = std::string(entry->domainText);
            p.path = std::string(entry->path());
            p.fileID = entry->fileID();
            p.storedName = LocalFilenameForFileID(CF::String(p.fileID), backup->manifestVersion, true).utf8();
            p.storedLength = QVFileGetSize(file);
            p.detail = std::move(detail);
            return p;
        };
        // A file of up to kCheckedWhole bytes is held whole, a larger one its last piece.
        constexpr size_t kCheckedWhole = size_t{4} << 20;
        constexpr uint64_t kPiece = uint64_t{1} << 20;
        std::vector<uint8_t> held;
        bool streaming = false, stopped = false;
        auto deliver = [&](const uint8_t* bytes, size_t length) {
            if (stopped || length == 0) return;
            if (!sink(bytes, length)) stopped = true;
            given += length;
        };
        std::optional<std::vector<uint8_t>> digest;
        try {
            digest = QVFileGetDataAndHash(file, kPiece, [&](const std::vector<uint8_t>& chunk) {
                if (chunk.empty()) return true;  // the deciphering's end may add nothing
                if (recorded.empty()) {
                    deliver(chunk.data(), chunk.size());
                } else if (streaming) {
                    deliver(held.data(), held.size());
                    held.assign(chunk.begin(), chunk.end());
                } else {
                    held.insert(held.end(), chunk.begin(), chunk.end());
                    if (held.size() > kCheckedWhole) {
                        deliver(held.data(), held.size() - chunk.size());
                        held.erase(held.begin(), held.end() - static_cast<std::ptrdiff_t>(chunk.size()));
                        streaming = true;
                    }
                }
                return !stopped;
            });
        } catch (const CF::Error& e) {
            if (e.Code() != QVErrorCryptoOperation) throw;
            throw damageError(foundWhileReading(QVProblemKind::BadPadding, "cannot be deciphered (" + e.Reason() + ")"));
        }
        if (stopped) return true;
        if (!recorded.empty() && digest != recorded)
            throw damageError(foundWhileReading(QVProblemKind::DigestMismatch, "is not the one its manifest records"));
        if (!held.empty()) deliver(held.data(), held.size());
        return true;
    });
    if (delivered) *delivered = given;
    return ok;
}

namespace {

// An entry that must not be extracted (its name, or a link in the way), or could not be.
struct NotExtracted {
    QVExtractResult result;
    std::string reason;
};

class Extractor {
public:
    Extractor(const Backup& backup, Descriptor root, const std::function<bool(double)>& progress, uint64_t totalBytes)
        : backup_(backup), root_(std::move(root)), progress_(progress), totalBytes_(totalBytes) {}

    void Extract(const Entry& entry) {
        const std::string_view domain = entry->domainText;
        const std::string_view path = entry->path();
        if (auto problem = QVEntryNameProblem(domain, path, QVNameUse::Extract))
            throw NotExtracted{QVExtractResult::Unsafe, *problem};
        std::vector<std::string> parts{std::string(domain)};
        for (std::string_view part : components(path))
            if (!part.empty() && part != ".") parts.emplace_back(part);
        const std::string name = parts.back();
        parts.pop_back();
        Descriptor parent = OpenDirectories(parts);
        if (QVManifestEntryIsDirectory(entry)) {
            MakeDirectory(name, entry, parts);
        } else if (QVManifestEntryIsSymlink(entry)) {
            MakeSymlink(parent, name, entry);
        } else {
            MakeFile(parent, name, entry);
        }
    }

    // Directory modes and times, deepest first, once nothing more is written into them.
    void FinishDirectories() {
        std::stable_sort(directories_.begin(), directories_.end(), [](const PendingDirectory& a, const PendingDirectory& b) {
            return a.components.size() > b.components.size();
        });
        for (const PendingDirectory& d : directories_) {
            try {
                Descriptor fd = OpenDirectories(d.components);
                fchmod(fd.get(), d.permissions);
                timespec times[2] = {{d.modified, 0}, {d.modified, 0}};
                futimens(fd.get(), times);
            } catch (const NotExtracted&) {
            }
        }
    }

    bool stopped() const { return stopped_; }
    // The warnings of the last entry extracted.
    std::vector<std::string> TakeWarnings() { return std::exchange(warnings_, {}); }
    double fraction() const { return totalBytes_ == 0 ? 0.0 : static_cast<double>(written_) / static_cast<double>(totalBytes_); }

private:
    struct PendingDirectory {
        std::vector<std::string> components;
        mode_t permissions;
        time_t modified;
    };

    static time_t modifiedTime(const Entry& entry) {
        return static_cast<time_t>(std::floor(entry->lastModified + kCFAbsoluteTimeIntervalSince1970));
    }

    // Opens DEST/c1/c2/..., creating missing folders, never following a link.
    Descriptor OpenDirectories(const std::vector<std::string>& parts) const {
        Descriptor current(fcntl(root_.get(), F_DUPFD_CLOEXEC, 0));
        if (!current) throw NotExtracted{QVExtractResult::Failed, std::strerror(errno)};
        std::string walked;
        for (const std::string& c : parts) {
            walked += walked.empty() ? c : "/" + c;
            if (mkdirat(current.get(), c.c_str(), 0755) != 0 && errno != EEXIST)
                throw NotExtracted{QVExtractResult::Failed, fmt::format("cannot create {}: {}", walked, std::strerror(errno))};
            const int next = openat(current.get(), c.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (next < 0) {
                const int saved = errno;
                struct stat st {};
                if (fstatat(current.get(), c.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
                    throw NotExtracted{QVExtractResult::Unsafe,
                                       fmt::format("it would be written through the symbolic link {}", walked)};
                if (saved == ENOTDIR) throw NotExtracted{QVExtractResult::Failed, fmt::format("{} is not a folder", walked)};
                throw NotExtracted{QVExtractResult::Failed, fmt::format("cannot open {}: {}", walked, std::strerror(saved))};
            }
            current = Descriptor(next);
        }
        return current;
    }

    // Makes room for a new file or link: an old file or link of the same name goes, a folder stays.
    static void ClearName(const Descriptor& parent, const std::string& name) {
        struct stat st {};
        if (fstatat(parent.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return;
        if (S_ISDIR(st.st_mode)) throw NotExtracted{QVExtractResult::Failed, "a folder of that name is already there"};
        if (unlinkat(parent.get(), name.c_str(), 0) != 0)
            throw NotExtracted{QVExtractResult::Failed, fmt::format("cannot replace the existing one: {}", std::strerror(errno))};
    }

    static mode_t Permissions(const Entry& entry, mode_t fallback, mode_t ownerBits) {
        const mode_t bits = entry->mode & 0777;
        return (bits == 0 ? fallback : bits) | ownerBits;
    }

    void MakeDirectory(const std::string& name, const Entry& entry, std::vector<std::string> parts) {
        parts.push_back(name);
        Descriptor made = OpenDirectories(parts);  // creates it, refusing a link in its place
        directories_.push_back({std::move(parts), Permissions(entry, 0755, 0700), modifiedTime(entry)});
    }

    static void MakeSymlink(const Descriptor& parent, const std::string& name, const Entry& entry) {
        const std::string target(entry->target());
        if (target.empty()) throw NotExtracted{QVExtractResult::Failed, "the link has no target"};
        ClearName(parent, name);
        if (symlinkat(target.c_str(), parent.get(), name.c_str()) != 0)
            throw NotExtracted{QVExtractResult::Failed, fmt::format("cannot create the link: {}", std::strerror(errno))};
        const time_t modified = modifiedTime(entry);
        timespec times[2] = {{modified, 0}, {modified, 0}};
        utimensat(parent.get(), name.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }

    void MakeFile(const Descriptor& parent, const std::string& name, const Entry& entry) {
        ClearName(parent, name);
        Descriptor out(openat(parent.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!out) throw NotExtracted{QVExtractResult::Failed, fmt::format("cannot create the file: {}", std::strerror(errno))};
        int writeError = 0;
        CFErrorRef error = nullptr;
        const bool read = QVBackupContainerReadEntry(
            backup_, entry,
            [&](const uint8_t* bytes, size_t length) {
                while (length > 0) {
                    const ssize_t n = ::write(out.get(), bytes, length);
                    if (n < 0 && errno == EINTR) continue;
                    if (n <= 0) {
                        writeError = n < 0 ? errno : EIO;
                        return false;
                    }
                    bytes += n;
                    length -= static_cast<size_t>(n);
                    written_ += static_cast<uint64_t>(n);
                }
                if (progress_ && totalBytes_ > 0 && !progress_(static_cast<double>(written_) / static_cast<double>(totalBytes_))) {
                    stopped_ = true;
                    return false;
                }
                return true;
            },
            [&](const QVProblem& p) { warnings_.push_back(p.detail); }, nullptr, &error);
        CF::Error failure = CF::Error::Adopt(error);
        if (!read || writeError != 0 || stopped_) {
            out.Close();
            unlinkat(parent.get(), name.c_str(), 0);
            if (stopped_) throw NotExtracted{QVExtractResult::Failed, "stopped"};
            if (writeError != 0)
                throw NotExtracted{QVExtractResult::Failed, fmt::format("cannot write the file: {}", std::strerror(writeError))};
            const bool damaged = failure.Code() == QVErrorInvalidBackup || !ErrorContextValue(failure, kQVErrorCheckKey).empty();
            throw NotExtracted{damaged ? QVExtractResult::Damaged : QVExtractResult::Failed, failure.Reason()};
        }
        fchmod(out.get(), Permissions(entry, 0644, 0600));
        const time_t modified = modifiedTime(entry);
        timespec times[2] = {{modified, 0}, {modified, 0}};
        futimens(out.get(), times);
        if (!out.Close()) {
            const int saved = errno;
            unlinkat(parent.get(), name.c_str(), 0);
            throw NotExtracted{QVExtractResult::Failed, fmt::format("cannot write the file: {}", std::strerror(saved))};
        }
    }

    const Backup& backup_;
    Descriptor root_;
    const std::function<bool(double)>& progress_;
    uint64_t totalBytes_ = 0;
    uint64_t written_ = 0;
    bool stopped_ = false;
    std::vector<std::string> warnings_;
    std::vector<PendingDirectory> directories_;
};

}  // namespace

std::optional<QVExtractSummary> QVBackupContainerExtractEntries(const Backup& backup, const std::vector<Entry>& entries,
                                                                const std::filesystem::path& destination,
                                                                const std::function<void(const QVExtractEvent&)>& report,
                                                                const std::function<bool(double)>& progress,
                                                                CFErrorRef* error) {
    QV_ASSERT(backup);
    return Boundary(error, [&]() -> std::optional<QVExtractSummary> {
        std::error_code ec;
        std::filesystem::create_directories(destination, ec);
        Descriptor root(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!root)
            throw MakeErrnoError(ec ? ec.value() : errno, fmt::format("Cannot write into {}", destination.string()));
        uint64_t totalBytes = 0;
        for (const Entry& e : entries)
            if (QVManifestEntryIsFile(e)) totalBytes += e->size;
        QVExtractSummary summary;
        Extractor extractor(backup, std::move(root), progress, totalBytes);
        for (const Entry& entry : entries) {
            try {
                extractor.Extract(entry);
                ++summary.extracted;
                for (std::string& warning : extractor.TakeWarnings())
                    if (report) report({entry, QVExtractResult::Extracted, std::move(warning)});
            } catch (const NotExtracted& n) {
                extractor.TakeWarnings();
                if (extractor.stopped()) break;
                switch (n.result) {
                    case QVExtractResult::Unsafe: ++summary.unsafe; break;
                    case QVExtractResult::Damaged: ++summary.damaged; break;
                    default: ++summary.failed; break;
                }
                if (report) report({entry, n.result, n.reason});
            }
            // Between entries too, so that a tree of folders and empty files can be stopped.
            if (extractor.stopped() || (progress && !progress(extractor.fraction()))) {
                extractor.FinishDirectories();
                throw Error(QVErrorUnknown, CF::Error(), "Extraction stopped");
            }
        }
        extractor.FinishDirectories();
        return summary;
    });
}

}  // namespace Quiver
