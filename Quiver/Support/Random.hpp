// Random bytes from OpenSSL's generator, and the random UUID names built from them (temporary
// file names, new keys and salts all come from here).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Quiver::Support {

// n bytes from RAND_bytes. Throws std::runtime_error when the generator fails (it is never
// allowed to hand out predictable bytes).
std::vector<uint8_t> RandomBytes(std::size_t n);

// A random (version 4, RFC 4122 variant) UUID in upper-case 8-4-4-4-12 form,
// e.g. "3F2504E0-4F89-41D3-9A0C-0305E82C3301".
std::string MakeUUIDString();

}  // namespace Quiver::Support
