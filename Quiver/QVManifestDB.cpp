#include "Quiver/QVManifestDB.hpp"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <utility>
#include <cstring>
#include <deque>
#include <exception>
#include <iterator>
#include <future>
#include <thread>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Quiver/MB/File.hpp"
#include "Quiver/QVEntryPool.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/Support/File.hpp"

namespace fs = std::filesystem;

namespace Quiver {

namespace {

constexpr int32_t kFlagOnlyRecord = 16;

bool versionAccepted(QVManifestDataVersion version) { return version >= 30 && version <= 33; }

CF::Error badVersion(QVManifestDataVersion version) {
    return Error(QVErrorInvalidArgument, CF::Error(),
                 fmt::format("Invalid manifest version '{}' for this encoding scheme", static_cast<int>(version)));
}

// Text columns as strings; NULL gives the empty string, and bytes that are not UTF-8 are taken as
// Latin-1 rather than failing the row.
CF::String textColumn(const SQLite::Column& column) {
    const char* text = column.getText("");
    int length = column.getBytes();
    CFStringRef s = CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text), length,
                                            kCFStringEncodingUTF8, false);
    if (!s)
        s = CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text), length,
                                    kCFStringEncodingISOLatin1, false);
    return CF::String::Adopt(s);
}

// A path as an SQLite URI: everything but unreserved characters and "/" percent-encoded, so that "?",
// "#" and "%" in a folder name are not read as the URI's own.
std::string fileURI(const fs::path& path, std::string_view parameters) {
    std::string uri = "file:";
    for (unsigned char c : fs::absolute(path).string()) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            uri += static_cast<char>(c);
        } else {
            uri += fmt::format("%{:02X}", c);
        }
    }
    return uri + "?" + std::string(parameters);
}

void removeDatabaseFiles(const fs::path& path) {
    std::error_code ec;
    fs::remove(path, ec);
    fs::remove(fs::path(path.string() + "-wal"), ec);
    fs::remove(fs::path(path.string() + "-shm"), ec);
    fs::remove(fs::path(path.string() + "-journal"), ec);
}

// The same as a view of SQLite's buffer when the text is UTF-8, else converted into `spare`.
std::string_view textView(const SQLite::Column& column, std::string& spare) {
    const std::string_view text(column.getText(""), static_cast<size_t>(column.getBytes()));
    bool ascii = true;
    for (size_t i = 0; i < text.size() && ascii; ++i) ascii = static_cast<unsigned char>(text[i]) < 0x80;
    if (ascii) return text;
    CF::String converted = textColumn(column);
    if (CF::UTF8View(converted.get()) == text) return text;
    spare = converted.utf8();
    return spare;
}

}  // namespace

// Every connection here is used by one thread at a time (the threads that decode rows or encode records
// never call SQLite), so SQLite's lock around each call, taken for every column of every row, is left out.
constexpr int kOneThread = SQLITE_OPEN_NOMUTEX;

fs::path ManifestDatabaseDirectory() {
    static std::mutex lock;
    static std::optional<fs::path> directory;
    std::lock_guard guard(lock);
    if (!directory) {
        fs::path d = GetTemporaryFilesystemPath() / "QVManifestDB";
        fs::create_directories(d);
        directory = d;
    }
    return *directory;
}

ManifestDatabase::ManifestDatabase() = default;

// The private files go with the wrapper: a decrypted copy of an encrypted backup's database is
// private data and must not linger.
ManifestDatabase::~ManifestDatabase() {
    insert_.reset();
    range_.reset();
    db_.reset();
    if (!path_.empty()) removeDatabaseFiles(path_);
}

void ManifestDatabase::Open(const fs::path& source) {
    fs::path privatePath = ManifestDatabaseDirectory() / CF::UUID::Create().ToString().utf8();
    if (!source.empty()) {
        std::error_code ec;
        fs::copy_file(source, privatePath, ec);
        if (ec)
            throw Error(QVErrorFilesystem, CF::Error(),
                        fmt::format("Failed to copy temporary database '{}' to '{}' ({})", source.string(),
                                    privatePath.string(), ec.message()));
        path_ = privatePath;
        // The copy is ours: writable whatever the backup's own permissions (backups are often read-only).
        constexpr auto ownerReadWrite = fs::perms::owner_read | fs::perms::owner_write;
        fs::permissions(privatePath, ownerReadWrite, ec);
        // A write-ahead log beside the database holds committed pages too.
        fs::path wal(source.string() + "-wal");
        fs::path privateWal(privatePath.string() + "-wal");
        if (fs::is_regular_file(wal, ec) && fs::file_size(wal, ec) > 0 && fs::copy_file(wal, privateWal, ec))
            fs::permissions(privateWal, ownerReadWrite, ec);
    }
    path_ = privatePath;
    try {
        db_ = std::make_unique<SQLite::Database>(privatePath.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | kOneThread);
        readerURI_ = fileURI(privatePath, "mode=ro");
        readerFlags_ = SQLite::OPEN_READONLY | SQLite::OPEN_URI | kOneThread;
    } catch (const std::exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(),
                    fmt::format("Failed to instantiate database at '{}' ({})", privatePath.string(), e.what()));
    }
    readUserVersion();
}

void ManifestDatabase::OpenForReading(const fs::path& source) {
    // Committed pages still in a log would be missed by an immutable reader: copy both and read the copy.
    std::error_code ec;
    const fs::path wal(source.string() + "-wal");
    if (fs::is_regular_file(wal, ec) && fs::file_size(wal, ec) > 0) return Open(source);
    if (!fs::is_regular_file(source, ec))
        throw Error(QVErrorFileNotFound, CF::Error(), fmt::format("File does not exist at path '{}'", source.string()));
    try {
        readerURI_ = fileURI(source, "immutable=1");
        readerFlags_ = SQLite::OPEN_READONLY | SQLite::OPEN_URI | kOneThread;
        db_ = std::make_unique<SQLite::Database>(readerURI_, readerFlags_);
        readUserVersion();
    } catch (const CF::Error&) {
        throw;
    } catch (const std::exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(),
                    fmt::format("Failed to instantiate database at '{}' ({})", source.string(), e.what()));
    }
}

void ManifestDatabase::OpenEnciphered(const fs::path& source, const std::array<uint8_t, 32>& key) {
    if (!fs::is_regular_file(source))
        throw Error(QVErrorFileNotFound, CF::Error(), fmt::format("File does not exist at path '{}'", source.string()));
    cipher_ = std::make_unique<CipheredDatabase>(source, key);
    try {
        readerURI_ = fileURI(source, "immutable=1&" + cipher_->URIParameters());
        readerFlags_ = SQLite::OPEN_READONLY | SQLite::OPEN_URI | kOneThread;
        db_ = std::make_unique<SQLite::Database>(readerURI_, readerFlags_);
        readUserVersion();
    } catch (const CF::Error&) {
        throw;
    } catch (const std::exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(),
                    fmt::format("Failed to read the enciphered database at '{}' ({})", source.string(), e.what()));
    }
}

