// The C++ front of the library: a backup opened from a directory or a zip file, its entries as light
// views, reading files out of it, checking it, and writing it (edited, converted) as a new backup.
//
// Every failure throws quiver::Error (quiver/Error.hpp), which says what went wrong and, where it
// applies, which file of the backup and which entry it is about.
//
// Lifetimes: a Backup is a handle; copies share one opened backup. An Entry keeps the record it
// views alive, so it stays valid (and its string views with it) after the Backup is gone or the
// entry has been removed by an edit. An EntryRange holds what it ranges over; an edit of the backup
// invalidates the iterators of a range of the whole backup taken before it, as a std::vector's
// are by an insertion.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quiver/Api.hpp"
#include "quiver/Error.hpp"
#include "quiver/Value.hpp"

namespace quiver {

// Told the fraction done, from 0 to 1, of a long piece of work.
using Progress = std::function<void(double fraction)>;

// Other is a mode of none of the three (a device node, a pipe, or damage): no content to read.
enum class EntryKind { File, Directory, Symlink, Other };

// How the device protects a file's key; NotSet in plain backups and on folders and links.
enum class ProtectionClass : uint32_t {
    NotSet = 0,
    Complete = 1,
    WriteOnly = 2,            // complete unless open
    CompleteUntilUnlocked = 3,
    None = 4,
};

// "NotSet", "Complete", "WriteOnly", "CompleteUntilUnlocked" or "None".
QUIVER_API const char* to_string(ProtectionClass protectionClass);

struct Times {
    int64_t birth = 0;  // Unix seconds, rounded down
    int64_t modified = 0;
    int64_t statusChanged = 0;
};

// One item of a backup: a file, a folder or a symbolic link, named by its domain and path.
class QUIVER_API Entry {
public:
    std::string_view domain() const;
    std::string_view path() const;
    std::string_view target() const;  // a symbolic link's target; empty otherwise
    std::string fileID() const;       // the stored file's name: 40 lowercase hex digits, as a rule
    EntryKind kind() const;
    // The type flags as Manifest.db stores them (1 file, 2 folder, 4 link), whatever the mode says;
    // 0 where the manifest has none (Manifest.mbdb).
    uint8_t typeFlags() const;
    bool isFile() const { return kind() == EntryKind::File; }
    bool isDirectory() const { return kind() == EntryKind::Directory; }
    bool isSymlink() const { return kind() == EntryKind::Symlink; }
    uint64_t size() const;  // the plaintext length the manifest records
    uint16_t mode() const;  // the whole POSIX mode, type bits included
    uint32_t uid() const;
    uint32_t gid() const;
    uint64_t inode() const;  // as the device recorded it; 0 for entries added since opening
    Times times() const;
    ProtectionClass protectionClass() const;
    std::span<const uint8_t> digest() const;      // the SHA-1 the manifest records, or empty
    std::span<const uint8_t> wrappedKey() const;  // the file's wrapped key (encrypted backups), or empty
    // Extended attributes: a dictionary from each name to its Data; null when there are none.
    Value extendedAttributes() const;
    // The same as one text for people, as the library's CSV listing of a Manifest.db shows them: in
    // the order the manifest records them, data as its length and bytes; empty when there are none.
    std::string describeExtendedAttributes() const;

    bool operator==(const Entry& other) const { return record_ == other.record_; }

private:
    friend class Backup;
    friend class EntryRange;
    explicit Entry(std::shared_ptr<void> record) : record_(std::move(record)) {}
    std::shared_ptr<void> record_;
};

// Entries in domain and path order (the order of the manifest), as a random-access range.
class QUIVER_API EntryRange {
public:
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Entry;
        iterator() = default;
        Entry operator*() const { return range_->operator[](index_); }
        iterator& operator++() { ++index_; return *this; }
        iterator operator++(int) { iterator before = *this; ++index_; return before; }
        bool operator==(const iterator& other) const { return index_ == other.index_; }

    private:
        friend class EntryRange;
        iterator(const EntryRange* range, size_t index) : range_(range), index_(index) {}
        const EntryRange* range_ = nullptr;
        size_t index_ = 0;
    };

