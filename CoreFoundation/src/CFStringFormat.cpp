// printf-style formatting of strings, with %@ for the description of any object.
//
// The format is parsed completely before any argument is read, because positional arguments (%2$@,
// *1$) make the order of the va_list differ from the order of the conversions: the types of all the
// arguments are collected first, the arguments are then read once in order, and the conversions are
// rendered last. Numeric conversions are handed to snprintf one at a time; text conversions (%@, %s,
// %S, %c, %C) are done here so that widths and precisions count characters (UTF-16 units) rather than
// bytes, except %s precision, which bounds the bytes read from the caller's buffer.
#include "CFStringInternal.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace {

// How an argument is read from the va_list.
enum class ArgKind : unsigned char { Unknown, Int, Long, LongLong, Size, Ptrdiff, Intmax, Double, LongDouble, Pointer };

struct Arg {
    ArgKind kind = ArgKind::Unknown;
    long long integer = 0;
    double real = 0;
    long double longReal = 0;
    const void* pointer = nullptr;
};

// A conversion, with the literal text in front of it.
struct Conversion {
    std::string_view literal;
    std::string_view source;  // the conversion as written, kept for output when it is not understood
    std::string flags;
    int width = -1, widthArg = -1;
    int precision = -1, precisionArg = -1;
    std::string length;  // "", "hh", "h", "l", "ll", "q", "L", "z", "t", "j"
    char conversion = 0;  // 0: copy source as written
    int valueArg = -1;
};

// Positional indexes beyond this are not believed; such conversions are copied as written.
constexpr int kMaxArguments = 256;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads a decimal number at p (bounded), or -1 when there are no digits.
long read_number(std::string_view text, size_t& p) {
    if (p >= text.size() || !is_digit(text[p])) return -1;
    long v = 0;
    while (p < text.size() && is_digit(text[p])) {
        v = std::min(v * 10 + (text[p] - '0'), 100000000L);
        ++p;
    }
    return v;
}

// Reads "n$" at p; returns the zero-based index, -1 when absent (p unchanged), -2 when out of range.
int read_position(std::string_view text, size_t& p) {
    size_t q = p;
    long n = read_number(text, q);
    if (n < 0 || q >= text.size() || text[q] != '$') return -1;
    p = q + 1;
    return n >= 1 && n <= kMaxArguments ? static_cast<int>(n - 1) : -2;
}

ArgKind kind_for(const Conversion& c) {
    switch (c.conversion) {
        case 'd':
        case 'i':
        case 'o':
        case 'u':
        case 'x':
        case 'X':
            if (c.length == "l") return ArgKind::Long;
            if (c.length == "ll" || c.length == "q" || c.length == "L") return ArgKind::LongLong;
            if (c.length == "z") return ArgKind::Size;
            if (c.length == "t") return ArgKind::Ptrdiff;
            if (c.length == "j") return ArgKind::Intmax;
            return ArgKind::Int;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A': return c.length == "L" ? ArgKind::LongDouble : ArgKind::Double;
        case 'c':
        case 'C': return ArgKind::Int;
        case 's':
        case 'S':
        case '@':
        case 'p':
        case 'n': return ArgKind::Pointer;
        default: return ArgKind::Unknown;
    }
}

