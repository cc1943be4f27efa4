#include "Quiver/MB/File.hpp"

#include <CoreFoundation/CFPropertyList.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "Quiver/CF/Empty.hpp"
#include "Quiver/CF/Error.hpp"
#include "Quiver/Support/BinaryPlistReader.hpp"
#include "Quiver/Support/KeyedArchiver.hpp"

namespace MB {

namespace {

using namespace Quiver::Support;
using namespace Quiver::Support::archiver_exceptions;

// The archive keys of the members, in the order in which they are decoded and written.
enum Member {
    kRelativePath,
    kTarget,
    kDigest,
    kEncryptionKey,
    kMode,
    kUserID,
    kGroupID,
    kLastModified,
    kLastStatusChange,
    kBirth,
    kSize,
    kInodeNumber,
    kProtectionClass,
    kExtendedAttributes,
    kFlags,
    kMemberCount
};

constexpr std::string_view kMemberKeys[kMemberCount] = {
    "RelativePath", "Target",    "Digest",           "EncryptionKey", "Mode",        "UserID",
    "GroupID",      "LastModified", "LastStatusChange", "Birth",      "Size",        "InodeNumber",
    "ProtectionClass", "ExtendedAttributes", "Flags",
};

// The member an object key names, or -1 (for "$class" and keys that no member models). Keys are told
// apart by length first: this runs once per key of every record.
int memberOf(std::string_view key) {
    auto is = [&](Member m) { return key == kMemberKeys[m]; };
    switch (key.size()) {
        case 4: return is(kMode) ? kMode : is(kSize) ? kSize : -1;
        case 5: return is(kBirth) ? kBirth : is(kFlags) ? kFlags : -1;
        case 6: return is(kTarget) ? kTarget : is(kDigest) ? kDigest : is(kUserID) ? kUserID : -1;
        case 7: return is(kGroupID) ? kGroupID : -1;
        case 11: return is(kInodeNumber) ? kInodeNumber : -1;
        case 12: return is(kRelativePath) ? kRelativePath : is(kLastModified) ? kLastModified : -1;
        case 13: return is(kEncryptionKey) ? kEncryptionKey : -1;
        case 15: return is(kProtectionClass) ? kProtectionClass : -1;
        case 16: return is(kLastStatusChange) ? kLastStatusChange : -1;
        case 18: return is(kExtendedAttributes) ? kExtendedAttributes : -1;
        default: return -1;
    }
}

// Extended attributes map names (strings) to values (data).
CF::Dictionary checkedAttributes(const CF::Dictionary& attributes) {
    if (attributes.IsEmpty()) return CF::EmptyDictionary();
    for (const auto& [key, value] : attributes.Entries()) {
        if (CFGetTypeID(key) != CFStringGetTypeID()) throw cant_decode_as_value(cfTypeName(key), "string");
        if (CFGetTypeID(value) != CFDataGetTypeID()) throw cant_decode_as_value(cfTypeName(value), "data");
    }
    return attributes;
}

// Attributes written as data that holds a property-list dictionary, as devices write them.
CF::Dictionary attributesFromPropertyList(std::span<const uint8_t> bytes) {
    if (bytes.empty()) return CF::EmptyDictionary();
    if (auto reader = binary_plist_reader::open(bytes)) {
        try {
            const plist_type topType = reader->type(reader->top());
            if (topType != plist_type::dictionary) throw cant_decode_as_value(to_string(topType), "dictionary");
            const auto entries = reader->open_dictionary(reader->top());
            if (entries.size() == 0) return CF::EmptyDictionary();
            CF::Dictionary result = CF::Dictionary::CreateMutable();
            for (size_t i = 0; i < entries.size(); ++i) {
                const auto value = entries.value_at(i);
                const plist_type valueType = reader->type(value);
                if (valueType != plist_type::data) throw cant_decode_as_value(to_string(valueType), "data");
                result.Set(reader->string(entries.key_object(i)).get(), reader->data(value).get());
            }
            return result;
        } catch (const plist_format_error&) {
            throw cant_decode_as_value("data", "dictionary");
        }
    }
    if (binary_plist_reader::has_signature(bytes)) throw cant_decode_as_value("data", "dictionary");
    CF::Data data = CF::Data::NoCopy(bytes);
    cf_value plist = cf_value::Adopt(
        CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(), kCFPropertyListImmutable, nullptr, nullptr));
    if (!plist || CFGetTypeID(plist.get()) != CFDictionaryGetTypeID()) throw cant_decode_as_value("data", "dictionary");
    return checkedAttributes(CF::Dictionary::Retain(static_cast<CFDictionaryRef>(plist.get())));
}

template <class Store>
CF::Dictionary decodeAttributes(basic_keyed_unarchiver<Store>& unarchiver, typename Store::value v) {
    using value = typename Store::value;
    const auto id = detail::extract_uid(unarchiver.store(), v);
    if (!id) throw cant_decode_as_value(unarchiver.type_name(v), "dictionary");
    if (*id == 0) return CF::EmptyDictionary();
    return unarchiver.decode_object(*id, [](basic_keyed_unarchiver<Store>& u, value raw) -> CF::Dictionary {
        const plist_type t = u.store().type(raw);
        if (t == plist_type::data) return attributesFromPropertyList(u.store().data_bytes(raw));
        if (t == plist_type::dictionary) {
            if (u.raw_value("NS.keys") != Store::none) return checkedAttributes(u.decode_ns_dictionary(raw));
            if (const value inner = u.raw_value("NS.data"); inner != Store::none) {
                const auto bytes = u.data_from(inner);
                return bytes ? attributesFromPropertyList(bytes->bytes()) : CF::EmptyDictionary();
            }
        }
        throw cant_decode_as_value(u.type_name(raw), "dictionary");
    });
}

// The value of a key that no member models, when it can be written back in the form it came in: a
// number or boolean in the object, a string or data by UID. Anything else (nil, objects, references
// out of range) is left out, as it was before such keys were kept at all.
template <class Store>
cf_value unmodelledValue(const basic_keyed_unarchiver<Store>& u, typename Store::value v) {
    const Store& store = u.store();
    switch (store.type(v)) {
        case plist_type::boolean: return cf_value::Retain(store.boolean(v) ? kCFBooleanTrue : kCFBooleanFalse);
        case plist_type::integer:
            if (auto n = store.integer(v)) return cf_value::Retain(CF::Number(*n).get());
            return {};
        case plist_type::real: return cf_value::Retain(CF::Number(store.real(v)).get());
        default: break;
    }
    const auto id = detail::extract_uid(store, v);
    if (!id || *id == 0 || *id >= u.object_count()) return {};
    const auto object = u.object_at(*id);
    switch (store.type(object)) {
        case plist_type::string: return cf_value::Retain(store.string(object).get());
        case plist_type::data: return cf_value::Retain(store.data(object).get());
        default: return {};
    }
}

template <class Store>
void decodeArchive(const Store& store, typename Store::value top, FileView& f) {
    using value = typename Store::value;
    const archive_top<Store> archive = check_archive(store, top);
    if (archive.root == 0) throw missing_root();  // nil
    basic_keyed_unarchiver<Store> unarchiver(store, archive.objects);
    unarchiver.decode_object(archive.root, [&f](basic_keyed_unarchiver<Store>& u, value raw) {
        // A dictionary that spells a UID ({"CF$UID": n}) is a reference, not an object.
        if (u.store().type(raw) != plist_type::dictionary || detail::extract_uid(u.store(), raw))
            throw cant_decode_as_value(u.type_name(raw), "MBFile");
        // One pass over the object's keys, then the members in their order.
        value slot[kMemberCount];
        for (value& s : slot) s = Store::none;
        const auto& object = u.current();
        for (size_t i = 0; i < object.size(); ++i) {
            const std::string_view key = object.key(i);
            const int m = memberOf(key);
            if (m >= 0) {
                slot[m] = object.value_at(i);
            } else if (key != "$class") {
                if (cf_value kept = unmodelledValue(u, object.value_at(i))) {
                    if (!f.Unmodelled) f.Unmodelled = CF::Dictionary::CreateMutable();
                    f.Unmodelled.Set(key, kept.get());
                }
            }
        }

        if (auto s = u.text_from(slot[kRelativePath], f.spare[0])) f.RelativePath = *s;
        if (auto s = u.text_from(slot[kTarget], f.spare[1])) f.Target = *s;
        if (auto d = u.bytes_from(slot[kDigest])) f.Digest = *d;
        if (auto d = u.bytes_from(slot[kEncryptionKey])) f.EncryptionKey = *d;
        if (auto n = u.integer_from(slot[kMode], 32)) f.Mode = static_cast<uint32_t>(*n);
        if (auto n = u.integer_from(slot[kUserID], 32)) f.UserID = static_cast<uint32_t>(*n);
        if (auto n = u.integer_from(slot[kGroupID], 32)) f.GroupID = static_cast<uint32_t>(*n);
        if (auto n = u.integer_from(slot[kLastModified])) f.LastModified = *n;
        if (auto n = u.integer_from(slot[kLastStatusChange])) f.LastStatusChange = *n;
        if (auto n = u.integer_from(slot[kBirth])) f.Birth = *n;
        if (auto n = u.integer_from(slot[kSize])) f.Size = static_cast<uint64_t>(*n);
        if (auto n = u.integer_from(slot[kInodeNumber])) f.InodeNumber = static_cast<uint64_t>(*n);
        if (auto n = u.integer_from(slot[kProtectionClass], 32)) f.ProtectionClass = static_cast<uint32_t>(*n);
        if (auto n = u.integer_from(slot[kFlags])) f.Flags = *n;
        if (slot[kExtendedAttributes] != Store::none) f.ExtendedAttributes = decodeAttributes(u, slot[kExtendedAttributes]);
    });
}

// Views into a parsed property list die with it: the bytes move to the record's own storage.
void keepViews(FileView& f) {
    auto keep = [](std::string& spare, std::string_view view) -> std::string_view {
        if (view.data() != spare.data()) spare.assign(view);
        return spare;
    };
    auto keepBytes = [&](std::string& spare, std::span<const uint8_t> bytes) {
        const std::string_view kept = keep(spare, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        return std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(kept.data()), kept.size());
    };
    f.RelativePath = keep(f.spare[0], f.RelativePath);
    f.Target = keep(f.spare[1], f.Target);
    f.Digest = keepBytes(f.spare[2], f.Digest);
    f.EncryptionKey = keepBytes(f.spare[3], f.EncryptionKey);
}

// The property-list writer ends strings at a NUL character; a record holding one would come back
// changed, so it is not written at all.
void checkWritable(const CF::String& s) {
    if (!s) return;
    const CFIndex length = CFStringGetLength(s.get());
    CFIndex used = 0;
    CFStringGetBytes(s.get(), CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
    std::string bytes(static_cast<size_t>(used), '\0');
    CFStringGetBytes(s.get(), CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false,
                     reinterpret_cast<UInt8*>(bytes.data()), used, &used);
    if (bytes.find('\0') != std::string::npos)
        throw archive_error("MBFile strings cannot be written with a NUL character in them");
}

CF::Data binaryPropertyList(CFPropertyListRef plist, const char* what) {
    CFErrorRef error = nullptr;
    CFDataRef blob = CFPropertyListCreateData(kCFAllocatorDefault, plist, kCFPropertyListBinaryFormat_v1_0, 0, &error);
    if (!blob) throw archive_error(std::string("Cannot write the MBFile ") + what + ": " + CF::Error::Adopt(error).Text());
    return CF::Data::Adopt(blob);
}

// The name of a key that no member models, refused when it cannot be written back: written after the
// members, a key that names one would silently replace it.
std::string unmodelledKeyName(CFTypeRef key) {
    if (CFGetTypeID(key) != CFStringGetTypeID()) throw archive_error("MBFile unmodelled keys must be strings");
    const CF::String name = CF::String::Retain(static_cast<CFStringRef>(key));
    checkWritable(name);
    std::string text = name.utf8();
    if (text == "$class" || memberOf(text) >= 0) throw archive_error("MBFile unmodelled key '" + text + "' names a member");
    return text;
}

// Writes back a key that no member models in the form unmodelledValue reads.
void encodeUnmodelled(keyed_archiver& a, CFTypeRef key, CFTypeRef value) {
    const std::string text = unmodelledKeyName(key);
    const CFTypeID t = CFGetTypeID(value);
    if (t == CFNumberGetTypeID()) {
        a.encode_number(text, static_cast<CFNumberRef>(value));
    } else if (t == CFBooleanGetTypeID()) {
        a.encode_bool(text, CFBooleanGetValue(static_cast<CFBooleanRef>(value)));
    } else if (t == CFStringGetTypeID()) {
        checkWritable(CF::String::Retain(static_cast<CFStringRef>(value)));
        a.encode_string(text, static_cast<CFStringRef>(value));
    } else if (t == CFDataGetTypeID()) {
        a.encode_data(text, static_cast<CFDataRef>(value));
    } else {
        throw archive_error("MBFile unmodelled key '" + text + "' holds a " + std::string(cfTypeName(value)));
    }
}

bool sameString(const CF::String& a, const CF::String& b) {
    if (a.length() == 0 || b.length() == 0) return a.length() == b.length();
    return a == b;
}
bool sameData(const CF::Data& a, const CF::Data& b) {
    if (a.IsEmpty() || b.IsEmpty()) return a.IsEmpty() == b.IsEmpty();
    return a == b;
}
bool sameDictionary(const CF::Dictionary& a, const CF::Dictionary& b) {
    if (a.IsEmpty() || b.IsEmpty()) return a.IsEmpty() == b.IsEmpty();
    return a == b;
}

}  // namespace

File::File()
    : RelativePath(CF::EmptyString()),
      Target(CF::EmptyString()),
      Digest(CF::EmptyData()),
      EncryptionKey(CF::EmptyData()),
      ExtendedAttributes(CF::EmptyDictionary()),
      Unmodelled(CF::EmptyDictionary()) {}
File::File(const File& other) = default;
File& File::operator=(const File& other) = default;
File::File(File&& other) noexcept = default;
File& File::operator=(File&& other) noexcept = default;
File::~File() = default;

bool File::DecodeView(std::span<const uint8_t> blob, FileView& out) {
    out = FileView();
    if (binary_plist_reader::has_signature(blob)) {
        auto reader = binary_plist_reader::open(blob);
        if (!reader) return false;
        try {
            if (reader->type(reader->top()) != plist_type::dictionary) return false;
            decodeArchive(*reader, reader->top(), out);
            return true;
        } catch (const plist_format_error&) {
            // What the bytes break is the property list itself, as if it had not parsed at all.
            return false;
        }
    }
    if (blob.empty()) return false;
    CF::Data data = CF::Data::NoCopy(blob);
    cf_value plist = cf_value::Adopt(
        CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(), kCFPropertyListImmutable, nullptr, nullptr));
    if (!plist || CFGetTypeID(plist.get()) != CFDictionaryGetTypeID()) return false;
    decodeArchive(cf_plist_store{}, plist.get(), out);
    keepViews(out);
    return true;
}

