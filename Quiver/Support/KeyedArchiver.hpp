// Writing and reading keyed archives (the NSKeyedArchiver property-list layout).
//
// An archive is a dictionary: "$archiver" = "NSKeyedArchiver", "$version" = 100000, "$objects" = an
// array whose element 0 is the string "$null", and "$top" = a dictionary naming the root object by UID.
// Every archived object is a dictionary in "$objects" whose "$class" refers by UID to a class
// description {"$classname", "$classes"}; numbers sit directly in the object, while strings, data and
// collections are further elements of "$objects" referred to by UID. UID 0 ("$null") means nil.
//
// keyed_archiver builds such a dictionary with CoreFoundation values. basic_keyed_unarchiver reads one
// through a property-list store: cf_plist_store over CoreFoundation values (any property-list format
// parsed by CFPropertyListCreateWithData), or binary_plist_reader over the bytes of a binary property
// list, which reads without building the whole list first. Archives come from backups, so the reader
// trusts nothing: UIDs are range-checked, a UID that is already being decoded is a cycle, nesting is
// bounded, and a value of the wrong type is refused with the archiver exceptions below.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Quiver/CF/Array.hpp"
#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/CF/Number.hpp"
#include "Quiver/CF/String.hpp"
#include "Quiver/Support/BinaryPlistReader.hpp"

namespace Quiver::Support {

// The property-list name of a value's type ("string", "data", "integer", "uid"...), for messages.
std::string_view cfTypeName(CFTypeRef value);

namespace archiver_exceptions {

// The base of every failure of archiving and unarchiving, so that callers can catch them as one.
class archive_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class invalid_creator : public archive_error {
public:
    invalid_creator() : archive_error("Archive was not created with a keyed archiver") {}
};
class missing_version : public archive_error {
public:
    missing_version() : archive_error("Archive has no version") {}
};
class unknown_version : public archive_error {
public:
    explicit unknown_version(std::optional<int64_t> version)
        : archive_error("Archive has unknown version"), version_(version) {}
    // The version found; nullopt when "$version" is not an integer.
    std::optional<int64_t> version() const { return version_; }

private:
    std::optional<int64_t> version_;
};
class missing_top : public archive_error {
public:
    missing_top() : archive_error("Archive is missing the $top key") {}
};
class missing_objects : public archive_error {
public:
    missing_objects() : archive_error("Archive is missing the $objects key") {}
};
class missing_root : public archive_error {
public:
    missing_root() : archive_error("Archive does not have a root object") {}
};
class decode_cycle : public archive_error {
public:
    decode_cycle() : archive_error("A cycle was detected when decoding the archive") {}
};
// A value whose stored type (a property-list type, or the class name of an archived object) does not
// fit what was asked for, or an integer too wide for the requested size.
class cant_decode_as_value : public archive_error {
public:
    explicit cant_decode_as_value(std::string_view type, std::string_view requested = "value")
        : archive_error("Cant decode type '" + std::string(type) + "' as " + std::string(requested)) {}
};
class uid_out_of_range : public archive_error {
public:
    uid_out_of_range(uint64_t uid, size_t count)
        : archive_error("Archive refers to object " + std::to_string(uid) + " but holds only " +
                        std::to_string(count) + " objects") {}
};
class nesting_too_deep : public archive_error {
public:
    nesting_too_deep() : archive_error("Archive nests its objects too deeply") {}
};
class mismatched_collection : public archive_error {
public:
    mismatched_collection() : archive_error("Archived dictionary has different numbers of keys and objects") {}
};
// Archiving.
class nullopt_uid : public archive_error {
public:
    nullopt_uid() : archive_error("Attempted to set a key to a nullopt uid") {}
};
class missing_reference : public archive_error {
public:
    missing_reference()
        : archive_error("keyed_archiver::_referenceObject did not return a value but conditional was false") {}
};
class unsupported_value : public archive_error {
public:
    explicit unsupported_value(std::string_view type)
        : archive_error("keyed_archiver cannot archive a value of type '" + std::string(type) + "'") {}
};

}  // namespace archiver_exceptions

// 64-bit FNV-1a, the hash of the archiver's tables.
uint64_t fnv1a_64(const void* bytes, size_t length);

// Any CoreFoundation value, held by one retained reference.
class cf_value : public CF::Object<cf_value, CFTypeRef> {};

// ---- Writing ----

class keyed_archiver {
public:
    using uid = uint32_t;
    // The key under which "$top" names the root object.
    static constexpr std::string_view root_key = "root";

    keyed_archiver();
    ~keyed_archiver();
    keyed_archiver(const keyed_archiver&) = delete;
    keyed_archiver& operator=(const keyed_archiver&) = delete;

    // Archives an object of class `classes[0]` (followed by its base classes, e.g. {"MBFile", "NSObject"})
    // and sets `key` of the current object to its UID. At the outermost level the current object is
    // "$top". `identity` uniques the object: when it has been archived already, the key refers to the
    // same UID and `encode` is not called; otherwise `encode(*this)` sets the new object's keys.
    template <class F>
    void encode_object(std::string_view key, const void* identity, std::initializer_list<std::string_view> classes,
                       F&& encode) {
        auto [id, fresh] = _beginObject(identity, classes);
        if (fresh) {
            try {
                encode(*this);
            } catch (...) {
                _abandonObject();
                throw;
            }
            _endObject();
        }
        set(key, id);
    }

