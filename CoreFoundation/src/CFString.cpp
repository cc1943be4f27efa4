// String objects: the UTF-8 helpers every type uses, constant strings, creation, character access,
// mutation, splitting and joining.
//
// A string keeps well-formed UTF-8 plus its length in UTF-16 code units, because callers count in
// UTF-16 while almost every string the library sees (domains, paths, dictionary keys) is ASCII and is
// created from UTF-8. Creating such a string costs one validating scan and one copy; ASCII strings
// index their bytes directly, and other strings walk or convert their UTF-8 only when indexed.
#include "CFStringInternal.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace cf {

namespace {

// Writes the UTF-16 form of valid UTF-8 to out (which must have room for length16 units).
void utf8_to_units(const std::string& utf8, char16_t* out) {
    const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
    const auto* end = p + utf8.size();
    while (p < end) {
        char32_t cp = str::next_code_point(p);
        if (cp >= 0x10000) {
            cp -= 0x10000;
            *out++ = static_cast<char16_t>(0xD800 + (cp >> 10));
            *out++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            *out++ = static_cast<char16_t>(cp);
        }
    }
}

// Replaces every ill-formed sequence of text by U+FFFD; used only when a caller of make_string breaks
// its promise, so that the object's invariants hold whatever it was given.
std::string sanitize_utf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        size_t n = 1;
        while (i + n <= text.size() && n <= 4) {
            CFIndex units = 0;
            bool ascii = false;
            if (str::scan_utf8(text.data() + i, n, units, ascii)) break;
            ++n;
        }
        if (n <= 4 && i + n <= text.size()) {
            out.append(text.substr(i, n));
            i += n;
        } else {
            str::append_utf8(out, 0xFFFD);
            ++i;
        }
    }
    return out;
}

}  // namespace

bool decode_utf8(std::string_view in, std::u16string& out) {
    CFIndex length16 = 0;
    bool ascii = false;
    out.clear();
    if (!str::scan_utf8(in.data(), in.size(), length16, ascii)) return false;
    out.resize(static_cast<size_t>(length16));
    if (ascii) {
        for (size_t i = 0; i < in.size(); ++i) out[i] = static_cast<unsigned char>(in[i]);
    } else {
        const auto* p = reinterpret_cast<const unsigned char*>(in.data());
        const auto* end = p + in.size();
        char16_t* o = out.data();
        while (p < end) {
            char32_t cp = str::next_code_point(p);
            if (cp >= 0x10000) {
                cp -= 0x10000;
                *o++ = static_cast<char16_t>(0xD800 + (cp >> 10));
                *o++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
            } else {
                *o++ = static_cast<char16_t>(cp);
            }
        }
    }
    return true;
}

void encode_utf8(const char16_t* in, size_t length, std::string& out) {
    out.clear();
    str::append_utf16(out, in, length);
}

CFStringRef make_string(std::string utf8) {
    auto* s = new __CFString();
    s->set(std::move(utf8));
    return s;
}

const std::string& utf8_of(CFStringRef str) { return str::get(str, "utf8_of")->utf8; }

