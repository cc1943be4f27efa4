#include "Quiver/MB/File.hpp"

#include <CoreFoundation/CFPropertyList.h>

#include <string>
#include <string_view>

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

// Writes back a key that no member models in the form unmodelledValue reads.
void encodeUnmodelled(keyed_archiver& a, CFTypeRef key, CFTypeRef value) {
    if (CFGetTypeID(key) != CFStringGetTypeID()) throw archive_error("MBFile unmodelled keys must be strings");
    const CF::String name = CF::String::Retain(static_cast<CFStringRef>(key));
    checkWritable(name);
    const std::string text = name.utf8();
    // Written after the members, such a key would silently replace one.
    if (text == "$class" || memberOf(text) >= 0) throw archive_error("MBFile unmodelled key '" + text + "' names a member");
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
