// The object model behind the C interface. Every CoreFoundation object is a __CFObject: an atomic
// reference count, a type ID and virtual equality, hashing and description. Each concrete type is
// defined here so that the sources of one type can reach into another's representation where that is
// the efficient way (descriptions of collections, property-list conversion).
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreFoundation/CFExtension.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// Type IDs, fixed so that CFGetTypeID values are stable across runs.
enum : CFTypeID {
    kCFRuntimeNotATypeID = 0,
    kCFTypeIDAllocator = 1,
    kCFTypeIDNull = 2,
    kCFTypeIDString = 7,
    kCFTypeIDData = 20,
    kCFTypeIDArray = 19,
    kCFTypeIDDictionary = 18,
    kCFTypeIDBoolean = 21,
    kCFTypeIDNumber = 22,
    kCFTypeIDDate = 42,
    kCFTypeIDUUID = 34,
    kCFTypeIDError = 45,
    kCFTypeIDKeyedArchiverUID = 41,
};

struct __CFObject {
    explicit __CFObject(CFTypeID type) : typeID(type) {}
    virtual ~__CFObject() = default;
    __CFObject(const __CFObject&) = delete;
    __CFObject& operator=(const __CFObject&) = delete;

    // Same type guaranteed by the caller (CFEqual checks type IDs first).
    virtual bool equal(const __CFObject* other) const { return this == other; }
    virtual CFHashCode hash() const { return reinterpret_cast<CFHashCode>(this); }
    // UTF-8 description; deterministic for every type but allocators.
    virtual std::string describe() const = 0;

    std::atomic<CFIndex> retainCount{1};
    const CFTypeID typeID;
    bool immortal = false;  // constants: never freed, retain and release do nothing
};

namespace cf {

// Checked conversion from an opaque reference to the object; aborts the process with a message for
// NULL or a reference of another type, the way CoreFoundation traps on misuse.
const __CFObject* object(CFTypeRef ref, const char* function);
[[noreturn]] void fatal(const char* function, const char* message);

template <typename T>
const T* cast(CFTypeRef ref, CFTypeID type, const char* function) {
    const __CFObject* o = object(ref, function);
    if (o->typeID != type) fatal(function, "object of the wrong type");
    return static_cast<const T*>(o);
}
template <typename T>
T* cast_mutable(CFTypeRef ref, CFTypeID type, const char* function) {
    return const_cast<T*>(cast<T>(ref, type, function));
}

// Hash of bytes used by strings and data (64-bit FNV-1a).
inline CFHashCode hash_bytes(const void* data, size_t length) {
    uint64_t h = 0xcbf29ce484222325ULL;
    const auto* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < length; ++i) {
        h ^= p[i];
        h *= 0x100000001b3ULL;
    }
    return static_cast<CFHashCode>(h);
}

// Description of any object as UTF-8 (uses the virtual describe); "(null)" for NULL.
std::string describe(CFTypeRef ref);

// Multi-line description used for nested collections: `indent` levels of four blanks.
std::string describe_nested(CFTypeRef ref, int indent);

// UTF-8 <-> UTF-16 helpers. decode_utf8 returns false for ill-formed input.
bool decode_utf8(std::string_view in, std::u16string& out);
void encode_utf8(const char16_t* in, size_t length, std::string& out);  // lone surrogates become U+FFFD

// Makes a string object from valid UTF-8 (no validation). Returns a +1 reference.
CFStringRef make_string(std::string utf8);
// The UTF-8 bytes of a string object.
const std::string& utf8_of(CFStringRef str);

}  // namespace cf

struct __CFAllocator final : __CFObject {
    enum class Kind { System, Malloc, Null };
    explicit __CFAllocator(Kind k) : __CFObject(kCFTypeIDAllocator), kind(k) { immortal = true; }
    std::string describe() const override;
    Kind kind;
};

struct __CFNull final : __CFObject {
    __CFNull() : __CFObject(kCFTypeIDNull) { immortal = true; }
    std::string describe() const override { return "<CFNull>"; }
};

// Strings keep UTF-8 as their representation, with the length in UTF-16 code units alongside.
// ASCII strings (the common case: domains, paths, keys) index bytes directly; others convert to
// UTF-16 when indexed or compared.
struct __CFString final : __CFObject {
    __CFString() : __CFObject(kCFTypeIDString) {}
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override;
    std::string describe() const override { return utf8; }
    void set(std::string text);  // recomputes length16 and ascii
    std::u16string utf16() const;