namespace str {

const __CFString* get(CFStringRef ref, const char* function) {
    return cast<__CFString>(ref, kCFTypeIDString, function);
}

__CFString* get_mutable(CFMutableStringRef ref, const char* function) {
    auto* s = cast_mutable<__CFString>(ref, kCFTypeIDString, function);
    if (!s->mutable_) fatal(function, "attempt to mutate an immutable string");
    return s;
}

__CFString* adopt(std::string utf8, CFIndex length16, bool ascii) {
    auto* s = new __CFString();
    s->utf8 = std::move(utf8);
    s->length16 = length16;
    s->ascii = ascii;
    return s;
}

bool all_ascii(const char* data, size_t size) {
    const auto* p = reinterpret_cast<const unsigned char*>(data);
    const auto* end = p + size;
    while (end - p >= 8) {
        uint64_t word;
        std::memcpy(&word, p, 8);
        if (word & 0x8080808080808080ULL) return false;
        p += 8;
    }
    unsigned bits = 0;
    while (p < end) bits |= *p++;
    return bits < 0x80;
}

bool scan_utf8(const char* data, size_t size, CFIndex& length16, bool& ascii) {
    const auto* start = reinterpret_cast<const unsigned char*>(data);
    const auto* p = start;
    const auto* end = p + size;
    while (end - p >= 8) {
        uint64_t word;
        std::memcpy(&word, p, 8);
        if (word & 0x8080808080808080ULL) break;
        p += 8;
    }
    while (p < end && *p < 0x80) ++p;
    if (p == end) {
        length16 = static_cast<CFIndex>(size);
        ascii = true;
        return true;
    }
    size_t units = static_cast<size_t>(p - start);
    auto continuation = [](unsigned char b) { return (b & 0xC0) == 0x80; };
    while (p < end) {
        unsigned c = *p;
        if (c < 0x80) {
            ++p;
            ++units;
        } else if (c < 0xC2) {  // a stray continuation byte or an overlong two-byte form
            return false;
        } else if (c < 0xE0) {
            if (end - p < 2 || !continuation(p[1])) return false;
            p += 2;
            ++units;
        } else if (c < 0xF0) {
            if (end - p < 3) return false;
            // E0 must not start an overlong form, ED must not encode a surrogate.
            unsigned lo = c == 0xE0 ? 0xA0 : 0x80, hi = c == 0xED ? 0x9F : 0xBF;
            if (p[1] < lo || p[1] > hi || !continuation(p[2])) return false;
            p += 3;
            ++units;
        } else if (c < 0xF5) {
            if (end - p < 4) return false;
            // F0 must not start an overlong form, F4 must stay at or below U+10FFFF.
            unsigned lo = c == 0xF0 ? 0x90 : 0x80, hi = c == 0xF4 ? 0x8F : 0xBF;
            if (p[1] < lo || p[1] > hi || !continuation(p[2]) || !continuation(p[3])) return false;
            p += 4;
            units += 2;
        } else {
            return false;
        }
    }
    length16 = static_cast<CFIndex>(units);
    ascii = false;
    return true;
}

void append_utf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void append_utf16(std::string& out, const char16_t* in, size_t length) {
    out.reserve(out.size() + length);
    for (size_t i = 0; i < length; ++i) {
        char32_t u = in[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < length && in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
            append_utf8(out, 0x10000 + ((u - 0xD800) << 10) + (in[i + 1] - 0xDC00));
            ++i;
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            append_utf8(out, 0xFFFD);
        } else {
            append_utf8(out, u);
        }
    }
}

void check_range(const __CFString* s, CFRange range, const char* function) {
    if (range.location < 0 || range.length < 0 || range.location > s->length16 ||
        range.length > s->length16 - range.location) {
        fatal(function, "range out of bounds");
    }
}

size_t byte_offset(const __CFString* s, CFIndex idx, bool& splits) {
    splits = false;
    if (s->ascii) return static_cast<size_t>(idx);
    const auto* start = reinterpret_cast<const unsigned char*>(s->utf8.data());
    const auto* p = start;
    CFIndex unit = 0;
    while (unit < idx) {
        unsigned c = *p;
        size_t bytes = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        CFIndex n = bytes == 4 ? 2 : 1;
        if (unit + n > idx) {
            splits = true;
            break;
        }
        unit += n;
        p += bytes;
    }
    return static_cast<size_t>(p - start);
}

void copy_units(const __CFString* s, CFRange range, char16_t* out) {
    if (range.length == 0) return;
    if (s->ascii) {
        const auto* p = reinterpret_cast<const unsigned char*>(s->utf8.data()) + range.location;
        for (CFIndex i = 0; i < range.length; ++i) out[i] = p[i];
        return;
    }
    bool splits = false;
    const auto* p = reinterpret_cast<const unsigned char*>(s->utf8.data()) + byte_offset(s, range.location, splits);
    CFIndex produced = 0;
    if (splits) {  // the range starts with the second half of a pair
        char32_t cp = next_code_point(p) - 0x10000;
        out[produced++] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    }
    while (produced < range.length) {
        char32_t cp = next_code_point(p);
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out[produced++] = static_cast<char16_t>(0xD800 + (cp >> 10));
            if (produced < range.length) out[produced++] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out[produced++] = static_cast<char16_t>(cp);
        }
    }
}

std::u16string units(const __CFString* s, CFRange range) {
    std::u16string out(static_cast<size_t>(range.length), u'\0');
    copy_units(s, range, out.data());
    return out;
}

}  // namespace str
}  // namespace cf

using namespace cf;

// The object's own behaviour.

