#include "Quiver/Support/KeyedArchiver.hpp"

#include <CoreFoundation/CFPropertyList.h>

#include <algorithm>
#include <cstring>

#include "Quiver/CF/Date.hpp"

namespace Quiver::Support {

using namespace archiver_exceptions;

std::string_view cfTypeName(CFTypeRef v) {
    if (!v) return "null";
    const CFTypeID t = CFGetTypeID(v);
    if (t == CFStringGetTypeID()) return "string";
    if (t == CFDataGetTypeID()) return "data";
    if (t == CFNumberGetTypeID()) return CFNumberIsFloatType(static_cast<CFNumberRef>(v)) ? "real" : "integer";
    if (t == CFBooleanGetTypeID()) return "boolean";
    if (t == CFDateGetTypeID()) return "date";
    if (t == CFArrayGetTypeID()) return "array";
    if (t == CFDictionaryGetTypeID()) return "dictionary";
    if (t == _CFKeyedArchiverUIDGetTypeID()) return "uid";
    if (t == CFNullGetTypeID()) return "null";
    return "unknown";
}

namespace {

constexpr int64_t kArchiveVersion = 100000;

cf_value uidValue(uint32_t id) { return cf_value::Adopt(_CFKeyedArchiverUIDCreate(kCFAllocatorDefault, id)); }

CF::Array stringArray(std::initializer_list<std::string_view> names) {
    CF::Array array = CF::Array::CreateMutable();
    for (std::string_view name : names) array.Append(CF::String(name));
    return array;
}

// The UTF-8 bytes of a CoreFoundation string: in place when the implementation keeps them (the
// returned view then lives as long as the string), else copied into `spare`.
std::string_view utf8View(CFStringRef s, std::string& spare) {
    CFIndex used = 0;
    const CFIndex length = CFStringGetLength(s);
    CFStringGetBytes(s, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
    if (const char* p = CFStringGetCStringPtr(s, kCFStringEncodingUTF8)) return {p, static_cast<size_t>(used)};
    spare.assign(static_cast<size_t>(used), '\0');
    CFStringGetBytes(s, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false,
                     reinterpret_cast<UInt8*>(spare.data()), used, &used);
    return spare;
}

bool keepsUTF8(CFStringRef s) { return CFStringGetCStringPtr(s, kCFStringEncodingUTF8) != nullptr; }

}  // namespace

uint64_t fnv1a_64(const void* bytes, size_t length) {
    uint64_t h = 0xcbf29ce484222325ULL;
    const auto* p = static_cast<const unsigned char*>(bytes);
    for (size_t i = 0; i < length; ++i) {
        h ^= p[i];
        h *= 0x100000001b3ULL;
    }
    return h;
}

// ---- keyed_archiver ----

keyed_archiver::keyed_archiver() : top_(CF::Dictionary::CreateMutable()) {
    objects_.push_back(cf_value::Retain(CFSTR("$null")));
}

keyed_archiver::~keyed_archiver() = default;

void keyed_archiver::_checkOpen() const {
    if (finished_) throw std::logic_error("keyed_archiver used after finishEncoding");
}

CF::Dictionary& keyed_archiver::_current() { return open_.empty() ? top_ : open_.back().object; }

keyed_archiver::uid keyed_archiver::_newSlot() {
    if (objects_.size() >= UINT32_MAX) throw std::length_error("keyed_archiver: too many objects");
    objects_.emplace_back();
    return static_cast<uid>(objects_.size() - 1);
}

std::optional<keyed_archiver::uid> keyed_archiver::_referenceObject(const void* identity, bool conditional) {
    if (identity) {
        auto it = known_.find(identity);
        if (it != known_.end()) return it->second;
    }
    // Only unconditional references bring an object into the archive.
    if (conditional) return std::nullopt;
    const uid id = _newSlot();
    if (identity) known_.emplace(identity, id);
    return id;
}

void keyed_archiver::set(std::string_view key, std::optional<uid> value) {
    _checkOpen();
    if (!value) throw nullopt_uid();
    _current().Set(key, uidValue(*value));
}

std::pair<keyed_archiver::uid, bool> keyed_archiver::_beginObject(const void* identity,
                                                                   std::initializer_list<std::string_view> classes) {
    _checkOpen();
    if (identity) {
        auto it = known_.find(identity);
        if (it != known_.end()) return {it->second, false};
    }
    std::optional<uid> id = _referenceObject(identity, false);
    if (!id) throw missing_reference();
    CF::Dictionary object = CF::Dictionary::CreateMutable();
    objects_[*id] = cf_value::Retain(object.get());
    const uid classId = class_uid(classes);
    open_.push_back(Open{std::move(object), *id, classId});
    return {*id, true};
}

void keyed_archiver::_endObject() {
    Open& o = open_.back();
    o.object.Set("$class", uidValue(o.classId));
    open_.pop_back();
}

void keyed_archiver::_abandonObject() { open_.pop_back(); }

void keyed_archiver::encode_conditional_object(std::string_view key, const void* identity) {
    _checkOpen();
    set(key, _referenceObject(identity, true).value_or(0));
}

void keyed_archiver::encode_int32(std::string_view key, int32_t value) {
    _checkOpen();
    _current().Set(key, CF::Number(value));
}

void keyed_archiver::encode_int64(std::string_view key, int64_t value) {
    _checkOpen();
    _current().Set(key, CF::Number(value));
}

void keyed_archiver::encode_double(std::string_view key, double value) {
    _checkOpen();
    _current().Set(key, CF::Number(value));
}

void keyed_archiver::encode_bool(std::string_view key, bool value) {
    _checkOpen();
    _current().Set(key, value ? kCFBooleanTrue : kCFBooleanFalse);
}

void keyed_archiver::encode_number(std::string_view key, CFNumberRef value) {
    _checkOpen();
    if (!value) throw unsupported_value("null");
    _current().Set(key, value);
}

void keyed_archiver::encode_string(std::string_view key, CFStringRef value) {
    _checkOpen();
    set(key, value ? _appendValue(value) : 0);
}

void keyed_archiver::encode_data(std::string_view key, CFDataRef value) {
    _checkOpen();
    set(key, value ? _appendValue(value) : 0);
}

void keyed_archiver::encode_inline_data(std::string_view key, CFDataRef value) {
    _checkOpen();
    if (!value) throw unsupported_value("null");
    _current().Set(key, value);
}

void keyed_archiver::encode_dictionary(std::string_view key, CFDictionaryRef value) {
    _checkOpen();
    set(key, value ? _appendValue(value) : 0);
}

void keyed_archiver::encode_array(std::string_view key, CFArrayRef value) {
    _checkOpen();
    set(key, value ? _appendValue(value) : 0);
}

keyed_archiver::uid keyed_archiver::class_uid(std::initializer_list<std::string_view> classes) {
    _checkOpen();
    if (classes.size() == 0) throw std::logic_error("keyed_archiver: a class needs a name");
    std::string name(*classes.begin());
    auto it = classes_.find(name);
    if (it != classes_.end()) return it->second;
    const uid id = _newSlot();
    CF::Dictionary description = CF::Dictionary::CreateMutable();
    description.Set("$classname", CF::String(name));
    description.Set("$classes", stringArray(classes));
    objects_[id] = cf_value::Retain(description.get());
    classes_.emplace(std::move(name), id);
    return id;
}

keyed_archiver::uid keyed_archiver::_appendValue(CFTypeRef value) {
    if (!value || CFGetTypeID(value) == CFNullGetTypeID()) return 0;
    const CFTypeID t = CFGetTypeID(value);
    if (t == CFStringGetTypeID() || t == CFDataGetTypeID() || t == CFNumberGetTypeID() || t == CFBooleanGetTypeID()) {
        if (auto known = _referenceObject(value, true)) return *known;
        const uid id = *_referenceObject(value, false);
        objects_[id] = cf_value::Retain(value);
        return id;
    }
    if (t == CFDictionaryGetTypeID() || t == CFArrayGetTypeID() || t == CFDateGetTypeID())
        return _appendCollection(value, value);
    throw unsupported_value(cfTypeName(value));
}

keyed_archiver::uid keyed_archiver::_appendCollection(const void* identity, CFTypeRef value) {
    if (auto known = _referenceObject(identity, true)) return *known;
    const uid id = *_referenceObject(identity, false);
    CF::Dictionary object = CF::Dictionary::CreateMutable();
    // The slot is filled before the members are archived, so that a collection that contains itself
    // refers to its own UID instead of recursing.
    objects_[id] = cf_value::Retain(object.get());
    const CFTypeID t = CFGetTypeID(value);
    if (t == CFDictionaryGetTypeID()) {
        CF::Dictionary dict = CF::Dictionary::Retain(static_cast<CFDictionaryRef>(value));
        CF::Array keys = CF::Array::CreateMutable(), values = CF::Array::CreateMutable();
        for (const auto& [k, v] : dict.Entries()) {
            keys.Append(uidValue(_appendValue(k)));
            values.Append(uidValue(_appendValue(v)));
        }
        object.Set("NS.keys", keys);
        object.Set("NS.objects", values);
        object.Set("$class", uidValue(class_uid({"NSDictionary", "NSObject"})));
    } else if (t == CFArrayGetTypeID()) {
        CF::Array array = CF::Array::Retain(static_cast<CFArrayRef>(value));
        CF::Array values = CF::Array::CreateMutable();
        for (CFTypeRef v : array) values.Append(uidValue(_appendValue(v)));
        object.Set("NS.objects", values);
        object.Set("$class", uidValue(class_uid({"NSArray", "NSObject"})));
    } else {
        object.Set("NS.time", CF::Number(CFDateGetAbsoluteTime(static_cast<CFDateRef>(value))));
        object.Set("$class", uidValue(class_uid({"NSDate", "NSObject"})));
    }
    return id;
}

CF::Dictionary keyed_archiver::finishEncoding() {
    _checkOpen();
    if (!open_.empty()) throw std::logic_error("keyed_archiver::finishEncoding with an object still open");
    CF::Array objects = CF::Array::CreateMutable();
    for (const cf_value& o : objects_) {
        if (!o) throw std::logic_error("keyed_archiver: an object UID was reserved but never filled");
        objects.Append(o.get());
    }
    CF::Dictionary archive = CF::Dictionary::CreateMutable();
    archive.Set("$archiver", CF::String("NSKeyedArchiver"));
    archive.Set("$version", CF::Number(kArchiveVersion));
    archive.Set("$top", top_);
    archive.Set("$objects", objects);
    finished_ = true;
    objects_.clear();
    known_.clear();
    classes_.clear();
    return archive;
}

// ---- cf_plist_store ----

plist_type cf_plist_store::type(value v) const {
    if (!v) throw std::logic_error("cf_plist_store::type of no value");
    const CFTypeID t = CFGetTypeID(v);
    if (t == CFStringGetTypeID()) return plist_type::string;
    if (t == CFDataGetTypeID()) return plist_type::data;
    if (t == CFNumberGetTypeID())
        return CFNumberIsFloatType(static_cast<CFNumberRef>(v)) ? plist_type::real : plist_type::integer;
    if (t == CFBooleanGetTypeID()) return plist_type::boolean;
    if (t == CFDateGetTypeID()) return plist_type::date;
    if (t == CFArrayGetTypeID()) return plist_type::array;
    if (t == CFDictionaryGetTypeID()) return plist_type::dictionary;
    if (t == _CFKeyedArchiverUIDGetTypeID()) return plist_type::uid;
    return plist_type::null;
}

bool cf_plist_store::boolean(value v) const { return CFBooleanGetValue(static_cast<CFBooleanRef>(v)); }

std::optional<int64_t> cf_plist_store::integer(value v) const {
    int64_t n = 0;
    CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberSInt64Type, &n);
    return n;
}

bool cf_plist_store::read_integer(value v, int64_t& out) const {
    if (type(v) != plist_type::integer) return false;
    out = *integer(v);
    return true;
}

double cf_plist_store::real(value v) const {
    if (CFGetTypeID(v) == CFDateGetTypeID()) return CFDateGetAbsoluteTime(static_cast<CFDateRef>(v));
    double d = 0;
    CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberFloat64Type, &d);
    return d;
}