    // Refers to an object archived earlier through encode_object with the same identity; when there is
    // none, the key refers to nil ("$null"), as a conditional reference to an object nobody archived.
    void encode_conditional_object(std::string_view key, const void* identity);

    // Sets `key` of the current object to a UID; an absent UID is a programming fault (nullopt_uid).
    void set(std::string_view key, std::optional<uid> value);

    // Numbers are stored in the object itself.
    void encode_int32(std::string_view key, int32_t value);
    void encode_int64(std::string_view key, int64_t value);
    void encode_double(std::string_view key, double value);
    void encode_bool(std::string_view key, bool value);
    void encode_number(std::string_view key, CFNumberRef value);
    // Strings and data become elements of "$objects", uniqued by identity (the same CoreFoundation
    // object is archived once).
    void encode_string(std::string_view key, CFStringRef value);
    void encode_data(std::string_view key, CFDataRef value);
    // Data stored in the current object itself, not by UID: an NSData object written by hand keeps its
    // bytes under "NS.data" in this form.
    void encode_inline_data(std::string_view key, CFDataRef value);
    // A dictionary becomes an NSDictionary object with "NS.keys" and "NS.objects", arrays of the UIDs of
    // its keys and values. Keys and values may be strings, data, numbers, booleans, dates, arrays and
    // dictionaries; anything else throws unsupported_value.
    void encode_dictionary(std::string_view key, CFDictionaryRef value);
    void encode_array(std::string_view key, CFArrayRef value);

    // The UID of the class description of classes[0], archived once per class name.
    uid class_uid(std::initializer_list<std::string_view> classes);

    // The finished archive. The archiver cannot be used afterwards.
    CF::Dictionary finishEncoding();

    // The UID of an object by identity: the UID it was archived under, or, for an object not archived
    // yet, a new UID when `conditional` is false and nothing when it is true.
    std::optional<uid> _referenceObject(const void* identity, bool conditional);

private:
    struct AddressHash {
        size_t operator()(const void* p) const noexcept { return static_cast<size_t>(fnv1a_64(&p, sizeof p)); }
    };
    struct NameHash {
        size_t operator()(const std::string& s) const noexcept { return static_cast<size_t>(fnv1a_64(s.data(), s.size())); }
    };

    std::pair<uid, bool> _beginObject(const void* identity, std::initializer_list<std::string_view> classes);
    void _endObject();
    void _abandonObject();
    uid _appendValue(CFTypeRef value);  // archives any supported value, returning its UID
    uid _appendCollection(const void* identity, CFTypeRef value);
    uid _newSlot();
    void _checkOpen() const;
    CF::Dictionary& _current();

    std::vector<cf_value> objects_;  // "$objects"; element 0 is "$null"
    std::unordered_map<const void*, uid, AddressHash> known_;
    std::unordered_map<std::string, uid, NameHash> classes_;
    struct Open {
        CF::Dictionary object;
        uid id;
        uid classId;
    };
    std::vector<Open> open_;  // objects being encoded, innermost last
    CF::Dictionary top_;
    bool finished_ = false;
};

// ---- Reading ----

// Property-list store over CoreFoundation values. A value is a borrowed reference into a property list
// that the caller keeps alive; nullptr stands for "no such value".
class cf_plist_store {
public:
    using value = CFTypeRef;
    static constexpr value none = nullptr;

    plist_type type(value v) const;
    bool boolean(value v) const;
    std::optional<int64_t> integer(value v) const;
    bool read_integer(value v, int64_t& out) const;  // false when v is no integer
    double real(value v) const;
    uint32_t uid(value v) const;
    CF::String string(value v) const;
    bool string_equals(value v, std::string_view ascii) const;
    std::string_view utf8(value v, std::string& spare) const;
    std::span<const uint8_t> data_bytes(value v) const;
    CF::Data data(value v) const;
    size_t count(value v) const;
    value element(value v, size_t i) const;

    class dictionary {
    public:
        size_t size() const { return entries_.size(); }
        std::string_view key(size_t i) const { return entries_[i].first; }
        value value_at(size_t i) const { return entries_[i].second; }
        value find(std::string_view key) const;

