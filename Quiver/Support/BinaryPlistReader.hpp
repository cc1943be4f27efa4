// Reading binary property lists ("bplist00") in place.
//
// A Manifest.db holds one small keyed archive per backed-up item, hundreds of thousands of them, and
// going through CFPropertyListCreateWithData builds a libplist tree and then a CoreFoundation tree for
// each one only to throw both away. This reader instead answers questions about the bytes themselves
// (what type object 7 is, which value a dictionary holds under "RelativePath", the bytes of a data
// object) and builds CoreFoundation values only for what a caller asks to keep.
//
// The bytes are untrusted. open() checks the trailer, the offset table's place and the top object;
// every other object is found through the offset table when it is asked about, and its marker, length
// and position are checked then: an object that is malformed or reaches outside the object area throws
// plist_format_error when it is read, as do the relations between objects (a reference that names no
// object, a dictionary key that is not a string, a UID wider than 32 bits) and text that is not valid.
// Objects that nothing asks about cost nothing: a keyed archive of forty objects is read by looking at
// the ones it needs, without a table of them all. No operation recurses, so a list that refers to
// itself can be read without harm.
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

// The kinds of value a property list can hold (binary lists add UIDs). Binary sets read as arrays, as
// CoreFoundation has no sets of its own to read them into.
enum class plist_type : uint8_t { null, boolean, integer, real, date, data, string, uid, array, dictionary };

// "null", "boolean", "integer", "real", "date", "data", "string", "uid", "array", "dictionary".
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
    // More objects than any record or attribute list holds; the table of a list costs 16 bytes an object.
    static constexpr size_t max_objects = size_t{1} << 20;

    // Whether the bytes begin with the binary property-list signature "bplist00".
    static bool has_signature(std::span<const uint8_t> bytes);

    // Checks the signature, the trailer and the top object. nullopt when any of that is wrong or the
    // list has more than max_objects objects (with the reason in *problem when given). The bytes must
    // outlive the reader and everything it hands out by view.
    static std::optional<binary_plist_reader> open(std::span<const uint8_t> bytes, std::string* problem = nullptr);

    value top() const { return top_; }
    size_t object_count() const { return count_; }

    // Each accessor below throws plist_format_error when the object is malformed, and std::logic_error
    // when it is asked for a type the object does not have (the caller checks type() first). type()
    // reads the marker alone; the object's length and place are checked by the accessor that reads it.
    plist_type type(value v) const { return typeOf(markerOf(v)); }
    bool boolean(value v) const;
    // The value as 64-bit two's complement. Of a 16-byte integer only the low 64 bits count, as
    // property-list readers keep them (unsigned 64-bit values are written in 16 bytes).
    std::optional<int64_t> integer(value v) const;
    // The same in one look at the object: false when it is no integer.
    bool read_integer(value v, int64_t& out) const;
    // Reals and dates (seconds since 2001-01-01).
    double real(value v) const;
    uint32_t uid(value v) const;
    // The string as a new CoreFoundation string (ASCII, UTF-8 or UTF-16 as stored).
    CF::String string(value v) const;
    // The string's UTF-8: viewed in place when stored as ASCII, else converted into `spare`.
    std::string_view utf8(value v, std::string& spare) const;
    // Whether the object is a string equal to `ascii`, without making a string.
    bool string_equals(value v, std::string_view ascii) const;
    // The data's bytes, viewed in place.
    std::span<const uint8_t> data_bytes(value v) const;
    CF::Data data(value v) const { return CF::Data(data_bytes(v)); }
    // Elements of an array or a set.
    size_t count(value v) const;
    value element(value v, size_t i) const;

    // A view of a dictionary's entries, which reads keys and values from the bytes as it is asked.
    class dictionary {
    public:
        size_t size() const { return count_; }
        // The key as a string object of the list (plist_format_error when it is no string).
        value key_object(size_t i) const;
        // The key's text: in place for ASCII keys; UTF-16 keys are converted to UTF-8 and kept with the view.
        std::string_view key(size_t i) const;
        value value_at(size_t i) const {
            return reader_->ref_at(payload_ + (uint64_t{count_} + i) * reader_->refSize_);
        }
        // The value of the last entry with this key (as CoreFoundation keeps the last), or `none`.
        value find(std::string_view key) const;

    private:
        friend class binary_plist_reader;
        dictionary(const binary_plist_reader& reader, uint32_t payload, uint32_t count)
            : reader_(&reader), payload_(payload), count_(count) {}
        const binary_plist_reader* reader_;
        uint32_t payload_;
        uint32_t count_;
        mutable std::vector<std::unique_ptr<std::string>> converted_;
    };
    dictionary open_dictionary(value v) const;

private:
    // An object as located: its payload lies inside the object area.
    struct Object {
        uint32_t payload;  // offset of the bytes after the marker and length
        uint32_t size;     // bytes of payload
        uint32_t count;    // length of data and strings, elements of containers, entries of dictionaries
        uint8_t marker;
    };

    binary_plist_reader() = default;
    // Where object v begins, checked to lie in the object area.
    uint64_t offsetOf(value v) const {
        if (v >= count_) [[unlikely]]
            badReference(v);
        // In range by open(): the whole offset table lies before the trailer.
        const uint64_t offset =
            byte_reader::unchecked_be(bytes_.bytes().data() + tableOffset_ + uint64_t{v} * offsetSize_, offsetSize_);
        if (offset < kHeaderBytes || offset >= tableOffset_) [[unlikely]]
            badOffset();
        return offset;
    }
    // The marker of object v; plist_format_error for a marker that no property list uses.
    uint8_t markerOf(value v) const {
        const uint8_t marker = bytes_.bytes()[static_cast<size_t>(offsetOf(v))];
        if (!knownMarker(marker)) [[unlikely]]
            badMarker();
        return marker;
    }
    Object at(value v) const { return locate(v); }
    // Whether a string object holds `ascii`.
    bool equalsASCII(const Object& o, std::string_view ascii) const;
    [[noreturn]] void badReference(value v) const;
    [[noreturn]] static void badOffset();
    [[noreturn]] static void badMarker();
    Object locate(value v) const;
    static constexpr uint64_t kHeaderBytes = 8;
    static bool knownMarker(uint8_t marker) {
        switch (marker >> 4) {
            case 0x0: return marker == 0x00 || marker == 0x08 || marker == 0x09;
            case 0x7: case 0x9: case 0xB: case 0xE: case 0xF: return false;
            case 0x3: return marker == 0x33;
            default: return true;
        }
    }
    // The type of an object by its marker (known markers only).
    static plist_type typeOf(uint8_t marker) {
        constexpr plist_type kByKind[16] = {
            plist_type::null,   plist_type::integer, plist_type::real,  plist_type::date,
            plist_type::data,   plist_type::string,  plist_type::string, plist_type::null,
            plist_type::uid,    plist_type::null,    plist_type::array, plist_type::null,
            plist_type::array,  plist_type::dictionary, plist_type::null, plist_type::null,
        };
        return marker == 0x08 || marker == 0x09 ? plist_type::boolean : kByKind[marker >> 4];
    }
    Object expect(value v, plist_type type, const char* accessor) const {
        const Object o = locate(v);
        if (typeOf(o.marker) != type) [[unlikely]]
            wrongType(accessor);
        return o;
    }
    [[noreturn]] static void wrongType(const char* accessor);
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