    size_t size() const;
    bool empty() const { return size() == 0; }
    Entry operator[](size_t index) const;
    iterator begin() const { return iterator(this, 0); }
    iterator end() const { return iterator(this, size()); }
    std::vector<Entry> toVector() const;

private:
    friend class Backup;
    struct Source;
    explicit EntryRange(std::shared_ptr<const Source> source) : source_(std::move(source)) {}
    std::shared_ptr<const Source> source_;
};

// What a backup's metadata files say, read without its password and without its manifest.
struct Metadata {
    Value info;      // Info.plist; null when missing
    Value status;    // Status.plist
    Value manifest;  // Manifest.plist
    std::vector<std::string> missing;     // the metadata files that are not there
    std::vector<std::string> unreadable;  // of those, the ones there that are no property list
    std::string manifestFile;             // "Manifest.db", "Manifest.mbdb", or "" when neither is there
    bool encrypted() const { return manifest["IsEncrypted"].asBoolean(); }
};

// What a backup holds, counted from its manifest by the kind each entry's mode gives it.
struct Contents {
    uint64_t files = 0;  // regular files, and entries of no other kind (as listings show them)
    uint64_t directories = 0;
    uint64_t symlinks = 0;
    uint64_t totalSize = 0;  // of the files, as recorded
    uint64_t domains = 0;    // distinct, not counting an empty one
};

// A backup as Backup::open finds it, its entries counted rather than kept.
struct Summary {
    Metadata metadata;            // what open() read; manifestFile names the manifest it read
    std::string manifestVersion;  // as Backup::manifestVersion()
    bool encrypted = false;
    bool manifestEnciphered = false;
    std::vector<std::string> loadWarnings;
    Contents contents;
};

// One problem verification found (see Backup::verify).
struct Problem {
    std::string kind;  // "stored-file-missing", "digest-mismatch", "bad-padding", "size-disagrees", ...
    // A warning leaves the backup sound: devices write files that change during a backup, and
    // classes only the device itself can open.
    bool warning = false;
    std::string domain, path, fileID;
    std::string storedName;  // relative to the backup's root, "/"-separated; empty when no file is meant
    std::string detail;      // one sentence for people
    std::optional<uint32_t> protectionClass;
    uint64_t storedLength = 0;
};

enum class VerifyMode {
    Quick,    // what opening each stored file tells: presence, length, key, padding
    Digests,  // and the recorded digests (what a copy checks before it writes)
    Full,     // every stored byte read once
};

struct ExtractEvent {
    enum class Result { Extracted, Unsafe, Failed, Damaged };
    Entry entry;
    Result result;
    std::string reason;
};

// What a key bag's header says of how a password becomes its key, read without the password.
struct KeyBagInfo {
    uint32_t version = 0;
    uint32_t type = 0;
    uint32_t iterations = 0;               // PBKDF2-HMAC-SHA1 rounds
    std::optional<uint32_t> dpIterations;  // PBKDF2-HMAC-SHA256 rounds before those, from iOS 10.2 on
    int classes = 0;                       // the protection classes it holds keys for
};

// The key bag in Manifest.plist's BackupKeyBag (Backup::manifestProperties(), Metadata::manifest);
// nothing when there is none or its header cannot be read.
QUIVER_API std::optional<KeyBagInfo> readKeyBagInfo(const Value& manifestProperties);

struct ExtractSummary {
    uint64_t extracted = 0, unsafe = 0, failed = 0, damaged = 0;
};

// How a new password becomes a key. The defaults are what devices use.
struct PasswordParameters {
    uint32_t iterations = 10'000'000;  // PBKDF2-HMAC-SHA256
    uint32_t sha1Iterations = 10'000;  // PBKDF2-HMAC-SHA1
};

struct WriteOptions {
    bool zip = false;  // a zip file rather than a directory
    Progress progress;
    // Told what the writing turns to: "files", "manifest", then "metadata".
    std::function<void(std::string_view phase)> phase;
    // Check each stored file copied from the source as verify(VerifyMode::Digests) would, in the same
    // read as the copy. A file with a problem that is not a warning is damaged: the write fails once
    // every file is checked, leaving nothing, unless skipDamaged is set; then the damaged files'
    // entries are taken out of this backup and the rest is written. Every problem found, warnings
    // included, goes to `problem`.
    bool check = false;
    bool skipDamaged = false;
    std::function<void(const Problem& problem)> problem;
};

