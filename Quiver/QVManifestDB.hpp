// Manifest.db: the SQLite manifest of backups of versions 3.0 to 3.3, one row per entry with the
// entry's MBFile record as a blob. Neither direction opens the caller's file: the reader works on a
// private copy, the writer builds the database in a private file, both in "QVManifestDB" below the
// temporary storage path, and both remove their private files when done.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/QVManifest.hpp"

namespace SQLite {
class Database;
class Statement;
}

namespace Quiver {

// Reads a Manifest.db into a manifest; empty with *error set on failure. One bad row fails the load.
QV_EXPORT Manifest QVManifestCreateFromManifestDatabase(CFStringRef path, QVManifestDataVersion version,
                                                        QVGetFileFunction getFile, QVProgressFunction progress,
                                                        CFErrorRef* error);
// The bytes of a new Manifest.db holding the manifest, rows in domain-path order. Throws CF::Error.
QV_EXPORT std::vector<std::byte> QVManifestCreateManifestDBRepresentation(const Manifest& manifest,
                                                                          QVManifestDataVersion version);

// The database behind both directions, on a private file that it deletes when destroyed.
class ManifestDatabase {
public:
    using RowFunction = std::function<void(const CF::String& fileID, const CF::String& domain,
                                           const CF::String& relativePath, int32_t flags, const CF::Data& data,
                                           int64_t rowIndex, int64_t rowCount)>;

    ManifestDatabase();
    ~ManifestDatabase();
    ManifestDatabase(const ManifestDatabase&) = delete;
    ManifestDatabase& operator=(const ManifestDatabase&) = delete;

    // Copies the file at path (none when empty) to the private file and opens that.
    void Open(const std::filesystem::path& path);
    // A new database with the Manifest.db schema and the given user version.
    void Create(uint32_t userVersion);
    // INSERT OR REPLACE of one row; null domain, path or data become NULL columns.
    void InsertRow(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath, int32_t flags, CFDataRef data);
    // Calls row for every row of Files; the data it is given views SQLite's buffer and is valid only
    // during the call.
    void QueryAllRows(const RowFunction& row);
    void BeginTransaction();
    void Commit();
    void Close();
    const std::filesystem::path& Path() const { return path_; }
    uint32_t UserVersion() const { return userVersion_; }

private:
    std::unique_ptr<SQLite::Database> db_;
    std::unique_ptr<SQLite::Statement> insert_;  // prepared once, reset per row
    std::filesystem::path path_;
    uint32_t userVersion_ = 0;
};

// "QVManifestDB" below the temporary storage path, created once.
std::filesystem::path ManifestDatabaseDirectory();

}  // namespace Quiver