uint32_t cf_plist_store::uid(value v) const {
    return _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(v));
}

CF::String cf_plist_store::string(value v) const { return CF::String::Retain(static_cast<CFStringRef>(v)); }

bool cf_plist_store::string_equals(value v, std::string_view ascii) const {
    if (!v || CFGetTypeID(v) != CFStringGetTypeID()) return false;
    std::string spare;
    return utf8View(static_cast<CFStringRef>(v), spare) == ascii;
}

std::string_view cf_plist_store::utf8(value v, std::string& spare) const {
    return utf8View(static_cast<CFStringRef>(v), spare);
}

std::span<const uint8_t> cf_plist_store::data_bytes(value v) const {
    auto d = static_cast<CFDataRef>(v);
    return {CFDataGetBytePtr(d), static_cast<size_t>(CFDataGetLength(d))};
}

CF::Data cf_plist_store::data(value v) const { return CF::Data::Retain(static_cast<CFDataRef>(v)); }

size_t cf_plist_store::count(value v) const {
    if (CFGetTypeID(v) == CFDictionaryGetTypeID()) return static_cast<size_t>(CFDictionaryGetCount(static_cast<CFDictionaryRef>(v)));
    return static_cast<size_t>(CFArrayGetCount(static_cast<CFArrayRef>(v)));
}

