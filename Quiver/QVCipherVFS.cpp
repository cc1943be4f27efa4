#include "Quiver/QVCipherVFS.hpp"

#include <sqlite3.h>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "Quiver/QVError.hpp"
#include "Quiver/Support/Cryptor.hpp"

namespace Quiver {

namespace {

using Support::Cryptor;

constexpr const char* kVFSName = "quiver-cbc";
constexpr const char* kKeyParameter = "quiverkey";
constexpr sqlite3_int64 kBlock = Cryptor::kBlockSize;
// Database files are whole pages; a file that is not a multiple of the smallest page carries the
// padding block that some writers add, which is not part of the database.
constexpr sqlite3_int64 kSmallestPage = 512;

// Keys lent by CipheredDatabase objects, found by the number in the URI.
struct KeyRegistry {
    std::mutex mutex;
    uint64_t next = 1;
    std::map<uint64_t, std::array<uint8_t, 32>> keys;
};

KeyRegistry& registry() {
    static KeyRegistry* keys = new KeyRegistry();  // lives as long as the process: files may close late
    return *keys;
}

struct CipherFile {
    sqlite3_file base;  // first: SQLite sees only this
    int fd;
    sqlite3_int64 size;  // of the database, padding left out
    std::vector<uint8_t>* buffer;
    Cryptor* cryptor;  // under the file's key, restarted for each read
};

CipherFile& self(sqlite3_file* file) { return *reinterpret_cast<CipherFile*>(file); }

int cipherClose(sqlite3_file* file) {
    CipherFile& f = self(file);
    ::close(f.fd);
    if (f.buffer) OPENSSL_cleanse(f.buffer->data(), f.buffer->size());
    delete f.buffer;
    delete f.cryptor;
    return SQLITE_OK;
}

bool preadAll(int fd, uint8_t* out, size_t length, off_t offset) {
    while (length > 0) {
        const ssize_t got = ::pread(fd, out, length, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        out += got;
        length -= static_cast<size_t>(got);
        offset += got;
    }
    return true;
}

int cipherRead(sqlite3_file* file, void* out, int amount, sqlite3_int64 offset) {
    CipherFile& f = self(file);
    if (amount <= 0 || offset < 0) return SQLITE_IOERR_READ;
    const sqlite3_int64 end = std::min(offset + amount, f.size);
    sqlite3_int64 got = 0;
    if (offset < end) {
        // Whole blocks around the range, and the ciphertext block before them as the IV.
        const sqlite3_int64 first = offset / kBlock * kBlock;
        const sqlite3_int64 last = (end + kBlock - 1) / kBlock * kBlock;
        const sqlite3_int64 from = first == 0 ? 0 : first - kBlock;
        // A read of whole blocks (every page SQLite reads) is deciphered straight into its buffer:
        // without padding every block comes out of the update as it goes in.
        const bool whole = first == offset && last == end && end - offset == amount;
        std::vector<uint8_t>& buffer = *f.buffer;
        buffer.resize(static_cast<size_t>((whole ? 1 : 2) * (last - from) + kBlock));
        uint8_t* cipher = buffer.data();
        uint8_t* plain = whole ? static_cast<uint8_t*>(out) : buffer.data() + (last - from);
        if (!preadAll(f.fd, cipher, static_cast<size_t>(last - from), static_cast<off_t>(from))) return SQLITE_IOERR_READ;
        try {
            std::array<uint8_t, kBlock> iv{};
            if (first != 0) std::copy_n(cipher, kBlock, iv.begin());
            f.cryptor->Restart(iv);
            const uint8_t* blocks = cipher + (first - from);
            if (f.cryptor->Update(blocks, static_cast<size_t>(last - first), plain) != static_cast<size_t>(last - first))
                return SQLITE_IOERR_READ;
        } catch (const std::exception&) {
            return SQLITE_IOERR_READ;
        }
        got = end - offset;
        if (!whole) {
            std::memcpy(out, plain + (offset - first), static_cast<size_t>(got));
            OPENSSL_cleanse(plain, static_cast<size_t>(last - first));
        }
    }
    if (got < amount) {
        std::memset(static_cast<uint8_t*>(out) + got, 0, static_cast<size_t>(amount - got));
        return SQLITE_IOERR_SHORT_READ;
    }
    return SQLITE_OK;
}

int cipherWrite(sqlite3_file*, const void*, int, sqlite3_int64) { return SQLITE_READONLY; }
int cipherTruncate(sqlite3_file*, sqlite3_int64) { return SQLITE_READONLY; }
int cipherSync(sqlite3_file*, int) { return SQLITE_OK; }
int cipherFileSize(sqlite3_file* file, sqlite3_int64* size) {
    *size = self(file).size;
    return SQLITE_OK;
}
int cipherLock(sqlite3_file*, int) { return SQLITE_OK; }
int cipherUnlock(sqlite3_file*, int) { return SQLITE_OK; }
int cipherCheckReservedLock(sqlite3_file*, int* reserved) {
    *reserved = 0;
    return SQLITE_OK;
}
int cipherFileControl(sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; }
int cipherSectorSize(sqlite3_file*) { return static_cast<int>(kSmallestPage); }
int cipherDeviceCharacteristics(sqlite3_file*) { return SQLITE_IOCAP_IMMUTABLE; }

const sqlite3_io_methods kMethods = {
    1,
    cipherClose,
    cipherRead,
    cipherWrite,
    cipherTruncate,
    cipherSync,
    cipherFileSize,
    cipherLock,
    cipherUnlock,
    cipherCheckReservedLock,
    cipherFileControl,
    cipherSectorSize,
    cipherDeviceCharacteristics,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
};

sqlite3_vfs* baseVFS() { return sqlite3_vfs_find(nullptr); }

int cipherOpen(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    // Only the database itself is ours; anything else SQLite asks for (it asks for nothing when the
    // file is immutable and read-only) goes to the system's file system.
    const char* id = (flags & SQLITE_OPEN_MAIN_DB) && name ? sqlite3_uri_parameter(name, kKeyParameter) : nullptr;
    if (!id) return baseVFS()->xOpen(baseVFS(), name, file, flags, outFlags);
    (void)vfs;
    if (flags & (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) return SQLITE_READONLY;
    CipherFile& f = self(file);
    f.base.pMethods = nullptr;  // SQLite calls no method of a file whose open failed
    // The file keeps no copy of the key: the cipher context holds its schedule.
    std::unique_ptr<Cryptor> cryptor;
    {
        KeyRegistry& keys = registry();
        std::lock_guard lock(keys.mutex);
        auto found = keys.keys.find(std::strtoull(id, nullptr, 10));
        if (found == keys.keys.end()) return SQLITE_CANTOPEN;
        try {
            cryptor = std::make_unique<Cryptor>(Cryptor::Operation::Decrypt, Cryptor::Algorithm::AES256, found->second);
            cryptor->DisablePadding();
        } catch (const std::exception&) {
            return SQLITE_NOMEM;
        }
    }
    f.fd = ::open(name, O_RDONLY | O_CLOEXEC);
    if (f.fd < 0) return SQLITE_CANTOPEN;
    const off_t length = ::lseek(f.fd, 0, SEEK_END);
    if (length < 0 || length % kBlock != 0) {
        ::close(f.fd);
        return SQLITE_CANTOPEN;
    }
    f.size = length / kSmallestPage * kSmallestPage;
    f.buffer = new (std::nothrow) std::vector<uint8_t>();
    if (!f.buffer) {
        ::close(f.fd);
        return SQLITE_NOMEM;
    }
    f.cryptor = cryptor.release();
    f.base.pMethods = &kMethods;
    if (outFlags) *outFlags = SQLITE_OPEN_READONLY;
    return SQLITE_OK;
}

// The file system: the system's own, but for opening the database file.
sqlite3_vfs* cipherVFS() {
    static sqlite3_vfs* vfs = [] {
        sqlite3_initialize();
        auto* v = new sqlite3_vfs(*baseVFS());
        v->szOsFile = std::max(v->szOsFile, static_cast<int>(sizeof(CipherFile)));
        v->zName = kVFSName;
        v->pNext = nullptr;
        v->xOpen = cipherOpen;
        if (sqlite3_vfs_register(v, 0) != SQLITE_OK) throw std::runtime_error("cannot register the deciphering file system");
        return v;
    }();
    return vfs;
}

}  // namespace

CipheredDatabase::CipheredDatabase(const std::filesystem::path& path, const std::array<uint8_t, 32>& key) {
    std::error_code ec;
    const uintmax_t size = std::filesystem::file_size(path, ec);
    if (ec) throw Error(QVErrorFilesystem, CF::Error(), fmt::format("{} ({})", ec.message(), path.string()));
    if (size % Cryptor::kBlockSize != 0)
        throw Error(QVErrorCryptoOperation, CF::Error(),
                    fmt::format("Failed to decrypt/encrypt: {} is not whole cipher blocks ({} bytes)",
                                path.filename().string(), size));
    cipherVFS();
    KeyRegistry& keys = registry();
    std::lock_guard lock(keys.mutex);
    id_ = keys.next++;
    keys.keys.emplace(id_, key);
    parameters_ = fmt::format("vfs={}&{}={}", kVFSName, kKeyParameter, id_);
}

CipheredDatabase::~CipheredDatabase() {
    KeyRegistry& keys = registry();
    std::lock_guard lock(keys.mutex);
    auto found = keys.keys.find(id_);
    if (found == keys.keys.end()) return;
    OPENSSL_cleanse(found->second.data(), found->second.size());
    keys.keys.erase(found);
}

}  // namespace Quiver