std::optional<File> File::Decode(std::span<const uint8_t> blob) {
    FileView view;
    if (!DecodeView(blob, view)) return std::nullopt;
    File f;
    if (!view.RelativePath.empty()) f.RelativePath = CF::String(view.RelativePath);
    if (!view.Target.empty()) f.Target = CF::String(view.Target);
    if (!view.Digest.empty()) f.Digest = CF::Data(view.Digest);
    if (!view.EncryptionKey.empty()) f.EncryptionKey = CF::Data(view.EncryptionKey);
    f.Mode = view.Mode;
    f.UserID = view.UserID;
    f.GroupID = view.GroupID;
    f.LastModified = view.LastModified;
    f.LastStatusChange = view.LastStatusChange;
    f.Birth = view.Birth;
    f.Size = view.Size;
    f.InodeNumber = view.InodeNumber;
    f.ProtectionClass = view.ProtectionClass;
    if (view.ExtendedAttributes) f.ExtendedAttributes = std::move(view.ExtendedAttributes);
    f.Flags = view.Flags;
    if (view.Unmodelled) f.Unmodelled = std::move(view.Unmodelled);
    return f;
}

std::optional<File> File::Decode(CFDataRef blob) {
    if (!blob) return std::nullopt;
    return Decode(std::span<const uint8_t>(CFDataGetBytePtr(blob), static_cast<size_t>(CFDataGetLength(blob))));
}

