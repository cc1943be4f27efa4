// CF::String: a CFStringRef held by value, with UTF-8 conversion and iteration over UTF-16 code units.
#pragma once

#include <compare>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Quiver/CF/Object.hpp"

namespace CF {

// The UTF-8 text of a borrowed string ("" for NULL), read in place where the string holds UTF-8.
QV_EXPORT std::string UTF8(CFStringRef s);
// The UTF-8 that the string keeps, viewed in place: valid while the string lives unchanged. Strings of
// this CoreFoundation always keep it; empty for null.
QV_EXPORT std::string_view UTF8View(CFStringRef s);

class QV_EXPORT String : public Object<String, CFStringRef> {
public:
    String() = default;
    // Makes a string from UTF-8; invalid UTF-8 gives an empty holder.
    explicit String(std::string_view utf8);
    explicit String(const char* utf8) : String(std::string_view(utf8 ? utf8 : "")) {}
    explicit String(const std::string& utf8) : String(std::string_view(utf8)) {}

    static CFTypeID TypeID() { return CFStringGetTypeID(); }
    static String Format(const char* format, ...);
    static String CreateMutable();

    // UTF-8 text; "" for an empty holder.
    std::string utf8() const;
    // UTF-16 length; 0 for an empty holder.
    CFIndex length() const { return ref_ ? CFStringGetLength(ref_) : 0; }
    bool IsEmpty() const { return length() == 0; }
    String MutableCopy() const;
    // Splits at every occurrence of separator (empty pieces kept).
    std::vector<String> Split(std::string_view separator) const;
    CFComparisonResult Compare(const String& other, CFStringCompareFlags flags = 0) const;
    bool HasPrefix(std::string_view prefix) const;
    bool HasSuffix(std::string_view suffix) const;
    // Appends to a string made with CreateMutable or MutableCopy.
    void Append(const String& other);
    void Append(std::string_view utf8);

    // Empty holders order before every string.
    friend std::strong_ordering operator<=>(const String& a, const String& b);

    class const_iterator {
    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = UniChar;
        using difference_type = CFIndex;
        using pointer = void;
        using reference = UniChar;
        const_iterator() = default;
        const_iterator(CFStringRef s, CFIndex i) : s_(s), i_(i) {}
        UniChar operator*() const { return CFStringGetCharacterAtIndex(s_, i_); }
        UniChar operator[](CFIndex n) const { return CFStringGetCharacterAtIndex(s_, i_ + n); }
        const_iterator& operator++() { ++i_; return *this; }
        const_iterator operator++(int) { auto t = *this; ++i_; return t; }
        const_iterator& operator--() { --i_; return *this; }
        const_iterator operator--(int) { auto t = *this; --i_; return t; }
        const_iterator& operator+=(CFIndex n) { i_ += n; return *this; }
        const_iterator& operator-=(CFIndex n) { i_ -= n; return *this; }
        friend const_iterator operator+(const_iterator it, CFIndex n) { return it += n; }
        friend const_iterator operator+(CFIndex n, const_iterator it) { return it += n; }
        friend const_iterator operator-(const_iterator it, CFIndex n) { return it -= n; }
        friend CFIndex operator-(const const_iterator& a, const const_iterator& b) { return a.i_ - b.i_; }
        friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.i_ == b.i_; }
        friend auto operator<=>(const const_iterator& a, const const_iterator& b) { return a.i_ <=> b.i_; }

    private:
        CFStringRef s_ = nullptr;
        CFIndex i_ = 0;
    };
    const_iterator begin() const { return const_iterator(ref_, 0); }
    const_iterator end() const { return const_iterator(ref_, length()); }
};

}  // namespace CF

template <>
struct fmt::formatter<CF::String> : fmt::formatter<std::string_view> {
    auto format(const CF::String& s, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(s.utf8(), ctx);
    }
};
