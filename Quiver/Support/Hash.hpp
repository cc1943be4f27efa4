// SHA-1 digests of byte strings and files.
//
// Every digest in a backup is SHA-1: the contents of stored files and the file IDs (domain, "-",
// relative path). Files are hashed in fixed-size pieces so that hashing a large file never holds
// it in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "Quiver/Support/OpenSSL.hpp"

namespace Quiver::Support {

// The algorithm codes callers store and pass on; only SHA-1 is used by backups.
enum class HashAlgorithm : uint32_t {
    SHA1 = 1,
};

inline constexpr std::size_t kSHA1DigestLength = 20;

class Hasher {
public:
    // Throws std::runtime_error for an algorithm code this build does not know.
    explicit Hasher(HashAlgorithm algorithm = HashAlgorithm::SHA1);

    Hasher(Hasher&&) noexcept = default;
    Hasher& operator=(Hasher&&) noexcept = default;

    void Update(const uint8_t* bytes, std::size_t n);
    void Update(std::span<const uint8_t> bytes) { Update(bytes.data(), bytes.size()); }

    // Returns the digest of everything passed to Update since construction or the previous
    // Finalize, and starts a new, empty message.
    std::vector<uint8_t> Finalize();

private:
    const EVP_MD* md_;
    OpenSSL::DigestContext ctx_;
};

// Digest of the whole file at path. Throws std::system_error when the file cannot be read.
std::vector<uint8_t> HashOfFile(const std::filesystem::path& path,
                                HashAlgorithm algorithm = HashAlgorithm::SHA1);

// One-shot SHA-1 of bytes.
std::vector<uint8_t> Sha1(std::span<const uint8_t> bytes);

}  // namespace Quiver::Support