CF::Data File::Encode() const {
    // The archiver would write any dictionary, but only names -> data can be read back as a record.
    for (const auto& [key, value] : ExtendedAttributes.Entries()) {
        if (CFGetTypeID(key) != CFStringGetTypeID() || CFGetTypeID(value) != CFDataGetTypeID())
            throw archive_error("MBFile ExtendedAttributes must map strings to data");
        checkWritable(CF::String::Retain(static_cast<CFStringRef>(key)));
    }
    checkWritable(RelativePath);
    checkWritable(Target);
    const CF::Data attributes =
        ExtendedAttributes.IsEmpty() ? CF::Data() : binaryPropertyList(ExtendedAttributes.get(), "ExtendedAttributes");
    keyed_archiver archiver;
    archiver.encode_object(keyed_archiver::root_key, this, {"MBFile", "NSObject"}, [&](keyed_archiver& a) {
        a.encode_string(kMemberKeys[kRelativePath], RelativePath ? RelativePath.get() : CF::EmptyString().get());
        if (!Target.IsEmpty()) a.encode_string(kMemberKeys[kTarget], Target.get());
        if (!Digest.IsEmpty()) a.encode_data(kMemberKeys[kDigest], Digest.get());
        // The member's address as identity: the key's bytes may be the very object written as Digest.
        if (!EncryptionKey.IsEmpty())
            a.encode_object(kMemberKeys[kEncryptionKey], &EncryptionKey, {"NSMutableData", "NSData", "NSObject"},
                            [this](keyed_archiver& d) { d.encode_inline_data("NS.data", EncryptionKey.get()); });
        a.encode_int64(kMemberKeys[kMode], Mode);
        // 32-bit numbers, so that IDs such as 4294967294 (-2) keep the form devices give them.
        a.encode_int32(kMemberKeys[kUserID], static_cast<int32_t>(UserID));
        a.encode_int32(kMemberKeys[kGroupID], static_cast<int32_t>(GroupID));
        a.encode_int64(kMemberKeys[kLastModified], LastModified);
        a.encode_int64(kMemberKeys[kLastStatusChange], LastStatusChange);
        a.encode_int64(kMemberKeys[kBirth], Birth);
        a.encode_int64(kMemberKeys[kSize], static_cast<int64_t>(Size));
        a.encode_int64(kMemberKeys[kInodeNumber], static_cast<int64_t>(InodeNumber));
        a.encode_int64(kMemberKeys[kProtectionClass], ProtectionClass);
        if (attributes) a.encode_data(kMemberKeys[kExtendedAttributes], attributes.get());
        a.encode_int64(kMemberKeys[kFlags], Flags);
        for (const auto& [key, value] : Unmodelled.Entries()) encodeUnmodelled(a, key, value);
    });
    return binaryPropertyList(archiver.finishEncoding().get(), "archive");
}