// Splits the format into conversions; the text after the last one is returned in tail.
bool parse(std::string_view format, std::vector<Conversion>& out, std::string_view& tail) {
    size_t literalStart = 0;
    int next = 0;
    size_t p = 0;
    while (true) {
        size_t percent = format.find('%', p);
        if (percent == std::string_view::npos) break;
        Conversion c;
        c.literal = format.substr(literalStart, percent - literalStart);
        p = percent + 1;
        bool valid = true;
        if (p < format.size() && format[p] == '%') {
            // "%%": the literal runs through the first '%'.
            c.literal = format.substr(literalStart, percent + 1 - literalStart);
            literalStart = p + 1;
            p = literalStart;
            out.push_back(c);
            continue;
        }
        int position = read_position(format, p);
        if (position == -2) valid = false;
        while (p < format.size() && std::strchr("-+ #0'", format[p]) && format[p] != '\0') c.flags.push_back(format[p++]);
        if (p < format.size() && format[p] == '*') {
            ++p;
            int at = read_position(format, p);
            if (at == -2) valid = false;
            c.widthArg = at >= 0 ? at : next++;
        } else {
            c.width = static_cast<int>(read_number(format, p));
        }
        if (p < format.size() && format[p] == '.') {
            ++p;
            if (p < format.size() && format[p] == '*') {
                ++p;
                int at = read_position(format, p);
                if (at == -2) valid = false;
                c.precisionArg = at >= 0 ? at : next++;
            } else {
                c.precision = std::max(0, static_cast<int>(read_number(format, p)));
            }
        }
        for (const char* len : {"hh", "ll", "h", "l", "q", "L", "z", "t", "j"}) {
            if (format.substr(p).starts_with(len)) {
                c.length = len;
                p += std::strlen(len);
                break;
            }
        }
        char conversion = p < format.size() ? format[p] : '\0';
        if (conversion) ++p;
        c.source = format.substr(percent, p - percent);
        c.conversion = conversion;
        if (!valid || kind_for(c) == ArgKind::Unknown) {
            c.conversion = 0;  // not understood: written out as it stands, consuming nothing
            if (c.widthArg >= 0 || c.precisionArg >= 0) return false;  // would misalign the arguments
        } else {
            c.valueArg = position >= 0 ? position : next++;
        }
        if (c.widthArg >= kMaxArguments || c.precisionArg >= kMaxArguments || c.valueArg >= kMaxArguments) {
            return false;
        }
        literalStart = p;
        out.push_back(c);
    }
    tail = format.substr(literalStart);
    return true;
}

void note_kind(std::vector<ArgKind>& kinds, int index, ArgKind kind) {
    if (index < 0) return;
    if (static_cast<size_t>(index) >= kinds.size()) kinds.resize(static_cast<size_t>(index) + 1, ArgKind::Unknown);
    if (kinds[static_cast<size_t>(index)] == ArgKind::Unknown) kinds[static_cast<size_t>(index)] = kind;
}

std::vector<Arg> read_arguments(const std::vector<Conversion>& conversions, va_list arguments) {
    std::vector<ArgKind> kinds;
    for (const Conversion& c : conversions) {
        note_kind(kinds, c.widthArg, ArgKind::Int);
        note_kind(kinds, c.precisionArg, ArgKind::Int);
        if (c.conversion) note_kind(kinds, c.valueArg, kind_for(c));
    }
    std::vector<Arg> args(kinds.size());
    for (size_t i = 0; i < kinds.size(); ++i) {
        Arg& a = args[i];
        a.kind = kinds[i];
        switch (a.kind) {
            case ArgKind::Int: a.integer = va_arg(arguments, int); break;
            // An argument no conversion names: read as a machine word so that later ones line up.
            case ArgKind::Unknown:
            case ArgKind::Long: a.integer = va_arg(arguments, long); break;
            case ArgKind::LongLong: a.integer = va_arg(arguments, long long); break;
            case ArgKind::Size: a.integer = static_cast<long long>(va_arg(arguments, size_t)); break;
            case ArgKind::Ptrdiff: a.integer = va_arg(arguments, ptrdiff_t); break;
            case ArgKind::Intmax: a.integer = va_arg(arguments, intmax_t); break;
            case ArgKind::Double: a.real = va_arg(arguments, double); break;
            case ArgKind::LongDouble: a.longReal = va_arg(arguments, long double); break;
            case ArgKind::Pointer: a.pointer = va_arg(arguments, const void*); break;
        }
    }
    return args;
}

template <typename T>
void append_printf(std::string& out, const std::string& directive, T value) {
    char local[128];
    int n = std::snprintf(local, sizeof local, directive.c_str(), value);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof local) {
        out.append(local, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), directive.c_str(), value);
    out.append(big.data(), static_cast<size_t>(n));
}

// Number of UTF-16 units in valid UTF-8.
size_t units_of(std::string_view text) {
    CFIndex units = 0;
    bool ascii = false;
    cf::str::scan_utf8(text.data(), text.size(), units, ascii);
    return static_cast<size_t>(units);
}