void ManifestDatabase::OpenImage(DatabaseImage image) {
    try {
        db_ = std::make_unique<SQLite::Database>(":memory:", SQLite::OPEN_READWRITE | kOneThread);
    } catch (const std::exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(), fmt::format("Failed to open a database in memory ({})", e.what()));
    }
    // Bytes 18 and 19 of the header say how the file is written and read; 2 (a write-ahead log) cannot be
    // read from memory, and the log of a deciphered image is long gone, so it is read as 1 (rollback).
    if (image.size() >= 20 && image.data()[18] == 2 && image.data()[19] == 2) image.data()[18] = image.data()[19] = 1;
    const auto size = static_cast<sqlite3_int64>(image.size());
    // SQLite owns the image from here on, whether or not it accepts it.
    const int result = sqlite3_deserialize(db_->getHandle(), "main", image.release(), size, size,
                                           SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_READONLY);
    if (result != SQLITE_OK)
        throw Error(QVErrorDatabaseOperation, CF::Error(),
                    fmt::format("Failed to read the database from memory ({})", sqlite3_errstr(result)));
    // Where SQLite keeps the image: another reader reads it there, without a copy.
    sqlite3_int64 kept = 0;
    image_ = sqlite3_serialize(db_->getHandle(), "main", &kept, SQLITE_SERIALIZE_NOCOPY);
    imageSize_ = image_ ? kept : 0;
    readUserVersion();
}

void ManifestDatabase::readUserVersion() {
    try {
        SQLite::Statement query(*db_, "PRAGMA user_version;");
        if (query.executeStep()) userVersion_ = static_cast<uint32_t>(query.getColumn(0).getInt64());
    } catch (const std::exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(), fmt::format("Failed to query user_version ({})", e.what()));
    }
}

DatabaseImage::DatabaseImage(size_t capacity) : capacity_(capacity) {
    data_ = static_cast<uint8_t*>(sqlite3_malloc64(std::max<size_t>(capacity, 1)));
    if (!data_) throw std::bad_alloc();
}

DatabaseImage::~DatabaseImage() {
    if (!data_) return;
    OPENSSL_cleanse(data_, capacity_);
    sqlite3_free(data_);
}

DatabaseImage::DatabaseImage(DatabaseImage&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), capacity_(other.capacity_), size_(other.size_) {}

void DatabaseImage::setSize(size_t size) { size_ = std::min(size, capacity_); }

uint8_t* DatabaseImage::release() { return std::exchange(data_, nullptr); }