cf_plist_store::value cf_plist_store::element(value v, size_t i) const {
    return CFArrayGetValueAtIndex(static_cast<CFArrayRef>(v), static_cast<CFIndex>(i));
}

cf_plist_store::value cf_plist_store::dictionary::find(std::string_view key) const {
    for (size_t i = entries_.size(); i-- > 0;)
        if (entries_[i].first == key) return entries_[i].second;
    return none;
}

cf_plist_store::dictionary cf_plist_store::open_dictionary(value v) const {
    auto dict = static_cast<CFDictionaryRef>(v);
    const auto n = static_cast<size_t>(CFDictionaryGetCount(dict));
    std::vector<const void*> keys(n), values(n);
    if (n) CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
    dictionary d;
    d.entries_.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        if (!keys[i] || CFGetTypeID(keys[i]) != CFStringGetTypeID()) continue;
        auto s = static_cast<CFStringRef>(keys[i]);
        std::string spare;
        std::string_view key = utf8View(s, spare);
        if (!keepsUTF8(s)) key = d.converted_.emplace_back(std::move(spare));
        d.entries_.emplace_back(key, values[i]);
    }
    return d;
}

// ---- Reading ----

namespace detail {

template <class Store>
std::optional<uint32_t> extract_uid(const Store& store, typename Store::value v) {
    if (v == Store::none) return std::nullopt;
    const plist_type t = store.type(v);
    if (t == plist_type::uid) return store.uid(v);
    if (t != plist_type::dictionary) return std::nullopt;
    const auto d = store.open_dictionary(v);
    if (d.size() != 1 || d.key(0) != "CF$UID") return std::nullopt;
    const auto n = d.value_at(0);
    if (store.type(n) != plist_type::integer) return std::nullopt;
    const auto id = store.integer(n);
    if (!id || *id < 0 || *id > int64_t{UINT32_MAX}) return std::nullopt;
    return static_cast<uint32_t>(*id);
}

template std::optional<uint32_t> extract_uid(const cf_plist_store&, cf_plist_store::value);
template std::optional<uint32_t> extract_uid(const binary_plist_reader&, binary_plist_reader::value);

}  // namespace detail