bool __CFString::equal(const __CFObject* other) const {
    // Well-formed UTF-8 is a unique encoding, so equal UTF-16 means equal bytes.
    return utf8 == static_cast<const __CFString*>(other)->utf8;
}

CFHashCode __CFString::hash() const { return hash_bytes(utf8.data(), utf8.size()); }

void __CFString::set(std::string text) {
    CFIndex units = 0;
    bool isAscii = true;
    if (!str::scan_utf8(text.data(), text.size(), units, isAscii)) {
        text = sanitize_utf8(text);
        str::scan_utf8(text.data(), text.size(), units, isAscii);
    }
    utf8 = std::move(text);
    length16 = units;
    ascii = isAscii;
}

std::u16string __CFString::utf16() const {
    std::u16string out(static_cast<size_t>(length16), u'\0');
    if (ascii) {
        for (size_t i = 0; i < utf8.size(); ++i) out[i] = static_cast<unsigned char>(utf8[i]);
    } else {
        utf8_to_units(utf8, out.data());
    }
    return out;
}

namespace {

// Replaces a UTF-16 range of s (already checked) by UTF-8 text with the given UTF-16 length.
void replace_range(__CFString* s, CFRange range, std::string_view text, CFIndex text16, bool textAscii) {
    bool splitsStart = false, splitsEnd = false;
    size_t begin = str::byte_offset(s, range.location, splitsStart);
    size_t end = str::byte_offset(s, range.location + range.length, splitsEnd);
    if (splitsStart || splitsEnd) {
        // The range cuts a surrogate pair: edit the UTF-16 form; the orphaned half becomes U+FFFD.
        std::u16string u = s->utf16();
        std::u16string inserted;
        decode_utf8(text, inserted);
        u.replace(static_cast<size_t>(range.location), static_cast<size_t>(range.length), inserted);
        std::string out;
        str::append_utf16(out, u.data(), u.size());
        s->set(std::move(out));
        return;
    }
    bool removedNonAscii = !s->ascii && !str::all_ascii(s->utf8.data() + begin, end - begin);
    s->utf8.replace(begin, end - begin, text);
    s->length16 += text16 - range.length;
    if (!textAscii) {
        s->ascii = false;
    } else if (removedNonAscii) {
        s->ascii = str::all_ascii(s->utf8.data(), s->utf8.size());
    }
}

void append_text(__CFString* s, std::string_view text, CFIndex text16, bool textAscii) {
    s->utf8.append(text);
    s->length16 += text16;
    s->ascii = s->ascii && textAscii;
}

CFStringRef create_with_utf8(const char* bytes, size_t size) {
    CFIndex length16 = 0;
    bool ascii = true;
    if (!str::scan_utf8(bytes, size, length16, ascii)) return nullptr;
    return str::adopt(std::string(bytes, size), length16, ascii);
}

// The process-wide table of constant strings, keyed by the literal's bytes. Entries are never removed
// and the table itself is never destroyed, so constants stay valid in static destructors.
struct Constant {
    explicit Constant(std::string_view text) : key(text) {
        object.set(key);
        object.immortal = true;
    }
    std::string key;  // the literal's bytes, which the object's text may differ from if they are not UTF-8
    __CFString object;
};

struct ConstantTable {
    std::mutex mutex;
    std::unordered_map<std::string_view, Constant*> strings;  // keys view Constant::key
};

ConstantTable& constants() {
    static ConstantTable* table = new ConstantTable;
    return *table;
}

}  // namespace

CFTypeID CFStringGetTypeID(void) { return kCFTypeIDString; }

CFStringRef __CFStringMakeConstantString(const char* cStr) {
    if (!cStr) fatal("__CFStringMakeConstantString", "NULL C string");
    std::string_view text(cStr);
    ConstantTable& table = constants();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto found = table.strings.find(text);
    if (found != table.strings.end()) return &found->second->object;
    // The key is copied: the caller's literal may go away with a library that is unloaded.
    auto* constant = new Constant(text);
    table.strings.emplace(constant->key, constant);
    return &constant->object;
}

