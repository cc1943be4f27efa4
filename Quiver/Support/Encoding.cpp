// Hex and Base64 coding; see Encoding.hpp for what the decoders accept.
#include "Quiver/Support/Encoding.hpp"

#include <array>

namespace Quiver::Support {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr int8_t kInvalid = -1;
constexpr int8_t kPad = -2;
constexpr int8_t kSpace = -3;

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr std::array<int8_t, 256> MakeBase64Table() {
    std::array<int8_t, 256> table{};
    for (auto& value : table) value = kInvalid;
    for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
    table['='] = kPad;
    for (char c : {' ', '\t', '\n', '\r', '\f', '\v'}) table[static_cast<uint8_t>(c)] = kSpace;
    return table;
}
constexpr std::array<int8_t, 256> kBase64Table = MakeBase64Table();

}  // namespace

std::string hex_encode(std::span<const uint8_t> bytes) {
    std::string text(bytes.size() * 2, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text[2 * i] = kHexDigits[bytes[i] >> 4];
        text[2 * i + 1] = kHexDigits[bytes[i] & 0x0f];
    }
    return text;
}

std::optional<std::vector<uint8_t>> hex_decode(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<uint8_t> bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        int high = HexValue(text[2 * i]);
        int low = HexValue(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return bytes;
}

std::string base64_encode(std::span<const uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t group = uint32_t{bytes[i]} << 16 | uint32_t{bytes[i + 1]} << 8 | bytes[i + 2];
        text += kBase64Alphabet[group >> 18];
        text += kBase64Alphabet[group >> 12 & 0x3f];
        text += kBase64Alphabet[group >> 6 & 0x3f];
        text += kBase64Alphabet[group & 0x3f];
    }
    std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        uint32_t group = uint32_t{bytes[i]} << 16 | (rest == 2 ? uint32_t{bytes[i + 1]} << 8 : 0);
        text += kBase64Alphabet[group >> 18];
        text += kBase64Alphabet[group >> 12 & 0x3f];
        text += rest == 2 ? kBase64Alphabet[group >> 6 & 0x3f] : '=';
        text += '=';
    }
    return text;
}

std::optional<std::vector<uint8_t>> base64_decode(std::string_view text) {
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    uint32_t group = 0;   // sextets of the current quantum, most significant first
    int count = 0;        // sextets in the current quantum
    int padding = 0;      // "=" seen; after the first, only "=" and whitespace may follow
    for (char c : text) {
        int8_t value = kBase64Table[static_cast<uint8_t>(c)];
        if (value == kSpace) {
            continue;
        }
        if (value == kInvalid) {
            return std::nullopt;
        }
        if (value == kPad) {
            // "=" may only fill the third and fourth place of a quantum.
            if (count + padding < 2) {
                return std::nullopt;
            }
            ++padding;
            if (count + padding > 4) {
                return std::nullopt;
            }
            continue;
        }
        if (padding > 0) {
            return std::nullopt;
        }
        group = group << 6 | static_cast<uint32_t>(value);
        if (++count == 4) {
            bytes.push_back(static_cast<uint8_t>(group >> 16));
            bytes.push_back(static_cast<uint8_t>(group >> 8));
            bytes.push_back(static_cast<uint8_t>(group));
            group = 0;
            count = 0;
        }
    }
    if (count == 0) {
        // A complete text, unless "=" followed a finished quantum.
        return padding == 0 ? std::optional(std::move(bytes)) : std::nullopt;
    }
    if (count + padding != 4) {
        return std::nullopt;
    }
    if (count == 2) {
        if ((group & 0x0f) != 0) return std::nullopt;
        bytes.push_back(static_cast<uint8_t>(group >> 4));
    } else {  // count == 3
        if ((group & 0x03) != 0) return std::nullopt;
        bytes.push_back(static_cast<uint8_t>(group >> 10));
        bytes.push_back(static_cast<uint8_t>(group >> 2));
    }
    return bytes;
}

}  // namespace Quiver::Support
