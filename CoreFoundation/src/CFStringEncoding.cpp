// Conversion of strings from and to byte encodings: the Unicode forms (UTF-8, UTF-16 and UTF-32 in
// either byte order, with byte-order marks), ASCII, ISO Latin 1, Windows Latin 1, Mac OS Roman and
// the escaped non-lossy ASCII form.
//
// Decoding rejects bytes that are not valid in the encoding (the caller gets NULL) rather than
// guessing. Encoding converts whole characters only; a character the encoding cannot hold is replaced
// by the caller's loss byte, or ends the conversion when that is 0.
#include "CFStringInternal.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <vector>

namespace {

// Windows code page 1252 at 0x80..0x9F. The five positions it leaves unassigned decode to the C1
// control of the same value so that every byte sequence survives a round trip.
constexpr char16_t kWindowsLatin1High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

// Mac OS Roman at 0x80..0xFF.
constexpr char16_t kMacRomanHigh[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5,
    0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3, 0x00F2, 0x00F4,
    0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6,
    0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8, 0x221E, 0x00B1, 0x2264, 0x2265,
    0x00A5, 0x00B5, 0x2202, 0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF,
    0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB, 0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5,
    0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA, 0x00FF, 0x0178, 0x2044,
    0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02, 0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9,
    0x0131, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
};

constexpr bool kLittleEndianHost = std::endian::native == std::endian::little;

bool ascii_compatible(CFStringEncoding encoding) {
    switch (encoding) {
        case kCFStringEncodingUTF8:
        case kCFStringEncodingASCII:
        case kCFStringEncodingISOLatin1:
        case kCFStringEncodingWindowsLatin1:
        case kCFStringEncodingMacRoman: return true;
        default: return false;
    }
}

uint32_t read_unit(const UInt8* p, size_t width, bool little) {
    uint32_t v = 0;
    for (size_t k = 0; k < width; ++k) {
        v |= static_cast<uint32_t>(p[k]) << (8 * (little ? k : width - 1 - k));
    }
    return v;
}

void write_unit(uint32_t v, size_t width, bool little, UInt8* out) {
    for (size_t k = 0; k < width; ++k) {
        out[k] = static_cast<UInt8>(v >> (8 * (little ? k : width - 1 - k)));
    }
}

int hex_value(UInt8 c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Non-lossy ASCII: ASCII stands for itself, "\\" for a backslash, "\ooo" (octal) for U+0080..U+00FF
// and "\uXXXX" for any other UTF-16 unit.
bool decode_nonlossy(const UInt8* bytes, size_t size, std::u16string& out) {
    for (size_t i = 0; i < size;) {
        UInt8 b = bytes[i];
        if (b >= 0x80) return false;
        if (b != '\\') {
            out.push_back(b);
            ++i;
            continue;
        }
        if (i + 1 >= size) return false;
        UInt8 kind = bytes[i + 1];
        if (kind == '\\') {
            out.push_back(u'\\');
            i += 2;
        } else if (kind == 'u' || kind == 'U') {
            if (size - i < 6) return false;
            uint32_t v = 0;
            for (size_t k = 2; k < 6; ++k) {
                int h = hex_value(bytes[i + k]);
                if (h < 0) return false;
                v = v * 16 + static_cast<uint32_t>(h);
            }
            out.push_back(static_cast<char16_t>(v));
            i += 6;
        } else if (kind >= '0' && kind <= '3') {
            if (size - i < 4) return false;
            uint32_t v = 0;
            for (size_t k = 1; k < 4; ++k) {
                UInt8 d = bytes[i + k];
                if (d < '0' || d > '7') return false;
                v = v * 8 + (d - '0');
            }
            out.push_back(static_cast<char16_t>(v));
            i += 4;
        } else {
            return false;
        }
    }
    return true;
}

// Encodes one character: a code point, or a UTF-16 unit left unpaired by the range. Returns the number
// of bytes written to out (at most 12), or 0 when the encoding cannot hold the character.
size_t encode_char(char32_t cp, CFStringEncoding encoding, UInt8* out) {
    bool surrogate = cp >= 0xD800 && cp <= 0xDFFF;
    switch (encoding) {
        case kCFStringEncodingUTF8: {
            if (surrogate) return 0;
            std::string bytes;
            cf::str::append_utf8(bytes, cp);
            std::memcpy(out, bytes.data(), bytes.size());
            return bytes.size();
        }
        case kCFStringEncodingUTF16:
        case kCFStringEncodingUTF16BE:
        case kCFStringEncodingUTF16LE: {
            bool little = encoding == kCFStringEncodingUTF16 ? kLittleEndianHost : encoding == kCFStringEncodingUTF16LE;
            if (cp >= 0x10000) {
                write_unit(0xD800 + ((cp - 0x10000) >> 10), 2, little, out);
                write_unit(0xDC00 + ((cp - 0x10000) & 0x3FF), 2, little, out + 2);
                return 4;
            }
            write_unit(cp, 2, little, out);
            return 2;
        }
        case kCFStringEncodingUTF32:
        case kCFStringEncodingUTF32BE:
        case kCFStringEncodingUTF32LE: {
            if (surrogate) return 0;
            bool little = encoding == kCFStringEncodingUTF32 ? kLittleEndianHost : encoding == kCFStringEncodingUTF32LE;
            write_unit(cp, 4, little, out);
            return 4;
        }
        case kCFStringEncodingASCII:
            if (cp >= 0x80) return 0;
            out[0] = static_cast<UInt8>(cp);
            return 1;
        case kCFStringEncodingISOLatin1:
            if (cp >= 0x100) return 0;
            out[0] = static_cast<UInt8>(cp);
            return 1;
        case kCFStringEncodingWindowsLatin1:
            if (cp < 0x80 || (cp >= 0xA0 && cp < 0x100)) {
                out[0] = static_cast<UInt8>(cp);
                return 1;
            }
            for (size_t k = 0; k < 32; ++k) {
                if (kWindowsLatin1High[k] == cp) {
                    out[0] = static_cast<UInt8>(0x80 + k);
                    return 1;
                }
            }
            return 0;
        case kCFStringEncodingMacRoman:
            if (cp < 0x80) {
                out[0] = static_cast<UInt8>(cp);
                return 1;
            }
            for (size_t k = 0; k < 128; ++k) {
                if (kMacRomanHigh[k] == cp) {
                    out[0] = static_cast<UInt8>(0x80 + k);
                    return 1;
                }
            }
            return 0;
        case kCFStringEncodingNonLossyASCII: {
            static const char digits[] = "0123456789abcdef";
            if (cp == '\\') {
                out[0] = out[1] = '\\';
                return 2;
            }
            if (cp < 0x80) {
                out[0] = static_cast<UInt8>(cp);
                return 1;
            }
            if (cp < 0x100) {
                out[0] = '\\';
                out[1] = static_cast<UInt8>('0' + (cp >> 6));
                out[2] = static_cast<UInt8>('0' + ((cp >> 3) & 7));
                out[3] = static_cast<UInt8>('0' + (cp & 7));
                return 4;
            }
            char32_t unitsOf[2] = {cp, 0};
            size_t count = 1;
            if (cp >= 0x10000) {
                unitsOf[0] = 0xD800 + ((cp - 0x10000) >> 10);
                unitsOf[1] = 0xDC00 + ((cp - 0x10000) & 0x3FF);
                count = 2;
            }
            for (size_t k = 0; k < count; ++k) {
                UInt8* o = out + 6 * k;
                o[0] = '\\';
                o[1] = 'u';
                for (int d = 0; d < 4; ++d) o[2 + d] = static_cast<UInt8>(digits[(unitsOf[k] >> (12 - 4 * d)) & 0xF]);
            }
            return 6 * count;
        }
        default: return 0;
    }
}

// The work of CFStringGetBytes on a checked range.
CFIndex encode(const __CFString* s, CFRange range, CFStringEncoding encoding, UInt8 lossByte, bool external,
               UInt8* buffer, CFIndex maxBufLen, CFIndex* usedBufLen) {
    CFIndex capacity = buffer ? std::max<CFIndex>(maxBufLen, 0) : std::numeric_limits<CFIndex>::max();
    CFIndex used = 0, converted = 0;
    auto finish = [&]() {
        if (usedBufLen) *usedBufLen = used;
        return converted;
    };
    if (!cf::str::encoding_supported(encoding)) return finish();
    if (external && (encoding == kCFStringEncodingUTF16 || encoding == kCFStringEncodingUTF32)) {
        size_t width = encoding == kCFStringEncodingUTF16 ? 2 : 4;
        if (capacity < static_cast<CFIndex>(width)) return finish();
        if (buffer) write_unit(0xFEFF, width, kLittleEndianHost, buffer);
        used = static_cast<CFIndex>(width);
    }
    if (s->ascii && ascii_compatible(encoding)) {
        CFIndex n = std::min(range.length, capacity - used);
        if (buffer) std::memcpy(buffer + used, s->utf8.data() + range.location, static_cast<size_t>(n));
        used += n;
        converted = n;
        return finish();
    }
    std::u16string u = cf::str::units(s, range);
    UInt8 scratch[12];
    for (size_t i = 0; i < u.size();) {
        char32_t cp = u[i];
        size_t count = 1;
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < u.size() && u[i + 1] >= 0xDC00 && u[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (u[i + 1] - 0xDC00);
            count = 2;
        }
        size_t n = encode_char(cp, encoding, scratch);
        if (n == 0) {
            if (lossByte == 0) break;
            scratch[0] = lossByte;
            n = 1;
        }
        if (static_cast<CFIndex>(n) > capacity - used) break;
        if (buffer) std::memcpy(buffer + used, scratch, n);
        used += static_cast<CFIndex>(n);
        converted += static_cast<CFIndex>(count);
        i += count;
    }
    return finish();
}

}  // namespace

namespace cf::str {

bool encoding_supported(CFStringEncoding encoding) {
    switch (encoding) {
        case kCFStringEncodingUTF8:
        case kCFStringEncodingASCII:
        case kCFStringEncodingISOLatin1:
        case kCFStringEncodingWindowsLatin1:
        case kCFStringEncodingMacRoman:
        case kCFStringEncodingNonLossyASCII:
        case kCFStringEncodingUTF16:
        case kCFStringEncodingUTF16BE:
        case kCFStringEncodingUTF16LE:
        case kCFStringEncodingUTF32:
        case kCFStringEncodingUTF32BE:
        case kCFStringEncodingUTF32LE: return true;
        default: return false;
    }
}

CFStringRef create_from_bytes(const UInt8* bytes, size_t size, CFStringEncoding encoding, bool external) {
    std::string out;
    switch (encoding) {
        case kCFStringEncodingUTF8: {
            // An external representation may begin with a byte-order mark, which is not text.
            if (external && size >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
                bytes += 3;
                size -= 3;
            }
            CFIndex length16 = 0;
            bool ascii = true;
            const char* text = reinterpret_cast<const char*>(bytes);
            if (!scan_utf8(text, size, length16, ascii)) return nullptr;
            return adopt(std::string(text, size), length16, ascii);
        }
        case kCFStringEncodingASCII: {
            const char* text = reinterpret_cast<const char*>(bytes);
            if (!all_ascii(text, size)) return nullptr;
            return adopt(std::string(text, size), static_cast<CFIndex>(size), true);
        }
        case kCFStringEncodingISOLatin1:
        case kCFStringEncodingWindowsLatin1:
        case kCFStringEncodingMacRoman:
            out.reserve(size);
            for (size_t i = 0; i < size; ++i) {
                UInt8 b = bytes[i];
                char32_t cp = b;
                if (encoding == kCFStringEncodingWindowsLatin1 && b >= 0x80 && b < 0xA0) {
                    cp = kWindowsLatin1High[b - 0x80];
                } else if (encoding == kCFStringEncodingMacRoman && b >= 0x80) {
                    cp = kMacRomanHigh[b - 0x80];
                }
                append_utf8(out, cp);
            }
            return adopt(std::move(out), static_cast<CFIndex>(size), all_ascii(reinterpret_cast<const char*>(bytes), size));
        case kCFStringEncodingNonLossyASCII: {
            std::u16string u;
            if (!decode_nonlossy(bytes, size, u)) return nullptr;
            append_utf16(out, u.data(), u.size());
            return cf::make_string(std::move(out));
        }
        case kCFStringEncodingUTF16:
        case kCFStringEncodingUTF16BE:
        case kCFStringEncodingUTF16LE: {
            if (size % 2) return nullptr;
            bool little = encoding == kCFStringEncodingUTF16 ? kLittleEndianHost : encoding == kCFStringEncodingUTF16LE;
            if (encoding == kCFStringEncodingUTF16 && size >= 2) {
                // A byte-order mark decides the order and is dropped; without one the host's order holds.
                if (bytes[0] == 0xFE && bytes[1] == 0xFF) {
                    little = false;
                    bytes += 2;
                    size -= 2;
                } else if (bytes[0] == 0xFF && bytes[1] == 0xFE) {
                    little = true;
                    bytes += 2;
                    size -= 2;
                }
            }
            std::u16string u(size / 2, u'\0');
            for (size_t i = 0; i < u.size(); ++i) u[i] = static_cast<char16_t>(read_unit(bytes + 2 * i, 2, little));
            append_utf16(out, u.data(), u.size());
            return cf::make_string(std::move(out));
        }
        case kCFStringEncodingUTF32:
        case kCFStringEncodingUTF32BE:
        case kCFStringEncodingUTF32LE: {
            if (size % 4) return nullptr;
            bool little = encoding == kCFStringEncodingUTF32 ? kLittleEndianHost : encoding == kCFStringEncodingUTF32LE;
            if (encoding == kCFStringEncodingUTF32 && size >= 4) {
                if (read_unit(bytes, 4, false) == 0xFEFF) {
                    little = false;
                    bytes += 4;
                    size -= 4;
                } else if (read_unit(bytes, 4, true) == 0xFEFF) {
                    little = true;
                    bytes += 4;
                    size -= 4;
                }
            }
            out.reserve(size / 4);
            for (size_t i = 0; i < size; i += 4) {
                uint32_t cp = read_unit(bytes + i, 4, little);
                if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return nullptr;
                append_utf8(out, cp);
            }
            return cf::make_string(std::move(out));
        }
        default: return nullptr;
    }
}

}  // namespace cf::str

using namespace cf;

CFIndex CFStringGetBytes(CFStringRef theString, CFRange range, CFStringEncoding encoding, UInt8 lossByte,
                         Boolean isExternalRepresentation, UInt8* buffer, CFIndex maxBufLen, CFIndex* usedBufLen) {
    const __CFString* s = str::get(theString, "CFStringGetBytes");
    str::check_range(s, range, "CFStringGetBytes");
    return encode(s, range, encoding, lossByte, isExternalRepresentation, buffer, maxBufLen, usedBufLen);
}

Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize, CFStringEncoding encoding) {
    const __CFString* s = str::get(theString, "CFStringGetCString");
    if (!buffer || bufferSize <= 0) return false;
    if (encoding == kCFStringEncodingUTF8) {
        if (static_cast<CFIndex>(s->utf8.size()) >= bufferSize) {
            buffer[0] = '\0';
            return false;
        }
        std::memcpy(buffer, s->utf8.c_str(), s->utf8.size() + 1);
        return true;
    }
    CFIndex used = 0;
    CFIndex converted = encode(s, CFRangeMake(0, s->length16), encoding, 0, false, reinterpret_cast<UInt8*>(buffer),
                               bufferSize - 1, &used);
    if (converted != s->length16) {
        buffer[0] = '\0';
        return false;
    }
    buffer[used] = '\0';
    return true;
}

