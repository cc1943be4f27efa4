// Property lists through libplist, with a structural check of binary input first.
//
// libplist builds a tree: every reference in a binary property list becomes its own copy of the object
// referred to, and the parser recurses once per level. Bytes from a backup are untrusted, so before
// libplist sees a binary list we walk its object graph ourselves, bounds-checked and without recursion,
// and refuse reference cycles, nesting deeper than kMaxDepth and graphs whose expansion into a tree
// would exceed kMaxExpandedObjects (a few hundred bytes of shared references can otherwise stand for
// billions of objects). XML input is checked for nesting depth the same way.
#include "CFBinaryPlist.hpp"
#include "CFRuntime.hpp"

#include <plist/plist.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr size_t kMaxDepth = 512;
constexpr uint64_t kMaxExpandedObjects = 4'000'000;

CFErrorRef makePlistError(CFIndex code, const std::string& text) {
    CFStringRef key = CFSTR("NSDebugDescription");
    CFStringRef value = cf::make_string(text);
    const void* keys[] = {key};
    const void* values[] = {value};
    CFErrorRef error = CFErrorCreateWithUserInfoKeysAndValues(kCFAllocatorDefault, kCFErrorDomainCocoa, code, keys,
                                                              values, 1);
    CFRelease(value);
    return error;
}

void setError(CFErrorRef* error, CFIndex code, const std::string& text) {
    if (error) *error = makePlistError(code, text);
}

// ---- Binary structure check ----

class BinaryPlistShape {
public:
    BinaryPlistShape(const UInt8* bytes, size_t length) : p_(bytes), n_(length) {}

