// AES-CBC with PKCS#7 padding through OpenSSL's EVP interface (which uses AES-NI where present);
// see Cryptor.hpp.
#include "Quiver/Support/Cryptor.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

#include <openssl/evp.h>

#include "Quiver/Support/File.hpp"

namespace Quiver::Support {

namespace {

// EVP takes int lengths; larger inputs are fed in pieces of this size (a multiple of the block).
constexpr std::size_t kMaxPiece = std::size_t{1} << 30;
constexpr std::size_t kFileChunk = std::size_t{1} << 20;

const EVP_CIPHER* CipherFor(Cryptor::Algorithm algorithm, std::size_t keyLength) {
    std::size_t expected = 0;
    const EVP_CIPHER* cipher = nullptr;
    switch (algorithm) {
        case Cryptor::Algorithm::AES128: expected = 16; cipher = EVP_aes_128_cbc(); break;
        case Cryptor::Algorithm::AES256: expected = 32; cipher = EVP_aes_256_cbc(); break;
        default:
            throw std::runtime_error("unsupported cipher algorithm " +
                                     std::to_string(static_cast<uint32_t>(algorithm)));
    }
    if (keyLength != expected) {
        throw std::runtime_error("key must be " + std::to_string(expected) + " bytes for this cipher, not " +
                                 std::to_string(keyLength));
    }
    return cipher;
}

}  // namespace

Cryptor::Cryptor(Operation operation, Algorithm algorithm, std::span<const uint8_t> key,
                 std::span<const uint8_t> initialValue)
    : operation_(operation) {
    if (operation != Operation::Decrypt && operation != Operation::Encrypt) {
        throw std::runtime_error("unsupported cipher operation " +
                                 std::to_string(static_cast<uint32_t>(operation)));
    }
    const EVP_CIPHER* cipher = CipherFor(algorithm, key.size());
    static constexpr uint8_t kZeroIV[kBlockSize] = {};
    if (!initialValue.empty() && initialValue.size() != kBlockSize) {
        throw std::runtime_error("initial value must be 16 bytes, not " + std::to_string(initialValue.size()));
    }
    ctx_ = OpenSSL::NewCipherContext();
    if (EVP_CipherInit_ex(ctx_.get(), cipher, nullptr, key.data(),
                          initialValue.empty() ? kZeroIV : initialValue.data(),
                          operation == Operation::Encrypt ? 1 : 0) != 1) {
        OpenSSL::ThrowError("cipher initialisation failed");
    }
}

void Cryptor::DisablePadding() {
    if (EVP_CIPHER_CTX_set_padding(ctx_.get(), 0) != 1) OpenSSL::ThrowError("cipher padding could not be changed");
}

void Cryptor::Restart(std::span<const uint8_t> initialValue) {
    if (initialValue.size() != kBlockSize)
        throw std::runtime_error("initial value must be 16 bytes, not " + std::to_string(initialValue.size()));
    // No cipher and no key: the context keeps both, and its direction (-1) and padding setting.
    if (EVP_CipherInit_ex(ctx_.get(), nullptr, nullptr, nullptr, initialValue.data(), -1) != 1)
        OpenSSL::ThrowError("cipher could not be restarted");
    finished_ = false;
    consumed_ = 0;
}

std::size_t Cryptor::Update(const uint8_t* in, std::size_t n, uint8_t* out) {
    if (finished_) {
        throw std::runtime_error("cipher stream already finalized");
    }
    std::size_t written = 0;
    while (n > 0) {
        std::size_t piece = std::min(n, kMaxPiece);
        int length = 0;
        if (EVP_CipherUpdate(ctx_.get(), out + written, &length, in, static_cast<int>(piece)) != 1) {
            finished_ = true;
            OpenSSL::ThrowError("cipher update failed");
        }
        written += static_cast<std::size_t>(length);
        consumed_ += piece;
        in += piece;
        n -= piece;
    }
    return written;
}

void Cryptor::Update(const uint8_t* in, std::size_t n, std::vector<uint8_t>& out) {
    // resize() only zero-fills what grows beyond the previous size; chunked streams reuse nearly
    // all of it.
    out.resize(OutputBound(n));
    out.resize(Update(in, n, out.data()));
}

std::vector<uint8_t> Cryptor::Update(const uint8_t* in, std::size_t n) {
    std::vector<uint8_t> out;
    Update(in, n, out);
    return out;
}

std::size_t Cryptor::Finalize(uint8_t* out) {
    if (finished_) {
        throw std::runtime_error("cipher stream already finalized");
    }
    finished_ = true;
    if (operation_ == Operation::Decrypt) {
        if (consumed_ % kBlockSize != 0) {
            throw std::runtime_error("ciphertext length is not a multiple of the block size");
        }
        if (consumed_ == 0) {
            return 0;
        }
    }
    int length = 0;
    if (EVP_CipherFinal_ex(ctx_.get(), out, &length) != 1) {
        if (operation_ == Operation::Decrypt) {
            // With the length checked above, the final block can only fail on its padding.
            OpenSSL::ClearErrors();
            throw std::runtime_error("bad padding");
        }
        OpenSSL::ThrowError("cipher finalisation failed");
    }
    return static_cast<std::size_t>(length);
}

std::vector<uint8_t> Cryptor::Finalize() {
    std::vector<uint8_t> out(kBlockSize);
    out.resize(Finalize(out.data()));
    return out;
}

std::vector<uint8_t> Cryptor::Crypt(Operation operation, Algorithm algorithm, std::span<const uint8_t> key,
                                    std::span<const uint8_t> initialValue, std::span<const uint8_t> data) {
    Cryptor cryptor(operation, algorithm, key, initialValue);
    std::vector<uint8_t> out(OutputBound(data.size()));
    std::size_t written = cryptor.Update(data.data(), data.size(), out.data());
    written += cryptor.Finalize(out.data() + written);
    out.resize(written);
    return out;
}

std::vector<uint8_t> Cryptor::Decrypt(Algorithm algorithm, std::span<const uint8_t> key,
                                      std::span<const uint8_t> initialValue, std::span<const uint8_t> data) {
    return Crypt(Operation::Decrypt, algorithm, key, initialValue, data);
}

std::vector<uint8_t> Cryptor::Encrypt(Algorithm algorithm, std::span<const uint8_t> key,
                                      std::span<const uint8_t> initialValue, std::span<const uint8_t> data) {
    return Crypt(Operation::Encrypt, algorithm, key, initialValue, data);
}

uint64_t Cryptor::Crypt(Operation operation, Algorithm algorithm, std::span<const uint8_t> key,
                        std::span<const uint8_t> initialValue, readable_file& source, writable_file& destination) {
    Cryptor cryptor(operation, algorithm, key, initialValue);
    std::vector<uint8_t> in(kFileChunk);
    std::vector<uint8_t> out(OutputBound(kFileChunk));
    uint64_t total = 0;
    while (std::size_t got = source.read(in.data(), in.size())) {
        std::size_t produced = cryptor.Update(in.data(), got, out.data());
        destination.write(out.data(), produced);
        total += produced;
    }
    std::size_t produced = cryptor.Finalize(out.data());
    destination.write(out.data(), produced);
    return total + produced;
}

}  // namespace Quiver::Support