CFDataRef CFStringCreateExternalRepresentation(CFAllocatorRef alloc, CFStringRef theString, CFStringEncoding encoding,
                                               UInt8 lossByte) {
    const __CFString* s = str::get(theString, "CFStringCreateExternalRepresentation");
    CFRange all = CFRangeMake(0, s->length16);
    CFIndex size = 0;
    if (encode(s, all, encoding, lossByte, true, nullptr, 0, &size) != s->length16) return nullptr;
    std::vector<UInt8> bytes(static_cast<size_t>(size));
    encode(s, all, encoding, lossByte, true, bytes.data(), size, &size);
    return CFDataCreate(alloc, bytes.data(), size);
}

CFStringRef CFStringCreateFromExternalRepresentation(CFAllocatorRef alloc, CFDataRef data, CFStringEncoding encoding) {
    const auto* d = cast<__CFData>(data, kCFTypeIDData, "CFStringCreateFromExternalRepresentation");
    return CFStringCreateWithBytes(alloc, d->bytes(), d->length(), encoding, true);
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) {
    CFIndex perUnit = 1;
    switch (encoding) {
        case kCFStringEncodingUTF8: perUnit = 3; break;  // a pair of units takes 4 bytes, one unit at most 3
        case kCFStringEncodingUTF16:
        case kCFStringEncodingUTF16BE:
        case kCFStringEncodingUTF16LE: perUnit = 2; break;
        case kCFStringEncodingUTF32:
        case kCFStringEncodingUTF32BE:
        case kCFStringEncodingUTF32LE: perUnit = 4; break;
        case kCFStringEncodingNonLossyASCII: perUnit = 6; break;
        default: perUnit = 1; break;
    }
    if (length < 0 || length > std::numeric_limits<CFIndex>::max() / perUnit) return kCFNotFound;
    return length * perUnit;
}

CFStringEncoding CFStringGetSystemEncoding(void) { return kCFStringEncodingUTF8; }

CFStringEncoding CFStringGetFastestEncoding(CFStringRef theString) {
    str::get(theString, "CFStringGetFastestEncoding");
    return kCFStringEncodingUTF8;  // the stored form
}

Boolean CFStringIsEncodingAvailable(CFStringEncoding encoding) { return str::encoding_supported(encoding); }