    private:
        friend class cf_plist_store;
        std::vector<std::pair<std::string_view, value>> entries_;
        std::deque<std::string> converted_;  // keys whose UTF-8 bytes are not kept in place
    };
    dictionary open_dictionary(value v) const;
};

namespace detail {

// The UID held by a value: a UID, or a dictionary {"CF$UID": n} as XML archives write them.
template <class Store>
std::optional<uint32_t> extract_uid(const Store& store, typename Store::value v);

}  // namespace detail

// What the checks of an archive's top-level dictionary yield: the "$objects" array and the root UID.
template <class Store>
struct archive_top {
    typename Store::value objects;
    uint32_t root;
};

// Checks an archive's top-level dictionary in this order: "$archiver" (invalid_creator), "$version"
// (missing_version, unknown_version), "$top" (missing_top), "$objects" (missing_objects; also when it is
// not an array) and the root UID in "$top" (missing_root).
template <class Store>
archive_top<Store> check_archive(const Store& store, typename Store::value top);

template <class Store>
class basic_keyed_unarchiver {
public:
    using value = typename Store::value;
    using dictionary = typename Store::dictionary;
    // Objects nested deeper than this are refused (nesting_too_deep).
    static constexpr size_t max_depth = 128;

    // Over an archive's "$objects" array.
    basic_keyed_unarchiver(const Store& store, value objects);

    const Store& store() const { return store_; }
    size_t object_count() const { return count_; }

    // The element of "$objects" that `id` names; uid_out_of_range when there is none.
    value object_at(uint32_t id) const;

    // Decodes object `id`: it goes on the stack of objects being decoded (decode_cycle when it is on it
    // already), becomes the current object when it is a dictionary, and f(*this, raw element) runs.
    template <class F>
    auto decode_object(uint32_t id, F&& f) {
        const value raw = object_at(id);
        Scope scope(*this, id);
        if (store_.type(raw) != plist_type::dictionary) return f(*this, raw);
        const dictionary object = store_.open_dictionary(raw);
        const dictionary* outer = std::exchange(current_, &object);
        struct Restore {
            const dictionary*& slot;
            const dictionary* saved;
            ~Restore() { slot = saved; }
        } restore{current_, outer};
        return f(*this, raw);
    }

    // ---- The current object ----
    const dictionary& current() const;
    // The value stored under `key`, or Store::none.
    value raw_value(std::string_view key) const { return current().find(key); }
    // "$classname" of the current object's class; "" when it has none.
    std::string class_name() const;

    // Typed values of the current object's keys: nullopt when the key is absent (or refers to nil).
    // A value of another type throws cant_decode_as_value.
    std::optional<int64_t> decode_integer(std::string_view key, unsigned bits = 64) const {
        return integer_from(raw_value(key), bits);
    }
    std::optional<CF::String> decode_string(std::string_view key) { return string_from(raw_value(key)); }
    std::optional<CF::Data> decode_data(std::string_view key) { return data_from(raw_value(key)); }
    std::optional<CF::Dictionary> decode_dictionary(std::string_view key) { return dictionary_from(raw_value(key)); }

    // The same for a value already fetched. Integers must fit `bits` (32 or 64): a 32-bit value may be
    // written signed or unsigned, so anything from INT32_MIN to UINT32_MAX is accepted.
    std::optional<int64_t> integer_from(value v, unsigned bits = 64) const;
    // A string: stored in place, or by UID as a string or an NSString object ("NS.string").
    std::optional<CF::String> string_from(value v);
    // Data: stored in place, or by UID as data or an NSData object ("NS.data").
    std::optional<CF::Data> data_from(value v);
    // The same as views: into the store's bytes where they lie there (the view then lives as long as
    // the store), else into `spare`. A decoder that keeps nothing of the archive makes no objects.
    std::optional<std::string_view> text_from(value v, std::string& spare);
    std::optional<std::span<const uint8_t>> bytes_from(value v);
    // An archived NSDictionary ("NS.keys", "NS.objects") by UID, with its keys and values decoded by
    // decode_value.
    std::optional<CF::Dictionary> dictionary_from(value v);
    // Any archived object by UID as a CoreFoundation value: plain values as they are, NSString,
    // NSData, NSDate, NSArray/NSSet and NSDictionary objects converted; nil for UID 0.
    cf_value decode_value(uint32_t id);
    // The current object, `raw`, read as an NSDictionary ("NS.keys", "NS.objects").
    CF::Dictionary decode_ns_dictionary(value raw);

    // The type of a value for messages: the class name of an archived object, else the property-list
    // type.
    std::string type_name(value v) const;

private:
    class Scope {
    public:
        Scope(basic_keyed_unarchiver& u, uint32_t id) : u_(u) {
            for (size_t i = 0; i < u.depth_; ++i)
                if (u.stack_[i] == id) throw archiver_exceptions::decode_cycle();
            if (u.depth_ >= max_depth) throw archiver_exceptions::nesting_too_deep();
            u.stack_[u.depth_++] = id;
        }
        ~Scope() { --u_.depth_; }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        basic_keyed_unarchiver& u_;
    };

    cf_value plainValue(value v) const;

    const Store& store_;
    value objects_;
    size_t count_;
    // The objects being decoded, outermost first: held in place, as an unarchiver is made per record.
    std::array<uint32_t, max_depth> stack_;
    size_t depth_ = 0;
    const dictionary* current_ = nullptr;
};

using keyed_unarchiver = basic_keyed_unarchiver<cf_plist_store>;
using binary_keyed_unarchiver = basic_keyed_unarchiver<binary_plist_reader>;

}  // namespace Quiver::Support