    // Empty optional when the structure is acceptable, otherwise the reason.
    std::optional<std::string> problem() {
        if (n_ < 8 + 32) return "binary property list too short";
        const UInt8* t = p_ + n_ - 32;
        offsetSize_ = t[6];
        refSize_ = t[7];
        uint64_t count = be(t + 8, 8), top = be(t + 16, 8), tableOffset = be(t + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return "bad trailer sizes";
        if (count == 0 || top >= count) return "bad object count";
        if (tableOffset < 8 || tableOffset >= n_ - 32) return "bad offset table position";
        if (count > (n_ - 32 - tableOffset) / offsetSize_) return "offset table runs past its end";
        count_ = static_cast<size_t>(count);
        table_ = p_ + tableOffset;
        tableOffset_ = static_cast<size_t>(tableOffset);
        return walk(static_cast<size_t>(top));
    }

private:
    static uint64_t be(const UInt8* q, size_t size) {
        uint64_t v = 0;
        for (size_t i = 0; i < size; ++i) v = (v << 8) | q[i];
        return v;
    }

    // Position of object i's first byte, checked to lie before the offset table.
    std::optional<size_t> offsetOf(size_t i) const {
        uint64_t off = be(table_ + i * offsetSize_, offsetSize_);
        if (off < 8 || off >= tableOffset_) return std::nullopt;
        return static_cast<size_t>(off);
    }

    // Reads an object's length: the low nibble, or an integer object following the marker when the
    // nibble is 0xF. Advances pos past what it read.
    bool length(UInt8 marker, size_t& pos, uint64_t& out) const {
        out = marker & 0x0F;
        if (out != 0x0F) return true;
        if (pos >= tableOffset_) return false;
        UInt8 intMarker = p_[pos++];
        if ((intMarker >> 4) != 0x1) return false;
        size_t size = size_t{1} << (intMarker & 0x0F);
        if (size > 8 || pos + size > tableOffset_) return false;
        out = be(p_ + pos, size);
        pos += size;
        return true;
    }

    // Checks that object `index` is of a known kind and lies wholly before the offset table, and
    // collects the references of a container. Dictionary keys must be strings.
    bool inspect(size_t index, std::vector<size_t>& kids) const {
        kids.clear();
        auto off = offsetOf(index);
        if (!off) return false;
        size_t pos = *off;
        const size_t end = tableOffset_;
        UInt8 marker = p_[pos++];
        uint64_t n = 0;
        auto fits = [&](uint64_t bytes) { return bytes <= end - pos; };
        switch (marker >> 4) {
            case 0x0:
                return marker == 0x00 || marker == 0x08 || marker == 0x09 || marker == 0x0F;
            case 0x1:
                return (marker & 0x0F) <= 4 && fits(uint64_t{1} << (marker & 0x0F));
            case 0x2:
                return ((marker & 0x0F) == 2 || (marker & 0x0F) == 3) && fits(uint64_t{1} << (marker & 0x0F));
            case 0x3:
                return marker == 0x33 && fits(8);
            case 0x4:
            case 0x5:
                return length(marker, pos, n) && fits(n);
            case 0x6:
                return length(marker, pos, n) && n <= end && fits(n * 2);
            case 0x8:
                return fits((marker & 0x0F) + 1u);
            case 0xA:
            case 0xC:
            case 0xD: {
                if (!length(marker, pos, n)) return false;
                const bool dict = (marker >> 4) == 0xD;
                if (n > end) return false;
                uint64_t refs = dict ? n * 2 : n;
                if (refs > (end - pos) / refSize_) return false;
                kids.reserve(static_cast<size_t>(refs));
                for (uint64_t r = 0; r < refs; ++r) {
                    uint64_t ref = be(p_ + pos + r * refSize_, refSize_);
                    if (ref >= count_) return false;
                    if (dict && r < n && !isString(static_cast<size_t>(ref))) return false;
                    kids.push_back(static_cast<size_t>(ref));
                }
                return true;
            }
            default:
                return false;
        }
    }

    // A dictionary key: a string without NUL characters (libplist keeps keys as C strings).
    bool isString(size_t index) const {
        auto off = offsetOf(index);
        if (!off) return false;
        size_t pos = *off;
        UInt8 marker = p_[pos++];
        UInt8 kind = marker >> 4;
        uint64_t n = 0;
        if ((kind != 0x5 && kind != 0x6) || !length(marker, pos, n)) return false;
        const uint64_t bytes = kind == 0x6 ? n * 2 : n;
        if (n > tableOffset_ || bytes > tableOffset_ - pos) return false;
        if (kind == 0x5) return std::memchr(p_ + pos, 0, static_cast<size_t>(bytes)) == nullptr;
        for (uint64_t i = 0; i < bytes; i += 2)
            if (p_[pos + i] == 0 && p_[pos + i + 1] == 0) return false;
        return true;
    }

    std::optional<std::string> walk(size_t top) {
        // Iterative depth-first search. state: 0 unvisited, 1 on the current path, 2 finished.
        std::vector<UInt8> state(count_, 0);
        std::vector<uint64_t> expanded(count_, 0);
        struct Frame {
            size_t index;
            std::vector<size_t> kids;
            size_t next;
        };
        std::vector<Frame> stack;
        std::vector<size_t> kids;
        auto push = [&](size_t index) -> std::optional<std::string> {
            if (!inspect(index, kids)) return "malformed object or one that runs past the end of the data";
            state[index] = 1;
            stack.push_back(Frame{index, kids, 0});
            if (stack.size() > kMaxDepth) return "nesting too deep";
            return std::nullopt;
        };
        if (auto p = push(top)) return p;
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next < f.kids.size()) {
                size_t child = f.kids[f.next++];
                if (state[child] == 1) return "reference cycle";
                if (state[child] == 0) {
                    if (auto p = push(child)) return p;
                }
                continue;
            }
            uint64_t total = 1;
            for (size_t k : f.kids) {
                total += expanded[k];
                if (total > kMaxExpandedObjects) return "too many objects";
            }
            expanded[f.index] = total;
            state[f.index] = 2;
            stack.pop_back();
        }
        return std::nullopt;
    }

    const UInt8* p_;
    size_t n_;
    const UInt8* table_ = nullptr;
    size_t tableOffset_ = 0;
    size_t count_ = 0;
    size_t offsetSize_ = 0, refSize_ = 0;
};

// Nesting depth of <array> and <dict> elements, counted on the raw text; an upper bound is enough.
bool xmlNestingAcceptable(const UInt8* p, size_t n) {
    size_t depth = 0;
    for (size_t i = 0; i + 1 < n; ++i) {
        if (p[i] != '<') continue;
        bool closing = p[i + 1] == '/';
        size_t j = i + (closing ? 2 : 1);
        auto startsWith = [&](const char* word) {
            size_t len = std::strlen(word);
            return j + len <= n && std::memcmp(p + j, word, len) == 0;
        };
        if (!startsWith("array") && !startsWith("dict")) continue;
        if (closing) {
            if (depth > 0) --depth;
            continue;
        }
        // <array/> and <dict/> open nothing.
        size_t k = j;
        while (k < n && p[k] != '>') ++k;
        if (k < n && k > j && p[k - 1] == '/') continue;
        if (++depth > kMaxDepth) return false;
    }
    return true;
}