namespace {

// The schema as devices write it, row for row of sqlite_master, each with the object whose root page it
// takes in the database the writer builds (see rewriteSchema).
constexpr const char* kFileIDKey = "FilesFileIDKey";
struct SchemaRow {
    const char* type;
    const char* name;
    const char* table;
    const char* rootOf;
    const char* sql;  // null for a key's own index
};
constexpr SchemaRow kDeviceSchema[] = {
    {"table", "Files", "Files", "Files",
     "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB)"},
    {"index", "sqlite_autoindex_Files_1", "Files", kFileIDKey, nullptr},
    {"index", "FilesDomainIdx", "Files", "FilesDomainIdx", "CREATE INDEX FilesDomainIdx ON Files(domain)"},
    {"index", "FilesRelativePathIdx", "Files", "FilesRelativePathIdx",
     "CREATE INDEX FilesRelativePathIdx ON Files(relativePath)"},
    {"index", "FilesFlagsIdx", "Files", "FilesFlagsIdx", "CREATE INDEX FilesFlagsIdx ON Files(flags)"},
    {"table", "Properties", "Properties", "Properties", "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)"},
    {"index", "sqlite_autoindex_Properties_1", "Properties", "sqlite_autoindex_Properties_1", nullptr},
};
constexpr const SchemaRow& kPropertiesTable = kDeviceSchema[5];

// The system's file system, but for a file reached through /proc/self/fd: SQLite would resolve that
// link to the name the file had (creating a new file there for a file without a name) and would refuse
// to open the link itself. Such a database is read and written through a descriptor of its own, by
// this connection alone, so it takes no locks.
constexpr const char* kNamelessVFSName = "quiver-nameless";
constexpr std::string_view kDescriptors = "/proc/self/fd/";

struct NamelessFile {
    sqlite3_file base;
    int fd;
};

int namelessClose(sqlite3_file* file) {
    ::close(reinterpret_cast<NamelessFile*>(file)->fd);
    return SQLITE_OK;
}
int namelessRead(sqlite3_file* file, void* out, int amount, sqlite3_int64 offset) {
    const int fd = reinterpret_cast<NamelessFile*>(file)->fd;
    auto* bytes = static_cast<uint8_t*>(out);
    int got = 0;
    while (got < amount) {
        const ssize_t n = ::pread(fd, bytes + got, static_cast<size_t>(amount - got), offset + got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return SQLITE_IOERR_READ;
        if (n == 0) break;
        got += static_cast<int>(n);
    }
    if (got == amount) return SQLITE_OK;
    std::memset(bytes + got, 0, static_cast<size_t>(amount - got));
    return SQLITE_IOERR_SHORT_READ;
}
int namelessWrite(sqlite3_file* file, const void* in, int amount, sqlite3_int64 offset) {
    const int fd = reinterpret_cast<NamelessFile*>(file)->fd;
    const auto* bytes = static_cast<const uint8_t*>(in);
    int put = 0;
    while (put < amount) {
        const ssize_t n = ::pwrite(fd, bytes + put, static_cast<size_t>(amount - put), offset + put);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return errno == ENOSPC ? SQLITE_FULL : SQLITE_IOERR_WRITE;
        put += static_cast<int>(n);
    }
    return SQLITE_OK;
}
int namelessTruncate(sqlite3_file* file, sqlite3_int64 size) {
    return ::ftruncate(reinterpret_cast<NamelessFile*>(file)->fd, size) == 0 ? SQLITE_OK : SQLITE_IOERR_TRUNCATE;
}
int namelessSync(sqlite3_file*, int) { return SQLITE_OK; }  // the file is gone when the process is
int namelessFileSize(sqlite3_file* file, sqlite3_int64* size) {
    struct stat info {};
    if (::fstat(reinterpret_cast<NamelessFile*>(file)->fd, &info) != 0) return SQLITE_IOERR_FSTAT;
    *size = info.st_size;
    return SQLITE_OK;
}
int namelessLock(sqlite3_file*, int) { return SQLITE_OK; }
int namelessCheckReservedLock(sqlite3_file*, int* reserved) {
    *reserved = 0;
    return SQLITE_OK;
}
int namelessFileControl(sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; }
int namelessSectorSize(sqlite3_file*) { return 4096; }
int namelessDeviceCharacteristics(sqlite3_file*) { return 0; }

const sqlite3_io_methods kNamelessMethods = {
    1,
    namelessClose,
    namelessRead,
    namelessWrite,
    namelessTruncate,
    namelessSync,
    namelessFileSize,
    namelessLock,
    namelessLock,
    namelessCheckReservedLock,
    namelessFileControl,
    namelessSectorSize,
    namelessDeviceCharacteristics,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
};

int namelessOpen(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    sqlite3_vfs* base = static_cast<sqlite3_vfs*>(vfs->pAppData);
    if (!(flags & SQLITE_OPEN_MAIN_DB) || !name || !std::string_view(name).starts_with(kDescriptors))
        return base->xOpen(base, name, file, flags, outFlags);
    auto& f = *reinterpret_cast<NamelessFile*>(file);
    f.base.pMethods = nullptr;  // SQLite calls no method of a file whose open failed
    f.fd = ::fcntl(std::atoi(name + kDescriptors.size()), F_DUPFD_CLOEXEC, 0);
    if (f.fd < 0) return SQLITE_CANTOPEN;
    f.base.pMethods = &kNamelessMethods;
    if (outFlags) *outFlags = flags;
    return SQLITE_OK;
}

int namelessFullPathname(sqlite3_vfs* vfs, const char* name, int size, char* out) {
    sqlite3_vfs* base = static_cast<sqlite3_vfs*>(vfs->pAppData);
    if (!std::string_view(name).starts_with(kDescriptors)) return base->xFullPathname(base, name, size, out);
    if (std::strlen(name) >= static_cast<size_t>(size)) return SQLITE_CANTOPEN;
    std::strcpy(out, name);
    return SQLITE_OK;
}

const char* namelessVFS() {
    static const bool registered = [] {
        sqlite3_initialize();
        sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
        auto* vfs = new sqlite3_vfs(*base);  // registered for the life of the process
        vfs->szOsFile = std::max(vfs->szOsFile, static_cast<int>(sizeof(NamelessFile)));
        vfs->zName = kNamelessVFSName;
        vfs->pNext = nullptr;
        vfs->pAppData = base;
        vfs->xOpen = namelessOpen;
        vfs->xFullPathname = namelessFullPathname;
        return sqlite3_vfs_register(vfs, 0) == SQLITE_OK;
    }();
    if (!registered) throw Error(QVErrorDatabaseOperation, CF::Error(), "Failed to register a file system with SQLite");
    return kNamelessVFSName;
}

}  // namespace

void ManifestDatabase::Create(uint32_t userVersion, const std::filesystem::path& file) {
    // The rows are the plaintext of what may be an encrypted backup: they are built either in memory
    // or in a file without a name (an anonymous file reached through /proc/self/fd), never in a file
    // that could outlive the process (a crash, SIGKILL) where nothing would remove it.
    const std::string where = file.empty() ? std::string(":memory:") : file.string();
    try {
        db_ = std::make_unique<SQLite::Database>(where, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | kOneThread, 0,
                                                 file.empty() ? std::string() : std::string(namelessVFS()));
    } catch (const std::exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(), fmt::format("Failed to open a new database ({})", e.what()));
    }
    if (file.empty()) {
        // In one block of memory that grows as pages are written, rather than in pages of the cache:
        // Serialize then reads the file's bytes where they lie instead of gathering a copy of them.
        int result = sqlite3_deserialize(db_->getHandle(), "main", nullptr, 0, 0,
                                         SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE);
        if (result == SQLITE_OK) {
            sqlite3_int64 limit = sqlite3_int64{1} << 45;
            result = sqlite3_file_control(db_->getHandle(), "main", SQLITE_FCNTL_SIZE_LIMIT, &limit);
        }
        if (result != SQLITE_OK)
            throw Error(QVErrorDatabaseOperation, CF::Error(),
                        fmt::format("Failed to open a database in memory ({})", sqlite3_errstr(result)));
    }
    userVersion_ = userVersion;
    // No journal from the first statement: a journal beside a nameless file could not be made, and a
    // database that fails half-built is thrown away whole. auto_vacuum takes effect only on a
    // database without tables, so it is also set first. Files is made without its primary key: rows
    // go in in domain-path order, which would put each one at a random place of the key's index.
    // Finish builds that index by sorting, with the other three, and then gives the schema the form
    // devices write (see rewriteSchema).
    execAll({
        "PRAGMA journal_mode=OFF;",
        "PRAGMA synchronous=OFF;",
        "PRAGMA locking_mode=EXCLUSIVE;",
        "PRAGMA auto_vacuum='INCREMENTAL';",
        "CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB);",
        std::string(kPropertiesTable.sql) + ";",
        "PRAGMA user_version=" + std::to_string(userVersion) + ";",
        "PRAGMA auto_vacuum='INCREMENTAL';",
        "PRAGMA automatic_index=1;",
    });
}

void ManifestDatabase::Finish() {
    // Each index is built by sorting every row: a second thread may take half of each sort. The
    // journal in memory lets a key that fails on a repeated file ID be undone; the pages of a new
    // index are new pages, which it does not copy.
    execAll({"PRAGMA threads=2;", "PRAGMA journal_mode=MEMORY;"});
    const std::string key = std::string("CREATE UNIQUE INDEX ") + kFileIDKey + " ON Files(fileID);";
    try {
        db_->exec(key);
    } catch (const SQLite::Exception&) {
        // A file ID given twice: the later row replaces the earlier, as INSERT OR REPLACE would have.
        execAll({"DELETE FROM Files WHERE rowid NOT IN (SELECT max(rowid) FROM Files GROUP BY fileID);", key});
    }
    for (const SchemaRow& row : kDeviceSchema)
        if (std::string_view(row.type) == "index" && row.sql) execAll({std::string(row.sql) + ";"});
    rewriteSchema();
}