struct ConvertOptions {
    bool zip = false;
    // Leave out the files that cannot be read (each still reported) instead of writing nothing.
    bool skipDamaged = false;
    Progress progress;
    std::function<void(const Problem& problem)> problem;  // each file that cannot be read
};

class QUIVER_API Backup {
public:
    // Opens a backup directory or zip file. `password` is needed for an encrypted backup only;
    // Error::isPasswordProblem() tells a missing or wrong one (or one that is not UTF-8 text).
    // Progress covers the manifest's load.
    static Backup open(const std::filesystem::path& path, const std::optional<std::string>& password = {},
                       const Progress& progress = {});
    // Opens the backup as open() does, with the same checks of its metadata, of the password and of
    // every record of its manifest, and fails as open() would, but counts the entries instead of
    // keeping them: a program that shows what many backups hold needs none of their entries in memory.
    static Summary summarize(const std::filesystem::path& path, const std::optional<std::string>& password = {},
                             const Progress& progress = {});
    // A new backup with no entries and no metadata; give it metadata before writing it.
    static Backup create();
    // The metadata files of a backup directory or zip, without its password or manifest.
    static Metadata readMetadata(const std::filesystem::path& path);

    // ---- What it is ----
    const std::filesystem::path& path() const;
    bool encrypted() const;
    bool manifestEnciphered() const;   // a Manifest.db enciphered under the manifest key
    std::string manifestFormat() const;  // "Manifest.db" or "Manifest.mbdb"
    std::string manifestVersion() const;  // "2.4" (Manifest.mbdb), "3.0" to "3.3" (Manifest.db)
    Value info() const;                  // Info.plist (null when missing)
    Value status() const;                // Status.plist
    Value manifestProperties() const;    // Manifest.plist
    // Replaces the three metadata files (for a backup made with create()).
    void setMetadata(const Value& info, const Value& status, const Value& manifest);
    std::vector<std::string> missingMetadata() const;
    std::vector<std::string> unreadableMetadata() const;
    std::vector<std::string> loadWarnings() const;
    uint64_t fileCount() const;  // regular files
    uint64_t totalSize() const;  // of the regular files, as recorded
    Contents contents() const;   // of the entries now, edits included

    // ---- Entries ----
    EntryRange entries() const;
    EntryRange entriesInDomain(std::string_view domain) const;
    // The entry at domain/path and everything below it; the whole domain for an empty path.
    EntryRange entriesUnder(std::string_view domain, std::string_view path) const;
    std::optional<Entry> find(std::string_view domain, std::string_view path) const;
    std::optional<Entry> findByFileID(std::string_view fileID) const;
    std::vector<std::string> domains() const;  // sorted
    // The entries of a Manifest.db file on its own, outside any backup (a plain one: an enciphered
    // one needs its backup's password). Their contents cannot be read.
    static EntryRange readManifestDB(const std::filesystem::path& manifestDB);

    // ---- Stored files ----
    // Where a regular file's content lies, relative to the backup's root and "/"-separated
    // ("ab/ab12…"; "ab12…" in a Manifest.mbdb backup); empty for folders and links.
    std::string storedName(const Entry& entry) const;
    // The length of a regular file's stored file as the backup holds it (enciphered, in an encrypted
    // backup). Throws Error when it is missing or cannot be opened.
    uint64_t storedLength(const Entry& entry) const;

    // ---- Reading ----
    // Streams a regular file's plaintext to `chunk` (return false to stop), checked on the way:
    // damage found at the end is never passed off as a whole file, since plaintext is held back until
    // it is known good. Throws Error (with check() naming the problem) for a damaged or missing file.
    // Warnings that leave the file readable go to `warning` when given.
    void read(const Entry& entry, const std::function<bool(std::span<const uint8_t> chunk)>& chunk,
              const std::function<void(const Problem&)>& warning = {}) const;
    void read(const Entry& entry, std::ostream& out) const;
    std::string readAll(const Entry& entry) const;

    // ---- Checking ----
    std::vector<Problem> verify(const Entry& entry, VerifyMode mode = VerifyMode::Digests) const;
    // Every stored file, then the manifest as a whole and the stored files no entry names; returns
    // the number of problems that are not warnings.
    uint64_t verify(VerifyMode mode, const std::function<void(const Problem&)>& problem,
                    const Progress& progress = {}) const;