// Keeps at most max UTF-16 units of valid UTF-8 text, never splitting a character.
void truncate_units(std::string& text, size_t max) {
    size_t units = 0, at = 0;
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    while (at < text.size()) {
        unsigned c = p[at];
        size_t bytes = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        size_t n = bytes == 4 ? 2 : 1;
        if (units + n > max) break;
        units += n;
        at += bytes;
    }
    text.resize(at);
}

// Text of a C string: UTF-8 when it is, otherwise each byte as ISO Latin 1. When a precision cut the
// string short, a UTF-8 sequence left incomplete at the end is dropped.
std::string c_string_text(const char* s, size_t size, bool cutShort) {
    CFIndex units = 0;
    bool ascii = false;
    if (cf::str::scan_utf8(s, size, units, ascii)) return std::string(s, size);
    for (size_t cut = 1; cutShort && cut <= 3 && cut <= size; ++cut) {
        if (cf::str::scan_utf8(s, size - cut, units, ascii)) {
            unsigned lead = static_cast<unsigned char>(s[size - cut]);
            size_t needed = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
            if (needed > cut) return std::string(s, size - cut);
            break;
        }
    }
    std::string out;
    for (size_t i = 0; i < size; ++i) cf::str::append_utf8(out, static_cast<unsigned char>(s[i]));
    return out;
}

void append_padded(std::string& out, std::string text, const Conversion& c, int width) {
    size_t units = units_of(text);
    size_t pad = width > 0 && static_cast<size_t>(width) > units ? static_cast<size_t>(width) - units : 0;
    bool left = c.flags.find('-') != std::string::npos;
    if (!left) out.append(pad, ' ');
    out += text;
    if (left) out.append(pad, ' ');
}