void ManifestDatabase::rewriteSchema() {
    // The unique index on fileID holds exactly what the primary key's own index would (the file ID and
    // the row's rowid, in the same order), so naming it as that index and giving Files its declared
    // key makes the database that a table created with the key would have been. The schema's rows are
    // laid down in the order devices write them. This connection is closed without reading its own
    // schema again.
    std::unordered_map<std::string, int64_t> roots;
    {
        SQLite::Statement query(*db_, "SELECT name, rootpage FROM sqlite_master;");
        while (query.executeStep()) roots[query.getColumn(0).getString()] = query.getColumn(1).getInt64();
    }
    try {
        db_->exec("PRAGMA writable_schema=ON; BEGIN; DELETE FROM sqlite_master;");
        SQLite::Statement insert(*db_, "INSERT INTO sqlite_master (type, name, tbl_name, rootpage, sql) "
                                       "VALUES (?, ?, ?, ?, ?);");
        for (const SchemaRow& row : kDeviceSchema) {
            const auto root = roots.find(row.rootOf);
            if (root == roots.end()) throw std::runtime_error(fmt::format("no {} in the new schema", row.rootOf));
            insert.bind(1, row.type);
            insert.bind(2, row.name);
            insert.bind(3, row.table);
            insert.bind(4, root->second);
            if (row.sql) insert.bind(5, row.sql);
            else insert.bind(5);
            insert.exec();
            insert.reset();
        }
        db_->exec("COMMIT; PRAGMA writable_schema=OFF;");
    } catch (const std::exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(), fmt::format("Failed to write the database's schema -- {}", e.what()));
    }
}

// Devices write Manifest.db in write-ahead-log mode, which the header's bytes 18 and 19 (2 and 2)
// record; a database built here cannot be switched to it (it has no file beside which a log could lie),
// and nothing else in the file differs.
constexpr size_t kFileFormatOffset = 18;
constexpr uint8_t kWriteAheadLogFormat[2] = {2, 2};

std::vector<std::byte> ManifestDatabase::Serialize() {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    sqlite3_int64 size = 0;
    unsigned char* image = sqlite3_serialize(db_->getHandle(), "main", &size, SQLITE_SERIALIZE_NOCOPY);
    if (!image) throw Error(QVErrorDatabaseOperation, CF::Error(), "Failed to serialize the database");
    // Copied in one pass, without first filling the vector with zeros: a database of a large backup
    // holds hundreds of megabytes. SQLite frees its own block when the connection closes.
    std::vector<std::byte> bytes;
    bytes.reserve(static_cast<size_t>(size));
    const auto* begin = reinterpret_cast<const std::byte*>(image);
    bytes.insert(bytes.end(), begin, begin + size);
    OPENSSL_cleanse(image, static_cast<size_t>(size));
    if (bytes.size() >= kFileFormatOffset + sizeof kWriteAheadLogFormat)
        std::memcpy(bytes.data() + kFileFormatOffset, kWriteAheadLogFormat, sizeof kWriteAheadLogFormat);
    return bytes;
}

void ManifestDatabase::MarkForWriteAheadLog(int descriptor) {
    if (pwrite(descriptor, kWriteAheadLogFormat, sizeof kWriteAheadLogFormat, kFileFormatOffset) !=
        static_cast<ssize_t>(sizeof kWriteAheadLogFormat))
        throw Error(QVErrorDatabaseOperation, CF::Error(),
                    fmt::format("Failed to write the database's header ({})", std::strerror(errno)));
}

void ManifestDatabase::execAll(std::initializer_list<std::string> statements) {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    for (const std::string& statement : statements) {
        try {
            db_->exec(statement);
        } catch (const std::exception& e) {
            throw Error(QVErrorDatabaseOperation, CF::Error(),
                        fmt::format("Failed to prepare new database ({}) -- {}", statement, e.what()));
        }
    }
}

void ManifestDatabase::InsertRow(CFStringRef fileID, CFStringRef domain, CFStringRef relativePath, int32_t flags,
                                 CFDataRef data) {
    if (!fileID) throw Error(QVErrorInvalidArgument, CF::Error(), "fileID must be non-null");
    const std::string id = CF::UTF8(fileID), domainText = CF::UTF8(domain), path = CF::UTF8(relativePath);
    InsertRow(id, domain ? std::optional<std::string_view>(domainText) : std::nullopt,
              relativePath ? std::optional<std::string_view>(path) : std::nullopt, flags,
              data ? std::optional<std::span<const uint8_t>>(
                         {CFDataGetBytePtr(data), static_cast<size_t>(CFDataGetLength(data))})
                   : std::nullopt);
}

void ManifestDatabase::StatementFinalizer::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

void ManifestDatabase::InsertRow(std::string_view fileID, std::optional<std::string_view> domain,
                                 std::optional<std::string_view> relativePath, int32_t flags,
                                 std::optional<std::span<const uint8_t>> data) {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    // SQLite's own interface: a writer inserts hundreds of thousands of rows through this statement.
    sqlite3* handle = db_->getHandle();
    auto failed = [handle](const char* what) {
        return Error(QVErrorDatabaseOperation, CF::Error(),
                     fmt::format("Failed to insert row ({}: {})", what, sqlite3_errmsg(handle)));
    };
    if (!insert_) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v3(handle, "INSERT OR REPLACE INTO Files (fileID,domain,relativePath,flags,file)VALUES (?,?,?,?,?)",
                               -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK)
            throw failed("prepare");
        insert_.reset(statement);
    }
    sqlite3_stmt* insert = insert_.get();
    sqlite3_reset(insert);
    // The values are read while the statement runs, here, while the caller's views are still valid.
    auto bindText = [insert](int index, std::optional<std::string_view> text) {
        // A view of nothing has no address, which SQLite would take for NULL rather than empty text.
        return text ? sqlite3_bind_text64(insert, index, text->empty() ? "" : text->data(), text->size(), SQLITE_STATIC,
                                          SQLITE_UTF8)
                    : sqlite3_bind_null(insert, index);
    };
    int rc = bindText(1, fileID);
    if (rc == SQLITE_OK) rc = bindText(2, domain);
    if (rc == SQLITE_OK) rc = bindText(3, relativePath);
    if (rc == SQLITE_OK) rc = sqlite3_bind_int(insert, 4, flags);
    if (rc == SQLITE_OK)
        rc = data ? sqlite3_bind_blob64(insert, 5, data->empty() ? "" : static_cast<const void*>(data->data()),
                                        data->size(), SQLITE_STATIC)
                  : sqlite3_bind_null(insert, 5);
    if (rc != SQLITE_OK) throw failed("bind");
    rc = sqlite3_step(insert);
    sqlite3_reset(insert);
    sqlite3_clear_bindings(insert);
    if (rc != SQLITE_DONE) throw failed("step");
}

// Devices name a few dozen domains for hundreds of thousands of rows: one string each, kept for as
// long as the connection reads.
struct ManifestDatabase::DomainStrings {
    TextMap<CF::String> strings;
    std::string spareID, sparePath;

    const CF::String& Of(const SQLite::Column& column) {
        std::string_view text(column.getText(""), static_cast<size_t>(column.getBytes()));
        auto found = strings.find(text);
        if (found == strings.end()) found = strings.emplace(text, textColumn(column)).first;
        return found->second;
    }
};

