// See OpenSSL.hpp.
#include "Quiver/Support/OpenSSL.hpp"

#include <new>
#include <stdexcept>
#include <string>

#include <openssl/err.h>

namespace Quiver::Support::OpenSSL {

CipherContext NewCipherContext() {
    CipherContext ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        ClearErrors();
        throw std::bad_alloc();
    }
    return ctx;
}

DigestContext NewDigestContext() {
    DigestContext ctx(EVP_MD_CTX_new());
    if (!ctx) {
        ClearErrors();
        throw std::bad_alloc();
    }
    return ctx;
}

void ThrowError(std::string_view what) {
    std::string message(what);
    // The last entry is the innermost reason; earlier ones are the callers that passed it on.
    unsigned long code = ERR_peek_last_error();
    if (code != 0) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof reason);
        message += " (";
        message += reason;
        message += ")";
    }
    ERR_clear_error();
    throw std::runtime_error(message);
}

void ClearErrors() noexcept { ERR_clear_error(); }

}  // namespace Quiver::Support::OpenSSL