// Creation.

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* cStr, CFStringEncoding encoding) {
    if (!cStr) return nullptr;
    size_t size = std::strlen(cStr);
    if (encoding == kCFStringEncodingUTF8) return create_with_utf8(cStr, size);
    return str::create_from_bytes(reinterpret_cast<const UInt8*>(cStr), size, encoding, false);
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex numBytes, CFStringEncoding encoding,
                                    Boolean isExternalRepresentation) {
    if (numBytes < 0 || (!bytes && numBytes > 0)) return nullptr;
    if (numBytes == 0) return str::adopt(std::string(), 0, true);
    if (encoding == kCFStringEncodingUTF8 && !isExternalRepresentation) {
        return create_with_utf8(reinterpret_cast<const char*>(bytes), static_cast<size_t>(numBytes));
    }
    return str::create_from_bytes(bytes, static_cast<size_t>(numBytes), encoding, isExternalRepresentation);
}

CFStringRef CFStringCreateWithCharacters(CFAllocatorRef, const UniChar* chars, CFIndex numChars) {
    if (numChars < 0 || (!chars && numChars > 0)) return nullptr;
    std::string out;
    str::append_utf16(out, reinterpret_cast<const char16_t*>(chars), static_cast<size_t>(numChars));
    return make_string(std::move(out));
}

CFStringRef CFStringCreateWithCStringNoCopy(CFAllocatorRef alloc, const char* cStr, CFStringEncoding encoding,
                                            CFAllocatorRef contentsDeallocator) {
    // The bytes are always copied. They are released only when the string was made, so that a caller
    // who gets NULL back still owns its buffer.
    CFStringRef s = CFStringCreateWithCString(alloc, cStr, encoding);
    if (s && contentsDeallocator != kCFAllocatorNull) {
        CFAllocatorDeallocate(contentsDeallocator, const_cast<char*>(cStr));
    }
    return s;
}

CFStringRef CFStringCreateCopy(CFAllocatorRef, CFStringRef theString) {
    const __CFString* s = str::get(theString, "CFStringCreateCopy");
    if (!s->mutable_) return static_cast<CFStringRef>(CFRetain(theString));
    return str::adopt(s->utf8, s->length16, s->ascii);
}

CFStringRef CFStringCreateWithSubstring(CFAllocatorRef, CFStringRef theString, CFRange range) {
    const __CFString* s = str::get(theString, "CFStringCreateWithSubstring");
    str::check_range(s, range, "CFStringCreateWithSubstring");
    if (!s->mutable_ && range.location == 0 && range.length == s->length16) {
        return static_cast<CFStringRef>(CFRetain(theString));
    }
    bool splitsStart = false, splitsEnd = false;
    size_t begin = str::byte_offset(s, range.location, splitsStart);
    size_t end = str::byte_offset(s, range.location + range.length, splitsEnd);
    if (splitsStart || splitsEnd) {
        std::u16string u = str::units(s, range);
        std::string out;
        str::append_utf16(out, u.data(), u.size());
        return make_string(std::move(out));
    }
    std::string text = s->utf8.substr(begin, end - begin);
    bool ascii = s->ascii || str::all_ascii(text.data(), text.size());
    return str::adopt(std::move(text), range.length, ascii);
}

CFMutableStringRef CFStringCreateMutable(CFAllocatorRef, CFIndex) {
    __CFString* s = str::adopt(std::string(), 0, true);
    s->mutable_ = true;
    return s;
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex, CFStringRef theString) {
    const __CFString* source = str::get(theString, "CFStringCreateMutableCopy");
    __CFString* s = str::adopt(source->utf8, source->length16, source->ascii);
    s->mutable_ = true;
    return s;
}

// Access.

CFIndex CFStringGetLength(CFStringRef theString) { return str::get(theString, "CFStringGetLength")->length16; }

UniChar CFStringGetCharacterAtIndex(CFStringRef theString, CFIndex idx) {
    const __CFString* s = str::get(theString, "CFStringGetCharacterAtIndex");
    if (idx < 0 || idx >= s->length16) fatal("CFStringGetCharacterAtIndex", "index out of bounds");
    if (s->ascii) return static_cast<unsigned char>(s->utf8[static_cast<size_t>(idx)]);
    char16_t unit = 0;
    str::copy_units(s, CFRangeMake(idx, 1), &unit);
    return unit;
}

void CFStringGetCharacters(CFStringRef theString, CFRange range, UniChar* buffer) {
    const __CFString* s = str::get(theString, "CFStringGetCharacters");
    str::check_range(s, range, "CFStringGetCharacters");
    if (range.length > 0 && !buffer) fatal("CFStringGetCharacters", "NULL buffer");
    str::copy_units(s, range, reinterpret_cast<char16_t*>(buffer));
}

