// Commands that read items out of a backup: `cat` streams one file's plaintext to standard output,
// `extract` writes a readable tree DEST/DOMAIN/PATH.
//
// Domains and paths come from the backup and cannot be trusted: a hostile backup may hold "../x",
// "/etc/x", a domain named "..", or a symbolic link followed by a file below it. Extraction never
// resolves a name as a whole. It walks DEST one component at a time with openat(O_NOFOLLOW), makes
// each file with O_CREAT|O_EXCL|O_NOFOLLOW, and so cannot be led outside DEST by a name or by a link,
// whether the extraction made that link or found it there. Entries that would escape are skipped
// with a warning, the rest is extracted, and the command ends with status 1; so are files the backup
// holds damaged, and the command then ends with status 4.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "Tool.hpp"

namespace fs = std::filesystem;
using namespace Quiver;

namespace QuiverTool {

namespace {

// ---- cat ----

struct CatOptions {
    std::string backup;
    std::string domain;
    std::string path;
};

int RunCat(const CatOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    Entry entry = RequireEntry(open.get(), o.domain, o.path);
    ReadEntryContent(open.get(), entry, [](const uint8_t* bytes, size_t length) { WriteAll(STDOUT_FILENO, bytes, length); });
    return kSuccess;
}

// ---- extract ----

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

// An entry that must not be extracted; the text says why.
struct Refused {
    std::string why;
};
// An entry that could not be extracted: for an ordinary reason (a clash, a full disk), or because
// the backup is damaged there.
struct Broken {
    std::string why;
    bool damaged = false;
};

struct ExtractOptions {
    std::string backup;
    std::string destination;
    std::optional<std::string> domain;
    std::optional<std::string> path;
};

class Extractor {
public:
    Extractor(const Backup& backup, Descriptor root, Progress& progress, uint64_t totalBytes)
        : backup_(backup), root_(std::move(root)), progress_(progress), totalBytes_(totalBytes) {}

    // Extracts one entry; returns false (after a warning) when it was skipped or failed.
    bool Extract(const Entry& entry) {
        const std::string domain = EntryDomain(entry);
        const std::string path = EntryPath(entry);
        try {
            std::vector<std::string> components = SafeComponents(domain, path);
            const std::string name = components.back();
            components.pop_back();
            Descriptor parent = OpenDirectories(components);
            if (QVManifestEntryIsDirectory(entry))
                MakeDirectory(name, entry, components);
            else if (QVManifestEntryIsSymlink(entry))
                MakeSymlink(parent, name, entry);
            else
                MakeFile(parent, name, entry);
            return true;
        } catch (const Refused& r) {
            Warn(fmt::format("skipped {} {}: {}", Printable(domain), Printable(path), r.why));
            ++refused_;
        } catch (const Broken& b) {
            Warn(fmt::format("could not extract {} {}: {}", Printable(domain), Printable(path), b.why));
            ++broken_;
            damaged_ += b.damaged ? 1 : 0;
        }
        return false;
    }

    // Directory modes and times, deepest first, once nothing more is written into them.
    void FinishDirectories() {
        std::stable_sort(directories_.begin(), directories_.end(),
                         [](const PendingDirectory& a, const PendingDirectory& b) {
                             return a.components.size() > b.components.size();
                         });
        for (const PendingDirectory& d : directories_) {
            try {
                Descriptor fd = OpenDirectories(d.components);
                fchmod(fd.get(), d.permissions);
                timespec times[2] = {{d.modified, 0}, {d.modified, 0}};
                futimens(fd.get(), times);
            } catch (const Refused&) {
            } catch (const Broken&) {
            }
        }
    }

    int refused() const { return refused_; }
    int broken() const { return broken_; }
    int damaged() const { return damaged_; }

private:
    struct PendingDirectory {
        std::vector<std::string> components;
        mode_t permissions;
        time_t modified;
    };