    // ---- Extracting ----
    // Writes the entries under destination/DOMAIN/PATH, never outside it and never through a link;
    // each entry not extracted (and each extracted with a warning) goes to `event`.
    ExtractSummary extract(const std::vector<Entry>& entries, const std::filesystem::path& destination,
                           const std::function<void(const ExtractEvent&)>& event = {},
                           const Progress& progress = {}) const;

    // ---- Editing (in memory, until written) ----
    // A file whose content is read from `source` on the disk (now, into the library's private
    // storage), or given as bytes. Replacing a file keeps its protection class, with a fresh key.
    Entry putFile(std::string_view domain, std::string_view path, const std::filesystem::path& source);
    Entry putData(std::string_view domain, std::string_view path, std::span<const uint8_t> content);
    Entry makeDirectory(std::string_view domain, std::string_view path);
    Entry makeSymlink(std::string_view domain, std::string_view path, std::string_view target);
    // Sets the times the manifest records for an entry of this backup.
    void setTimes(const Entry& entry, const Times& times);
    // Why domain and path cannot name an entry written into a backup (an absolute path, "..", a
    // domain that is no plain name...); nothing when they can. The edits refuse such names.
    static std::optional<std::string> nameProblem(std::string_view domain, std::string_view path);
    // Removes the entry and everything below it; false when nothing is there.
    bool remove(std::string_view domain, std::string_view path);
    // Takes out entries whose stored files are damaged, before writing a copy without them.
    void removeEntries(const std::vector<Entry>& entries);

    // ---- Writing ----
    // Writes the backup as a new directory or zip at destination, whole or not at all: into a partial
    // file beside it (partialPath), renamed into place when complete. The conversions write so too.
    void write(const std::filesystem::path& destination, const WriteOptions& options = {}) const;
    // Writes an encrypted backup as the plain backup a device would have written.
    void writeDecrypted(const std::filesystem::path& destination, const ConvertOptions& options = {}) const;
    // Writes a plain backup as an encrypted one of the newest generation under a new password.
    void writeEncrypted(const std::filesystem::path& destination, std::string_view password,
                        const PasswordParameters& parameters = {}, const ConvertOptions& options = {}) const;
    // Writes a Manifest.mbdb backup (iOS 4 to 9) with a Manifest.db manifest in the layout of iOS 10.2
    // and later, every entry, attribute, stored byte and wrapped key carried over. An encrypted backup
    // keeps its password and keys, its key bag written again with two derivation passes (`parameters`)
    // and Manifest.db enciphered under a new manifest key. A backup on Manifest.db already is written
    // as it is.
    void writeWithManifestDB(const std::filesystem::path& destination, const PasswordParameters& parameters = {},
                             const ConvertOptions& options = {}) const;
    // Where a write to destination by this process lies until it is complete, for a program that
    // must remove it when a signal ends the process (the library removes it on any failure).
    static std::filesystem::path partialPath(const std::filesystem::path& destination);
    // Gives the encrypted backup directory a new password in place; only Manifest.plist changes.
    static void changePassword(const std::filesystem::path& directory, std::string_view oldPassword,
                               std::string_view newPassword, const PasswordParameters& parameters = {});

    // The CSV listing of a Manifest.db file (every field of every row, sorted by file ID), written
    // piece by piece; `write` returns false to stop.
    static void writeManifestCSV(const std::filesystem::path& manifestDB,
                                 const std::function<bool(std::string_view text)>& write);

    struct Impl;

private:
    explicit Backup(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
};

// Where the library keeps its private files (cache files, files being written), set once per process
// before the first backup is opened or made; false when another folder was set before. A program that
// sets none gets a folder of its own under TMPDIR, removed when the process exits normally.
QUIVER_API bool setTemporaryFolder(const std::filesystem::path& folder);

// The library's log on standard error: 0 silent, 1 information, 2 detail. Until this is called it
// shows warnings and errors (or what the environment variable QUIVER_LOG_LEVEL asks for: debug, info,
// warn, error, off). Failures reach the caller as quiver::Error whatever the level; a program that
// reports them itself may silence the log.
QUIVER_API void setLogLevel(int level);

}  // namespace quiver
