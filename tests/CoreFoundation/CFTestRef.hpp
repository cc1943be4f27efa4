// Small helpers for the CoreFoundation tests: an owner that releases a +1 reference at the end of a
// scope, and conversions between CF strings and std::string.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <utility>

namespace cftest {

template <typename T>
class Ref {
public:
    Ref() = default;
    explicit Ref(T ref) : ref_(ref) {}
    ~Ref() {
        if (ref_) CFRelease(ref_);
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}

    T get() const { return ref_; }
    operator T() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }

private:
    T ref_ = nullptr;
};

inline Ref<CFStringRef> str(const std::string& text) {
    return Ref<CFStringRef>(CFStringCreateWithCString(nullptr, text.c_str(), kCFStringEncodingUTF8));
}

inline std::string text(CFStringRef s) {
    if (!s) return "<NULL>";
    const char* p = CFStringGetCStringPtr(s, kCFStringEncodingUTF8);
    return p ? std::string(p) : std::string("<no UTF-8 pointer>");
}

// Takes a +1 string and returns its text.
inline std::string take(CFStringRef s) {
    Ref<CFStringRef> owner(s);
    return text(s);
}

inline Ref<CFNumberRef> num(long long v) {
    return Ref<CFNumberRef>(CFNumberCreate(nullptr, kCFNumberLongLongType, &v));
}

inline Ref<CFNumberRef> num(double v) { return Ref<CFNumberRef>(CFNumberCreate(nullptr, kCFNumberDoubleType, &v)); }

inline CFMutableDictionaryRef new_dict() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}

inline CFMutableArrayRef new_array() { return CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks); }

}  // namespace cftest