bool operator==(const File& a, const File& b) {
    return sameString(a.RelativePath, b.RelativePath) && sameString(a.Target, b.Target) &&
           sameData(a.Digest, b.Digest) && sameData(a.EncryptionKey, b.EncryptionKey) && a.Mode == b.Mode &&
           a.UserID == b.UserID && a.GroupID == b.GroupID && a.LastModified == b.LastModified &&
           a.LastStatusChange == b.LastStatusChange && a.Birth == b.Birth && a.Size == b.Size &&
           a.InodeNumber == b.InodeNumber && a.ProtectionClass == b.ProtectionClass &&
           sameDictionary(a.ExtendedAttributes, b.ExtendedAttributes) && a.Flags == b.Flags &&
           sameDictionary(a.Unmodelled, b.Unmodelled);
}

}  // namespace MB

// ---- FileWriter ----

namespace MB {

namespace {

using namespace Quiver::Support::archiver_exceptions;

constexpr uint64_t hashOf(std::string_view text) {
    uint64_t h = 0xcbf29ce484222325ULL;
    for (char c : text) {
        h ^= static_cast<unsigned char>(c);
        h *= 0x100000001b3ULL;
    }
    return h;
}

// A string whose hash is worked out once, at compile time.
struct Name {
    std::string_view text;
    uint64_t hash;
    constexpr Name(std::string_view t) : text(t), hash(hashOf(t)) {}  // NOLINT: meant to convert
    template <size_t N>
    constexpr Name(const char (&t)[N]) : Name(std::string_view(t, N - 1)) {}  // NOLINT: meant to convert
};

constexpr Name kArchiverKey = "$archiver", kVersionKey = "$version", kTopKey = "$top", kObjectsKey = "$objects",
               kArchiverName = "NSKeyedArchiver", kRootKey = "root", kNull = "$null", kClassKey = "$class",
               kClassNameKey = "$classname", kClassesKey = "$classes", kMBFile = "MBFile", kNSObject = "NSObject",
               kNSData = "NSData", kNSMutableData = "NSMutableData", kNSDataKey = "NS.data";
constexpr Name kMemberNames[kMemberCount] = {
    kMemberKeys[0], kMemberKeys[1], kMemberKeys[2],  kMemberKeys[3],  kMemberKeys[4],
    kMemberKeys[5], kMemberKeys[6], kMemberKeys[7],  kMemberKeys[8],  kMemberKeys[9],
    kMemberKeys[10], kMemberKeys[11], kMemberKeys[12], kMemberKeys[13], kMemberKeys[14],
};

uint8_t bytesFor(uint64_t value) {
    if (value <= 0xFF) return 1;
    if (value <= 0xFFFF) return 2;
    if (value <= 0xFFFFFFFFULL) return 4;
    return 8;
}

bool isASCII(std::string_view text) {
    for (char c : text)
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    return true;
}

// A text of a view as File::Encode would hold it: absent when no CF string can be made of it (not
// UTF-8), and refused when the property-list writer would cut it short at a NUL character.
struct CheckedText {
    std::string_view utf8;
    bool valid = true;
    CF::String cf;  // made only for text that is not ASCII, to check it and to give its UTF-16 form
};

CheckedText checkedText(std::string_view text) {
    CheckedText t{text, true, {}};
    if (!isASCII(text)) {
        t.cf = CF::String(text);
        t.valid = static_cast<bool>(t.cf);
    }
    if (t.valid && text.find('\0') != std::string_view::npos)
        throw archive_error("MBFile strings cannot be written with a NUL character in them");
    return t;
}

// The UTF-8 of a CF string, kept in `owned` (whose elements never move).
std::string_view keptUTF8(CFStringRef s, std::deque<std::string>& owned) {
    CFIndex used = 0;
    const CFIndex length = CFStringGetLength(s);
    CFStringGetBytes(s, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
    std::string& text = owned.emplace_back(static_cast<size_t>(used), '\0');
    CFStringGetBytes(s, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false, reinterpret_cast<UInt8*>(text.data()),
                     used, &used);
    return text;
}

}  // namespace

// A binary property list numbered as CFPropertyListCreateData numbers one: objects in the order of a
// depth-first walk in which all of a dictionary's keys come before its values, strings shared by their
// UTF-8 bytes, UIDs by value, every other value an object of its own. Containers reserve their
// children's slots when they are added and the caller fills them in as it adds each child.
struct FileWriter::Plist {
    enum Kind : uint8_t { kASCII, kUnicode, kData, kInteger, kReal, kFalse, kTrue, kUID, kArray, kDictionary };
    struct Node {
        Kind kind;
        uint32_t count;      // bytes (ASCII, data), UTF-16 units, or children
        const char* bytes;   // text (UTF-8), data
        uint64_t value;      // integer or real bits, UID, first unit or first child
        uint64_t hash;       // strings
        size_t length = 0;   // strings: bytes of their UTF-8
    };
    std::vector<Node> nodes;
    std::vector<uint32_t> children;
    std::vector<char16_t> units;
    std::vector<uint32_t> strings;  // open addressing by hash: node index + 1, 0 for a free slot
    size_t stringCount = 0;
    std::vector<uint32_t> uids;  // UID value -> node index + 1
    std::deque<std::string> owned;
    std::vector<uint64_t> offsets;

