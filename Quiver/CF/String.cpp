#include "Quiver/CF/String.hpp"

#include <cstdarg>
#include <stdexcept>

namespace CF {

std::string UTF8(CFStringRef s) {
    if (!s) return {};
    CFIndex used = 0;
    CFRange all = CFRangeMake(0, CFStringGetLength(s));
    // The byte count first: text may hold NUL characters, so the C string cannot say where it ends.
    CFStringGetBytes(s, all, kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
    if (const char* p = CFStringGetCStringPtr(s, kCFStringEncodingUTF8)) return std::string(p, static_cast<size_t>(used));
    std::string out(static_cast<size_t>(used), '\0');
    CFStringGetBytes(s, all, kCFStringEncodingUTF8, 0, false, reinterpret_cast<UInt8*>(out.data()), used, &used);
    return out;
}

std::string_view UTF8View(CFStringRef s) {
    if (!s) return {};
    CFIndex used = 0;
    CFStringGetBytes(s, CFRangeMake(0, CFStringGetLength(s)), kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
    const char* p = CFStringGetCStringPtr(s, kCFStringEncodingUTF8);
    if (!p) throw std::logic_error("string keeps no UTF-8");
    return {p, static_cast<size_t>(used)};
}

String::String(std::string_view utf8) {
    ref_ = CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(utf8.data()),
                                   static_cast<CFIndex>(utf8.size()), kCFStringEncodingUTF8, false);
}

String String::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    CFStringRef f = CFStringCreateWithCString(kCFAllocatorDefault, format, kCFStringEncodingUTF8);
    CFStringRef s = f ? CFStringCreateWithFormatAndArguments(kCFAllocatorDefault, nullptr, f, args) : nullptr;
    va_end(args);
    if (f) CFRelease(f);
    return Adopt(s);
}

String String::CreateMutable() { return Adopt(CFStringCreateMutable(kCFAllocatorDefault, 0)); }

std::string String::utf8() const { return UTF8(ref_); }

String String::MutableCopy() const {
    if (!ref_) return CreateMutable();
    return Adopt(CFStringCreateMutableCopy(kCFAllocatorDefault, 0, ref_));
}

std::vector<String> String::Split(std::string_view separator) const {
    std::vector<String> pieces;
    if (!ref_) return pieces;
    String sep(separator);
    CFArrayRef parts = CFStringCreateArrayBySeparatingStrings(kCFAllocatorDefault, ref_, sep.get());
    if (!parts) return pieces;
    CFIndex n = CFArrayGetCount(parts);
    pieces.reserve(static_cast<size_t>(n));
    for (CFIndex i = 0; i < n; ++i)
        pieces.push_back(Retain(static_cast<CFStringRef>(CFArrayGetValueAtIndex(parts, i))));
    CFRelease(parts);
    return pieces;
}

CFComparisonResult String::Compare(const String& other, CFStringCompareFlags flags) const {
    if (!ref_ || !other.ref_) {
        if (ref_ == other.ref_) return kCFCompareEqualTo;
        return ref_ ? kCFCompareGreaterThan : kCFCompareLessThan;
    }
    return CFStringCompare(ref_, other.ref_, flags);
}

bool String::HasPrefix(std::string_view prefix) const {
    return ref_ && CFStringHasPrefix(ref_, String(prefix).get());
}

bool String::HasSuffix(std::string_view suffix) const {
    return ref_ && CFStringHasSuffix(ref_, String(suffix).get());
}

void String::Append(const String& other) {
    if (ref_ && other.ref_) CFStringAppend(const_cast<CFMutableStringRef>(ref_), other.ref_);
}

void String::Append(std::string_view utf8) { Append(String(utf8)); }

std::strong_ordering operator<=>(const String& a, const String& b) {
    switch (a.Compare(b)) {
        case kCFCompareLessThan: return std::strong_ordering::less;
        case kCFCompareGreaterThan: return std::strong_ordering::greater;
        default: return std::strong_ordering::equal;
    }
}

std::string Describe(CFTypeRef value) {
    if (!value) return "(null)";
    return String::Adopt(CFCopyDescription(value)).utf8();
}

}  // namespace CF
