// PBKDF2 (RFC 8018) with HMAC over SHA-1, SHA-256 and SHA-512.
//
// A backup password goes through ten million rounds of HMAC-SHA256 and then ten thousand of HMAC-SHA1
// before it can unwrap anything, so this code is the whole cost of opening an encrypted backup. It runs
// the digests' single-block transforms directly: the HMAC pad states are computed once per derivation,
// and each round is exactly two transforms over one prepared block, with no allocation and no
// per-round setup. The output is that of RFC 8018 PBKDF2 for every input.
#pragma once

#include <cstddef>
#include <cstdint>

namespace MB {

// Each writes outLength bytes to out. An iteration count of 0 counts as 1. Any password and salt
// length is accepted (an empty password included); a password longer than the digest's block is
// hashed first, as HMAC requires.
void PBKDF2_HMAC_SHA1(const uint8_t* password, std::size_t passwordLength, const uint8_t* salt,
                      std::size_t saltLength, uint32_t iterations, uint8_t* out, std::size_t outLength);
void PBKDF2_HMAC_SHA256(const uint8_t* password, std::size_t passwordLength, const uint8_t* salt,
                        std::size_t saltLength, uint32_t iterations, uint8_t* out, std::size_t outLength);
void PBKDF2_HMAC_SHA512(const uint8_t* password, std::size_t passwordLength, const uint8_t* salt,
                        std::size_t saltLength, uint32_t iterations, uint8_t* out, std::size_t outLength);

}  // namespace MB