template <class Store>
archive_top<Store> check_archive(const Store& store, typename Store::value top) {
    // One pass over the keys (the last of equal keys counts, as in a dictionary).
    const auto d = store.open_dictionary(top);
    auto archiver = Store::none, version = Store::none, topObject = Store::none, objects = Store::none;
    for (size_t i = 0; i < d.size(); ++i) {
        const std::string_view key = d.key(i);
        if (key == "$archiver") archiver = d.value_at(i);
        else if (key == "$version") version = d.value_at(i);
        else if (key == "$top") topObject = d.value_at(i);
        else if (key == "$objects") objects = d.value_at(i);
    }
    if (archiver == Store::none || !store.string_equals(archiver, "NSKeyedArchiver")) throw invalid_creator();
    if (version == Store::none) throw missing_version();
    if (store.type(version) != plist_type::integer) throw unknown_version(std::nullopt);
    const std::optional<int64_t> number = store.integer(version);
    if (number != kArchiveVersion) throw unknown_version(number);
    if (topObject == Store::none) throw missing_top();
    if (objects == Store::none || store.type(objects) != plist_type::array) throw missing_objects();
    if (store.type(topObject) != plist_type::dictionary) throw missing_root();
    const auto root = detail::extract_uid(store, store.open_dictionary(topObject).find("root"));
    if (!root) throw missing_root();
    return {objects, *root};
}

