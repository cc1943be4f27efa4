// Helpers beyond Apple's API that the library shares (errno texts, UTF-8 and Base64 conversions of data,
// a debug description of dictionaries), and the one renderer of nested values behind every collection's
// description.
//
// Descriptions end up in exported CSV listings, so they are deterministic: no addresses, insertion
// order, four blanks of indentation per level. A string is written bare when it is made only of ASCII
// letters, digits and "._-", otherwise quoted with backslash escapes, so that the text reads back
// unambiguously. Empty collections are "{}" and "()".
#include "CFConstant.hpp"

#include <cstdio>
#include <cstring>

namespace {

CF_CONSTANT_OBJECT cf::ConstantString gIsFriendlyKey("IsFriendly");

// Data longer than this shows only its first and last kDataEdgeBytes bytes.
constexpr CFIndex kDataFullBytes = 24;
constexpr CFIndex kDataEdgeBytes = 8;

std::string pad(int level) { return std::string(static_cast<size_t>(level) * 4, ' '); }

bool is_bare_char(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

std::string quote(const std::string& text) {
    bool bare = !text.empty();
    for (unsigned char c : text) bare = bare && is_bare_char(c);
    if (bare) return text;
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\U%04x", c);
                    out += escape;
                } else {
                    out += static_cast<char>(c);  // UTF-8 sequences stay as they are
                }
        }
    }
    return out + "\"";
}

void append_hex(std::string& out, const UInt8* bytes, CFIndex count) {
    static const char kDigits[] = "0123456789abcdef";
    for (CFIndex i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0f];
    }
}

std::string describe_data(const __CFData* d) {
    CFIndex n = d->length();
    std::string out = "{length = " + std::to_string(n) + ", bytes = 0x";
    if (n <= kDataFullBytes) {
        append_hex(out, d->bytes(), n);
    } else {
        append_hex(out, d->bytes(), kDataEdgeBytes);
        out += " ... ";
        append_hex(out, d->bytes() + n - kDataEdgeBytes, kDataEdgeBytes);
    }
    return out + "}";
}

// A collection element, rendered through the collection's description callback.
std::string describe_element(const void* value, CFStringRef (*copyDescription)(const void*), int level) {
    if (copyDescription == CFCopyDescription) return cf::describe_nested(value, level);
    if (!copyDescription) return "<opaque value>";  // raw pointers: nothing deterministic to show
    CFStringRef s = copyDescription(value);
    if (!s) return "(null)";
    std::string text = cf::utf8_of(s);
    CFRelease(s);
    return text;
}

std::string describe_array(const __CFArray* a, int level) {
    if (a->values.empty()) return "()";
    std::string out = "(\n";
    for (size_t i = 0; i < a->values.size(); ++i) {
        out += pad(level + 1) + describe_element(a->values[i], a->callbacks.copyDescription, level + 1);
        out += i + 1 < a->values.size() ? ",\n" : "\n";
    }
    return out + pad(level) + ")";
}

std::string describe_dictionary(const __CFDictionary* d, int level) {
    if (d->entries.empty()) return "{}";
    std::string out = "{\n";
    for (const auto& e : d->entries) {
        out += pad(level + 1) + describe_element(e.key, d->keyCallbacks.copyDescription, level + 1) + " = " +
               describe_element(e.value, d->valueCallbacks.copyDescription, level + 1) + ";\n";
    }
    return out + pad(level) + "}";
}

std::string describe_error(const __CFError* e, int level) {
    CFStringRef description = CFErrorCopyDescription(const_cast<__CFError*>(e));
    std::string out = "Error Domain=" + quote(cf::utf8_of(e->domain)) + " Code=" + std::to_string(e->code) + " " +
                      quote(cf::utf8_of(description));
    CFRelease(description);
    if (!e->userInfo->entries.empty()) out += " UserInfo=" + describe_dictionary(e->userInfo, level);
    return out;
}

bool is_base64_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

int base64_value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

namespace cf {

std::string describe_nested(CFTypeRef ref, int indent) {
    if (!ref) return "(null)";
    const auto* o = static_cast<const __CFObject*>(ref);
    switch (o->typeID) {
        case kCFTypeIDString: return quote(static_cast<const __CFString*>(o)->utf8);
        case kCFTypeIDData: return describe_data(static_cast<const __CFData*>(o));
        case kCFTypeIDArray: return describe_array(static_cast<const __CFArray*>(o), indent);
        case kCFTypeIDDictionary: return describe_dictionary(static_cast<const __CFDictionary*>(o), indent);
        case kCFTypeIDError: return describe_error(static_cast<const __CFError*>(o), indent);
        default: return o->describe();
    }
}

}  // namespace cf