void ManifestDatabase::readRows(SQLite::Statement& query, int64_t count, const RowFunction& each) {
    if (!domains_) domains_ = std::make_unique<DomainStrings>();
    DomainStrings& d = *domains_;
    int64_t index = 0;
    while (query.executeStep()) {
        SQLite::Column blob = query.getColumn(4);
        const Row row{textView(query.getColumn(0), d.spareID),
                      d.Of(query.getColumn(1)),
                      textView(query.getColumn(2), d.sparePath),
                      query.getColumn(3).getInt(),
                      {static_cast<const uint8_t*>(blob.getBlob()), static_cast<size_t>(blob.getBytes())},
                      index,
                      count};
        each(row);
        ++index;
    }
}

void ManifestDatabase::QueryAllRows(const RowFunction& each, const char* orderBy) {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    try {
        int64_t count = 0;
        {
            SQLite::Statement counting(*db_, "SELECT COUNT(*) FROM Files;");
            while (counting.executeStep()) count = counting.getColumn(0).getInt64();
        }
        if (count < 1) return;
        SQLite::Statement query(*db_, fmt::format("SELECT fileID, domain, relativePath, flags, file FROM Files{}{};",
                                                  orderBy ? " ORDER BY " : "", orderBy ? orderBy : ""));
        readRows(query, count, each);
    } catch (const SQLite::Exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(), fmt::format("Failed to read rows ({})", e.what()));
    }
}

std::optional<std::pair<int64_t, int64_t>> ManifestDatabase::RowidSpan() {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    try {
        // A table without rowids fails to prepare below; a column named like a rowid would stand in
        // for it, so such a table is read whole.
        SQLite::Statement columns(*db_, "PRAGMA table_info(Files);");
        while (columns.executeStep()) {
            std::string name = columns.getColumn(1).getString();
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
            if (name == "rowid" || name == "_rowid_" || name == "oid") return std::nullopt;
        }
        // Each bound alone, so that SQLite reads it from the end of the table rather than scanning.
        SQLite::Statement span(*db_, "SELECT (SELECT min(rowid) FROM Files), (SELECT max(rowid) FROM Files);");
        if (!span.executeStep() || span.getColumn(0).isNull() || span.getColumn(1).isNull()) return std::nullopt;
        return std::pair(span.getColumn(0).getInt64(), span.getColumn(1).getInt64());
    } catch (const SQLite::Exception&) {
        return std::nullopt;
    }
}

void ManifestDatabase::QueryRowRange(int64_t first, int64_t last, const RowFunction& each) {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    try {
        if (!range_)
            range_ = std::make_unique<SQLite::Statement>(
                *db_, "SELECT fileID, domain, relativePath, flags, file FROM Files WHERE rowid BETWEEN ?1 AND ?2;");
        range_->reset();
        range_->bind(1, first);
        range_->bind(2, last);
        const uint64_t width = static_cast<uint64_t>(last) - static_cast<uint64_t>(first) + 1;
        readRows(*range_, static_cast<int64_t>(std::min<uint64_t>(width, INT64_MAX)), each);
    } catch (const SQLite::Exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(), fmt::format("Failed to read rows ({})", e.what()));
    }
}

std::unique_ptr<ManifestDatabase> ManifestDatabase::OpenAnotherReader() const {
    if (!db_ || (readerURI_.empty() && !image_))
        throw Error(QVErrorInvalidArgument, CF::Error(), "The database is not open for reading");
    auto reader = std::make_unique<ManifestDatabase>();
    try {
        if (!readerURI_.empty()) {
            reader->db_ = std::make_unique<SQLite::Database>(readerURI_, readerFlags_);
        } else {
            reader->db_ = std::make_unique<SQLite::Database>(":memory:", SQLite::OPEN_READWRITE | kOneThread);
            // This connection keeps the image and frees it; the other only reads it.
            const int result = sqlite3_deserialize(reader->db_->getHandle(), "main", const_cast<unsigned char*>(image_),
                                                   imageSize_, imageSize_, SQLITE_DESERIALIZE_READONLY);
            if (result != SQLITE_OK)
                throw Error(QVErrorDatabaseOperation, CF::Error(),
                            fmt::format("Failed to read the database from memory ({})", sqlite3_errstr(result)));
        }
    } catch (const SQLite::Exception& e) {
        throw Error(QVErrorDatabaseOperation, CF::Error(), fmt::format("Failed to open a second reader ({})", e.what()));
    }
    reader->userVersion_ = userVersion_;
    return reader;
}

void ManifestDatabase::BeginTransaction() {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    db_->exec("BEGIN TRANSACTION;");
}

void ManifestDatabase::Commit() {
    if (!db_) throw Error(QVErrorInvalidArgument, CF::Error(), "Database closed");
    db_->exec("COMMIT;");
}

void ManifestDatabase::Close() {
    insert_.reset();
    range_.reset();
    db_.reset();
}

namespace {

// Loads the rows of a manifest. A large one is cut into runs of rowids, and the calling thread and a
// second one, each with a connection of its own, take the next run until none is left: both cores read
// (and decipher) pages and decode records, with nothing copied between them. Each run keeps its
// entries apart, in a pool of the thread that read it, and the runs are joined in order, which is the
// order of a full scan. Progress is reported on the calling thread. A loader that counts decodes and
// checks every record as one that keeps entries does, and keeps nothing of them.
class RowLoader {
public:
    RowLoader(std::shared_ptr<const QVGetFileFunction> getter, QVProgressFunction progress, bool counting = false)
        : getter_(std::move(getter)), progress_(std::move(progress)), counting_(counting) {}
    ~RowLoader() { Join(); }
    RowLoader(const RowLoader&) = delete;
    RowLoader& operator=(const RowLoader&) = delete;

    // Throws the first failure in the order of the rows.
    void Load(ManifestDatabase& database) {
        const std::optional<std::pair<int64_t, int64_t>> span = database.RowidSpan();
        if (!span) {
            runs_.resize(1);
            runs_[0].whole = true;
        } else {
            const auto [first, last] = *span;
            const uint64_t width = static_cast<uint64_t>(last) - static_cast<uint64_t>(first);
            const uint64_t count = std::clamp<uint64_t>(width / kRunRows, 1, kMaxRuns);
            const uint64_t step = width / count + 1;
            for (uint64_t i = 0, at = static_cast<uint64_t>(first); i < count; ++i, at += step) {
                Run run;
                run.first = static_cast<int64_t>(at);
                run.last = i + 1 == count ? last : static_cast<int64_t>(at + step - 1);
                runs_.push_back(std::move(run));
            }
            total_ = static_cast<int64_t>(std::min<uint64_t>(width + 1, INT64_MAX));
            if (runs_.size() > 1) second_ = std::thread([this, &database] { Second(database); });
        }
        Take(database, true);
        Join();
        for (Run& run : runs_)
            if (run.failure) std::rethrow_exception(run.failure);
    }

