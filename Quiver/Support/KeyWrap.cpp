// RFC 3394 key wrap through OpenSSL's EVP wrap ciphers; see KeyWrap.hpp.
#include "Quiver/Support/KeyWrap.hpp"

#include <stdexcept>
#include <string>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "Quiver/Support/OpenSSL.hpp"

namespace Quiver::Support {

namespace {

constexpr std::size_t kSemiblock = 8;
// OpenSSL takes an int length and refuses 2^31 bytes or more; far beyond any key.
constexpr std::size_t kMaxWrapInput = (std::size_t{1} << 31) - kSemiblock;

const EVP_CIPHER* WrapCipherFor(std::size_t kekLength) {
    switch (kekLength) {
        case 16: return EVP_aes_128_wrap();
        case 24: return EVP_aes_192_wrap();
        case 32: return EVP_aes_256_wrap();
    }
    throw std::runtime_error("key encryption key must be 16, 24 or 32 bytes, not " +
                             std::to_string(kekLength));
}

std::vector<uint8_t> RunWrapCipher(bool wrap, std::span<const uint8_t> kek, std::span<const uint8_t> input,
                                   std::span<const uint8_t> initialValue) {
    const EVP_CIPHER* cipher = WrapCipherFor(kek.size());
    if (!initialValue.empty() && initialValue.size() != kSemiblock) {
        throw std::runtime_error("RFC 3394 initial value must be 8 bytes, not " +
                                 std::to_string(initialValue.size()));
    }
    OpenSSL::CipherContext ctx = OpenSSL::NewCipherContext();
    // Older OpenSSL refuses wrap ciphers through EVP unless the caller opts in; newer ignores it.
    EVP_CIPHER_CTX_set_flags(ctx.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    if (EVP_CipherInit_ex(ctx.get(), cipher, nullptr, kek.data(),
                          initialValue.empty() ? nullptr : initialValue.data(), wrap ? 1 : 0) != 1) {
        OpenSSL::ThrowError("key wrap initialisation failed");
    }
    std::vector<uint8_t> output(wrap ? input.size() + kSemiblock : input.size() - kSemiblock);
    int length = 0;
    if (EVP_CipherUpdate(ctx.get(), output.data(), &length, input.data(), static_cast<int>(input.size())) <= 0 ||
        static_cast<std::size_t>(length) != output.size()) {
        OPENSSL_cleanse(output.data(), output.size());
        if (wrap) {
            OpenSSL::ThrowError("key wrap failed");
        }
        // The only way a well-formed unwrap fails is a mismatch of the integrity value.
        OpenSSL::ClearErrors();
        throw std::runtime_error("integrity check failed");
    }
    return output;
}

}  // namespace

std::vector<uint8_t> RFC3394Wrap(std::span<const uint8_t> kek, std::span<const uint8_t> key,
                                 std::span<const uint8_t> initialValue) {
    if (key.size() < 2 * kSemiblock || key.size() % kSemiblock != 0 || key.size() > kMaxWrapInput) {
        throw std::runtime_error("key to wrap must be a multiple of 8 bytes and at least 16, not " +
                                 std::to_string(key.size()));
    }
    return RunWrapCipher(true, kek, key, initialValue);
}

std::vector<uint8_t> RFC3394Unwrap(std::span<const uint8_t> kek, std::span<const uint8_t> wrapped,
                                   std::span<const uint8_t> initialValue) {
    if (wrapped.size() < 3 * kSemiblock || wrapped.size() % kSemiblock != 0 ||
        wrapped.size() > kMaxWrapInput) {
        throw std::runtime_error("wrapped key must be a multiple of 8 bytes and at least 24, not " +
                                 std::to_string(wrapped.size()));
    }
    return RunWrapCipher(false, kek, wrapped, initialValue);
}

}  // namespace Quiver::Support
