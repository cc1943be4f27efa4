// Hexadecimal and Base64 text forms of byte strings.
//
// Digests and file IDs are shown in lowercase hex; property lists and encrypted strings carry
// Base64 (RFC 4648, standard alphabet, "=" padding). The decoders read untrusted text, so they
// return std::nullopt for anything malformed instead of throwing: a caller decides whether bad
// text is an error worth reporting, and in what words.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Quiver::Support {

// Two lowercase hex digits per byte.
std::string hex_encode(std::span<const uint8_t> bytes);

// Accepts upper- and lowercase digits; an odd number of digits or any other character (whitespace
// included) yields std::nullopt.
std::optional<std::vector<uint8_t>> hex_decode(std::string_view text);

// Standard alphabet with "=" padding, no line breaks.
std::string base64_encode(std::span<const uint8_t> bytes);

// Skips ASCII whitespace anywhere (property lists wrap their data lines). Otherwise strict:
// std::nullopt for characters outside the alphabet, a length (without whitespace) that is not a
// multiple of four, "=" anywhere but in the last one or two places, or non-zero bits left over in
// the last character before the padding, so every byte string has exactly one accepted text.
std::optional<std::vector<uint8_t>> base64_decode(std::string_view text);

}  // namespace Quiver::Support
