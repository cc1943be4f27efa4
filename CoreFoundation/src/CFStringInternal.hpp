// Pieces shared by the string sources (CFString.cpp, CFStringCompare.cpp, CFStringEncoding.cpp,
// CFStringFormat.cpp). A string object's UTF-8 is always well formed and never holds a surrogate code
// point, so the walkers below trust it and never need to check for truncated sequences.
#pragma once

#include "CFRuntime.hpp"

#include <string>
#include <string_view>

namespace cf::str {

// Checked access to string objects; the mutable variant traps on an immutable string.
const __CFString* get(CFStringRef ref, const char* function);
__CFString* get_mutable(CFMutableStringRef ref, const char* function);

// A new string object (+1) from text already known to be valid, with its UTF-16 length and ASCII flag.
__CFString* adopt(std::string utf8, CFIndex length16, bool ascii);

// Strict UTF-8 check that also counts UTF-16 code units; false for anything ill-formed.
bool scan_utf8(const char* data, size_t size, CFIndex& length16, bool& ascii);
// True when no byte has the high bit set.
bool all_ascii(const char* data, size_t size);

// Appends one code point (which must not be a surrogate) as UTF-8.
void append_utf8(std::string& out, char32_t cp);
// Appends UTF-16 units as UTF-8; unpaired surrogates become U+FFFD.
void append_utf16(std::string& out, const char16_t* in, size_t length);

// Decodes the code point at p (valid UTF-8) and advances p past it.
inline char32_t next_code_point(const unsigned char*& p) {
    unsigned c = *p++;
    if (c < 0x80) return c;
    if (c < 0xE0) return ((c & 0x1Fu) << 6) | (*p++ & 0x3Fu);
    if (c < 0xF0) {
        char32_t cp = ((c & 0x0Fu) << 12) | ((p[0] & 0x3Fu) << 6) | (p[1] & 0x3Fu);
        p += 2;
        return cp;
    }
    char32_t cp = ((c & 0x07u) << 18) | ((p[0] & 0x3Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
    p += 3;
    return cp;
}

// Traps unless range lies within the string's UTF-16 length.
void check_range(const __CFString* s, CFRange range, const char* function);

// Byte offset of UTF-16 index idx (0..length16). When idx falls between the two halves of a surrogate
// pair, splits is set and the offset of the pair is returned.
size_t byte_offset(const __CFString* s, CFIndex idx, bool& splits);

// The UTF-16 units of a range (already checked).
void copy_units(const __CFString* s, CFRange range, char16_t* out);
std::u16string units(const __CFString* s, CFRange range);

// Case mapping of single code points; locale-independent simple mappings.
char32_t to_lower(char32_t cp);
char32_t to_upper(char32_t cp);
char32_t fold_case(char32_t cp);  // used for case-insensitive comparison
// Folds a UTF-16 buffer in place; the folding never changes the number of units.
void fold_units(std::u16string& u);

// Converts bytes in an encoding to a new string (+1), or NULL when they are not valid in it.
CFStringRef create_from_bytes(const UInt8* bytes, size_t size, CFStringEncoding encoding, bool external);
bool encoding_supported(CFStringEncoding encoding);

}  // namespace cf::str