// ---- libplist tree -> CoreFoundation ----

struct PlistFree {
    void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

CFTypeRef fromPlist(plist_t node, CFOptionFlags options, size_t depth, std::string& problem) {
    if (depth > kMaxDepth) {
        problem = "nesting too deep";
        return nullptr;
    }
    const bool mutableContainers = options != kCFPropertyListImmutable;
    const bool mutableLeaves = options == kCFPropertyListMutableContainersAndLeaves;
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t v = 0;
            plist_get_bool_val(node, &v);
            return v ? kCFBooleanTrue : kCFBooleanFalse;
        }
        case PLIST_UINT: {
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            int64_t s = static_cast<int64_t>(v);  // integers are signed 64-bit in property lists
            return CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &s);
        }
        case PLIST_REAL: {
            double v = 0;
            plist_get_real_val(node, &v);
            return CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &v);
        }
        case PLIST_STRING:
        case PLIST_KEY: {
            uint64_t len = 0;
            const char* s = plist_get_string_ptr(node, &len);
            CFStringRef str = CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(s ? s : ""),
                                                      s ? static_cast<CFIndex>(len) : 0, kCFStringEncodingUTF8, false);
            if (!str) {
                problem = "string is not valid UTF-8";
                return nullptr;
            }
            if (mutableLeaves) {
                CFStringRef m = CFStringCreateMutableCopy(kCFAllocatorDefault, 0, str);
                CFRelease(str);
                return m;
            }
            return str;
        }
        case PLIST_DATA: {
            uint64_t len = 0;
            const char* d = plist_get_data_ptr(node, &len);
            if (mutableLeaves) {
                CFMutableDataRef m = CFDataCreateMutable(kCFAllocatorDefault, 0);
                CFDataAppendBytes(m, reinterpret_cast<const UInt8*>(d), static_cast<CFIndex>(len));
                return m;
            }
            return CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(d), static_cast<CFIndex>(len));
        }
        case PLIST_DATE: {
            int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            return CFDateCreate(kCFAllocatorDefault, static_cast<double>(sec) + static_cast<double>(usec) / 1e6);
        }
        case PLIST_UID: {
            uint64_t v = 0;
            plist_get_uid_val(node, &v);
            if (v > UINT32_MAX) {
                problem = "UID value out of range";
                return nullptr;
            }
            return _CFKeyedArchiverUIDCreate(kCFAllocatorDefault, static_cast<uint32_t>(v));
        }
        case PLIST_ARRAY: {
            uint32_t n = plist_array_get_size(node);
            CFMutableArrayRef array = CFArrayCreateMutable(kCFAllocatorDefault, n, &kCFTypeArrayCallBacks);
            for (uint32_t i = 0; i < n; ++i) {
                CFTypeRef item = fromPlist(plist_array_get_item(node, i), options, depth + 1, problem);
                if (!item) {
                    CFRelease(array);
                    return nullptr;
                }
                CFArrayAppendValue(array, item);
                CFRelease(item);
            }
            if (mutableContainers) return array;
            CFArrayRef copy = CFArrayCreateCopy(kCFAllocatorDefault, array);
            CFRelease(array);
            return copy;
        }
        case PLIST_DICT: {
            CFMutableDictionaryRef dict = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                                    &kCFTypeDictionaryValueCallBacks);
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            bool ok = true;
            while (ok && it) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it, &key, &value);
                if (!value) {
                    std::free(key);
                    break;
                }
                CFStringRef k = key ? CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(key),
                                                              static_cast<CFIndex>(std::strlen(key)),
                                                              kCFStringEncodingUTF8, false)
                                    : nullptr;
                std::free(key);
                CFTypeRef v = k ? fromPlist(value, options, depth + 1, problem) : nullptr;
                if (!k && problem.empty()) problem = "dictionary key is not valid UTF-8";
                if (k && v) CFDictionarySetValue(dict, k, v);
                ok = k && v;
                if (k) CFRelease(k);
                if (v) CFRelease(v);
            }
            std::free(it);
            if (!ok) {
                CFRelease(dict);
                return nullptr;
            }
            if (mutableContainers) return dict;
            CFDictionaryRef copy = CFDictionaryCreateCopy(kCFAllocatorDefault, dict);
            CFRelease(dict);
            return copy;
        }
        default:
            problem = "unsupported value type";
            return nullptr;
    }
}