    void reset() {
        nodes.clear();
        children.clear();
        units.clear();
        if (strings.empty()) strings.resize(128);
        std::fill(strings.begin(), strings.end(), 0);
        stringCount = 0;
        std::fill(uids.begin(), uids.end(), 0);
        owned.clear();
    }

    uint32_t push(Node node) {
        nodes.push_back(node);
        return static_cast<uint32_t>(nodes.size() - 1);
    }

    // `cf` is the same text as a CF string, or null; needed only when the text is not ASCII.
    uint32_t string(std::string_view text, uint64_t hash, CFStringRef cf = nullptr) {
        if ((stringCount + 1) * 2 > strings.size()) grow();
        const size_t mask = strings.size() - 1;
        size_t i = hash & mask;
        for (; strings[i] != 0; i = (i + 1) & mask) {
            const Node& n = nodes[strings[i] - 1];
            if (n.hash == hash && n.length == text.size() &&
                (text.empty() || std::memcmp(n.bytes, text.data(), text.size()) == 0))
                return strings[i] - 1;
        }
        Node node{kASCII, static_cast<uint32_t>(text.size()), text.data(), 0, hash, text.size()};
        if (!isASCII(text)) {
            CF::String made;
            if (!cf) cf = (made = CF::String(text)).get();
            const CFIndex length = CFStringGetLength(cf);
            node.kind = kUnicode;
            node.value = units.size();
            node.count = static_cast<uint32_t>(length);
            units.resize(units.size() + static_cast<size_t>(length));
            CFStringGetCharacters(cf, CFRangeMake(0, length), reinterpret_cast<UniChar*>(units.data() + node.value));
        }
        ++stringCount;
        strings[i] = push(node) + 1;
        return strings[i] - 1;
    }
    uint32_t string(const Name& name) { return string(name.text, name.hash); }
    uint32_t string(CFStringRef s) {
        const std::string_view text = keptUTF8(s, owned);
        return string(text, hashOf(text), s);
    }