char32_t valid_code_point(long long v) {
    if (v < 0 || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return 0xFFFD;
    return static_cast<char32_t>(v);
}

void render(std::string& out, const Conversion& c, const std::vector<Arg>& args) {
    const Arg& value = args[static_cast<size_t>(c.valueArg)];
    int width = c.width;
    std::string flags = c.flags;
    if (c.widthArg >= 0) {
        long long w = args[static_cast<size_t>(c.widthArg)].integer;
        if (w < 0) {
            flags.push_back('-');
            w = -w;
        }
        width = static_cast<int>(std::min(w, 100000000LL));
    }
    int precision = c.precision;
    if (c.precisionArg >= 0) {
        long long pr = args[static_cast<size_t>(c.precisionArg)].integer;
        precision = pr < 0 ? -1 : static_cast<int>(std::min(pr, 100000000LL));
    }
    Conversion effective = c;
    effective.flags = flags;

    auto directive = [&](const char* length, char conversion) {
        std::string s = "%";
        for (char f : flags) {
            if (std::strchr("-+ #0", f)) s.push_back(f);  // the grouping flag is not portable to snprintf
        }
        if (width >= 0) s += std::to_string(width);
        if (precision >= 0) s += "." + std::to_string(precision);
        s += length;
        s.push_back(conversion);
        return s;
    };
    const std::string& len = c.length;
    switch (c.conversion) {
        case 'd':
        case 'i': {
            long long v = value.integer;
            if (len == "hh") v = static_cast<signed char>(v);
            else if (len == "h") v = static_cast<short>(v);
            else if (len.empty()) v = static_cast<int>(v);
            append_printf(out, directive("ll", 'd'), v);
            break;
        }
        case 'o':
        case 'u':
        case 'x':
        case 'X': {
            unsigned long long v = static_cast<unsigned long long>(value.integer);
            if (len == "hh") v = static_cast<unsigned char>(v);
            else if (len == "h") v = static_cast<unsigned short>(v);
            else if (len.empty()) v = static_cast<unsigned int>(v);
            append_printf(out, directive("ll", c.conversion), v);
            break;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            if (value.kind == ArgKind::LongDouble) append_printf(out, directive("L", c.conversion), value.longReal);
            else append_printf(out, directive("", c.conversion), value.real);
            break;
        case 'c':
        case 'C': {
            std::string text;
            if (c.conversion == 'c' && len != "l") {
                // A char: ASCII as itself, other bytes read as ISO Latin 1.
                cf::str::append_utf8(text, static_cast<unsigned char>(value.integer));
            } else if (c.conversion == 'C') {
                char16_t unit = static_cast<char16_t>(value.integer);  // a UniChar
                cf::str::append_utf16(text, &unit, 1);
            } else {
                cf::str::append_utf8(text, valid_code_point(value.integer));
            }
            append_padded(out, std::move(text), effective, width);
            break;
        }
        case 's': {
            std::string text;
            if (!value.pointer) {
                text = "(null)";
            } else if (len == "l") {
                const auto* w = static_cast<const wchar_t*>(value.pointer);
                for (size_t i = 0; (precision < 0 || i < static_cast<size_t>(precision)) && w[i]; ++i) {
                    cf::str::append_utf8(text, valid_code_point(static_cast<long long>(w[i])));
                }
            } else {
                const char* s = static_cast<const char*>(value.pointer);
                size_t size = precision >= 0 ? strnlen(s, static_cast<size_t>(precision)) : std::strlen(s);
                text = c_string_text(s, size, precision >= 0 && size == static_cast<size_t>(precision));
            }
            append_padded(out, std::move(text), effective, width);
            break;
        }
        case 'S': {
            std::string text;
            if (!value.pointer) {
                text = "(null)";
            } else {
                const auto* u = static_cast<const char16_t*>(value.pointer);
                size_t n = 0;
                while ((precision < 0 || n < static_cast<size_t>(precision)) && u[n]) ++n;
                cf::str::append_utf16(text, u, n);
            }
            append_padded(out, std::move(text), effective, width);
            break;
        }
        case '@': {
            std::string text;
            if (!value.pointer) {
                text = "(null)";
            } else if (static_cast<const __CFObject*>(value.pointer)->typeID == kCFTypeIDString) {
                text = static_cast<const __CFString*>(value.pointer)->utf8;
            } else {
                text = cf::describe(value.pointer);
            }
            if (precision >= 0) truncate_units(text, static_cast<size_t>(precision));
            append_padded(out, std::move(text), effective, width);
            break;
        }
        case 'p': {
            char digits[32];
            std::snprintf(digits, sizeof digits, "0x%llx",
                          static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(value.pointer)));
            append_padded(out, digits, effective, width);
            break;
        }
        case 'n': break;  // never writes through the caller's pointer
        default: out += c.source; break;
    }
}

std::string format_text(CFStringRef format, va_list arguments) {
    const std::string& text = cf::str::get(format, "CFStringCreateWithFormat")->utf8;
    std::vector<Conversion> conversions;
    std::string_view tail;
    if (!parse(text, conversions, tail)) return text;
    va_list copy;
    va_copy(copy, arguments);
    std::vector<Arg> args = read_arguments(conversions, copy);
    va_end(copy);
    std::string out;
    out.reserve(text.size() + 16 * conversions.size());
    for (const Conversion& c : conversions) {
        out += c.literal;
        if (c.conversion) {
            render(out, c, args);
        } else {
            out += c.source;
        }
    }
    out += tail;
    return out;
}

}  // namespace

CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef, CFDictionaryRef, CFStringRef format,
                                                 va_list arguments) {
    return cf::make_string(format_text(format, arguments));
}

CFStringRef CFStringCreateWithFormat(CFAllocatorRef alloc, CFDictionaryRef formatOptions, CFStringRef format, ...) {
    va_list arguments;
    va_start(arguments, format);
    CFStringRef result = CFStringCreateWithFormatAndArguments(alloc, formatOptions, format, arguments);
    va_end(arguments);
    return result;
}

void CFStringAppendFormatAndArguments(CFMutableStringRef theString, CFDictionaryRef, CFStringRef format,
                                      va_list arguments) {
    cf::str::get_mutable(theString, "CFStringAppendFormat");
    CFStringRef piece = cf::make_string(format_text(format, arguments));
    CFStringAppend(theString, piece);
    CFRelease(piece);
}

void CFStringAppendFormat(CFMutableStringRef theString, CFDictionaryRef formatOptions, CFStringRef format, ...) {
    va_list arguments;
    va_start(arguments, format);
    CFStringAppendFormatAndArguments(theString, formatOptions, format, arguments);
    va_end(arguments);
}