// ---- CoreFoundation -> libplist tree ----

plist_t toPlist(CFTypeRef value, bool binary, size_t depth, std::string& problem) {
    if (!value) {
        problem = "NULL value";
        return nullptr;
    }
    if (depth > kMaxDepth) {
        problem = "nesting too deep";
        return nullptr;
    }
    CFTypeID type = CFGetTypeID(value);
    if (type == CFStringGetTypeID()) {
        return plist_new_string(cf::utf8_of(static_cast<CFStringRef>(value)).c_str());
    }
    if (type == CFDataGetTypeID()) {
        auto data = static_cast<CFDataRef>(value);
        return plist_new_data(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                              static_cast<uint64_t>(CFDataGetLength(data)));
    }
    if (type == CFBooleanGetTypeID()) return plist_new_bool(CFBooleanGetValue(static_cast<CFBooleanRef>(value)));
    if (type == CFNumberGetTypeID()) {
        auto number = static_cast<CFNumberRef>(value);
        if (CFNumberIsFloatType(number)) {
            double d = 0;
            CFNumberGetValue(number, kCFNumberFloat64Type, &d);
            return plist_new_real(d);
        }
        int64_t i = 0;
        CFNumberGetValue(number, kCFNumberSInt64Type, &i);
        return plist_new_uint(static_cast<uint64_t>(i));
    }
    if (type == CFDateGetTypeID()) {
        double at = CFDateGetAbsoluteTime(static_cast<CFDateRef>(value));
        double whole = std::floor(at);
        if (!(whole >= INT32_MIN && whole <= INT32_MAX)) {
            problem = "date out of range";
            return nullptr;
        }
        auto usec = static_cast<int32_t>(std::llround((at - whole) * 1e6));
        auto sec = static_cast<int32_t>(whole);
        if (usec >= 1000000) {
            usec -= 1000000;
            if (sec == INT32_MAX) {
                problem = "date out of range";
                return nullptr;
            }
            sec += 1;
        }
        return plist_new_date(sec, usec);
    }
    if (type == _CFKeyedArchiverUIDGetTypeID()) {
        if (!binary) {
            problem = "UID values can be written in binary property lists only";
            return nullptr;
        }
        return plist_new_uid(_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(value)));
    }
    if (type == CFArrayGetTypeID()) {
        auto array = static_cast<CFArrayRef>(value);
        PlistPtr node(plist_new_array());
        for (CFIndex i = 0, n = CFArrayGetCount(array); i < n; ++i) {
            plist_t item = toPlist(CFArrayGetValueAtIndex(array, i), binary, depth + 1, problem);
            if (!item) return nullptr;
            plist_array_append_item(node.get(), item);
        }
        return node.release();
    }
    if (type == CFDictionaryGetTypeID()) {
        auto dict = static_cast<CFDictionaryRef>(value);
        CFIndex n = CFDictionaryGetCount(dict);
        std::vector<const void*> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
        if (n > 0) CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
        PlistPtr node(plist_new_dict());
        for (size_t i = 0; i < keys.size(); ++i) {
            if (!keys[i] || CFGetTypeID(keys[i]) != CFStringGetTypeID()) {
                problem = "dictionary key is not a string";
                return nullptr;
            }
            plist_t item = toPlist(values[i], binary, depth + 1, problem);
            if (!item) return nullptr;
            plist_dict_set_item(node.get(), cf::utf8_of(static_cast<CFStringRef>(keys[i])).c_str(), item);
        }
        return node.release();
    }
    problem = "value of a type that property lists cannot hold";
    return nullptr;
}

}  // namespace