template archive_top<cf_plist_store> check_archive(const cf_plist_store&, cf_plist_store::value);
template archive_top<binary_plist_reader> check_archive(const binary_plist_reader&, binary_plist_reader::value);

template <class Store>
basic_keyed_unarchiver<Store>::basic_keyed_unarchiver(const Store& store, value objects)
    : store_(store), objects_(objects) {
    if (objects == Store::none || store.type(objects) != plist_type::array) throw missing_objects();
    count_ = store.count(objects);
}

template <class Store>
typename basic_keyed_unarchiver<Store>::value basic_keyed_unarchiver<Store>::object_at(uint32_t id) const {
    if (id >= count_) throw uid_out_of_range(id, count_);
    return store_.element(objects_, id);
}

template <class Store>
const typename basic_keyed_unarchiver<Store>::dictionary& basic_keyed_unarchiver<Store>::current() const {
    if (!current_) throw std::logic_error("keyed_unarchiver: no object is being decoded");
    return *current_;
}

template <class Store>
std::string basic_keyed_unarchiver<Store>::class_name() const {
    const auto id = detail::extract_uid(store_, raw_value("$class"));
    if (!id || *id == 0 || *id >= count_) return {};
    const value description = store_.element(objects_, *id);
    if (store_.type(description) != plist_type::dictionary) return {};
    const value name = store_.open_dictionary(description).find("$classname");
    if (name == Store::none || store_.type(name) != plist_type::string) return {};
    return store_.string(name).utf8();
}

template <class Store>
std::string basic_keyed_unarchiver<Store>::type_name(value v) const {
    if (v == Store::none) return "null";
    const plist_type t = store_.type(v);
    if (t == plist_type::dictionary) {
        // {"CF$UID": n} is how XML archives write a UID.
        if (detail::extract_uid(store_, v)) return std::string(to_string(plist_type::uid));
        const auto id = detail::extract_uid(store_, store_.open_dictionary(v).find("$class"));
        if (id && *id != 0 && *id < count_) {
            const value description = store_.element(objects_, *id);
            if (store_.type(description) == plist_type::dictionary) {
                const value name = store_.open_dictionary(description).find("$classname");
                if (name != Store::none && store_.type(name) == plist_type::string) return store_.string(name).utf8();
            }
        }
    }
    return std::string(to_string(t));
}