const char* CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding) {
    const __CFString* s = str::get(theString, "CFStringGetCStringPtr");
    if (encoding == kCFStringEncodingUTF8 || (encoding == kCFStringEncodingASCII && s->ascii)) return s->utf8.c_str();
    return nullptr;
}

const UniChar* CFStringGetCharactersPtr(CFStringRef theString) {
    str::get(theString, "CFStringGetCharactersPtr");
    return nullptr;  // strings are not stored as UTF-16; callers fall back to CFStringGetCharacters
}

// Splitting and joining.

CFArrayRef CFStringCreateArrayBySeparatingStrings(CFAllocatorRef alloc, CFStringRef theString,
                                                  CFStringRef separatorString) {
    const __CFString* s = str::get(theString, "CFStringCreateArrayBySeparatingStrings");
    const __CFString* sep = str::get(separatorString, "CFStringCreateArrayBySeparatingStrings");
    std::vector<CFStringRef> parts;
    std::string_view text(s->utf8);
    std::string_view needle(sep->utf8);
    // Byte matching is exact here: a well-formed needle can only match at character boundaries.
    if (!needle.empty()) {
        size_t start = 0;
        for (size_t at = text.find(needle); at != std::string_view::npos; at = text.find(needle, start)) {
            std::string_view part = text.substr(start, at - start);
            parts.push_back(make_string(std::string(part)));
            start = at + needle.size();
        }
        if (!parts.empty()) parts.push_back(make_string(std::string(text.substr(start))));
    }
    if (parts.empty()) parts.push_back(CFStringCreateCopy(alloc, theString));
    CFArrayRef array = CFArrayCreate(alloc, reinterpret_cast<const void**>(parts.data()),
                                     static_cast<CFIndex>(parts.size()), &kCFTypeArrayCallBacks);
    for (CFStringRef part : parts) CFRelease(part);
    return array;
}

CFStringRef CFStringCreateByCombiningStrings(CFAllocatorRef, CFArrayRef theArray, CFStringRef separatorString) {
    const __CFString* sep = str::get(separatorString, "CFStringCreateByCombiningStrings");
    CFIndex count = CFArrayGetCount(theArray);
    std::vector<const __CFString*> items;
    items.reserve(static_cast<size_t>(count));
    size_t bytes = 0;
    CFIndex length16 = 0;
    bool ascii = sep->ascii;
    for (CFIndex i = 0; i < count; ++i) {
        const __CFString* item = str::get(static_cast<CFStringRef>(CFArrayGetValueAtIndex(theArray, i)),
                                          "CFStringCreateByCombiningStrings");
        items.push_back(item);
        bytes += item->utf8.size();
        length16 += item->length16;
        ascii = ascii && item->ascii;
    }
    if (count > 1) {
        bytes += sep->utf8.size() * static_cast<size_t>(count - 1);
        length16 += sep->length16 * (count - 1);
    }
    std::string out;
    out.reserve(bytes);
    for (size_t i = 0; i < items.size(); ++i) {
        if (i) out += sep->utf8;
        out += items[i]->utf8;
    }
    return str::adopt(std::move(out), length16, ascii);
}

// Mutation.

void CFStringAppend(CFMutableStringRef theString, CFStringRef appendedString) {
    __CFString* s = str::get_mutable(theString, "CFStringAppend");
    const __CFString* a = str::get(appendedString, "CFStringAppend");
    if (a == s) {
        std::string copy = a->utf8;
        append_text(s, copy, s->length16, s->ascii);
    } else {
        append_text(s, a->utf8, a->length16, a->ascii);
    }
}

void CFStringAppendCString(CFMutableStringRef theString, const char* cStr, CFStringEncoding encoding) {
    __CFString* s = str::get_mutable(theString, "CFStringAppendCString");
    if (!cStr) return;
    CFStringRef piece = CFStringCreateWithCString(kCFAllocatorDefault, cStr, encoding);
    if (!piece) return;  // not valid in the encoding: nothing is appended
    const __CFString* p = str::get(piece, "CFStringAppendCString");
    append_text(s, p->utf8, p->length16, p->ascii);
    CFRelease(piece);
}

