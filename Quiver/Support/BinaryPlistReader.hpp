// Reading binary property lists ("bplist00") in place.
//
// A Manifest.db holds one small keyed archive per backed-up item, hundreds of thousands of them, and
// going through CFPropertyListCreateWithData builds a libplist tree and then a CoreFoundation tree for
// each one only to throw both away. This reader instead answers questions about the bytes themselves
// (what type object 7 is, which value a dictionary holds under "RelativePath", the bytes of a data
// object) and builds CoreFoundation values only for what a caller asks to keep.
//
// The bytes are untrusted. Every offset, reference and length is checked through byte_reader before
// it is used; an object that is malformed or lies outside the object area throws plist_format_error
// when it is read. Objects that are never read are never looked at. No operation recurses.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/String.hpp"
#include "Quiver/Support/ByteReader.hpp"

namespace Quiver::Support {

// The kinds of value a property list can hold (binary lists add UIDs and sets).
enum class plist_type : uint8_t { null, boolean, integer, real, date, data, string, uid, array, set, dictionary };

// "null", "boolean", "integer", "real", "date", "data", "string", "uid", "array", "set", "dictionary".
std::string_view to_string(plist_type type);

// Bytes that are not a well-formed binary property list where they were read.
class plist_format_error : public std::runtime_error {
public:
    explicit plist_format_error(const std::string& what)
        : std::runtime_error("Malformed binary property list: " + what) {}
};

class binary_plist_reader {
public:
    // An object of the list by its number; `none` stands for "no such value" (a missing key).
    using value = uint32_t;
    static constexpr value none = UINT32_MAX;

    // Whether the bytes begin with the binary property-list signature "bplist00".
    static bool has_signature(std::span<const uint8_t> bytes);

    // Checks the signature, the trailer and the position of the offset table; nullopt when any of them
    // is wrong. The bytes must outlive the reader and everything it hands out by view.
    static std::optional<binary_plist_reader> open(std::span<const uint8_t> bytes);

    value top() const { return top_; }
    size_t object_count() const { return count_; }

    // Each accessor below throws plist_format_error when the object is malformed, and std::logic_error
    // when it is asked for a type the object does not have (the caller checks type() first).
    plist_type type(value v) const;
    bool boolean(value v) const;
    // The 64-bit two's complement value; nullopt for a 16-byte integer that needs more than 64 bits.
    std::optional<int64_t> integer(value v) const;
    // Reals and dates (seconds since 2001-01-01).
    double real(value v) const;
    uint32_t uid(value v) const;
    // The string as a new CoreFoundation string (ASCII, UTF-8 or UTF-16 as stored).
    CF::String string(value v) const;
    // Whether the object is a string equal to `ascii`, without making a string.
    bool string_equals(value v, std::string_view ascii) const;
    // The data's bytes, viewed in place.
    std::span<const uint8_t> data_bytes(value v) const;
    CF::Data data(value v) const { return CF::Data(data_bytes(v)); }
    // Elements of an array or a set.
    size_t count(value v) const;
    value element(value v, size_t i) const;

    // A dictionary's entries, read once so that repeated lookups cost no further decoding. Keys are
    // viewed as UTF-8 (in place for ASCII keys).
    class dictionary {
    public:
        size_t size() const { return size_; }
        std::string_view key(size_t i) const { return entry(i).key; }
        value value_at(size_t i) const { return entry(i).object; }
        // The value of the last entry with this key (as CoreFoundation keeps the last), or `none`.
        value find(std::string_view key) const;

    private:
        friend class binary_plist_reader;
        struct Entry {
            std::string_view key;
            binary_plist_reader::value object;
        };
        static constexpr size_t kInline = 16;
        const Entry& entry(size_t i) const { return i < kInline ? inline_[i] : overflow_[i - kInline]; }
        void push(std::string_view key, value v);

        Entry inline_[kInline];
        std::vector<Entry> overflow_;
        size_t size_ = 0;
        // UTF-8 forms of keys stored as UTF-16.
        std::vector<std::unique_ptr<std::string>> converted_;
    };
    dictionary open_dictionary(value v) const;

private:
    struct Object {
        uint8_t marker;
        uint64_t count;      // length of data and strings, elements of containers, entries of dictionaries
        uint64_t payload;    // offset of the bytes after the marker and length
        uint64_t size;       // bytes of payload
    };
    binary_plist_reader() = default;
    Object locate(value v) const;
    Object expect(value v, plist_type type, const char* accessor) const;
    value ref_at(uint64_t offset) const;
    [[noreturn]] static void malformed(const std::string& what);

    byte_reader bytes_;
    uint64_t tableOffset_ = 0;
    unsigned offsetSize_ = 0;
    unsigned refSize_ = 0;
    size_t count_ = 0;
    value top_ = none;
};

}  // namespace Quiver::Support
