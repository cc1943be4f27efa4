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
        case plist_type::dictionary: return "dictionary";
    }
    return "unknown";
}

void binary_plist_reader::malformed(const std::string& what) { throw plist_format_error(what); }

bool binary_plist_reader::has_signature(std::span<const uint8_t> bytes) {
    return bytes.size() >= kHeaderSize && std::memcmp(bytes.data(), "bplist00", kHeaderSize) == 0;
}

std::optional<binary_plist_reader> binary_plist_reader::open(std::span<const uint8_t> bytes, std::string* problem) {
    auto refuse = [&](const std::string& why) -> std::optional<binary_plist_reader> {
        if (problem) *problem = why;
        return std::nullopt;
    };
    if (!has_signature(bytes)) return refuse("no binary property-list signature");
    if (bytes.size() < kHeaderSize + kTrailerSize) return refuse("too short");
    if (bytes.size() > UINT32_MAX) return refuse("too large");
    binary_plist_reader r;
    r.bytes_ = byte_reader(bytes);
    const uint64_t trailer = bytes.size() - kTrailerSize;
    r.offsetSize_ = *r.bytes_.u8(trailer + 6);
    r.refSize_ = *r.bytes_.u8(trailer + 7);
    const uint64_t count = *r.bytes_.be(trailer + 8, 8);
    const uint64_t top = *r.bytes_.be(trailer + 16, 8);
    const uint64_t tableOffset = *r.bytes_.be(trailer + 24, 8);
    if (r.offsetSize_ < 1 || r.offsetSize_ > 8 || r.refSize_ < 1 || r.refSize_ > 8) return refuse("bad trailer sizes");
    // Objects lie between the header and the offset table; the table ends where the trailer begins.
    if (count == 0 || top >= count) return refuse("bad object count");
    if (count > max_objects) return refuse("too many objects");
    if (tableOffset < kHeaderSize || tableOffset > trailer) return refuse("bad offset table position");
    if (count > (trailer - tableOffset) / r.offsetSize_) return refuse("offset table runs past its end");
    r.tableOffset_ = tableOffset;
    r.count_ = static_cast<size_t>(count);
    r.top_ = static_cast<value>(top);
    try {
        r.locate(r.top_);
    } catch (const plist_format_error& e) {
        return refuse(e.what());
    }
    return r;
}

binary_plist_reader::Object binary_plist_reader::locate(value v) const {
    const uint64_t offset = offsetOf(v);
    // The object area ends where the offset table begins; nothing of an object may reach into it.
    const uint64_t end = tableOffset_;
    const uint8_t* base = bytes_.bytes().data();
    const uint8_t marker = base[offset];
    const uint8_t kind = marker >> 4, low = marker & 0x0F;
    uint64_t pos = offset + 1, count = 0, size = 0;
    // The kinds of a keyed archive's records come first: integers and UIDs, then the sized kinds.
    if (kind == kInt) {
        if (low > 4) malformed("bad integer size");
        size = uint64_t{1} << low;
    } else if (kind == kUID) {
        size = uint64_t{low} + 1;
    } else if (kind == kData || kind == kASCII || kind == kUTF16 || kind == kArray || kind == kSet || kind == kDict) {
        count = low;
        if (low == 0x0F) {
            // Lengths of 15 or more follow the marker as an integer object of 1 to 8 bytes.
            const std::optional<uint8_t> intMarker = pos < end ? bytes_.u8(pos) : std::nullopt;
            if (!intMarker || (*intMarker >> 4) != kInt || (*intMarker & 0x0F) > 3) malformed("bad length");
            const unsigned width = 1u << (*intMarker & 0x0F);
            const std::optional<uint64_t> n = pos + 1 + width <= end ? bytes_.be(pos + 1, width) : std::nullopt;
            if (!n) malformed("length runs past the object area");
            count = *n;
            pos += 1 + width;
        }
        // A count beyond the object area is refused before it is multiplied, so nothing overflows.
        if (count > end) malformed("object runs past the object area");
        const uint64_t unit = kind == kUTF16 ? 2 : kind == kDict ? 2 * refSize_ : kind >= kArray ? refSize_ : 1;
        size = count * unit;
    } else if (kind == kSimple) {
        if (marker != 0x00 && marker != 0x08 && marker != 0x09) malformed("unknown marker");
    } else if (kind == kReal) {
        if (low != 2 && low != 3) malformed("bad real size");
        size = uint64_t{1} << low;
    } else if (kind == kDate) {
        if (marker != 0x33) malformed("bad date marker");
        size = 8;
    } else {
        malformed("unknown marker");
    }
    if (size > end - pos) malformed("object runs past the object area");
    return Object{static_cast<uint32_t>(pos), static_cast<uint32_t>(size), static_cast<uint32_t>(count), marker};
}

void binary_plist_reader::badOffset() { malformed("object offset outside the object area"); }
void binary_plist_reader::badMarker() { malformed("unknown marker"); }

void binary_plist_reader::badReference(value v) const {
    malformed("reference to object " + std::to_string(v) + " of " + std::to_string(count_));
}

void binary_plist_reader::wrongType(const char* accessor) {
    throw std::logic_error(std::string("binary_plist_reader::") + accessor + " called on a value of another type");
}