void CFStringAppendCharacters(CFMutableStringRef theString, const UniChar* chars, CFIndex numChars) {
    __CFString* s = str::get_mutable(theString, "CFStringAppendCharacters");
    if (numChars <= 0 || !chars) return;
    std::string text;
    str::append_utf16(text, reinterpret_cast<const char16_t*>(chars), static_cast<size_t>(numChars));
    append_text(s, text, numChars, str::all_ascii(text.data(), text.size()));
}

void CFStringInsert(CFMutableStringRef theString, CFIndex idx, CFStringRef insertedStr) {
    __CFString* s = str::get_mutable(theString, "CFStringInsert");
    const __CFString* ins = str::get(insertedStr, "CFStringInsert");
    str::check_range(s, CFRangeMake(idx, 0), "CFStringInsert");
    std::string text = ins->utf8;  // a copy: insertedStr may be theString itself
    replace_range(s, CFRangeMake(idx, 0), text, ins->length16, ins->ascii);
}

void CFStringDelete(CFMutableStringRef theString, CFRange range) {
    __CFString* s = str::get_mutable(theString, "CFStringDelete");
    str::check_range(s, range, "CFStringDelete");
    replace_range(s, range, std::string_view(), 0, true);
}

void CFStringReplace(CFMutableStringRef theString, CFRange range, CFStringRef replacement) {
    __CFString* s = str::get_mutable(theString, "CFStringReplace");
    const __CFString* r = str::get(replacement, "CFStringReplace");
    str::check_range(s, range, "CFStringReplace");
    std::string text = r->utf8;
    replace_range(s, range, text, r->length16, r->ascii);
}

void CFStringReplaceAll(CFMutableStringRef theString, CFStringRef replacement) {
    __CFString* s = str::get_mutable(theString, "CFStringReplaceAll");
    const __CFString* r = str::get(replacement, "CFStringReplaceAll");
    if (r == s) return;
    s->utf8 = r->utf8;
    s->length16 = r->length16;
    s->ascii = r->ascii;
}

// Numeric values.

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

}  // namespace

SInt32 CFStringGetIntValue(CFStringRef str) {
    const std::string& text = str::get(str, "CFStringGetIntValue")->utf8;
    size_t i = 0;
    while (i < text.size() && is_space(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    int64_t value = 0;
    const int64_t limit = negative ? -static_cast<int64_t>(std::numeric_limits<SInt32>::min())
                                   : std::numeric_limits<SInt32>::max();
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > limit) value = limit;  // saturates instead of wrapping
    }
    return static_cast<SInt32>(negative ? -value : value);
}

double CFStringGetDoubleValue(CFStringRef str) {
    const std::string& text = str::get(str, "CFStringGetDoubleValue")->utf8;
    size_t i = 0;
    while (i < text.size() && is_space(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    auto digit = [&](size_t at) { return at < text.size() && text[at] >= '0' && text[at] <= '9'; };
    // The longest prefix of the form digits[.digits][e[+-]digits], read with '.' whatever the locale.
    size_t start = i;
    long magnitude = 0;  // decimal exponent of the leading significant digit, to tell overflow from underflow
    bool significant = false;
    for (; digit(i); ++i) {
        if (text[i] != '0') significant = true;
        if (significant) ++magnitude;
    }
    size_t mantissaDigits = i - start;
    if (i < text.size() && text[i] == '.') {
        ++i;
        for (size_t f = i; digit(i); ++i) {
            if (!significant && text[i] != '0') {
                significant = true;
                magnitude = -static_cast<long>(i - f);
            }
        }
        mantissaDigits = i - start - 1;  // every character but the point
    }
    if (mantissaDigits == 0) return 0.0;
    size_t end = i;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        size_t e = i + 1;
        bool expNegative = false;
        if (e < text.size() && (text[e] == '+' || text[e] == '-')) expNegative = text[e++] == '-';
        if (digit(e)) {
            long exponent = 0;
            for (; digit(e); ++e) exponent = std::min(exponent * 10 + (text[e] - '0'), 1000000L);
            magnitude += expNegative ? -exponent : exponent;
            end = e;
        }
    }
    double value = 0.0;
    auto result = std::from_chars(text.data() + start, text.data() + end, value);
    if (result.ec == std::errc::result_out_of_range) value = magnitude > 0 ? HUGE_VAL : 0.0;
    return negative ? -value : value;
}

void CFShow(CFTypeRef obj) {
    std::string text = describe(obj);
    text.push_back('\n');
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}
