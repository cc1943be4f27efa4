#include "Quiver/Support/BinaryPlistReader.hpp"

#include <cstring>

namespace Quiver::Support {

namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

// Object kinds by the high nibble of the marker byte.
enum : uint8_t {
    kSimple = 0x0,  // null 0x00, false 0x08, true 0x09
    kInt = 0x1,
    kReal = 0x2,
    kDate = 0x3,
    kData = 0x4,
    kASCII = 0x5,
    kUTF16 = 0x6,
    kUID = 0x8,
    kArray = 0xA,
    kSet = 0xC,
    kDict = 0xD,
};

}  // namespace

std::string_view to_string(plist_type type) {
    switch (type) {
        case plist_type::null: return "null";
        case plist_type::boolean: return "boolean";
        case plist_type::integer: return "integer";
        case plist_type::real: return "real";
        case plist_type::date: return "date";
        case plist_type::data: return "data";
        case plist_type::string: return "string";
        case plist_type::uid: return "uid";
        case plist_type::array: return "array";
        case plist_type::set: return "set";
        case plist_type::dictionary: return "dictionary";
    }
    return "unknown";
}

void binary_plist_reader::malformed(const std::string& what) { throw plist_format_error(what); }

bool binary_plist_reader::has_signature(std::span<const uint8_t> bytes) {
    return bytes.size() >= kHeaderSize && std::memcmp(bytes.data(), "bplist00", kHeaderSize) == 0;
}

std::optional<binary_plist_reader> binary_plist_reader::open(std::span<const uint8_t> bytes) {
    if (!has_signature(bytes) || bytes.size() < kHeaderSize + kTrailerSize) return std::nullopt;
    binary_plist_reader r;
    r.bytes_ = byte_reader(bytes);
    const uint64_t trailer = bytes.size() - kTrailerSize;
    r.offsetSize_ = *r.bytes_.u8(trailer + 6);
    r.refSize_ = *r.bytes_.u8(trailer + 7);
    const uint64_t count = *r.bytes_.be(trailer + 8, 8);
    const uint64_t top = *r.bytes_.be(trailer + 16, 8);
    const uint64_t tableOffset = *r.bytes_.be(trailer + 24, 8);
    if (r.offsetSize_ < 1 || r.offsetSize_ > 8 || r.refSize_ < 1 || r.refSize_ > 8) return std::nullopt;
    // Objects lie between the header and the offset table; the table ends where the trailer begins.
    if (count == 0 || count >= none || top >= count) return std::nullopt;
    if (tableOffset < kHeaderSize || tableOffset > trailer) return std::nullopt;
    if (count > (trailer - tableOffset) / r.offsetSize_) return std::nullopt;
    r.tableOffset_ = tableOffset;
    r.count_ = static_cast<size_t>(count);
    r.top_ = static_cast<value>(top);
    return r;
}

binary_plist_reader::Object binary_plist_reader::locate(value v) const {
    if (v >= count_) malformed("reference to object " + std::to_string(v) + " of " + std::to_string(count_));
    // In range by open(): the whole table lies before the trailer.
    const uint64_t offset = *bytes_.be(tableOffset_ + uint64_t{v} * offsetSize_, offsetSize_);
    if (offset < kHeaderSize || offset >= tableOffset_) malformed("object offset outside the object area");
    // The object area ends where the offset table begins; nothing of an object may reach into it.
    const byte_reader area(bytes_.bytes().first(static_cast<size_t>(tableOffset_)));
    Object o{};
    o.marker = *area.u8(offset);
    uint64_t pos = offset + 1;
    const uint8_t kind = o.marker >> 4, low = o.marker & 0x0F;

    // Lengths of 15 or more follow the marker as an integer object.
    auto length = [&]() -> uint64_t {
        if (low != 0x0F) return low;
        auto intMarker = area.u8(pos);
        if (!intMarker || (*intMarker >> 4) != kInt || (*intMarker & 0x0F) > 3) malformed("bad length");
        const unsigned width = 1u << (*intMarker & 0x0F);
        auto n = area.be(pos + 1, width);
        if (!n) malformed("length runs past the object area");
        pos += 1 + width;
        return *n;
    };
    auto times = [&](uint64_t n, uint64_t unit) -> uint64_t {
        if (n > UINT64_MAX / unit) malformed("object size overflows");
        return n * unit;
    };

    switch (kind) {
        case kSimple:
            if (o.marker != 0x00 && o.marker != 0x08 && o.marker != 0x09) malformed("unknown marker");
            o.size = 0;
            break;
        case kInt:
            if (low > 4) malformed("bad integer size");
            o.size = uint64_t{1} << low;
            break;
        case kReal:
            if (low != 2 && low != 3) malformed("bad real size");
            o.size = uint64_t{1} << low;
            break;
        case kDate:
            if (o.marker != 0x33) malformed("bad date marker");
            o.size = 8;
            break;
        case kData:
        case kASCII:
            o.count = length();
            o.size = o.count;
            break;
        case kUTF16:
            o.count = length();
            o.size = times(o.count, 2);
            break;
        case kUID:
            o.size = uint64_t{low} + 1;
            break;
        case kArray:
        case kSet:
            o.count = length();
            o.size = times(o.count, refSize_);
            break;
        case kDict:
            o.count = length();
            o.size = times(times(o.count, 2), refSize_);
            break;
        default:
            malformed("unknown marker");
    }
    if (!area.contains(pos, o.size)) malformed("object runs past the object area");
    o.payload = pos;
    return o;
}

