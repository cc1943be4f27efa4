// RFC 3394 AES key wrap.
//
// A backup keeps every per-file key and its manifest key wrapped under a class key of its keybag;
// unwrapping checks the integrity value, which is how a wrong class key (or a damaged blob) is
// caught instead of yielding a wrong file key.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace Quiver::Support {

// Wraps key (a multiple of 8 bytes, at least 16) under kek (16, 24 or 32 bytes). initialValue is
// empty for the standard A6A6A6A6A6A6A6A6, or 8 bytes. Returns key.size() + 8 bytes. Throws
// std::runtime_error on bad lengths.
std::vector<uint8_t> RFC3394Wrap(std::span<const uint8_t> kek, std::span<const uint8_t> key,
                                 std::span<const uint8_t> initialValue = {});

// The inverse: wrapped must be a multiple of 8 bytes and at least 24. Throws std::runtime_error on
// bad lengths and with "integrity check failed" when the kek (or initial value) does not match.
std::vector<uint8_t> RFC3394Unwrap(std::span<const uint8_t> kek, std::span<const uint8_t> wrapped,
                                   std::span<const uint8_t> initialValue = {});

}  // namespace Quiver::Support
