// Manifest.db: the SQLite manifest of backups of versions 3.0 to 3.3, one row per entry with the
// entry's MBFile record as a blob. The reader opens the caller's file in place, read-only and as
// immutable, so that SQLite neither writes beside it nor takes a lock; only when a write-ahead log
// with pages in it lies beside the file does it read a private copy that takes the log in. The
// plaintext of an enciphered database is read from memory (a database image), never from a file.
// The writer builds the database in memory, or, for a backup being written, in a file without a
// name below "QVManifestDB" in the temporary storage.
#pragma once

#include <quiver/QVManifestDB.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <utility>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/QVCipherVFS.hpp"
#include "Quiver/QVManifest.hpp"

struct sqlite3_stmt;
class QVFileClass;

namespace SQLite {
class Database;
class Statement;
}

namespace Quiver {

// The database behind both directions, on a private file that it deletes when destroyed.
class ManifestDatabase {
public:
    // One row as views of SQLite's buffers, valid only during the call. Text that is not UTF-8 is
    // taken as Latin-1 and converted; the domain is one string shared by every row of the domain.
    struct Row {
        std::string_view fileID;
        const CF::String& domain;
        std::string_view relativePath;
        int32_t flags;
        std::span<const uint8_t> data;
        int64_t index;
        int64_t count;
    };
    using RowFunction = std::function<void(const Row& row)>;

    ManifestDatabase();
    ~ManifestDatabase();
    ManifestDatabase(const ManifestDatabase&) = delete;
    ManifestDatabase& operator=(const ManifestDatabase&) = delete;

    // Copies the file at path (none when empty) to the private file and opens that.
    void Open(const std::filesystem::path& path);
    // Opens the file at path for reading without changing it: in place and immutable, or, when a
    // write-ahead log with pages in it lies beside it, through a private copy that takes the log in.
    void OpenForReading(const std::filesystem::path& path);
    // Reads a database image from memory.
    void OpenImage(DatabaseImage image);
    // Reads a database enciphered under `key` where it lies, deciphering pages as they are read.
    void OpenEnciphered(const std::filesystem::path& path, const std::array<uint8_t, 32>& key);
    // A new database with the Manifest.db tables and the given user version, in memory or, when file
    // is given, in that file (which must exist and be empty); Finish adds the indexes once the rows
    // are in, and Serialize gives the bytes of one in memory, marked for the write-ahead log as devices
    // write it (MarkForWriteAheadLog does that to a file, once closed).
    void Create(uint32_t userVersion, const std::filesystem::path& file = {});
    void Finish();
    std::vector<std::byte> Serialize();
    static void MarkForWriteAheadLog(int descriptor);
    // INSERT OR REPLACE of one row; null domain, path or data become NULL columns.
    void InsertRow(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath, int32_t flags, CFDataRef data);
    void InsertRow(std::string_view fileID, std::optional<std::string_view> domain,
                   std::optional<std::string_view> relativePath, int32_t flags,
                   std::optional<std::span<const uint8_t>> data);
    // Calls row for every row of Files (in the order of orderBy when one is given).
    void QueryAllRows(const RowFunction& row, const char* orderBy = nullptr);
    // The first and last rowid of Files; nothing when it has no rows, or when its rows are not kept by
    // rowid or a column takes a rowid's name.
    std::optional<std::pair<int64_t, int64_t>> RowidSpan();
    // Calls row for every row of Files whose rowid lies in [first, last], in rowid order: a full scan's
    // order. A row's index counts the rows of the call; its count is the width of the range.
    void QueryRowRange(int64_t first, int64_t last, const RowFunction& row);
    // A second connection that reads what this one reads, for another thread; it must not outlive this
    // one. Throws when this one is not open for reading.
    std::unique_ptr<ManifestDatabase> OpenAnotherReader() const;
    void BeginTransaction();
    void Commit();
    void Close();
    const std::filesystem::path& Path() const { return path_; }
    uint32_t UserVersion() const { return userVersion_; }

private:
    void readUserVersion();
    void readRows(SQLite::Statement& query, int64_t count, const RowFunction& each);
    void execAll(std::initializer_list<std::string> statements);
    void rewriteSchema();

    std::unique_ptr<CipheredDatabase> cipher_;  // outlives the connection that reads through it
    std::unique_ptr<SQLite::Database> db_;
    struct StatementFinalizer {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, StatementFinalizer> insert_;  // prepared once, reset per row
    std::unique_ptr<SQLite::Statement> range_;                  // prepared once, reset per range
    struct DomainStrings;
    std::unique_ptr<DomainStrings> domains_;  // one string per domain text, shared by its rows
    // How another reader opens what this one reads: a URI and its flags, or a database image that this
    // connection owns.
    std::string readerURI_;
    int readerFlags_ = 0;
    const unsigned char* image_ = nullptr;
    int64_t imageSize_ = 0;
    std::filesystem::path path_;
    uint32_t userVersion_ = 0;
};

// Counts the entries of a Manifest.db, plain or enciphered, with every check that loading it makes,
// keeping none of them: a fraction of a load's memory and time. Throws the CF::Error of the load's
// failure.
ManifestContents QVManifestCountManifestDatabase(const std::filesystem::path& path, QVProgressFunction progress);
ManifestContents QVManifestCountEncipheredManifestDatabase(const std::filesystem::path& path,
                                                           const std::array<uint8_t, 32>& key,
                                                           QVProgressFunction progress);

// "QVManifestDB" below the temporary storage path, created once.
std::filesystem::path ManifestDatabaseDirectory();

// A new Manifest.db holding the manifest, as QVManifestCreateManifestDBRepresentation makes it, in a
// file without a name below ManifestDatabaseDirectory rather than in memory. Throws like it.
std::shared_ptr<QVFileClass> QVManifestCreateManifestDBFile(const Manifest& manifest, QVManifestDataVersion version);

}  // namespace Quiver