plist_type binary_plist_reader::type(value v) const {
    const Object o = locate(v);
    switch (o.marker >> 4) {
        case kSimple: return o.marker == 0x00 ? plist_type::null : plist_type::boolean;
        case kInt: return plist_type::integer;
        case kReal: return plist_type::real;
        case kDate: return plist_type::date;
        case kData: return plist_type::data;
        case kASCII:
        case kUTF16: return plist_type::string;
        case kUID: return plist_type::uid;
        case kArray: return plist_type::array;
        case kSet: return plist_type::set;
        default: return plist_type::dictionary;  // locate() admits no other marker
    }
}

binary_plist_reader::Object binary_plist_reader::expect(value v, plist_type type, const char* accessor) const {
    if (this->type(v) != type) throw std::logic_error(std::string("binary_plist_reader::") + accessor +
                                                      " called on a value of another type");
    return locate(v);
}

bool binary_plist_reader::boolean(value v) const { return expect(v, plist_type::boolean, "boolean").marker == 0x09; }

std::optional<int64_t> binary_plist_reader::integer(value v) const {
    const Object o = expect(v, plist_type::integer, "integer");
    const uint8_t* p = bytes_.bytes().data() + o.payload;
    if (o.size <= 8) return static_cast<int64_t>(byte_reader::unchecked_be(p, static_cast<unsigned>(o.size)));
    // 16 bytes: a 128-bit two's complement value, which fits when its high half only extends the sign
    // of the low half (or is zero, the form in which unsigned 64-bit values are written).
    const uint64_t high = byte_reader::unchecked_be(p, 8), low = byte_reader::unchecked_be(p + 8, 8);
    if (high == 0 || (high == UINT64_MAX && (low >> 63) != 0)) return static_cast<int64_t>(low);
    return std::nullopt;
}