    void grow() {
        std::vector<uint32_t> old(strings.size() * 2, 0);
        old.swap(strings);
        const size_t mask = strings.size() - 1;
        for (uint32_t slot : old) {
            if (slot == 0) continue;
            size_t i = nodes[slot - 1].hash & mask;
            while (strings[i] != 0) i = (i + 1) & mask;
            strings[i] = slot;
        }
    }

    uint32_t uid(uint32_t value) {
        if (value >= uids.size()) uids.resize(value + 1, 0);
        if (uids[value] == 0) uids[value] = push(Node{kUID, 0, nullptr, value, 0}) + 1;
        return uids[value] - 1;
    }
    uint32_t integer(int64_t value) { return push(Node{kInteger, 0, nullptr, static_cast<uint64_t>(value), 0}); }
    uint32_t real(double value) {
        uint64_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        return push(Node{kReal, 0, nullptr, bits, 0});
    }
    uint32_t boolean(bool value) { return push(Node{value ? kTrue : kFalse, 0, nullptr, 0, 0}); }
    uint32_t data(std::span<const uint8_t> bytes) {
        return push(Node{kData, static_cast<uint32_t>(bytes.size()), reinterpret_cast<const char*>(bytes.data()), 0, 0});
    }
    // A dictionary's children are its keys, then its values.
    uint32_t container(Kind kind, size_t count) {
        const uint32_t node = push(Node{kind, static_cast<uint32_t>(count), nullptr, children.size(), 0});
        children.resize(children.size() + count);
        return node;
    }
    void child(uint32_t container, size_t i, uint32_t node) { children[nodes[container].value + i] = node; }

    void write(std::vector<uint8_t>& out) {
        const size_t start = out.size();
        const uint8_t refSize = bytesFor(nodes.size());
        static constexpr uint8_t kMagic[] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
        out.insert(out.end(), std::begin(kMagic), std::end(kMagic));
        offsets.clear();
        for (const Node& node : nodes) {
            offsets.push_back(out.size() - start);
            switch (node.kind) {
                case kASCII:
                    marker(out, 0x50, node.count);
                    out.insert(out.end(), node.bytes, node.bytes + node.count);
                    break;
                case kUnicode:
                    marker(out, 0x60, node.count);
                    for (size_t i = 0; i < node.count; ++i) bigEndian(out, units[node.value + i], 2);
                    break;
                case kData:
                    marker(out, 0x40, node.count);
                    out.insert(out.end(), node.bytes, node.bytes + node.count);
                    break;
                case kInteger: integer(out, static_cast<int64_t>(node.value)); break;
                case kReal:
                    out.push_back(0x23);
                    bigEndian(out, node.value, 8);
                    break;
                case kFalse: out.push_back(0x08); break;
                case kTrue: out.push_back(0x09); break;
                case kUID: {
                    const uint8_t size = bytesFor(node.value);
                    out.push_back(static_cast<uint8_t>(0x80 | (size - 1)));
                    bigEndian(out, node.value, size);
                    break;
                }
                case kArray:
                case kDictionary:
                    marker(out, node.kind == kArray ? 0xA0 : 0xD0, node.kind == kArray ? node.count : node.count / 2);
                    for (size_t i = 0; i < node.count; ++i) bigEndian(out, children[node.value + i], refSize);
                    break;
            }
        }
        const uint64_t tableOffset = out.size() - start;
        const uint8_t offsetSize = bytesFor(tableOffset);
        for (uint64_t offset : offsets) bigEndian(out, offset, offsetSize);
        out.insert(out.end(), 6, 0);
        out.push_back(offsetSize);
        out.push_back(refSize);
        bigEndian(out, nodes.size(), 8);
        bigEndian(out, 0, 8);  // the top object is always the first
        bigEndian(out, tableOffset, 8);
    }