const CFStringRef kCFErrorIsFriendlyKey = &gIsFriendlyKey.object;

Boolean CFErrorDomainAndCodeMatch(CFErrorRef err, CFStringRef domain, CFIndex code) {
    if (!err || !domain) return false;
    return CFErrorGetCode(err) == code && CFEqual(CFErrorGetDomain(err), domain);
}

CFStringRef CFErrorCreateDescriptionFromErrno(int errnoValue) {
    // strerrordesc_np gives the untranslated text and, unlike strerror_r, NULL for an unknown value
    // instead of a made-up "Unknown error N".
    const char* text = strerrordesc_np(errnoValue);
    return text ? cf::make_string(text) : nullptr;
}

CFDataRef CFDataCreateFromUTF8String(CFAllocatorRef allocator, const char* utf8) {
    if (!utf8) return nullptr;
    return CFDataCreate(allocator, reinterpret_cast<const UInt8*>(utf8), static_cast<CFIndex>(std::strlen(utf8)));
}

CFStringRef CFDataCopyUTF8String(CFDataRef data) {
    if (!data) return nullptr;
    const auto* d = cf::cast<__CFData>(data, kCFTypeIDData, "CFDataCopyUTF8String");
    std::string_view bytes(reinterpret_cast<const char*>(d->bytes()), static_cast<size_t>(d->length()));
    std::u16string unused;
    if (!cf::decode_utf8(bytes, unused)) return nullptr;
    return cf::make_string(std::string(bytes));
}

CFStringRef CFDataCopyBase64Representation(CFDataRef data) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto* d = cf::cast<__CFData>(data, kCFTypeIDData, "CFDataCopyBase64Representation");
    const UInt8* p = d->bytes();
    auto n = static_cast<size_t>(d->length());
    std::string out;
    out.reserve((n + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        uint32_t v = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8 | p[i + 2];
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (n - i == 1) {
        uint32_t v = uint32_t(p[i]) << 16;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += "==";
    } else if (n - i == 2) {
        uint32_t v = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += '=';
    }
    return cf::make_string(std::move(out));
}

CFDataRef CFDataCreateFromBase64Representation(CFAllocatorRef allocator, CFStringRef base64) {
    if (!base64) return nullptr;
    const std::string& text =
        cf::cast<__CFString>(base64, kCFTypeIDString, "CFDataCreateFromBase64Representation")->utf8;
    std::vector<UInt8> out;
    out.reserve(text.size() / 4 * 3 + 3);
    uint32_t bitsHeld = 0;
    int bitCount = 0;
    size_t digits = 0, padding = 0;
    for (char c : text) {
        if (is_base64_space(c)) continue;
        if (c == '=') {
            if (++padding > 2) return nullptr;
            continue;
        }
        int v = base64_value(c);
        if (v < 0 || padding > 0) return nullptr;  // a bad character, or a digit after the padding
        bitsHeld = ((bitsHeld << 6) | static_cast<uint32_t>(v)) & 0xffff;
        bitCount += 6;
        ++digits;
        if (bitCount >= 8) {
            bitCount -= 8;
            out.push_back(static_cast<UInt8>(bitsHeld >> bitCount));
        }
    }
    // A final group of one digit cannot hold a byte; padding, when present, must complete the group.
    size_t partial = digits % 4;
    if (partial == 1) return nullptr;
    if (padding > 0 && partial + padding != 4) return nullptr;
    return CFDataCreate(allocator, out.data(), static_cast<CFIndex>(out.size()));
}

CFStringRef CFDictionaryCopyDebugDescription(CFDictionaryRef dict) {
    if (!dict) return nullptr;
    const auto* d = cf::cast<__CFDictionary>(dict, kCFTypeIDDictionary, "CFDictionaryCopyDebugDescription");
    return cf::make_string(describe_dictionary(d, 0));
}

void CFDictionarySetValues(CFMutableDictionaryRef target, CFDictionaryRef source) {
    const auto* s = cf::cast<__CFDictionary>(source, kCFTypeIDDictionary, "CFDictionarySetValues");
    if (static_cast<const void*>(s) == static_cast<const void*>(target)) return;
    for (const auto& e : s->entries) CFDictionarySetValue(target, e.key, e.value);
}
