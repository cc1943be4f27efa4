// Files over POSIX file descriptors.
//
// The library reads stored files, cache files and databases through these two classes rather than
// through iostreams: reads and writes go straight to the descriptor (no second buffer between the
// kernel and the cipher), every failure carries the errno and the path, and the descriptor is owned
// by exactly one object so it can never leak. Both classes are move-only.
//
// Failures throw std::system_error whose code is the errno of the failing call (generic category)
// and whose text names the operation and the path, e.g. "open failed for '/x/y'".
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <system_error>
#include <vector>

namespace Quiver::Support {

class readable_file {
public:
    readable_file() noexcept = default;
    // Opens path read-only. A directory is refused with EISDIR.
    explicit readable_file(const std::filesystem::path& path);
    ~readable_file();

    readable_file(readable_file&& other) noexcept;
    readable_file& operator=(readable_file&& other) noexcept;
    readable_file(const readable_file&) = delete;
    readable_file& operator=(const readable_file&) = delete;

    // Reads up to n bytes; returns the number read, 0 only at the end of the file (or when n is 0).
    std::size_t read(uint8_t* buffer, std::size_t n);
    std::size_t read(std::span<uint8_t> buffer) { return read(buffer.data(), buffer.size()); }
    // The same, reporting a failure in ec (and returning 0) instead of throwing.
    std::size_t read(uint8_t* buffer, std::size_t n, std::error_code& ec) noexcept;

    // Reads everything from the current position to the end. A file holding more than limit bytes
    // is refused with EFBIG rather than cut short.
    std::vector<uint8_t> read_whole_file(std::size_t limit);

    // The file's size in bytes as the file system reports it now.
    uint64_t size() const;

    bool is_open() const noexcept { return fd_ >= 0; }
    const std::filesystem::path& path() const noexcept { return path_; }
    // Releases the descriptor. Nothing buffered can be lost on a read-only descriptor, so this
    // never fails.
    void close() noexcept;

private:
    int fd_ = -1;
    std::filesystem::path path_;
};

class writable_file {
public:
    enum class mode {
        clobber,    // create, or truncate an existing file
        append,     // create, or write after the existing contents
        exclusive,  // create; fail with EEXIST if anything exists at the path
    };

    writable_file() noexcept = default;
    // Opens path for writing; new files get mode 0666 less the umask.
    explicit writable_file(const std::filesystem::path& path, mode how = mode::clobber);
    // Closes without reporting errors; call close() to learn whether the data reached the file.
    ~writable_file();

    writable_file(writable_file&& other) noexcept;
    writable_file& operator=(writable_file&& other) noexcept;
    writable_file(const writable_file&) = delete;
    writable_file& operator=(const writable_file&) = delete;

    // Writes all n bytes (short writes and interruptions are retried) or throws.
    void write(const uint8_t* bytes, std::size_t n);
    void write(std::span<const uint8_t> bytes) { write(bytes.data(), bytes.size()); }

    bool is_open() const noexcept { return fd_ >= 0; }
    const std::filesystem::path& path() const noexcept { return path_; }
    // Releases the descriptor and throws if close() reported an error (such as a failed deferred
    // write on a network file system). The descriptor is released either way.
    void close();

private:
    int fd_ = -1;
    std::filesystem::path path_;
};

// A file that has no name from the moment it exists: made with O_TMPFILE where the file system
// supports it, else created and unlinked at once. Its bytes are reached only through the descriptor
// it holds, and, in this process, through path() ("/proc/self/fd/N"), which readable_file and
// writable_file open like any other path. The file is freed when the object goes, and nothing of it
// outlives the process however that ends, not even after SIGKILL or a power cut: this is where the
// library keeps what must not rest on disk, such as the plaintext of an encrypted backup.
class anonymous_file {
public:
    // A new empty file (mode 0600) on the file system of directory, which must exist.
    explicit anonymous_file(const std::filesystem::path& directory);
    ~anonymous_file();

    anonymous_file(anonymous_file&& other) noexcept;
    anonymous_file& operator=(anonymous_file&& other) noexcept;
    anonymous_file(const anonymous_file&) = delete;
    anonymous_file& operator=(const anonymous_file&) = delete;

    // Valid while this object lives; never hand it to another process.
    const std::filesystem::path& path() const noexcept { return path_; }
    int descriptor() const noexcept { return fd_; }

private:
    int fd_ = -1;
    std::filesystem::path path_;
};

}  // namespace Quiver::Support