    // DEST-relative components: the domain, then the path's components. The domain root is the domain
    // alone. Throws Refused for any name that could lead outside DEST.
    static std::vector<std::string> SafeComponents(const std::string& domain, const std::string& path) {
        if (domain.empty()) throw Refused{"the domain is empty"};
        if (domain == "." || domain == "..") throw Refused{"the domain is not a folder name"};
        if (domain.find('/') != std::string::npos) throw Refused{"the domain holds \"/\""};
        if (domain.find('\0') != std::string::npos || path.find('\0') != std::string::npos)
            throw Refused{"the name holds a NUL character"};
        if (!path.empty() && path.front() == '/') throw Refused{"the path is absolute"};
        std::vector<std::string> components{domain};
        size_t start = 0;
        while (start <= path.size()) {
            size_t end = path.find('/', start);
            if (end == std::string::npos) end = path.size();
            std::string part = path.substr(start, end - start);
            if (part == "..") throw Refused{"the path climbs out of its domain with \"..\""};
            // Empty and "." components name the folder they are in and lead nowhere.
            if (!part.empty() && part != ".") components.push_back(std::move(part));
            start = end + 1;
        }
        return components;
    }

    // Opens DEST/c1/c2/..., creating missing folders, never following a link.
    Descriptor OpenDirectories(const std::vector<std::string>& components) {
        Descriptor current(fcntl(root_.get(), F_DUPFD_CLOEXEC, 0));
        if (!current) throw Broken{std::strerror(errno)};
        std::string walked;
        for (const std::string& c : components) {
            walked += walked.empty() ? c : "/" + c;
            if (mkdirat(current.get(), c.c_str(), 0755) != 0 && errno != EEXIST)
                throw Broken{fmt::format("cannot create {}: {}", Printable(walked), std::strerror(errno))};
            int next = openat(current.get(), c.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (next < 0) {
                const int saved = errno;
                struct stat st {};
                if (fstatat(current.get(), c.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
                    throw Refused{fmt::format("it would be written through the symbolic link {}", Printable(walked))};
                if (saved == ENOTDIR) throw Broken{fmt::format("{} is not a folder", Printable(walked))};
                throw Broken{fmt::format("cannot open {}: {}", Printable(walked), std::strerror(saved))};
            }
            current = Descriptor(next);
        }
        return current;
    }

    // Makes room for a new file or link: an old file or link of the same name goes, a folder stays.
    static void ClearName(const Descriptor& parent, const std::string& name) {
        struct stat st {};
        if (fstatat(parent.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return;
        if (S_ISDIR(st.st_mode)) throw Broken{"a folder of that name is already there"};
        if (unlinkat(parent.get(), name.c_str(), 0) != 0)
            throw Broken{fmt::format("cannot replace the existing one: {}", std::strerror(errno))};
    }

    static mode_t Permissions(const Entry& entry, mode_t fallback, mode_t ownerBits) {
        mode_t bits = QVManifestEntryGetFileMode(entry) & 0777;
        return (bits == 0 ? fallback : bits) | ownerBits;
    }

    void MakeDirectory(const std::string& name, const Entry& entry, std::vector<std::string> components) {
        components.push_back(name);
        Descriptor made = OpenDirectories(components);  // creates it, refusing a link in its place
        directories_.push_back({std::move(components), Permissions(entry, 0755, 0700),
                                static_cast<time_t>(EntryModifiedUnixTime(entry))});
    }

    static void MakeSymlink(const Descriptor& parent, const std::string& name, const Entry& entry) {
        const std::string target = Utf8(QVManifestEntryGetTarget(entry));
        if (target.empty()) throw Broken{"the link has no target"};
        ClearName(parent, name);
        if (symlinkat(target.c_str(), parent.get(), name.c_str()) != 0)
            throw Broken{fmt::format("cannot create the link: {}", std::strerror(errno))};
        const time_t modified = static_cast<time_t>(EntryModifiedUnixTime(entry));
        timespec times[2] = {{modified, 0}, {modified, 0}};
        utimensat(parent.get(), name.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }

    void MakeFile(const Descriptor& parent, const std::string& name, const Entry& entry) {
        ClearName(parent, name);
        Descriptor out(openat(parent.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!out) throw Broken{fmt::format("cannot create the file: {}", std::strerror(errno))};
        try {
            ReadEntryContent(backup_, entry, [&](const uint8_t* bytes, size_t length) {
                WriteAll(out.get(), bytes, length);
                written_ += length;
                if (totalBytes_ > 0) progress_.Update(static_cast<double>(written_) / static_cast<double>(totalBytes_));
            });
        } catch (const Failure& f) {
            out.Close();
            unlinkat(parent.get(), name.c_str(), 0);
            throw Broken{f.what(), f.status() == kBadBackup};
        }
        fchmod(out.get(), Permissions(entry, 0644, 0600));
        const time_t modified = static_cast<time_t>(EntryModifiedUnixTime(entry));
        timespec times[2] = {{modified, 0}, {modified, 0}};
        futimens(out.get(), times);
        if (!out.Close()) {
            const int saved = errno;
            unlinkat(parent.get(), name.c_str(), 0);
            throw Broken{fmt::format("cannot write the file: {}", std::strerror(saved))};
        }
    }

    const Backup& backup_;
    Descriptor root_;
    Progress& progress_;
    uint64_t totalBytes_ = 0;
    uint64_t written_ = 0;
    std::vector<PendingDirectory> directories_;
    int refused_ = 0;
    int broken_ = 0;
    int damaged_ = 0;
};

int RunExtract(const ExtractOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    std::vector<Entry> entries = SelectEntries(open.get(), o.domain, o.path);

    std::error_code ec;
    fs::create_directories(o.destination, ec);
    Descriptor root(::open(o.destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root)
        throw Failure(kFailure, fmt::format("cannot write into {}: {}", o.destination,
                                            ec ? ec.message() : std::string(std::strerror(errno))));
    uint64_t totalBytes = 0;
    for (const Entry& e : entries)
        if (QVManifestEntryIsFile(e)) totalBytes += QVManifestEntryGetFileSize(e);

    Progress progress("Extracting");
    Extractor extractor(open.get(), std::move(root), progress, totalBytes);
    size_t extracted = 0;
    for (const Entry& e : entries) {
        StopIfInterrupted();
        extracted += extractor.Extract(e) ? 1 : 0;
    }
    extractor.FinishDirectories();
    progress.Finish();

    Detail(global.verbosity, fmt::format("extracted {} of {} entries into {}", extracted, entries.size(), o.destination));
    if (extractor.refused() > 0 || extractor.broken() > 0) {
        std::string message;
        if (extractor.refused() > 0)
            message = fmt::format("{} {} with unsafe names skipped", extractor.refused(),
                                  extractor.refused() == 1 ? "entry" : "entries");
        if (extractor.broken() > 0)
            message += fmt::format("{}{} {} could not be extracted", message.empty() ? "" : "; ", extractor.broken(),
                                   extractor.broken() == 1 ? "entry" : "entries");
        throw Failure(extractor.damaged() > 0 ? kBadBackup : kFailure, message);
    }
    return kSuccess;
}

}  // namespace

void AddReadCommands(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto cat = std::make_shared<CatOptions>();
    CLI::App* catCommand = app.add_subcommand("cat", "Write the plaintext of one file to standard output");
    catCommand->add_option("BACKUP", cat->backup, "Backup directory or zip file")->required();
    catCommand->add_option("DOMAIN", cat->domain, "The file's domain, e.g. HomeDomain")->required();
    catCommand->add_option("PATH", cat->path, "The file's path in its domain")->required();
    catCommand->callback([cat, &global, &action] { action = [cat, &global] { return RunCat(*cat, global); }; });

    auto extract = std::make_shared<ExtractOptions>();
    CLI::App* extractCommand =
        app.add_subcommand("extract", "Write the files, folders and links of a backup as a tree DEST/DOMAIN/PATH");
    extractCommand->add_option("BACKUP", extract->backup, "Backup directory or zip file")->required();
    extractCommand->add_option("DEST", extract->destination, "Folder to write into (created when missing)")->required();
    extractCommand->add_option("DOMAIN", extract->domain, "Only this domain");
    extractCommand->add_option("PATH", extract->path, "Only this path and what is below it");
    extractCommand->callback(
        [extract, &global, &action] { action = [extract, &global] { return RunExtract(*extract, global); }; });
}

}  // namespace QuiverTool