template <class Store>
std::optional<int64_t> basic_keyed_unarchiver<Store>::integer_from(value v, unsigned bits) const {
    if (v == Store::none) return std::nullopt;
    const char* requested = bits == 32 ? "32-bit integer" : "64-bit integer";
    int64_t n = 0;
    if (!store_.read_integer(v, n)) throw cant_decode_as_value(type_name(v), requested);
    if (bits == 32 && (n < INT32_MIN || n > int64_t{UINT32_MAX})) throw cant_decode_as_value("integer", requested);
    return n;
}

template <class Store>
std::optional<std::string_view> basic_keyed_unarchiver<Store>::text_from(value v, std::string& spare) {
    if (v == Store::none) return std::nullopt;
    if (store_.type(v) == plist_type::string) return store_.utf8(v, spare);
    const auto id = detail::extract_uid(store_, v);
    if (!id) throw cant_decode_as_value(type_name(v), "string");
    if (*id == 0) return std::nullopt;
    return decode_object(*id, [&spare](basic_keyed_unarchiver& u, value raw) -> std::optional<std::string_view> {
        const plist_type t = u.store_.type(raw);
        if (t == plist_type::string) return u.store_.utf8(raw, spare);
        if (t == plist_type::dictionary) {
            const value inner = u.raw_value("NS.string");
            if (inner != Store::none) return u.text_from(inner, spare);
        }
        throw cant_decode_as_value(u.type_name(raw), "string");
    });
}

template <class Store>
std::optional<std::span<const uint8_t>> basic_keyed_unarchiver<Store>::bytes_from(value v) {
    if (v == Store::none) return std::nullopt;
    if (store_.type(v) == plist_type::data) return store_.data_bytes(v);
    const auto id = detail::extract_uid(store_, v);
    if (!id) throw cant_decode_as_value(type_name(v), "data");
    if (*id == 0) return std::nullopt;
    return decode_object(*id, [](basic_keyed_unarchiver& u, value raw) -> std::optional<std::span<const uint8_t>> {
        const plist_type t = u.store_.type(raw);
        if (t == plist_type::data) return u.store_.data_bytes(raw);
        if (t == plist_type::dictionary) {
            const value inner = u.raw_value("NS.data");
            if (inner != Store::none) return u.bytes_from(inner);
        }
        throw cant_decode_as_value(u.type_name(raw), "data");
    });
}

template <class Store>
std::optional<CF::String> basic_keyed_unarchiver<Store>::string_from(value v) {
    std::string spare;
    const auto text = text_from(v, spare);
    if (!text) return std::nullopt;
    return CF::String(*text);
}

template <class Store>
std::optional<CF::Data> basic_keyed_unarchiver<Store>::data_from(value v) {
    const auto bytes = bytes_from(v);
    if (!bytes) return std::nullopt;
    return CF::Data(*bytes);
}

template <class Store>
CF::Dictionary basic_keyed_unarchiver<Store>::decode_ns_dictionary(value raw) {
    const value keys = raw_value("NS.keys"), objects = raw_value("NS.objects");
    if (keys == Store::none || objects == Store::none || store_.type(keys) != plist_type::array ||
        store_.type(objects) != plist_type::array)
        throw cant_decode_as_value(type_name(raw), "dictionary");
    const size_t n = store_.count(keys);
    if (store_.count(objects) != n) throw mismatched_collection();
    CF::Dictionary result = CF::Dictionary::CreateMutable();
    for (size_t i = 0; i < n; ++i) {
        const value k = store_.element(keys, i), o = store_.element(objects, i);
        const auto keyId = detail::extract_uid(store_, k), objectId = detail::extract_uid(store_, o);
        if (!keyId) throw cant_decode_as_value(type_name(k), "uid");
        if (!objectId) throw cant_decode_as_value(type_name(o), "uid");
        const cf_value key = decode_value(*keyId), object = decode_value(*objectId);
        // Collections cannot hold nil.
        if (!key || !object) throw cant_decode_as_value("null", "dictionary entry");
        result.Set(key.get(), object.get());
    }
    return result;
}

