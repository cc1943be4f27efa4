#include "Quiver/QVFile.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <system_error>

#include <fmt/format.h>

#include "Quiver/FileManager.hpp"
#include "Quiver/FileManagerInternal.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/Support/Random.hpp"

namespace fs = std::filesystem;
using Quiver::Support::Cryptor;

QVFileClass::~QVFileClass() {
    if (!referenceDigest.empty()) {
        try {
            Quiver::FileManager::DeregisterReferenceForFile(*this);
        } catch (const CF::Error& e) {
            Quiver::LogErrorFmt(Quiver::log_level::error, e.get(), "Failed to deregister file reference");
        } catch (const std::exception& e) {
            Quiver::log_fmt(Quiver::log_level::error, "Failed to deregister file reference: {}", e.what());
        }
    }
    // The writer and the digest context close themselves.
}

namespace Quiver {

namespace {

constexpr uint64_t kDefaultChunkSize = 32768;
constexpr size_t kWritePiece = 65536;

CF::String utf8Path(const fs::path& p) { return CF::String(p.string()); }

fs::path toPath(const CF::String& s) { return fs::path(s.utf8()); }

// Last-write time as seconds since 1970.
double unixModifiedTime(const fs::path& path) {
    auto written = fs::last_write_time(path);
    auto system = std::chrono::file_clock::to_sys(written);
    return std::chrono::duration<double>(system.time_since_epoch()).count();
}

void writeAll(Support::writable_file& out, const uint8_t* bytes, size_t length) {
    for (size_t done = 0; done < length;) {
        size_t piece = std::min(kWritePiece, length - done);
        out.write(bytes + done, piece);
        done += piece;
    }
}

// The bytes go to a cache file without a name: they may be the plaintext of an encrypted backup (its
// manifest on the way to an export), which must not be left behind when the process is killed.
std::shared_ptr<QVFileClass> createFromBytes(const uint8_t* bytes, int64_t length, CFErrorRef* error) {
    QV_ASSERT(length >= 0);
    fs::path location;
    return Boundary(
        error,
        [&]() -> std::shared_ptr<QVFileClass> {
            location = FileManager::GetStorageDirectory();
            std::vector<uint8_t> digest = Support::Sha1({bytes, static_cast<size_t>(length)});
            auto anonymous = std::make_shared<const Support::anonymous_file>(location);
            Support::writable_file out(anonymous->path(), Support::writable_file::mode::clobber);
            writeAll(out, bytes, static_cast<size_t>(length));
            out.close();
            auto file = MakeFileReference(anonymous->path(), digest, true);
            file->anonymous = std::move(anonymous);
            FileManager::RegisterReferenceForFile(file);
            return file;
        },
        [&](const std::exception& e) { return MakeFilesystemError(e, location); });
}

Cryptor::Operation operationFor(const QVFileClass& file) {
    return file.keyUse == QVFileClass::KeyUse::Encrypt ? Cryptor::Operation::Encrypt : Cryptor::Operation::Decrypt;
}

}  // namespace

std::shared_ptr<QVFileClass> MakeFileReference(const fs::path& path, const std::vector<uint8_t>& digest, bool cached) {
    double modified = unixModifiedTime(path);
    uint64_t size = fs::file_size(path);
    auto file = std::make_shared<QVFileClass>();
    file->size = size;
    file->modifiedDate = CF::Date(modified - kCFAbsoluteTimeIntervalSince1970);
    file->localPath = utf8Path(path);
    file->digest = digest;
    if (cached) file->referenceDigest = digest;
    return file;
}

std::shared_ptr<QVFileClass> QVFileCreateFromAnonymousFile(std::shared_ptr<const Support::anonymous_file> anonymous) {
    auto file = MakeFileReference(anonymous->path(), {}, false);
    file->digestPending = true;
    file->anonymous = std::move(anonymous);
    return file;
}

std::shared_ptr<QVFileClass> QVFileCreateFromData(CFDataRef data, CFErrorRef* error) {
    if (!data) {
        StoreError(error, Error(QVErrorInvalidArgument, CF::Error(), "NULL sourceData"));
        return nullptr;
    }
    return createFromBytes(CFDataGetBytePtr(data), CFDataGetLength(data), error);
}

std::shared_ptr<QVFileClass> QVFileCreateFromData(const std::vector<uint8_t>& data, CFErrorRef* error) {
    return createFromBytes(data.data(), static_cast<int64_t>(data.size()), error);
}

std::shared_ptr<QVFileClass> QVFileCreateFromFileAtPath(CFStringRef pathRef, uint8_t copy, CFErrorRef* error) {
    const CF::String path = CF::String::Retain(pathRef);
    return Boundary(
        error,
        [&]() -> std::shared_ptr<QVFileClass> {
            fs::path source = toPath(path);
            std::error_code ec;
            if (!fs::exists(fs::status(source, ec)))
                throw Error(QVErrorFileNotFound, CF::Error(),
                            fmt::format("File does not exist at path '{}'", path.utf8()));
            if (!copy) {
                // Hashing a stored file of gigabytes before reading it would double the work of every
                // read; the digest waits until it is asked for.
                auto file = MakeFileReference(source, {}, false);
                if (!file) throw Error(QVErrorUnknown, CF::Error(), "Failed to create internal file reference");
                file->digestPending = true;
                return file;
            }
            std::vector<uint8_t> digest;
            try {
                digest = Support::HashOfFile(source);
            } catch (const std::exception& e) {
                throw Error(QVErrorUnknown, CF::Error(), fmt::format("Failed to hash file - {}", e.what()));
            }
            if (auto cached = FileManager::CopyCachedFileReference(source, digest, nullptr)) return cached;
            fs::path location = FileManager::GetStorageLocationForFile();
            fs::copy_file(source, location);
            CFErrorRef inner = nullptr;
            auto file = FileManager::CopyCachedFileReference(location, digest, &inner);
            if (!file) {
                CF::Error cause = CF::Error::Adopt(inner);
                throw Error(QVErrorUnknown, cause, "File written but reference could not be created");
            }
            return file;
        },
        [](const std::exception& e) {
            return Error(QVErrorFilesystem, CF::Error(), fmt::format("File hash failed: {}", e.what()));
        });
}

std::shared_ptr<QVFileClass> QVFileCreateCopy(const std::shared_ptr<QVFileClass>& other) {
    QV_ASSERT(other);
    if (other->writer.is_open()) return nullptr;
    auto file = std::make_shared<QVFileClass>();
    file->size = other->size;
    file->digest = other->digest;
    file->digestPending = other->digestPending;
    file->modifiedDate = other->modifiedDate;
    file->localPath = other->localPath;
    file->anonymous = other->anonymous;
    file->hasKey = other->hasKey;
    file->key = other->key;
    file->keyAlgorithm = other->keyAlgorithm;
    file->keyUse = other->keyUse;
    if (!other->referenceDigest.empty()) {
        file->referenceDigest = other->referenceDigest;
        FileManager::RegisterReferenceForFile(file);
    }
    return file;
}

namespace {

// Hashes on a second thread while the caller's thread deciphers the same bytes: SHA-1 and AES each
// run near a core's speed, so a large file is read in about the time of the slower of the two.
class BackgroundHasher {
public:
    explicit BackgroundHasher(Support::Hasher& hasher) : hasher_(hasher), thread_([this] { run(); }) {}
    ~BackgroundHasher() {
        {
            std::lock_guard guard(lock_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    BackgroundHasher(const BackgroundHasher&) = delete;
    BackgroundHasher& operator=(const BackgroundHasher&) = delete;

    // The bytes must stay in place until Wait returns.
    void Start(const uint8_t* bytes, size_t length) {
        {
            std::lock_guard guard(lock_);
            bytes_ = bytes;
            length_ = length;
            pending_ = true;
        }
        wake_.notify_all();
    }
    void Wait() {
        std::unique_lock guard(lock_);
        done_.wait(guard, [this] { return !pending_; });
        if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
    }

private:
    void run() {
        std::unique_lock guard(lock_);
        for (;;) {
            wake_.wait(guard, [this] { return pending_ || stop_; });
            if (stop_) return;
            guard.unlock();
            std::exception_ptr failure;
            try {
                hasher_.Update(bytes_, length_);
            } catch (...) {
                failure = std::current_exception();
            }
            guard.lock();
            failure_ = failure;
            pending_ = false;
            done_.notify_all();
        }
    }

    Support::Hasher& hasher_;
    std::mutex lock_;
    std::condition_variable wake_, done_;
    const uint8_t* bytes_ = nullptr;
    size_t length_ = 0;
    bool pending_ = false;
    bool stop_ = false;
    std::exception_ptr failure_;
    std::thread thread_;  // last: started once the rest is ready
};

// Files at least this large are hashed on a second thread, read in pieces of kParallelPiece bytes;
// for smaller ones a thread would cost more than it saves.
constexpr uint64_t kParallelFrom = uint64_t{8} << 20;
constexpr size_t kParallelPiece = size_t{1} << 20;

// One pass over the stored bytes: each piece is hashed (when asked) as well as deciphered or
// enciphered, and handed on in chunks of at most chunkSize bytes. False when the callback stopped the
// read.
bool readChunks(QVFileClass& file, uint64_t chunkSize, const std::function<bool(const std::vector<uint8_t>&)>& callback,
                Support::Hasher* hasher) {
    if (chunkSize == 0) chunkSize = kDefaultChunkSize;
    Support::readable_file in(toPath(file.localPath));
    std::optional<Cryptor> cryptor;
    if (file.hasKey) {
        try {
            cryptor.emplace(operationFor(file), static_cast<Cryptor::Algorithm>(file.keyAlgorithm), file.key);
        } catch (const std::exception& e) {
            throw Error(QVErrorCryptoOperation, CF::Error(), fmt::format("Cryptor creation failed: {}", e.what()));
        }
    }
    std::optional<BackgroundHasher> background;
    size_t piece = static_cast<size_t>(chunkSize);
    if (hasher && cryptor && in.size() >= kParallelFrom) {
        background.emplace(*hasher);
        piece = std::max(piece, kParallelPiece);
    }
    // A file smaller than a piece gets a buffer of its own length and one byte more, so that one read
    // takes it whole and the next finds its end: zeroing a whole piece for each small file would cost
    // more than reading it.
    if (!background) piece = static_cast<size_t>(std::min<uint64_t>(piece, in.size() + 1));
    std::vector<uint8_t> chunk(piece);
    std::vector<uint8_t> output, part;
    // Hands on output (or the read bytes) in chunks of at most chunkSize.
    auto handOn = [&](const std::vector<uint8_t>& bytes) {
        if (bytes.size() <= chunkSize) return callback(bytes);
        for (size_t at = 0; at < bytes.size(); at += static_cast<size_t>(chunkSize)) {
            const size_t n = std::min(static_cast<size_t>(chunkSize), bytes.size() - at);
            part.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin() + static_cast<std::ptrdiff_t>(at + n));
            if (!callback(part)) return false;
        }
        return true;
    };
    auto readPiece = [&in](std::vector<uint8_t>& into) {
        std::error_code ec;
        const size_t got = in.read(into.data(), into.size(), ec);
        if (ec) throw std::system_error(ec, "Failed to read local file");
        return got;
    };
    if (background) {
        // Two buffers: while the second thread hashes one piece, this one deciphers it, hands it on
        // and reads the next into the other.
        std::vector<uint8_t> next(piece);
        for (size_t got = readPiece(chunk); got > 0;) {
            background->Start(chunk.data(), got);
            // Whatever ends this piece early, the hashing thread lets go of the buffer first.
            struct WaitOnUnwind {
                BackgroundHasher& hasher;
                bool armed = true;
                ~WaitOnUnwind() {
                    if (!armed) return;
                    try {
                        hasher.Wait();
                    } catch (...) {  // the failure that is already unwinding says more
                    }
                }
            } guard{*background};
            try {
                cryptor->Update(chunk.data(), got, output);
            } catch (const std::exception& e) {
                throw Error(QVErrorCryptoOperation, CF::Error(), fmt::format("Cryptor failed: {}", e.what()));
            }
            const bool more = handOn(output);
            const size_t following = more ? readPiece(next) : 0;
            guard.armed = false;
            background->Wait();
            if (!more) return false;
            std::swap(chunk, next);
            got = following;
        }
    }
    for (; !background;) {
        const size_t got = readPiece(chunk);
        if (got == 0) break;
        if (hasher) hasher->Update(chunk.data(), got);
        bool more;
        if (cryptor) {
            try {
                cryptor->Update(chunk.data(), got, output);
            } catch (const std::exception& e) {
                throw Error(QVErrorCryptoOperation, CF::Error(), fmt::format("Cryptor failed: {}", e.what()));
            }
            more = handOn(output);
        } else if (got == chunk.size()) {
            more = handOn(chunk);
        } else {
            // A short read, normally the file's end: the bytes read are handed on where they lie.
            chunk.resize(got);
            more = handOn(chunk);
            chunk.resize(piece);
        }
        if (!more) return false;
    }
    if (cryptor) {
        try {
            output = cryptor->Finalize();
        } catch (const std::exception& e) {
            throw Error(QVErrorCryptoOperation, CF::Error(), fmt::format("Cryptor finalize failed: {}", e.what()));
        }
        callback(output);
    }
    return true;
}

}  // namespace

void QVFileGetData(const std::shared_ptr<QVFileClass>& file, uint64_t chunkSize,
                   const std::function<bool(const std::vector<uint8_t>&)>& callback) {
    QV_ASSERT(file);
    readChunks(*file, chunkSize, callback, nullptr);
}

std::optional<std::vector<uint8_t>> QVFileGetDataAndHash(const std::shared_ptr<QVFileClass>& file, uint64_t chunkSize,
                                                         const std::function<bool(const std::vector<uint8_t>&)>& callback) {
    QV_ASSERT(file);
    Support::Hasher hasher(Support::HashAlgorithm::SHA1);
    if (!readChunks(*file, chunkSize, callback, &hasher)) return std::nullopt;
    std::vector<uint8_t> digest = hasher.Finalize();
    if (file->digestPending) {
        file->digest = digest;
        file->digestPending = false;
    }
    return digest;
}

std::optional<std::vector<uint8_t>> QVFileGetDataQuickly(const std::shared_ptr<QVFileClass>& file) {
    QV_ASSERT(file);
    if (file->size == 0 || file->size > FileManager::GetMaxMemorySize()) return std::nullopt;
    try {
        Support::readable_file in(toPath(file->localPath));
        uint64_t total = in.size();
        // The size on disk is the limit, not the recorded size: an enciphered copy reads the plain
        // bytes, a deciphered one the padded ciphertext.
        if (total > FileManager::GetMaxMemorySize() + Cryptor::kBlockSize) return std::nullopt;
        std::vector<uint8_t> bytes = in.read_whole_file(static_cast<size_t>(std::max<uint64_t>(total, 32768)));
        if (file->hasKey && !bytes.empty())
            return Cryptor::Crypt(operationFor(*file), static_cast<Cryptor::Algorithm>(file->keyAlgorithm), file->key,
                                  {}, bytes);
        return bytes;
    } catch (const std::runtime_error&) {
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

std::vector<uint8_t> QVFileGetHash(const std::shared_ptr<QVFileClass>& file) {
    QV_ASSERT(file);
    if (file->digestPending) {
        try {
            file->digest = Support::HashOfFile(toPath(file->localPath));
            file->digestPending = false;
        } catch (const std::exception& e) {
            log_fmt(log_level::error, "Failed to hash file {} - {}", file->localPath, e.what());
        }
    }
    return file->digest;
}

uint64_t QVFileGetSize(const std::shared_ptr<QVFileClass>& file) {
    QV_ASSERT(file);
    return file->size;
}

CFStringRef QVFileGetLocalPath(const std::shared_ptr<QVFileClass>& file) {
    QV_ASSERT(file);
    return file->localPath.get();
}

CFDateRef QVFileGetModifiedDate(const std::shared_ptr<QVFileClass>& file) {
    QV_ASSERT(file);
    return file->modifiedDate.get();
}

void _QVFileSetModifiedDate(const std::shared_ptr<QVFileClass>& file, CFDateRef date) {
    QV_ASSERT(file);
    file->modifiedDate = CF::Date::Retain(date);
}

bool QVFileIsAppendable(const std::shared_ptr<QVFileClass>& file) {
    QV_ASSERT(file);
    return file->writer.is_open();
}

namespace {

void setKey(QVFileClass& file, const std::array<uint8_t, 32>& key, QVFileClass::KeyUse use) {
    if (file.hasKey) return;
    file.key = key;
    file.keyAlgorithm = static_cast<uint32_t>(Cryptor::Algorithm::AES256);
    file.keyUse = use;
    file.hasKey = 1;
}

}  // namespace

void _QVFileSetDecryptionKey(const std::shared_ptr<QVFileClass>& file, const std::array<uint8_t, 32>& key) {
    QV_ASSERT(file);
    setKey(*file, key, QVFileClass::KeyUse::Decrypt);
}

void _QVFileSetEncryptionKey(const std::shared_ptr<QVFileClass>& file, const std::array<uint8_t, 32>& key) {
    QV_ASSERT(file);
    setKey(*file, key, QVFileClass::KeyUse::Encrypt);
}

// ---- Appendable files ----

void CloseAppendableFile(QVFileClass& file) {
    if (!file.writer.is_open()) return;
    try {
        file.writer.close();
    } catch (const std::exception& e) {
        log_fmt(log_level::warning, "Closing appendable file {} failed: {}", file.localPath, e.what());
    }
    file.digestContext.reset();
}

std::shared_ptr<QVFileClass> QVFileCreateAppendable(CFErrorRef* error) {
    return Boundary(error, [&]() -> std::shared_ptr<QVFileClass> {
        CF::String identifier(Support::MakeUUIDString());
        fs::path location = FileManager::GetStorageLocationForTempIdentifier(identifier.get());
        Support::writable_file writer(location, Support::writable_file::mode::clobber);
        Support::OpenSSL::DigestContext context(EVP_MD_CTX_new());
        if (!context) throw Error(QVErrorUnknown, CF::Error(), "Failed to create digest context");
        if (EVP_DigestInit_ex(context.get(), EVP_sha1(), nullptr) != 1) {
            Support::OpenSSL::ClearErrors();
            throw Error(QVErrorUnknown, CF::Error(), "Failed to init digest context");
        }
        auto file = std::make_shared<QVFileClass>();
        file->localPath = utf8Path(location);
        file->writer = std::move(writer);
        file->digestContext = std::move(context);
        return file;
    });
}

uint8_t QVFileAppendBytes(const std::shared_ptr<QVFileClass>& file, const uint8_t* bytes, int64_t length,
                          CFErrorRef* error) {
    QV_ASSERT(file);
    return Boundary(
        error,
        [&]() -> uint8_t {
            if (!bytes || length <= 0) throw Error(QVErrorInvalidArgument, CF::Error(), "Bad buffer argument");
            if (!file->writer.is_open())
                throw Error(QVErrorInvalidArgument, CF::Error(), "File reference not appendable");
            writeAll(file->writer, bytes, static_cast<size_t>(length));
            if (EVP_DigestUpdate(file->digestContext.get(), bytes, static_cast<size_t>(length)) != 1) {
                Support::OpenSSL::ClearErrors();
                throw Error(QVErrorUnknown, CF::Error(), "Failed to update digest");
            }
            file->size += static_cast<uint64_t>(length);
            return 1;
        },
        FilesystemErrorFromException{}, [&] { CloseAppendableFile(*file); });
}

uint8_t QVFileAppendData(const std::shared_ptr<QVFileClass>& file, CFDataRef data, CFErrorRef* error) {
    return QVFileAppendBytes(file, data ? CFDataGetBytePtr(data) : nullptr, data ? CFDataGetLength(data) : 0, error);
}

uint8_t QVFileFinalizeAppendable(const std::shared_ptr<QVFileClass>& file, CFErrorRef* error) {
    QV_ASSERT(file);
    return Boundary(
        error,
        [&]() -> uint8_t {
            if (!file->writer.is_open())
                throw Error(QVErrorInvalidArgument, CF::Error(), "File reference not appendable");
            unsigned char buffer[EVP_MAX_MD_SIZE];
            unsigned int digestLength = 0;
            bool finished = EVP_DigestFinal_ex(file->digestContext.get(), buffer, &digestLength) == 1;
            fs::path temporary = toPath(file->localPath);
            // Closing reports write-back failures, which must fail the finalisation rather than leave
            // a short cache file behind.
            file->writer.close();
            file->digestContext.reset();
            if (!finished) {
                Support::OpenSSL::ClearErrors();
                throw Error(QVErrorUnknown, CF::Error(), "Failed to finalize digest");
            }
            fs::path location = FileManager::GetStorageLocationForFile();
            file->localPath = utf8Path(location);
            file->digest.assign(buffer, buffer + digestLength);

            std::lock_guard guard(GlobalLock());
            std::error_code ec;
            auto status = fs::status(location, ec);
            if (fs::exists(status)) {
                if (!fs::is_regular_file(status))
                    throw MakeErrnoError(EISDIR, fmt::format("Internal inconsistency ({})", location.string()));
                fs::remove(temporary);
            } else {
                fs::rename(temporary, location);
            }
            file->referenceDigest = file->digest;
            FileManager::RegisterReferenceLocked(*file);
            double modified = unixModifiedTime(location);
            uint64_t onDisk = fs::file_size(location);
            if (onDisk != file->size)
                throw MakeErrnoError(0, fmt::format("Calculated appended size does not match size on disk! ({} != {}) ({})",
                                                    file->size, onDisk, location.string()));
            file->modifiedDate = CF::Date(modified - kCFAbsoluteTimeIntervalSince1970);
            return 1;
        },
        FilesystemErrorFromException{}, [&] { CloseAppendableFile(*file); });
}

std::string to_string(const std::shared_ptr<QVFileClass>& file) {
    QV_ASSERT(file);
    const void* address = file.get();
    if (file->writer.is_open())
        return fmt::format("<QVFileClass {}> (Appendable) path:{} size:{}", address, file->localPath, file->size);
    return fmt::format("<QVFileClass {}> path:{} size:{} hash:{} mdate:{}", address, file->localPath, file->size,
                       file->digestPending  ? std::string("Pending")
                       : file->digest.empty() ? std::string("Empty")
                                              : Support::hex_encode(file->digest),
                       file->modifiedDate.Text());
}

}  // namespace Quiver

bool operator==(const std::shared_ptr<QVFileClass>& a, const std::shared_ptr<QVFileClass>& b) {
    if (a.get() == b.get()) return true;
    if (a->writer.is_open() || b->writer.is_open()) return false;
    return Quiver::QVFileGetHash(a) == Quiver::QVFileGetHash(b);
}