CFPropertyListRef CFPropertyListCreateWithData(CFAllocatorRef, CFDataRef data, CFOptionFlags options,
                                               CFPropertyListFormat* format, CFErrorRef* error) {
    if (!data) {
        setError(error, kCFPropertyListReadCorruptError, "no data");
        return nullptr;
    }
    const UInt8* bytes = CFDataGetBytePtr(data);
    const size_t length = static_cast<size_t>(CFDataGetLength(data));
    if (length == 0 || length > UINT32_MAX) {
        setError(error, kCFPropertyListReadCorruptError, length == 0 ? "empty data" : "data too large");
        return nullptr;
    }
    const bool binary = length >= 8 && std::memcmp(bytes, "bplist00", 8) == 0;
    if (binary) {
        if (auto problem = BinaryPlistShape(bytes, length).problem()) {
            setError(error, kCFPropertyListReadCorruptError, "Cannot parse binary property list: " + *problem);
            return nullptr;
        }
    } else if (!xmlNestingAcceptable(bytes, length)) {
        setError(error, kCFPropertyListReadCorruptError, "Cannot parse property list: nesting too deep");
        return nullptr;
    }

    plist_t root = nullptr;
    if (binary) {
        plist_from_bin(reinterpret_cast<const char*>(bytes), static_cast<uint32_t>(length), &root);
    } else {
        plist_from_xml(reinterpret_cast<const char*>(bytes), static_cast<uint32_t>(length), &root);
    }
    PlistPtr owner(root);
    if (!root) {
        setError(error, kCFPropertyListReadCorruptError,
                 binary ? "Cannot parse binary property list" : "Cannot parse property list: not a valid XML property list");
        return nullptr;
    }
    std::string problem;
    CFTypeRef result = fromPlist(root, options, 0, problem);
    if (!result) {
        setError(error, kCFPropertyListReadCorruptError, "Cannot parse property list: " + problem);
        return nullptr;
    }
    if (format) *format = binary ? kCFPropertyListBinaryFormat_v1_0 : kCFPropertyListXMLFormat_v1_0;
    return result;
}

CFDataRef CFPropertyListCreateData(CFAllocatorRef, CFPropertyListRef propertyList, CFPropertyListFormat format,
                                   CFOptionFlags, CFErrorRef* error) {
    if (format != kCFPropertyListXMLFormat_v1_0 && format != kCFPropertyListBinaryFormat_v1_0) {
        setError(error, kCFPropertyListWriteStreamError, "unsupported property list format");
        return nullptr;
    }
    const bool binary = format == kCFPropertyListBinaryFormat_v1_0;
    std::string problem;
    if (binary) {
        std::vector<UInt8> bytes;
        if (!cf::write_binary_plist(propertyList, bytes, problem)) {
            setError(error, kCFPropertyListWriteStreamError, "Cannot write property list: " + problem);
            return nullptr;
        }
        return CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()));
    }
    PlistPtr root(toPlist(propertyList, binary, 0, problem));
    if (!root) {
        setError(error, kCFPropertyListWriteStreamError, "Cannot write property list: " + problem);
        return nullptr;
    }
    char* out = nullptr;
    uint32_t outLength = 0;
    plist_to_xml(root.get(), &out, &outLength);
    if (!out) {
        setError(error, kCFPropertyListWriteStreamError, "Cannot write property list");
        return nullptr;
    }
    CFDataRef result = CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(out), outLength);
    plist_to_xml_free(out);
    return result;
}

CFPropertyListRef CFPropertyListCreateDeepCopy(CFAllocatorRef allocator, CFPropertyListRef propertyList,
                                               CFOptionFlags mutabilityOption) {
    // A round trip through the binary form: the one place that already knows every property-list type.
    CFDataRef data = CFPropertyListCreateData(allocator, propertyList, kCFPropertyListBinaryFormat_v1_0, 0, nullptr);
    if (!data) return nullptr;
    CFPropertyListRef copy = CFPropertyListCreateWithData(allocator, data, mutabilityOption, nullptr, nullptr);
    CFRelease(data);
    return copy;
}

Boolean CFPropertyListIsValid(CFPropertyListRef plist, CFPropertyListFormat format) {
    if (!plist) return false;
    std::string problem;
    PlistPtr root(toPlist(plist, format == kCFPropertyListBinaryFormat_v1_0, 0, problem));
    return root != nullptr;
}

// ---- UIDs ----

std::string __CFKeyedArchiverUID::describe() const {
    return "<CFKeyedArchiverUID>{value = " + std::to_string(value) + "}";
}

CFTypeID _CFKeyedArchiverUIDGetTypeID(void) { return kCFTypeIDKeyedArchiverUID; }

CFKeyedArchiverUIDRef _CFKeyedArchiverUIDCreate(CFAllocatorRef, uint32_t value) {
    return new __CFKeyedArchiverUID(value);
}

uint32_t _CFKeyedArchiverUIDGetValue(CFKeyedArchiverUIDRef uid) {
    return cf::cast<__CFKeyedArchiverUID>(uid, kCFTypeIDKeyedArchiverUID, "_CFKeyedArchiverUIDGetValue")->value;
}