template <class Store>
std::optional<CF::Dictionary> basic_keyed_unarchiver<Store>::dictionary_from(value v) {
    if (v == Store::none) return std::nullopt;
    const auto id = detail::extract_uid(store_, v);
    if (!id) throw cant_decode_as_value(type_name(v), "dictionary");
    if (*id == 0) return std::nullopt;
    return decode_object(*id, [](basic_keyed_unarchiver& u, value raw) -> std::optional<CF::Dictionary> {
        if (u.store_.type(raw) != plist_type::dictionary) throw cant_decode_as_value(u.type_name(raw), "dictionary");
        return u.decode_ns_dictionary(raw);
    });
}

template <class Store>
cf_value basic_keyed_unarchiver<Store>::plainValue(value v) const {
    switch (store_.type(v)) {
        case plist_type::string: return cf_value::Retain(store_.string(v).get());
        case plist_type::data: return cf_value::Retain(store_.data(v).get());
        case plist_type::boolean: return cf_value::Retain(store_.boolean(v) ? kCFBooleanTrue : kCFBooleanFalse);
        case plist_type::integer: {
            const auto n = store_.integer(v);
            if (!n) throw cant_decode_as_value("integer", "64-bit integer");
            return cf_value::Retain(CF::Number(*n).get());
        }
        case plist_type::real: return cf_value::Retain(CF::Number(store_.real(v)).get());
        case plist_type::date: return cf_value::Retain(CF::Date(store_.real(v)).get());
        default: throw cant_decode_as_value(type_name(v));
    }
}

template <class Store>
cf_value basic_keyed_unarchiver<Store>::decode_value(uint32_t id) {
    if (id == 0) return {};
    return decode_object(id, [](basic_keyed_unarchiver& u, value raw) -> cf_value {
        const plist_type t = u.store_.type(raw);
        if (t != plist_type::dictionary) return u.plainValue(raw);
        if (u.raw_value("NS.keys") != Store::none) return cf_value::Retain(u.decode_ns_dictionary(raw).get());
        if (const value objects = u.raw_value("NS.objects"); objects != Store::none) {
            if (u.store_.type(objects) != plist_type::array) throw cant_decode_as_value(u.type_name(raw));
            CF::Array array = CF::Array::CreateMutable();
            for (size_t i = 0, n = u.store_.count(objects); i < n; ++i) {
                const value element = u.store_.element(objects, i);
                const auto elementId = detail::extract_uid(u.store_, element);
                if (!elementId) throw cant_decode_as_value(u.type_name(element), "uid");
                const cf_value item = u.decode_value(*elementId);
                if (!item) throw cant_decode_as_value("null", "array element");
                array.Append(item.get());
            }
            return cf_value::Retain(array.get());
        }
        if (const value data = u.raw_value("NS.data"); data != Store::none) {
            auto d = u.data_from(data);
            return d ? cf_value::Retain(d->get()) : cf_value();
        }
        if (const value string = u.raw_value("NS.string"); string != Store::none) {
            auto s = u.string_from(string);
            return s ? cf_value::Retain(s->get()) : cf_value();
        }
        if (const value time = u.raw_value("NS.time"); time != Store::none) {
            const plist_type tt = u.store_.type(time);
            if (tt != plist_type::real && tt != plist_type::integer) throw cant_decode_as_value(u.type_name(raw));
            const double at = tt == plist_type::real ? u.store_.real(time) : static_cast<double>(*u.integer_from(time));
            return cf_value::Retain(CF::Date(at).get());
        }
        throw cant_decode_as_value(u.type_name(raw));
    });
}

template class basic_keyed_unarchiver<cf_plist_store>;
template class basic_keyed_unarchiver<binary_plist_reader>;

}  // namespace Quiver::Support