    // The entries, flag-only records and undecodable rows of every run, in the rows' order.
    std::vector<Entry> TakeEntries() {
        size_t size = 0;
        for (const Run& run : runs_) size += run.entries.size();
        std::vector<Entry> entries;
        entries.reserve(size);
        for (Run& run : runs_) std::move(run.entries.begin(), run.entries.end(), std::back_inserter(entries));
        return entries;
    }
    template <class Each>
    void ForEachFlagOnly(Each each) const {
        for (const Run& run : runs_)
            for (const std::string& fileID : run.flagOnly) each(fileID);
    }
    ManifestContents Contents() const {
        ManifestContents total;
        std::unordered_set<std::string> domains;
        for (const Run& run : runs_) {
            total.files += run.contents.files;
            total.directories += run.contents.directories;
            total.symlinks += run.contents.symlinks;
            total.totalSize += run.contents.totalSize;
            total.wrappedKeys = total.wrappedKeys || run.contents.wrappedKeys;
            for (const CF::String& domain : run.domains)
                if (domain.length() > 0) domains.insert(domain.utf8());
        }
        total.domains = domains.size();
        return total;
    }
    std::vector<std::string> Invalid() const {
        std::vector<std::string> invalid;
        for (const Run& run : runs_) invalid.insert(invalid.end(), run.invalid.begin(), run.invalid.end());
        return invalid;
    }

private:
    // About this many rows a run: enough that a run's seek costs nothing, few enough that the two
    // threads finish together.
    static constexpr uint64_t kRunRows = 4096;
    static constexpr uint64_t kMaxRuns = 256;

    struct Run {
        int64_t first = 0, last = 0;
        bool whole = false;  // the table is read by a full scan
        std::vector<Entry> entries;
        std::vector<std::string> flagOnly, invalid;
        std::exception_ptr failure;
        ManifestContents contents;      // when counting
        std::vector<CF::String> domains;  // when counting: one string per domain of the connection
    };

    // Whatever keeps this thread from reading (no second connection, no memory), the calling thread
    // reads every run itself; a run that fails keeps its failure.
    void Second(const ManifestDatabase& database) noexcept {
        try {
            std::unique_ptr<ManifestDatabase> reader = database.OpenAnotherReader();
            Take(*reader, false);
        } catch (const std::exception& e) {
            log_fmt(log_level::debug, "No second reader for the manifest ({})", e.what());
        } catch (...) {
        }
    }

    void Take(ManifestDatabase& database, bool calling) {
        std::shared_ptr<EntryPool> pool = EntryPool::Create();
        MB::FileView scratch;
        for (;;) {
            if (stop_.load(std::memory_order_relaxed)) return;
            const size_t i = next_.fetch_add(1, std::memory_order_relaxed);
            if (i >= runs_.size()) return;
            Run& run = runs_[i];
            auto each = [&](const ManifestDatabase::Row& row) {
                Add(run, *pool, scratch, row);
                if (calling && progress_) {
                    // A full scan knows its count; runs count the rows of runs done and of this one.
                    const int64_t done = run.whole ? row.index : done_.load(std::memory_order_relaxed) + row.index;
                    const int64_t total = run.whole ? row.count : total_;
                    progress_(done, total, static_cast<double>(done) / static_cast<double>(total));
                }
            };
            try {
                if (run.whole) database.QueryAllRows(each);
                else database.QueryRowRange(run.first, run.last, each);
            } catch (...) {
                run.failure = std::current_exception();
                stop_.store(true, std::memory_order_relaxed);
                return;
            }
            done_.fetch_add(static_cast<int64_t>(run.entries.size() + run.flagOnly.size() + run.invalid.size()),
                            std::memory_order_relaxed);
        }
    }

    void Add(Run& run, EntryPool& pool, MB::FileView& scratch, const ManifestDatabase::Row& row) {
        if (!row.fileID.empty() && !row.data.empty()) {
            if (counting_ ? Count(run, scratch, row) : Keep(run, pool, scratch, row)) return;
            log_fmt(log_level::warning, "Parse error: fileID '{}'", row.fileID);
            run.invalid.emplace_back(row.fileID);
        } else if (row.flags == kFlagOnlyRecord && !row.fileID.empty()) {
            run.flagOnly.emplace_back(row.fileID);
        } else {
            log_fmt(log_level::warning, "Unknown entry format: fileID '{}' fileType '{:x}'", row.fileID, row.flags);
            run.invalid.emplace_back(row.fileID);
        }
    }

    bool Keep(Run& run, EntryPool& pool, MB::FileView& scratch, const ManifestDatabase::Row& row) {
        Entry entry = pool.NewEntry();
        if (!DecodeManifestRow(pool, entry, row.fileID, row.domain, row.relativePath, row.flags, row.data, getter_,
                               scratch))
            return false;
        run.entries.push_back(std::move(entry));
        return true;
    }

    bool Count(Run& run, MB::FileView& scratch, const ManifestDatabase::Row& row) {
        if (!DecodeManifestRecord(row.data, scratch)) return false;
        // The mode as an entry keeps it.
        run.contents.Add(static_cast<uint16_t>(scratch.Mode), scratch.Size, !scratch.EncryptionKey.empty());
        // Rows come grouped by domain, and a connection gives each domain one string.
        if (run.domains.empty() || run.domains.back().get() != row.domain.get()) {
            const bool seen = std::any_of(run.domains.begin(), run.domains.end(),
                                          [&](const CF::String& d) { return d.get() == row.domain.get(); });
            if (!seen) run.domains.push_back(row.domain);
        }
        return true;
    }

    // Also when the calling thread leaves by an exception (a progress function may throw).
    void Join() {
        stop_.store(true, std::memory_order_relaxed);
        if (second_.joinable()) second_.join();
    }

