// SHA-1 through OpenSSL's EVP digest interface; see Hash.hpp.
#include "Quiver/Support/Hash.hpp"

#include <stdexcept>
#include <string>

#include "Quiver/Support/File.hpp"

namespace Quiver::Support {

namespace {

const EVP_MD* DigestFor(HashAlgorithm algorithm) {
    switch (algorithm) {
        case HashAlgorithm::SHA1: return EVP_sha1();
    }
    throw std::runtime_error("unsupported hash algorithm " +
                             std::to_string(static_cast<uint32_t>(algorithm)));
}

// Large enough that the per-call cost of read() disappears, small enough to stay in L2.
constexpr std::size_t kFileChunk = 256 * 1024;

}  // namespace

Hasher::Hasher(HashAlgorithm algorithm) : md_(DigestFor(algorithm)), ctx_(OpenSSL::NewDigestContext()) {
    if (EVP_DigestInit_ex(ctx_.get(), md_, nullptr) != 1) {
        OpenSSL::ThrowError("digest initialisation failed");
    }
}

void Hasher::Update(const uint8_t* bytes, std::size_t n) {
    if (n == 0) {
        return;
    }
    if (EVP_DigestUpdate(ctx_.get(), bytes, n) != 1) {
        OpenSSL::ThrowError("digest update failed");
    }
}

std::vector<uint8_t> Hasher::Finalize() {
    std::vector<uint8_t> digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx_.get(), digest.data(), &length) != 1) {
        OpenSSL::ThrowError("digest finalisation failed");
    }
    digest.resize(length);
    if (EVP_DigestInit_ex(ctx_.get(), md_, nullptr) != 1) {
        OpenSSL::ThrowError("digest initialisation failed");
    }
    return digest;
}

std::vector<uint8_t> HashOfFile(const std::filesystem::path& path, HashAlgorithm algorithm) {
    Hasher hasher(algorithm);
    readable_file file(path);
    std::vector<uint8_t> buffer(kFileChunk);
    while (std::size_t got = file.read(buffer.data(), buffer.size())) {
        hasher.Update(buffer.data(), got);
    }
    return hasher.Finalize();
}

std::vector<uint8_t> Sha1(std::span<const uint8_t> bytes) {
    Hasher hasher(HashAlgorithm::SHA1);
    hasher.Update(bytes);
    return hasher.Finalize();
}

}  // namespace Quiver::Support
