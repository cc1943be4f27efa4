// Files over POSIX file descriptors: see File.hpp for why the library does not use iostreams here.
#include "Quiver/Support/File.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quiver::Support {

namespace {

[[noreturn]] void ThrowErrno(int err, const char* operation, const std::filesystem::path& path) {
    throw std::system_error(err, std::generic_category(),
                            std::string(operation) + " failed for '" + path.string() + "'");
}

int OpenRetrying(const std::filesystem::path& path, int flags, mode_t permissions = 0) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags, permissions);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Linux transfers at most this much in one read() or write(); asking for more only returns short.
constexpr std::size_t kMaxTransfer = 0x7ffff000;

}  // namespace

// ---- readable_file ----------------------------------------------------------------------------

readable_file::readable_file(const std::filesystem::path& path) : path_(path) {
    fd_ = OpenRetrying(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd_ < 0) {
        ThrowErrno(errno, "open", path_);
    }
    struct stat st{};
    if (::fstat(fd_, &st) != 0) {
        int err = errno;
        close();
        ThrowErrno(err, "stat", path_);
    }
    if (S_ISDIR(st.st_mode)) {
        close();
        ThrowErrno(EISDIR, "open", path_);
    }
    // Every reader in the library streams from front to back; a larger read-ahead window is free.
    (void)::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
}

readable_file::~readable_file() { close(); }

readable_file::readable_file(readable_file&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

readable_file& readable_file::operator=(readable_file&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
        path_ = std::move(other.path_);
    }
    return *this;
}

std::size_t readable_file::read(uint8_t* buffer, std::size_t n, std::error_code& ec) noexcept {
    ec.clear();
    if (n == 0) {
        return 0;
    }
    n = std::min(n, kMaxTransfer);
    for (;;) {
        ssize_t got = ::read(fd_, buffer, n);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        if (errno != EINTR) {
            ec.assign(errno, std::generic_category());
            return 0;
        }
    }
}

std::size_t readable_file::read(uint8_t* buffer, std::size_t n) {
    std::error_code ec;
    std::size_t got = read(buffer, n, ec);
    if (ec) {
        ThrowErrno(ec.value(), "read", path_);
    }
    return got;
}

std::vector<uint8_t> readable_file::read_whole_file(std::size_t limit) {
    // Start with the size the file claims (pipes and growing files claim too little; the loop
    // copes), then probe one byte at a time at the end so an exact-size file costs no extra buffer.
    std::vector<uint8_t> out(static_cast<std::size_t>(std::min<uint64_t>(size(), limit)));
    std::size_t filled = 0;
    for (;;) {
        if (filled == out.size()) {
            uint8_t probe = 0;
            if (read(&probe, 1) == 0) {
                break;
            }
            if (filled >= limit) {
                ThrowErrno(EFBIG, "read (file larger than limit)", path_);
            }
            std::size_t grow = std::min(std::max<std::size_t>(filled, 65536), limit - filled);
            out.resize(filled + grow);
            out[filled++] = probe;
            continue;
        }
        std::size_t got = read(out.data() + filled, out.size() - filled);
        if (got == 0) {
            break;
        }
        filled += got;
    }
    out.resize(filled);
    return out;
}

uint64_t readable_file::size() const {
    struct stat st{};
    if (::fstat(fd_, &st) != 0) {
        ThrowErrno(errno, "stat", path_);
    }
    return st.st_size > 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

void readable_file::close() noexcept {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

// ---- writable_file ----------------------------------------------------------------------------

writable_file::writable_file(const std::filesystem::path& path, mode how) : path_(path) {
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY;
    switch (how) {
        case mode::clobber: flags |= O_TRUNC; break;
        case mode::append: flags |= O_APPEND; break;
        case mode::exclusive: flags |= O_EXCL; break;
    }
    fd_ = OpenRetrying(path, flags, 0666);
    if (fd_ < 0) {
        ThrowErrno(errno, "open", path_);
    }
}

writable_file::~writable_file() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

writable_file::writable_file(writable_file&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

writable_file& writable_file::operator=(writable_file&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = std::exchange(other.fd_, -1);
        path_ = std::move(other.path_);
    }
    return *this;
}

void writable_file::write(const uint8_t* bytes, std::size_t n) {
    while (n > 0) {
        ssize_t put = ::write(fd_, bytes, std::min(n, kMaxTransfer));
        if (put < 0) {
            if (errno == EINTR) {
                continue;
            }
            ThrowErrno(errno, "write", path_);
        }
        if (put == 0) {
            // A regular file never accepts nothing; looping here would spin forever.
            ThrowErrno(EIO, "write", path_);
        }
        bytes += put;
        n -= static_cast<std::size_t>(put);
    }
}

void writable_file::close() {
    if (fd_ < 0) {
        return;
    }
    int fd = std::exchange(fd_, -1);
    // On Linux the descriptor is gone even when close() fails, so it is never retried; EINTR only
    // means the call was interrupted after releasing it.
    if (::close(fd) != 0 && errno != EINTR) {
        ThrowErrno(errno, "close", path_);
    }
}

// ---- anonymous_file ---------------------------------------------------------------------------

anonymous_file::anonymous_file(const std::filesystem::path& directory) {
#ifdef O_TMPFILE
    fd_ = OpenRetrying(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    // Kernels and file systems without O_TMPFILE say so in several ways; any other failure is real.
    if (fd_ < 0 && errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) ThrowErrno(errno, "open", directory);
#endif
    if (fd_ < 0) {
        std::string pattern = (directory / ".qv-XXXXXX").string();
        fd_ = ::mkostemp(pattern.data(), O_CLOEXEC);
        if (fd_ < 0) ThrowErrno(errno, "create", directory);
        // The name exists only between these two calls.
        if (::unlink(pattern.c_str()) != 0) {
            const int err = errno;
            ::close(std::exchange(fd_, -1));
            ThrowErrno(err, "unlink", pattern);
        }
    }
    path_ = "/proc/self/fd/" + std::to_string(fd_);
}

anonymous_file::~anonymous_file() {
    if (fd_ >= 0) ::close(fd_);
}

anonymous_file::anonymous_file(anonymous_file&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

anonymous_file& anonymous_file::operator=(anonymous_file&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
        path_ = std::move(other.path_);
    }
    return *this;
}

}  // namespace Quiver::Support