    std::shared_ptr<const QVGetFileFunction> getter_;
    QVProgressFunction progress_;
    bool counting_;
    std::vector<Run> runs_;
    int64_t total_ = 0;
    std::atomic<size_t> next_{0};
    std::atomic<int64_t> done_{0};
    std::atomic<bool> stop_{false};
    std::thread second_;
};

// Reads every row with `loader`; throws the load's failure, the same whether the loader keeps the
// entries or counts them.
void readRows(const std::function<void(ManifestDatabase&)>& open, RowLoader& loader) {
    try {
        ManifestDatabase database;
        open(database);
        loader.Load(database);
    } catch (const CF::Error& e) {
        CF::Error failure = Error(QVErrorInvalidManifestDatabase, e, "Failed to parse records from manifest database");
        LogError(log_level::error, failure);
        throw failure;
    }
    if (const std::vector<std::string> invalid = loader.Invalid(); !invalid.empty()) {
        CF::Error failure = Error(QVErrorInvalidManifestDatabase, CF::Error(),
                                  fmt::format("Database contains {} invalid entries", invalid.size()));
        LogError(log_level::error, failure);
        throw failure;
    }
}

Manifest loadManifest(const std::function<void(ManifestDatabase&)>& open, QVManifestDataVersion version,
                      QVGetFileFunction getFile, QVProgressFunction progress, CFErrorRef* error) {
    if (!versionAccepted(version)) {
        StoreError(error, badVersion(version));
        return nullptr;
    }
    return Boundary(error, [&]() -> Manifest {
        auto sharedGetter = getFile ? std::make_shared<const QVGetFileFunction>(getFile) : nullptr;
        RowLoader loader(sharedGetter, progress);
        readRows(open, loader);
        CF::Dictionary flagOnly = CF::Dictionary::CreateMutable();
        loader.ForEachFlagOnly([&](const std::string& fileID) {
            flagOnly.Set(CF::String(fileID).get(), CF::Number(int64_t{kFlagOnlyRecord}));
        });
        return MakeManifest(loader.TakeEntries(), version, flagOnly, std::move(getFile));
    });
}

ManifestContents countManifest(const std::function<void(ManifestDatabase&)>& open, QVProgressFunction progress) {
    // Failures are those of a load, made at the same boundary.
    CFErrorRef error = nullptr;
    std::optional<ManifestContents> contents = Boundary(&error, [&]() -> std::optional<ManifestContents> {
        RowLoader loader(nullptr, progress, true);
        readRows(open, loader);
        return loader.Contents();
    });
    if (!contents) throw CF::Error::Adopt(error);
    return *contents;
}

}  // namespace

Manifest QVManifestCreateFromManifestDatabase(CFStringRef path, QVManifestDataVersion version,
                                              QVGetFileFunction getFile, QVProgressFunction progress,
                                              CFErrorRef* error) {
    const fs::path source(CF::UTF8(path));
    return loadManifest([&](ManifestDatabase& database) { database.OpenForReading(source); }, version,
                        std::move(getFile), std::move(progress), error);
}

Manifest QVManifestCreateFromEncipheredManifestDatabase(CFStringRef path, const std::array<uint8_t, 32>& key,
                                                        QVManifestDataVersion version, QVGetFileFunction getFile,
                                                        QVProgressFunction progress, CFErrorRef* error) {
    const fs::path source(CF::UTF8(path));
    return loadManifest([&](ManifestDatabase& database) { database.OpenEnciphered(source, key); }, version,
                        std::move(getFile), std::move(progress), error);
}

ManifestContents QVManifestCountManifestDatabase(const fs::path& path, QVProgressFunction progress) {
    return countManifest([&](ManifestDatabase& database) { database.OpenForReading(path); }, std::move(progress));
}

ManifestContents QVManifestCountEncipheredManifestDatabase(const fs::path& path, const std::array<uint8_t, 32>& key,
                                                           QVProgressFunction progress) {
    return countManifest([&](ManifestDatabase& database) { database.OpenEnciphered(path, key); }, std::move(progress));
}

Manifest QVManifestCreateFromManifestDatabaseImage(DatabaseImage image, QVManifestDataVersion version,
                                                   QVGetFileFunction getFile, QVProgressFunction progress,
                                                   CFErrorRef* error) {
    return loadManifest([&](ManifestDatabase& database) { database.OpenImage(std::move(image)); }, version,
                        std::move(getFile), std::move(progress), error);
}

namespace {

// The entries in the order of their "<domain>-<path>" texts, as keys that hold those texts so that
// sorting does not reach into every entry. Where no domain followed by "-" begins another domain, that
// order is the domains' order and then the paths': each domain is ranked once and the rows compare by
// rank and path. A manifest already in order (one loaded from a database written here) is left as it
// is; a large one is sorted in two halves on two threads, then merged.
struct SortKey {
    uint32_t rank;
    std::string_view domain, path;
    const Entry* entry;
};

std::vector<SortKey> sortedForWriting(const std::vector<Entry>& entries) {
    std::vector<SortKey> keys;
    keys.reserve(entries.size());
    std::unordered_map<std::string_view, uint32_t> ranks;
    std::string_view lastDomain;
    uint32_t lastRank = 0;
    bool first = true;
    for (const Entry& entry : entries) {
        const std::string_view domain = entry->domainText;
        // Entries of one domain share its text, and come mostly one after another.
        if (first || domain.data() != lastDomain.data() || domain.size() != lastDomain.size()) {
            first = false;
            lastRank = ranks.emplace(domain, static_cast<uint32_t>(ranks.size())).first->second;
            lastDomain = domain;
        }
        keys.push_back({lastRank, domain, entry->path(), &entry});
    }
    std::vector<std::string> prefixes;
    prefixes.reserve(ranks.size());
    for (const auto& [domain, rank] : ranks) prefixes.push_back(std::string(domain) + "-");
    std::sort(prefixes.begin(), prefixes.end());
    // A prefix that begins other prefixes comes right before the first of them.
    bool ranked = true;
    for (size_t i = 1; i < prefixes.size() && ranked; ++i) ranked = !prefixes[i].starts_with(prefixes[i - 1]);
    if (ranked) {
        std::vector<uint32_t> order(ranks.size());
        for (uint32_t i = 0; i < prefixes.size(); ++i) {
            const std::string_view domain(prefixes[i].data(), prefixes[i].size() - 1);
            order[ranks.find(domain)->second] = i;
        }
        for (SortKey& key : keys) key.rank = order[key.rank];
    }
    auto less = [ranked](const SortKey& a, const SortKey& b) {
        if (ranked) return a.rank != b.rank ? a.rank < b.rank : a.path < b.path;
        return DomainPathTextLess(a.domain, a.path, b.domain, b.path);
    };
    if (std::is_sorted(keys.begin(), keys.end(), less)) return keys;
    const auto middle = keys.begin() + static_cast<std::ptrdiff_t>(keys.size() / 2);
    if (keys.size() < 4096) {
        std::stable_sort(keys.begin(), keys.end(), less);
    } else {
        auto firstHalf = std::async(std::launch::async, [&] { std::stable_sort(keys.begin(), middle, less); });
        std::stable_sort(middle, keys.end(), less);
        firstHalf.get();
        std::inplace_merge(keys.begin(), middle, keys.end(), less);
    }
    return keys;
}

// An entry's file ID as text, written into `hex` when it is kept as bytes.
std::string_view fileIDText(const QVManifestEntryClass& entry, char (&hex)[40]) {
    if (!entry.fileIDIsHex) return entry.text(QVManifestEntryClass::kFileIDText);
    static constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < entry.fileIDBytes.size(); ++i) {
        hex[2 * i] = kDigits[entry.fileIDBytes[i] >> 4];
        hex[2 * i + 1] = kDigits[entry.fileIDBytes[i] & 0xF];
    }
    return {hex, sizeof hex};
}

}  // namespace