bool binary_plist_reader::boolean(value v) const { return expect(v, plist_type::boolean, "boolean").marker == 0x09; }

std::optional<int64_t> binary_plist_reader::integer(value v) const {
    const Object o = expect(v, plist_type::integer, "integer");
    const uint8_t* p = bytes_.bytes().data() + o.payload;
    if (o.size <= 8) return static_cast<int64_t>(byte_reader::unchecked_be(p, static_cast<unsigned>(o.size)));
    return static_cast<int64_t>(byte_reader::unchecked_be(p + 8, 8));
}

bool binary_plist_reader::read_integer(value v, int64_t& out) const {
    const uint64_t offset = offsetOf(v);
    const uint8_t* p = bytes_.bytes().data() + offset;
    if ((*p >> 4) != kInt) {
        if (!knownMarker(*p)) badMarker();
        return false;
    }
    const unsigned low = *p & 0x0F;
    if (low > 4) malformed("bad integer size");
    const unsigned size = 1u << low;
    if (size > tableOffset_ - offset - 1) malformed("object runs past the object area");
    out = static_cast<int64_t>(size <= 8 ? byte_reader::unchecked_be(p + 1, size) : byte_reader::unchecked_be(p + 9, 8));
    return true;
}

double binary_plist_reader::real(value v) const {
    const Object o = at(v);
    const plist_type t = typeOf(o.marker);
    if (t != plist_type::real && t != plist_type::date)
        throw std::logic_error("binary_plist_reader::real called on a value of another type");
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
    for (size_t i = 0; i + 4 < o.size; ++i)
        if (p[i] != 0) malformed("UID value out of range");
    const unsigned width = o.size < 4 ? o.size : 4;
    return static_cast<uint32_t>(byte_reader::unchecked_be(p + o.size - width, width));
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

std::string_view binary_plist_reader::utf8(value v, std::string& spare) const {
    const Object o = expect(v, plist_type::string, "string");
    const uint8_t* p = bytes_.bytes().data() + o.payload;
    if ((o.marker >> 4) == kASCII) {
        bool ascii = true;
        for (size_t i = 0; i < o.size && ascii; ++i) ascii = p[i] < 0x80;
        if (ascii) return {reinterpret_cast<const char*>(p), static_cast<size_t>(o.size)};
    }
    spare = string(v).utf8();  // validates, as making the string does
    return spare;
}

bool binary_plist_reader::string_equals(value v, std::string_view ascii) const {
    const Object o = at(v);
    return typeOf(o.marker) == plist_type::string && equalsASCII(o, ascii);
}

bool binary_plist_reader::equalsASCII(const Object& o, std::string_view ascii) const {
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
    const Object o = at(v);
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
    const Object o = at(v);
    const uint8_t kind = o.marker >> 4;
    if (kind != kArray && kind != kSet)
        throw std::logic_error("binary_plist_reader::element called on a value that is not an array");
    if (i >= o.count) throw std::out_of_range("binary_plist_reader::element index out of range");
    return ref_at(o.payload + uint64_t{i} * refSize_);
}

binary_plist_reader::value binary_plist_reader::dictionary::key_object(size_t i) const {
    const value k = reader_->ref_at(payload_ + uint64_t{i} * reader_->refSize_);
    const uint8_t kind = reader_->markerOf(k) >> 4;
    if (kind != kASCII && kind != kUTF16) malformed("dictionary key is not a string");
    return k;
}

std::string_view binary_plist_reader::dictionary::key(size_t i) const {
    const value k = reader_->ref_at(payload_ + uint64_t{i} * reader_->refSize_);
    const Object o = reader_->at(k);
    if ((o.marker >> 4) == kASCII)
        return {reinterpret_cast<const char*>(reader_->bytes_.bytes().data() + o.payload), o.size};
    if ((o.marker >> 4) != kUTF16) malformed("dictionary key is not a string");
    // Kept with the view; the string's own UTF-8 bytes, NUL characters included.
    const CF::String s = reader_->string(k);
    const CFIndex length = CFStringGetLength(s.get());
    CFIndex used = 0;
    CFStringGetBytes(s.get(), CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
    auto& text = *converted_.emplace_back(std::make_unique<std::string>(static_cast<size_t>(used), '\0'));
    CFStringGetBytes(s.get(), CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false,
                     reinterpret_cast<UInt8*>(text.data()), used, &used);
    return text;
}

binary_plist_reader::value binary_plist_reader::dictionary::find(std::string_view key) const {
    for (size_t i = count_; i-- > 0;) {
        // One look at each key: the check that it is a string and the comparison.
        const Object o = reader_->at(reader_->ref_at(payload_ + uint64_t{i} * reader_->refSize_));
        const uint8_t kind = o.marker >> 4;
        if (kind != kASCII && kind != kUTF16) malformed("dictionary key is not a string");
        if (reader_->equalsASCII(o, key)) return value_at(i);
    }
    return none;
}

binary_plist_reader::dictionary binary_plist_reader::open_dictionary(value v) const {
    const Object o = expect(v, plist_type::dictionary, "open_dictionary");
    return dictionary(*this, o.payload, o.count);
}

}  // namespace Quiver::Support
