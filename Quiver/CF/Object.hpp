// The holder behind every CF:: value class: exactly one retained CoreFoundation reference (or none),
// retained on copy and released on destruction. A raw reference enters a holder either by Adopt (the
// caller hands over the +1 reference that a Create or Copy function returned) or by Retain (a borrowed
// reference, retained once more); there is no implicit conversion from a raw pointer, so a reference
// can never be leaked or released twice by picking the wrong constructor.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreFoundation/CFExtension.h>

#include <string>
#include <utility>

#include "Quiver/Export.hpp"

namespace CF {

template <typename Derived, typename Ref>
class Object {
public:
    using ref_type = Ref;

    Object() noexcept = default;
    Object(const Object& other) noexcept : ref_(other.ref_) {
        if (ref_) CFRetain(ref_);
    }
    Object(Object&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
    Object& operator=(const Object& other) noexcept {
        if (this != &other) {
            Ref old = ref_;
            ref_ = other.ref_;
            if (ref_) CFRetain(ref_);
            if (old) CFRelease(old);
        }
        return *this;
    }
    Object& operator=(Object&& other) noexcept {
        if (this != &other) {
            Ref old = std::exchange(ref_, std::exchange(other.ref_, nullptr));
            if (old) CFRelease(old);
        }
        return *this;
    }
    ~Object() {
        if (ref_) CFRelease(ref_);
    }

    // Takes over a +1 reference.
    static Derived Adopt(Ref ref) noexcept {
        Derived d;
        d.ref_ = ref;
        return d;
    }
    // Shares a borrowed reference.
    static Derived Retain(Ref ref) noexcept {
        if (ref) CFRetain(ref);
        return Adopt(ref);
    }

    Ref get() const noexcept { return ref_; }
    explicit operator bool() const noexcept { return ref_ != nullptr; }
    bool empty() const noexcept { return ref_ == nullptr; }

    // Gives up the held reference to the caller, who must release it.
    Ref Detach() noexcept { return std::exchange(ref_, nullptr); }
    // A new +1 reference for the caller (NULL when empty).
    Ref CopyRef() const noexcept {
        if (ref_) CFRetain(ref_);
        return ref_;
    }
    void Reset() noexcept {
        if (Ref old = std::exchange(ref_, nullptr)) CFRelease(old);
    }
    CFIndex RetainCount() const { return ref_ ? CFGetRetainCount(ref_) : 0; }

    // Equality by value (CFEqual); two empty holders are equal.
    friend bool operator==(const Derived& a, const Derived& b) {
        if (a.ref_ == b.ref_) return true;
        if (!a.ref_ || !b.ref_) return false;
        return CFEqual(a.ref_, b.ref_);
    }

protected:
    Ref ref_ = nullptr;
};

// The description of any CoreFoundation value as UTF-8 ("(null)" for NULL).
QV_EXPORT std::string Describe(CFTypeRef value);

// A reference of the expected type, retained into its holder; an empty holder for NULL or another type.
template <typename T>
T Cast(CFTypeRef value) {
    if (!value || CFGetTypeID(value) != T::TypeID()) return T();
    return T::Retain((typename T::ref_type)(value));
}

}  // namespace CF