namespace {

// Writes the manifest's rows into a new database, in memory or in file, and adds the indexes.
void writeDatabase(ManifestDatabase& database, const Manifest& manifest, QVManifestDataVersion version,
                   const std::filesystem::path& file) {
    QV_ASSERT(manifest);
    if (!versionAccepted(version)) throw badVersion(version);
    const std::vector<SortKey> sorted = sortedForWriting(manifest->entries);
    try {
        database.Create(2, file);  // always 2, whatever version was asked for
        database.BeginTransaction();
        for (const auto& [fileID, flags] : manifest->flagOnlyRecords) {
            auto number = CF::Cast<CF::Number>(flags);
            database.InsertRow(static_cast<CFStringRef>(fileID), nullptr, nullptr,
                               static_cast<int32_t>(number.Int64Or(kFlagOnlyRecord)), nullptr);
        }
        std::vector<Entry> failed;
        // The rows are made two batches ahead on other threads while SQLite stores the batch before:
        // each record encoded, and the file ID, domain and path copied beside it, so that the storing
        // thread reads the batch alone and never waits on an entry's memory (entries lie wherever they
        // were made; the rows go in domain-path order). Two batches ahead absorb the batches that
        // take longer to make than to store.
        constexpr size_t kBatch = 2048;
        struct Span {
            size_t offset = 0, length = 0;
            std::string_view in(const std::vector<uint8_t>& bytes) const {
                return {reinterpret_cast<const char*>(bytes.data()) + offset, length};
            }
        };
        struct Row {
            Span fileID, domain, path, blob;
            int32_t flags = 0;
            bool failed = false;  // the record could not be encoded
        };
        struct Batch {
            std::vector<uint8_t> bytes;
            std::vector<Row> rows;
        };
        auto encode = [&sorted](size_t begin) {
            Batch batch;
            MB::FileWriter writer;
            const size_t end = std::min(sorted.size(), begin + kBatch);
            batch.rows.reserve(end - begin);
            batch.bytes.reserve((end - begin) * 640);
            auto append = [&](std::string_view text) {
                const Span span{batch.bytes.size(), text.size()};
                batch.bytes.insert(batch.bytes.end(), text.begin(), text.end());
                return span;
            };
            char hex[40];
            // Entries lie wherever they were made: ask for the next ones' records, and then their texts,
            // while this one is encoded.
            constexpr size_t kRecordsAhead = 8, kTextsAhead = 4;
            auto prefetchRecord = [&](size_t i) {
                const auto* record = reinterpret_cast<const char*>((*sorted[i].entry).get());
                for (size_t line = 0; line < sizeof(QVManifestEntryClass); line += 64) __builtin_prefetch(record + line);
            };
            for (size_t i = begin; i < std::min(end, begin + kRecordsAhead); ++i) prefetchRecord(i);
            for (size_t i = begin; i < end; ++i) {
                if (i + kRecordsAhead < end) prefetchRecord(i + kRecordsAhead);
                if (i + kTextsAhead < end) __builtin_prefetch((*sorted[i + kTextsAhead].entry)->path().data());
                const QVManifestEntryClass& entry = **sorted[i].entry;
                Row row;
                row.flags = entry.fileType;
                const size_t offset = batch.bytes.size();
                try {
                    AppendMBFileData(writer, entry, batch.bytes);
                    row.blob = {offset, batch.bytes.size() - offset};
                    row.fileID = append(fileIDText(entry, hex));
                    row.domain = append(entry.domainText);
                    row.path = append(entry.path());
                } catch (const std::exception& e) {
                    log_fmt(log_level::warning, "Failed to serialize MBFile -- {}", e.what());
                    batch.bytes.resize(offset);
                    row.failed = true;
                }
                batch.rows.push_back(row);
            }
            return batch;
        };
        std::deque<std::future<Batch>> ahead;
        size_t next = 0;
        auto encodeNext = [&] {
            if (next < sorted.size()) ahead.push_back(std::async(std::launch::async, encode, next));
            next += kBatch;
        };
        encodeNext();
        encodeNext();
        for (size_t begin = 0; begin < sorted.size(); begin += kBatch) {
            const Batch batch = ahead.front().get();
            ahead.pop_front();
            encodeNext();
            for (size_t i = 0; i < batch.rows.size(); ++i) {
                const Row& row = batch.rows[i];
                if (row.failed) {
                    failed.push_back(*sorted[begin + i].entry);
                    continue;
                }
                try {
                    const std::string_view blob = row.blob.in(batch.bytes);
                    database.InsertRow(row.fileID.in(batch.bytes), row.domain.in(batch.bytes), row.path.in(batch.bytes),
                                       row.flags, std::span(reinterpret_cast<const uint8_t*>(blob.data()), blob.size()));
                } catch (const CF::Error& e) {
                    const Entry& entry = *sorted[begin + i].entry;
                    LogErrorFmt(log_level::error, e.get(), "Failed to insert {}", entry);
                    failed.push_back(entry);
                }
            }
        }
        if (!failed.empty()) {
            std::string names;
            for (const Entry& entry : failed) {
                if (!names.empty()) names += ", ";
                names += to_string(entry);
            }
            throw Error(QVErrorUnknown, CF::Error(), fmt::format("Failed to serialize entries {}", names));
        }
        database.Commit();
        database.Finish();
    } catch (const CF::Error& e) {
        throw Error(QVErrorUnknown, e, "Database initialization failed");
    } catch (const SQLite::Exception& e) {
        throw Error(QVErrorUnknown, Error(QVErrorDatabaseOperation, CF::Error(), e.what()),
                    "Database initialization failed");
    }
}

}  // namespace

std::vector<std::byte> QVManifestCreateManifestDBRepresentation(const Manifest& manifest,
                                                                QVManifestDataVersion version) {
    ManifestDatabase database;
    writeDatabase(database, manifest, version, {});
    return database.Serialize();
}

std::shared_ptr<QVFileClass> QVManifestCreateManifestDBFile(const Manifest& manifest, QVManifestDataVersion version) {
    // Built where the file will lie instead of in memory: the database of a large backup is hundreds
    // of megabytes, which the pages of a file hold in the system's cache rather than in this process.
    auto anonymous = std::make_shared<const Support::anonymous_file>(ManifestDatabaseDirectory());
    {
        ManifestDatabase database;
        writeDatabase(database, manifest, version, anonymous->path());
        database.Close();
    }
    ManifestDatabase::MarkForWriteAheadLog(anonymous->descriptor());
    return QVFileCreateFromAnonymousFile(std::move(anonymous));
}

}  // namespace Quiver