    std::string utf8;
    CFIndex length16 = 0;
    bool ascii = true;
    bool mutable_ = false;
};

struct __CFData final : __CFObject {
    __CFData() : __CFObject(kCFTypeIDData) {}
    ~__CFData() override;
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override;
    std::string describe() const override;
    const UInt8* bytes() const { return external ? external : storage.data(); }
    CFIndex length() const { return external ? externalLength : static_cast<CFIndex>(storage.size()); }

    std::vector<UInt8> storage;
    const UInt8* external = nullptr;  // no-copy bytes
    CFIndex externalLength = 0;
    CFAllocatorRef externalDeallocator = nullptr;
    bool mutable_ = false;
};

struct __CFArray final : __CFObject {
    __CFArray() : __CFObject(kCFTypeIDArray) {}
    ~__CFArray() override;
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override { return static_cast<CFHashCode>(values.size()); }
    std::string describe() const override;

    std::vector<const void*> values;
    CFArrayCallBacks callbacks{};  // all-null callbacks: values are raw pointers
    bool mutable_ = false;
};

struct __CFDictionary final : __CFObject {
    __CFDictionary() : __CFObject(kCFTypeIDDictionary) {}
    ~__CFDictionary() override;
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override { return static_cast<CFHashCode>(entries.size()); }
    std::string describe() const override;

    struct Entry {
        const void* key;
        const void* value;
    };
    // Insertion-ordered entries with a hash index (hash code -> positions in entries) once there are more
    // than kIndexThreshold of them; smaller dictionaries are searched in order.
    static constexpr size_t kIndexThreshold = 8;
    std::vector<Entry> entries;
    std::unordered_multimap<CFHashCode, size_t> index;
    CFDictionaryKeyCallBacks keyCallbacks{};
    CFDictionaryValueCallBacks valueCallbacks{};
    bool mutable_ = false;

    CFHashCode hash_key(const void* key) const;
    bool keys_equal(const void* a, const void* b) const;
    // Position of key in entries, or -1.
    long find(const void* key) const;
    void rebuild_index();
};

struct __CFBoolean final : __CFObject {
    explicit __CFBoolean(bool v) : __CFObject(kCFTypeIDBoolean), value(v) { immortal = true; }
    std::string describe() const override { return value ? "true" : "false"; }
    CFHashCode hash() const override { return value ? 1 : 0; }
    bool value;
};

struct __CFNumber final : __CFObject {
    __CFNumber() : __CFObject(kCFTypeIDNumber) {}
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override;
    std::string describe() const override;

    CFNumberType type = kCFNumberSInt64Type;  // as created
    bool isFloat = false;
    int64_t i = 0;   // the value when !isFloat
    double d = 0.0;  // the value when isFloat
};

struct __CFDate final : __CFObject {
    explicit __CFDate(CFAbsoluteTime t) : __CFObject(kCFTypeIDDate), at(t) {}
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override;
    std::string describe() const override;  // "2001-01-01 00:00:00 +0000"
    CFAbsoluteTime at;
};

struct __CFUUID final : __CFObject {
    __CFUUID() : __CFObject(kCFTypeIDUUID) {}
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override;
    std::string describe() const override;  // upper-case 36-character form
    UInt8 bytes[16] = {};
};

struct __CFError final : __CFObject {
    __CFError() : __CFObject(kCFTypeIDError) {}
    ~__CFError() override;
    bool equal(const __CFObject* other) const override;
    CFHashCode hash() const override { return static_cast<CFHashCode>(code); }
    std::string describe() const override;
    CFStringRef domain = nullptr;
    CFIndex code = 0;
    CFDictionaryRef userInfo = nullptr;  // never NULL once created
};

struct __CFKeyedArchiverUID final : __CFObject {
    explicit __CFKeyedArchiverUID(uint32_t v) : __CFObject(kCFTypeIDKeyedArchiverUID), value(v) {}
    bool equal(const __CFObject* other) const override {
        return static_cast<const __CFKeyedArchiverUID*>(other)->value == value;
    }
    CFHashCode hash() const override { return value; }
    std::string describe() const override;  // "<CFKeyedArchiverUID>{value = N}"
    uint32_t value;
};