double binary_plist_reader::real(value v) const {
    const plist_type t = type(v);
    if (t != plist_type::real && t != plist_type::date) throw std::logic_error("binary_plist_reader::real called on a value of another type");
    const Object o = locate(v);
    const uint64_t bits = byte_reader::unchecked_be(bytes_.bytes().data() + o.payload, static_cast<unsigned>(o.size));
    if (o.size == 4) {
        float f;
        const auto b32 = static_cast<uint32_t>(bits);
        std::memcpy(&f, &b32, sizeof f);
        return f;
    }
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

uint32_t binary_plist_reader::uid(value v) const {
    const Object o = expect(v, plist_type::uid, "uid");
    const uint8_t* p = bytes_.bytes().data() + o.payload;
    // Keyed archives number their objects with 32 bits; wider UIDs are refused as CoreFoundation does.
    const size_t size = static_cast<size_t>(o.size);
    for (size_t i = 0; i + 4 < size; ++i)
        if (p[i] != 0) malformed("UID value out of range");
    const unsigned width = size < 4 ? static_cast<unsigned>(size) : 4;
    return static_cast<uint32_t>(byte_reader::unchecked_be(p + size - width, width));
}

CF::String binary_plist_reader::string(value v) const {
    const Object o = expect(v, plist_type::string, "string");
    const uint8_t* p = bytes_.bytes().data() + o.payload;
    CFStringRef s = (o.marker >> 4) == kASCII
                        ? CFStringCreateWithBytes(kCFAllocatorDefault, p, static_cast<CFIndex>(o.size),
                                                  kCFStringEncodingUTF8, false)
                        : CFStringCreateWithBytes(kCFAllocatorDefault, p, static_cast<CFIndex>(o.size),
                                                  kCFStringEncodingUTF16BE, false);
    if (!s) malformed("string is not valid text");
    return CF::String::Adopt(s);
}

bool binary_plist_reader::string_equals(value v, std::string_view ascii) const {
    if (type(v) != plist_type::string) return false;
    const Object o = locate(v);
    const uint8_t* p = bytes_.bytes().data() + o.payload;
    if (o.count != ascii.size()) return false;
    if ((o.marker >> 4) == kASCII) return std::memcmp(p, ascii.data(), ascii.size()) == 0;
    for (size_t i = 0; i < ascii.size(); ++i)
        if (p[2 * i] != 0 || p[2 * i + 1] != static_cast<uint8_t>(ascii[i])) return false;
    return true;
}

std::span<const uint8_t> binary_plist_reader::data_bytes(value v) const {
    const Object o = expect(v, plist_type::data, "data_bytes");
    return bytes_.bytes().subspan(static_cast<size_t>(o.payload), static_cast<size_t>(o.size));
}

size_t binary_plist_reader::count(value v) const {
    const Object o = locate(v);
    const uint8_t kind = o.marker >> 4;
    if (kind != kArray && kind != kSet && kind != kDict)
        throw std::logic_error("binary_plist_reader::count called on a value that is not a collection");
    return static_cast<size_t>(o.count);
}

binary_plist_reader::value binary_plist_reader::ref_at(uint64_t offset) const {
    const uint64_t ref = byte_reader::unchecked_be(bytes_.bytes().data() + offset, refSize_);
    if (ref >= count_) malformed("reference to object " + std::to_string(ref) + " of " + std::to_string(count_));
    return static_cast<value>(ref);
}

binary_plist_reader::value binary_plist_reader::element(value v, size_t i) const {
    const Object o = locate(v);
    const uint8_t kind = o.marker >> 4;
    if (kind != kArray && kind != kSet)
        throw std::logic_error("binary_plist_reader::element called on a value that is not an array");
    if (i >= o.count) throw std::out_of_range("binary_plist_reader::element index out of range");
    return ref_at(o.payload + uint64_t{i} * refSize_);
}

void binary_plist_reader::dictionary::push(std::string_view key, value v) {
    if (size_ < kInline) {
        inline_[size_] = Entry{key, v};
    } else {
        overflow_.push_back(Entry{key, v});
    }
    ++size_;
}

binary_plist_reader::value binary_plist_reader::dictionary::find(std::string_view key) const {
    for (size_t i = size_; i-- > 0;) {
        const Entry& e = entry(i);
        if (e.key.size() == key.size() && std::memcmp(e.key.data(), key.data(), key.size()) == 0) return e.object;
    }
    return none;
}

binary_plist_reader::dictionary binary_plist_reader::open_dictionary(value v) const {
    const Object o = expect(v, plist_type::dictionary, "open_dictionary");
    dictionary d;
    if (o.count > dictionary::kInline) d.overflow_.reserve(static_cast<size_t>(o.count) - dictionary::kInline);
    const uint64_t valuesAt = o.payload + o.count * refSize_;
    for (uint64_t i = 0; i < o.count; ++i) {
        const value k = ref_at(o.payload + i * refSize_);
        const value val = ref_at(valuesAt + i * refSize_);
        const Object ko = locate(k);
        const uint8_t* p = bytes_.bytes().data() + ko.payload;
        const size_t size = static_cast<size_t>(ko.size);
        // Keys are strings without NUL characters, as CoreFoundation requires of every dictionary.
        if ((ko.marker >> 4) == kASCII) {
            if (std::memchr(p, 0, size)) malformed("dictionary key holds a NUL character");
            d.push(std::string_view(reinterpret_cast<const char*>(p), size), val);
        } else if ((ko.marker >> 4) == kUTF16) {
            CF::String s = string(k);
            auto utf8 = std::make_unique<std::string>(s.utf8());
            if (utf8->find('\0') != std::string::npos) malformed("dictionary key holds a NUL character");
            d.push(*utf8, val);
            d.converted_.push_back(std::move(utf8));
        } else {
            malformed("dictionary key is not a string");
        }
    }
    return d;
}

}  // namespace Quiver::Support
