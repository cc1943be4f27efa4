// Ownership of OpenSSL handles and conversion of OpenSSL failures into exceptions, shared by the
// hashing, cipher, key-wrap and random-number code of this folder.
#pragma once

#include <memory>
#include <string_view>

#include <openssl/evp.h>

namespace Quiver::Support::OpenSSL {

struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX* ctx) const noexcept { EVP_CIPHER_CTX_free(ctx); }
};
struct DigestContextDeleter {
    void operator()(EVP_MD_CTX* ctx) const noexcept { EVP_MD_CTX_free(ctx); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextDeleter>;

// Allocates a context or throws std::bad_alloc.
CipherContext NewCipherContext();
DigestContext NewDigestContext();

// Throws std::runtime_error with "<what>" followed by OpenSSL's reason for the most recent failure
// of this thread, if it recorded one. The thread's OpenSSL error queue is emptied so that a stale
// entry can never be blamed on a later, unrelated call.
[[noreturn]] void ThrowError(std::string_view what);

// Empties the thread's OpenSSL error queue after a failure that is reported in other words.
void ClearErrors() noexcept;

}  // namespace Quiver::Support::OpenSSL