    static void bigEndian(std::vector<uint8_t>& out, uint64_t value, size_t size) {
        for (size_t i = size; i-- > 0;) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    static void integer(std::vector<uint8_t>& out, int64_t value) {
        if (value < 0) {
            out.push_back(0x13);
            bigEndian(out, static_cast<uint64_t>(value), 8);
            return;
        }
        const uint8_t size = bytesFor(static_cast<uint64_t>(value));
        out.push_back(static_cast<uint8_t>(0x10 | (size == 1 ? 0 : size == 2 ? 1 : size == 4 ? 2 : 3)));
        bigEndian(out, static_cast<uint64_t>(value), size);
    }
    static void marker(std::vector<uint8_t>& out, uint8_t kind, uint64_t count) {
        if (count < 15) {
            out.push_back(static_cast<uint8_t>(kind | count));
        } else {
            out.push_back(static_cast<uint8_t>(kind | 0x0F));
            integer(out, static_cast<int64_t>(count));
        }
    }
};

FileWriter::FileWriter() : archive_(std::make_unique<Plist>()), attributes_(std::make_unique<Plist>()) {}
FileWriter::~FileWriter() = default;

void FileWriter::Append(const FileView& f, std::vector<uint8_t>& out) {
    // Every check first, in the order in which File::Encode makes them, so that a record that cannot be
    // written fails with the same message and leaves nothing behind.
    const std::vector<std::pair<CFTypeRef, CFTypeRef>> attributes =
        f.ExtendedAttributes ? f.ExtendedAttributes.Entries() : std::vector<std::pair<CFTypeRef, CFTypeRef>>();
    for (const auto& [key, value] : attributes) {
        if (CFGetTypeID(key) != CFStringGetTypeID() || CFGetTypeID(value) != CFDataGetTypeID())
            throw archive_error("MBFile ExtendedAttributes must map strings to data");
        checkWritable(CF::String::Retain(static_cast<CFStringRef>(key)));
    }
    const CheckedText path = checkedText(f.RelativePath);
    const CheckedText target = checkedText(f.Target);
    const std::vector<std::pair<CFTypeRef, CFTypeRef>> extras =
        f.Unmodelled ? f.Unmodelled.Entries() : std::vector<std::pair<CFTypeRef, CFTypeRef>>();
    for (const auto& [key, value] : extras) {
        const std::string text = unmodelledKeyName(key);
        const CFTypeID t = CFGetTypeID(value);
        if (t == CFStringGetTypeID()) {
            checkWritable(CF::String::Retain(static_cast<CFStringRef>(value)));
        } else if (t != CFNumberGetTypeID() && t != CFBooleanGetTypeID() && t != CFDataGetTypeID()) {
            throw archive_error("MBFile unmodelled key '" + text + "' holds a " + std::string(cfTypeName(value)));
        }
    }

    // The attributes are data holding a property list of their own.
    attributeBytes_.clear();
    if (!attributes.empty()) {
        Plist& p = *attributes_;
        p.reset();
        const uint32_t dict = p.container(Plist::kDictionary, attributes.size() * 2);
        for (size_t i = 0; i < attributes.size(); ++i)
            p.child(dict, i, p.string(static_cast<CFStringRef>(attributes[i].first)));
        for (size_t i = 0; i < attributes.size(); ++i) {
            auto value = static_cast<CFDataRef>(attributes[i].second);
            p.child(dict, attributes.size() + i,
                    p.data({CFDataGetBytePtr(value), static_cast<size_t>(CFDataGetLength(value))}));
        }
        p.write(attributeBytes_);
    }

    // The UIDs of "$objects", in the order in which the archiver fills them.
    const bool hasTarget = target.valid && !target.utf8.empty();
    const bool hasDigest = !f.Digest.empty(), hasKey = !f.EncryptionKey.empty(), hasAttributes = !attributes.empty();
    uint32_t next = 3;  // "$null", the record, its class, then the path
    const uint32_t pathUID = next++;
    const uint32_t targetUID = hasTarget ? next++ : 0;
    const uint32_t digestUID = hasDigest ? next++ : 0;
    const uint32_t keyUID = hasKey ? next++ : 0;
    const uint32_t keyClassUID = hasKey ? next++ : 0;
    const uint32_t attributesUID = hasAttributes ? next++ : 0;
    // Strings and data of unmodelled keys are archived once per object; a path that is not UTF-8 is
    // archived as the shared empty string, which such a key may hold too.
    std::vector<std::pair<const void*, uint32_t>> known;
    if (!path.valid) known.emplace_back(CF::EmptyString().get(), pathUID);
    std::vector<uint32_t> extraUIDs(extras.size(), 0);
    std::vector<size_t> extraObjects;  // indexes into extras, in UID order
    for (size_t i = 0; i < extras.size(); ++i) {
        const CFTypeID t = CFGetTypeID(extras[i].second);
        if (t != CFStringGetTypeID() && t != CFDataGetTypeID()) continue;
        auto it = std::find_if(known.begin(), known.end(), [&](const auto& k) { return k.first == extras[i].second; });
        if (it != known.end()) {
            extraUIDs[i] = it->second;
        } else {
            extraUIDs[i] = next++;
            known.emplace_back(extras[i].second, extraUIDs[i]);
            extraObjects.push_back(i);
        }
    }

    Plist& p = *archive_;
    p.reset();
    const uint32_t top = p.container(Plist::kDictionary, 8);
    p.child(top, 0, p.string(kArchiverKey));
    p.child(top, 1, p.string(kVersionKey));
    p.child(top, 2, p.string(kTopKey));
    p.child(top, 3, p.string(kObjectsKey));
    p.child(top, 4, p.string(kArchiverName));
    p.child(top, 5, p.integer(100000));
    const uint32_t topObject = p.container(Plist::kDictionary, 2);
    p.child(top, 6, topObject);
    p.child(topObject, 0, p.string(kRootKey));
    p.child(topObject, 1, p.uid(1));
    const uint32_t objects = p.container(Plist::kArray, next);
    p.child(top, 7, objects);
    p.child(objects, 0, p.string(kNull));

    // The record: its keys in the order they are set, "$class" last, then their values.
    const size_t keyCount = 11 + (hasTarget ? 1 : 0) + (hasDigest ? 1 : 0) + (hasKey ? 1 : 0) + (hasAttributes ? 1 : 0) +
                      extras.size() + 1;
    const uint32_t record = p.container(Plist::kDictionary, keyCount * 2);
    p.child(objects, 1, record);
    // Keys and values are added in two passes, as the property-list writer walks them.
    struct Value {
        Member m;
        enum { kUIDValue, kNumber } how;
        int64_t n;
    };
    Value values[kMemberCount];
    size_t count = 0;
    values[count++] = {kRelativePath, Value::kUIDValue, pathUID};
    if (hasTarget) values[count++] = {kTarget, Value::kUIDValue, targetUID};
    if (hasDigest) values[count++] = {kDigest, Value::kUIDValue, digestUID};
    if (hasKey) values[count++] = {kEncryptionKey, Value::kUIDValue, keyUID};
    values[count++] = {kMode, Value::kNumber, f.Mode};
    // 32-bit numbers: IDs such as 4294967294 are written as -2.
    values[count++] = {kUserID, Value::kNumber, static_cast<int32_t>(f.UserID)};
    values[count++] = {kGroupID, Value::kNumber, static_cast<int32_t>(f.GroupID)};
    values[count++] = {kLastModified, Value::kNumber, f.LastModified};
    values[count++] = {kLastStatusChange, Value::kNumber, f.LastStatusChange};
    values[count++] = {kBirth, Value::kNumber, f.Birth};
    values[count++] = {kSize, Value::kNumber, static_cast<int64_t>(f.Size)};
    values[count++] = {kInodeNumber, Value::kNumber, static_cast<int64_t>(f.InodeNumber)};
    values[count++] = {kProtectionClass, Value::kNumber, f.ProtectionClass};
    if (hasAttributes) values[count++] = {kExtendedAttributes, Value::kUIDValue, attributesUID};
    values[count++] = {kFlags, Value::kNumber, f.Flags};
    for (size_t i = 0; i < count; ++i) p.child(record, i, p.string(kMemberNames[values[i].m]));
    for (size_t i = 0; i < extras.size(); ++i) p.child(record, count + i, p.string(static_cast<CFStringRef>(extras[i].first)));
    p.child(record, keyCount - 1, p.string(kClassKey));
    size_t k = keyCount;
    for (size_t i = 0; i < count; ++i) {
        const Value& v = values[i];
        p.child(record, k++, v.how == Value::kUIDValue ? p.uid(static_cast<uint32_t>(v.n)) : p.integer(v.n));
    }
    for (size_t i = 0; i < extras.size(); ++i) {
        CFTypeRef value = extras[i].second;
        const CFTypeID t = CFGetTypeID(value);
        uint32_t node;
        if (t == CFNumberGetTypeID()) {
            auto number = static_cast<CFNumberRef>(value);
            if (CFNumberIsFloatType(number)) {
                double d = 0;
                CFNumberGetValue(number, kCFNumberFloat64Type, &d);
                node = p.real(d);
            } else {
                int64_t n = 0;
                CFNumberGetValue(number, kCFNumberSInt64Type, &n);
                node = p.integer(n);
            }
        } else if (t == CFBooleanGetTypeID()) {
            node = p.boolean(CFBooleanGetValue(static_cast<CFBooleanRef>(value)));
        } else {
            node = p.uid(extraUIDs[i]);
        }
        p.child(record, k++, node);
    }
    p.child(record, k++, p.uid(2));

    auto classDescription = [&](uint32_t slot, std::initializer_list<Name> classes) {
        const uint32_t d = p.container(Plist::kDictionary, 4);
        p.child(objects, slot, d);
        p.child(d, 0, p.string(kClassNameKey));
        p.child(d, 1, p.string(kClassesKey));
        p.child(d, 2, p.string(*classes.begin()));
        const uint32_t names = p.container(Plist::kArray, classes.size());
        p.child(d, 3, names);
        size_t i = 0;
        for (const Name& name : classes) p.child(names, i++, p.string(name));
    };
    classDescription(2, {kMBFile, kNSObject});
    p.child(objects, pathUID, path.valid ? p.string(path.utf8, hashOf(path.utf8), path.cf.get())
                                                   : p.string(std::string_view(), hashOf({})));
    if (hasTarget) p.child(objects, targetUID, p.string(target.utf8, hashOf(target.utf8), target.cf.get()));
    if (hasDigest) p.child(objects, digestUID, p.data(f.Digest));
    if (hasKey) {
        const uint32_t d = p.container(Plist::kDictionary, 4);
        p.child(objects, keyUID, d);
        p.child(d, 0, p.string(kNSDataKey));
        p.child(d, 1, p.string(kClassKey));
        p.child(d, 2, p.data(f.EncryptionKey));
        p.child(d, 3, p.uid(keyClassUID));
        classDescription(keyClassUID, {kNSMutableData, kNSData, kNSObject});
    }
    if (hasAttributes) p.child(objects, attributesUID, p.data(attributeBytes_));
    for (size_t i : extraObjects) {
        CFTypeRef value = extras[i].second;
        if (CFGetTypeID(value) == CFStringGetTypeID()) {
            p.child(objects, extraUIDs[i], p.string(static_cast<CFStringRef>(value)));
        } else {
            auto data = static_cast<CFDataRef>(value);
            p.child(objects, extraUIDs[i], p.data({CFDataGetBytePtr(data), static_cast<size_t>(CFDataGetLength(data))}));
        }
    }
    p.write(out);
}

}  // namespace MB
