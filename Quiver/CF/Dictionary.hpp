// CF::Dictionary: a CFDictionaryRef held by value, with typed lookups and iteration over (key, value)
// pairs of borrowed references in the dictionary's order.
#pragma once

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "Quiver/CF/Object.hpp"
#include "Quiver/CF/String.hpp"

namespace CF {

class QV_EXPORT Dictionary : public Object<Dictionary, CFDictionaryRef> {
public:
    Dictionary() = default;
    static CFTypeID TypeID() { return CFDictionaryGetTypeID(); }
    // An empty mutable dictionary with the CFType callbacks.
    static Dictionary CreateMutable();
    Dictionary MutableCopy() const;

    CFIndex size() const { return ref_ ? CFDictionaryGetCount(ref_) : 0; }
    bool IsEmpty() const { return size() == 0; }
    // Borrowed value, or NULL.
    CFTypeRef Get(CFTypeRef key) const { return ref_ && key ? CFDictionaryGetValue(ref_, key) : nullptr; }
    CFTypeRef Get(std::string_view key) const { return Get(String(key).get()); }
    // The value as T, or an empty holder when absent or of another type.
    template <typename T>
    T Get(std::string_view key) const { return Cast<T>(Get(key)); }
    template <typename T>
    T Get(CFTypeRef key) const { return Cast<T>(Get(key)); }
    // Text keys given as literals must not bind to the CFTypeRef overloads.
    CFTypeRef Get(const char* key) const { return Get(std::string_view(key)); }
    template <typename T>
    T Get(const char* key) const { return Get<T>(std::string_view(key)); }
    bool Contains(std::string_view key) const { return Get(key) != nullptr; }

    // Mutators for a dictionary made with CreateMutable or MutableCopy. A NULL value removes nothing
    // and sets nothing.
    void Set(CFTypeRef key, CFTypeRef value);
    void Set(std::string_view key, CFTypeRef value) { Set(String(key).get(), value); }
    template <typename T>
        requires requires(const T& v) { v.get(); }
    void Set(std::string_view key, const T& value) { Set(key, static_cast<CFTypeRef>(value.get())); }
    template <typename T>
        requires requires(const T& v) { v.get(); }
    void Set(CFTypeRef key, const T& value) { Set(key, static_cast<CFTypeRef>(value.get())); }
    void Set(const char* key, CFTypeRef value) { Set(std::string_view(key), value); }
    template <typename T>
        requires requires(const T& v) { v.get(); }
    void Set(const char* key, const T& value) { Set(std::string_view(key), static_cast<CFTypeRef>(value.get())); }
    void Remove(std::string_view key);

    // Snapshot of the entries (borrowed; valid while the dictionary is unchanged).
    std::vector<std::pair<CFTypeRef, CFTypeRef>> Entries() const;

    class const_iterator {
    public:
        using value_type = std::pair<CFTypeRef, CFTypeRef>;
        using difference_type = std::ptrdiff_t;
        using iterator_category = std::forward_iterator_tag;
        const_iterator() = default;
        const_iterator(std::shared_ptr<const std::vector<value_type>> e, size_t i) : e_(std::move(e)), i_(i) {}
        const value_type& operator*() const { return (*e_)[i_]; }
        const value_type* operator->() const { return &(*e_)[i_]; }
        const_iterator& operator++() { ++i_; return *this; }
        const_iterator operator++(int) { auto t = *this; ++i_; return t; }
        friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.i_ == b.i_; }

    private:
        std::shared_ptr<const std::vector<value_type>> e_;
        size_t i_ = 0;
    };
    const_iterator begin() const;
    const_iterator end() const;
};

}  // namespace CF
