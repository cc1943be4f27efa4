// CF::Array: a CFArrayRef held by value, iterable over its values (borrowed CFTypeRef).
#pragma once

#include <iterator>

#include "Quiver/CF/Object.hpp"

namespace CF {

class QV_EXPORT Array : public Object<Array, CFArrayRef> {
public:
    Array() = default;
    static CFTypeID TypeID() { return CFArrayGetTypeID(); }
    // An empty mutable array with the CFType callbacks.
    static Array CreateMutable();

    CFIndex size() const { return ref_ ? CFArrayGetCount(ref_) : 0; }
    bool IsEmpty() const { return size() == 0; }
    // Borrowed value; the index must be in range.
    CFTypeRef operator[](CFIndex i) const { return CFArrayGetValueAtIndex(ref_, i); }
    // The value at i as T, or an empty holder when out of range or of another type.
    template <typename T>
    T at(CFIndex i) const {
        if (i < 0 || i >= size()) return T();
        return Cast<T>(CFArrayGetValueAtIndex(ref_, i));
    }
    // Appends to an array made with CreateMutable.
    void Append(CFTypeRef value);
    template <typename T>
        requires requires(const T& v) { v.get(); }
    void Append(const T& value) { Append(static_cast<CFTypeRef>(value.get())); }

    class const_iterator {
    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = CFTypeRef;
        using difference_type = CFIndex;
        using pointer = void;
        using reference = CFTypeRef;
        const_iterator() = default;
        const_iterator(CFArrayRef a, CFIndex i) : a_(a), i_(i) {}
        CFTypeRef operator*() const { return CFArrayGetValueAtIndex(a_, i_); }
        const_iterator& operator++() { ++i_; return *this; }
        const_iterator operator++(int) { auto t = *this; ++i_; return t; }
        const_iterator& operator--() { --i_; return *this; }
        const_iterator& operator+=(CFIndex n) { i_ += n; return *this; }
        friend const_iterator operator+(const_iterator it, CFIndex n) { return it += n; }
        friend CFIndex operator-(const const_iterator& a, const const_iterator& b) { return a.i_ - b.i_; }
        friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.i_ == b.i_; }

    private:
        CFArrayRef a_ = nullptr;
        CFIndex i_ = 0;
    };
    const_iterator begin() const { return const_iterator(ref_, 0); }
    const_iterator end() const { return const_iterator(ref_, size()); }
};

}  // namespace CF
