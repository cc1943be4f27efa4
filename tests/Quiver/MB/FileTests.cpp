// MB::File: blobs round-trip in the forms devices write, device-style archives written by Python's
// plistlib decode (keys no member models included), every archive check fails with its message in both
// property-list formats, hostile references are refused, and the blobs of real Manifest.db files decode.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <typeinfo>

#include "Quiver/MB/File.hpp"
#include "Quiver/Support/KeyedArchiver.hpp"
#include "Quiver/Support/PlistValues.hpp"

namespace fs = std::filesystem;
namespace ax = Quiver::Support::archiver_exceptions;
using namespace plist_values;

namespace {

Bytes ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes Range(uint8_t from, size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(from + i);
    return b;
}

std::string Text(const CF::Data& d) { return std::string(d.begin(), d.end()); }

MB::File FullRecord() {
    MB::File f;
    f.RelativePath = CF::String("Library/SMS/sms.db"), f.Target = CF::String("../elsewhere");
    f.Digest = CF::Data(Range(1, 20)), f.EncryptionKey = CF::Data(Range(50, 44));
    f.Mode = 0100600, f.UserID = 501, f.GroupID = 0xFFFFFFFE;
    f.LastModified = 1610674653, f.LastStatusChange = -5, f.Birth = 0;
    f.Size = 0x8000000000000001ULL, f.InodeNumber = 1ULL << 40, f.ProtectionClass = 3;
    f.ExtendedAttributes = Dict({{"com.apple.TextEncoding", Bytes{'u', 't', 'f'}}, {"empty", Bytes{}}});
    f.Flags = 128;
    f.Unmodelled = Dict({{"Generation", 7}, {"Note", "kept"}, {"Blob", Bytes{9, 8}}});
    f.Unmodelled.Set("Hidden", kCFBooleanTrue);
    return f;
}

// The parts of an archive as devices write it, mutable so that each test can break one thing.
struct Archive {
    CF::Dictionary root = Dict({{"RelativePath", UID(2)}, {"Mode", 0100644}, {"UserID", 501}, {"GroupID", 501},
                                {"LastModified", 1000}, {"LastStatusChange", 1001}, {"Birth", 999}, {"Size", 42},
                                {"InodeNumber", 7}, {"ProtectionClass", 4}, {"Flags", 0}, {"$class", UID(3)}});
    CF::Array objects =
        Arr({"$null", root, "Media/a.jpg", Dict({{"$classname", "MBFile"}, {"$classes", Arr({"MBFile", "NSObject"})}})});
    CF::Dictionary top = Dict({{"root", UID(1)}});
    CF::Dictionary archive =
        Dict({{"$archiver", "NSKeyedArchiver"}, {"$version", 100000}, {"$top", top}, {"$objects", objects}});
    uint32_t Add(const V& object) {
        objects.Append(object.v);
        return static_cast<uint32_t>(objects.size() - 1);
    }
};

MB::File RoundTrip(const MB::File& f) {
    auto back = MB::File::Decode(f.Encode().get());
    EXPECT_TRUE(back.has_value());
    return back.value_or(MB::File());
}

TEST(MBFileRoundTrip, EveryMemberSurvives) {
    const MB::File f = FullRecord();
    const MB::File back = RoundTrip(f);
    EXPECT_TRUE(back == f);
    // Spot checks that do not rely on operator== alone.
    EXPECT_EQ(back.EncryptionKey.vector(), Range(50, 44));
    EXPECT_EQ(back.Size, 0x8000000000000001ULL);
    EXPECT_EQ(back.ExtendedAttributes.size(), 2);
    EXPECT_EQ(back.Flags, 128);
    EXPECT_EQ(back.Unmodelled.size(), 4);
    // The members added last take part in equality.
    MB::File other = f;
    other.Flags = 0;
    EXPECT_FALSE(other == f);
    other = f;
    other.Unmodelled = Dict({{"Generation", 8}, {"Note", "kept"}, {"Blob", Bytes{9, 8}}});
    EXPECT_FALSE(other == f);
}

TEST(MBFileRoundTrip, DefaultRecordSurvivesWithSharedEmptyMembersLeftOutOfTheArchive) {
    const MB::File back = RoundTrip(MB::File());
    EXPECT_TRUE(back == MB::File());
    // Empty members are real, empty objects, the same ones for every record.
    ASSERT_TRUE(back.RelativePath && back.Target && back.Digest && back.EncryptionKey && back.ExtendedAttributes);
    EXPECT_EQ(back.Target.get(), MB::File().Target.get());
    EXPECT_EQ(back.Digest.get(), MB::File().Digest.get());
    EXPECT_EQ(back.ExtendedAttributes.get(), MB::File().ExtendedAttributes.get());
    cf_value archive = Parse(MB::File().Encode().vector());
    CF::Dictionary root =
        CF::Dictionary::Retain(static_cast<CFDictionaryRef>(archive.get())).Get<CF::Array>("$objects").at<CF::Dictionary>(1);
    for (const char* key : {"Target", "Digest", "EncryptionKey", "ExtendedAttributes"}) EXPECT_FALSE(root.Contains(key)) << key;
    for (const char* key : {"RelativePath", "Mode", "Size", "InodeNumber", "ProtectionClass", "Flags", "$class"})
        EXPECT_TRUE(root.Contains(key)) << key;
}

// Decryptors in common use read only the forms devices write, so each member is checked in that form.
TEST(MBFileRoundTrip, MembersTakeTheFormsDevicesWrite) {
    cf_value parsed = Parse(FullRecord().Encode().vector());
    auto objects = CF::Dictionary::Retain(static_cast<CFDictionaryRef>(parsed.get())).Get<CF::Array>("$objects");
    CF::Dictionary root = objects.at<CF::Dictionary>(1);
    for (const char* key : {"RelativePath", "Target", "Digest", "EncryptionKey", "ExtendedAttributes", "$class", "Note", "Blob"}) {
        CFTypeRef v = root.Get(key);
        ASSERT_TRUE(v && CFGetTypeID(v) == _CFKeyedArchiverUIDGetTypeID()) << key;
    }
    auto element = [&](const char* key) {
        return objects[_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(root.Get(key)))];
    };
    auto object = [&](const char* key) { return CF::Dictionary::Retain(static_cast<CFDictionaryRef>(element(key))); };
    auto data = [&](const char* key) {
        EXPECT_EQ(CFGetTypeID(element(key)), CFDataGetTypeID()) << key;
        return CF::Data::Retain(static_cast<CFDataRef>(element(key)));
    };
    auto classOf = [&](const CF::Dictionary& o) {
        return objects.at<CF::Dictionary>(_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(o.Get("$class"))));
    };
    EXPECT_EQ(object("$class").Get<CF::String>("$classname").utf8(), "MBFile");
    EXPECT_EQ(data("Digest").vector(), Range(1, 20));
    EXPECT_EQ(data("Blob").vector(), (Bytes{9, 8}));
    // The key: an NSMutableData object with its bytes in place.
    const CF::Dictionary key = object("EncryptionKey");
    EXPECT_EQ(key.Get<CF::Data>("NS.data").vector(), Range(50, 44));
    EXPECT_EQ(classOf(key).Get<CF::String>("$classname").utf8(), "NSMutableData");
    const CF::Array classes = classOf(key).Get<CF::Array>("$classes");
    ASSERT_EQ(classes.size(), 3);
    EXPECT_EQ(classes.at<CF::String>(1).utf8(), "NSData");
    EXPECT_EQ(classes.at<CF::String>(2).utf8(), "NSObject");
    // The attributes: a binary property list of names to data, inside plain data.
    const Bytes attributes = data("ExtendedAttributes").vector();
    ASSERT_GT(attributes.size(), 8u);
    EXPECT_EQ(std::string(attributes.begin(), attributes.begin() + 8), "bplist00");
    cf_value inner = Parse(attributes);
    ASSERT_TRUE(inner && CFGetTypeID(inner.get()) == CFDictionaryGetTypeID());
    EXPECT_EQ(Text(CF::Dictionary::Retain(static_cast<CFDictionaryRef>(inner.get())).Get<CF::Data>("com.apple.TextEncoding")), "utf");
    // Numbers and booleans sit in the object; IDs are 32-bit numbers: 0xFFFFFFFE is stored as -2.
    EXPECT_EQ(root.Get<CF::Number>("GroupID").Int64(), -2);
    EXPECT_EQ(root.Get<CF::Number>("Flags").Int64(), 128);
    EXPECT_EQ(root.Get<CF::Number>("Generation").Int64(), 7);
    EXPECT_EQ(root.Get("Hidden"), kCFBooleanTrue);
}

TEST(MBFileRoundTrip, RecordsThatCouldNotBeReadBackAreNotWritten) {
    MB::File f;
    f.ExtendedAttributes = Dict({{"name", "a string, not data"}});
    EXPECT_THROW(f.Encode(), ax::archive_error);
    f.ExtendedAttributes = CF::Dictionary::CreateMutable();
    f.ExtendedAttributes.Set(CF::Number(int64_t{1}).get(), CF::Data(Bytes{1}).get());
    EXPECT_THROW(f.Encode(), ax::archive_error);
    // Text with a NUL is refused rather than cut short.
    f = MB::File();
    f.Target = CF::String(std::string_view("a\0b", 3));
    EXPECT_THROW(f.Encode(), ax::archive_error);
    // Unmodelled keys may neither replace a member nor hold what cannot be read back as it was.
    for (const char* member : {"Mode", "Flags", "ExtendedAttributes", "$class"}) {
        f = MB::File();
        f.Unmodelled = Dict({{member, 1}});
        EXPECT_THROW(f.Encode(), ax::archive_error) << member;
    }
    f.Unmodelled = Dict({{"List", Arr({1})}});
    EXPECT_THROW(f.Encode(), ax::archive_error);
    f.Unmodelled = Dict({{"Text", std::string_view("a\0b", 3)}});
    EXPECT_THROW(f.Encode(), ax::archive_error);
}

// Archives written by Python's plistlib in the layouts devices use.
MB::File DecodeFile(const char* name) {
    auto f = MB::File::Decode(ReadFile(fs::path(QUIVER_TEST_DATA) / "mbfile" / name));
    EXPECT_TRUE(f.has_value()) << name;
    return f.value_or(MB::File());
}

TEST(MBFilePythonBlobs, RegularFileWithPlainDigestAndMutableDataKey) {
    for (const char* name : {"ios-file.bplist", "ios-file.xml"}) {
        SCOPED_TRACE(name);
        MB::File expected;
        expected.RelativePath = CF::String("Library/Preferences/com.example.plist");
        expected.Digest = CF::Data(Range(1, 20));
        Bytes key = Range(100, 40);  // a wrapped key after its 32-bit class
        key.insert(key.begin(), {3, 0, 0, 0});
        expected.EncryptionKey = CF::Data(key);
        expected.Mode = 0100644, expected.UserID = 501, expected.GroupID = 501;
        expected.LastModified = 1610674653, expected.LastStatusChange = 1610674660, expected.Birth = 1610674600;
        expected.Size = 1620, expected.InodeNumber = 162058, expected.ProtectionClass = 3;
        EXPECT_TRUE(DecodeFile(name) == expected);
    }
}

TEST(MBFilePythonBlobs, DirectorySymlinkAndAttributesWithUTF16PathNegativeIDsAndWideSize) {
    const MB::File dir = DecodeFile("ios-directory.bplist");
    EXPECT_EQ(dir.RelativePath.utf8(), "");
    EXPECT_EQ(dir.Mode, 040755u);
    EXPECT_EQ(dir.InodeNumber, 0u);
    EXPECT_TRUE(dir.Digest.IsEmpty() && dir.EncryptionKey.IsEmpty());
    const MB::File link = DecodeFile("ios-symlink.bplist");
    EXPECT_EQ(link.RelativePath.utf8(), "Library/Caches/\xC3\x9Cn\xC3\xAF" "c\xC3\xB6" "d\xC3\xA9 link");
    EXPECT_EQ(link.Target.utf8(), "/var/mobile/Library/Caches");
    EXPECT_EQ(link.Mode, 0120755u);
    EXPECT_EQ(link.UserID, 0xFFFFFFFEu);   // written as -2
    EXPECT_EQ(link.GroupID, 0xFFFFFFFEu);  // written as 4294967294
    EXPECT_EQ(link.Size, (1ULL << 63) + 5);
    EXPECT_EQ(link.LastModified, -86400);
    // Attributes as property-list data or as an archived dictionary.
    const MB::File plist = DecodeFile("ios-xattr-data.bplist");
    ASSERT_EQ(plist.ExtendedAttributes.size(), 2);
    EXPECT_EQ(Text(plist.ExtendedAttributes.Get<CF::Data>("com.apple.TextEncoding")), "utf-8;134217984");
    EXPECT_EQ(Text(plist.ExtendedAttributes.Get<CF::Data>("com.apple.rootless")), "coreknowledge");
    const MB::File archived = DecodeFile("archived-xattr.bplist");  // its path is an NSMutableString
    EXPECT_EQ(archived.RelativePath.utf8(), "Documents/notes.txt");
    ASSERT_EQ(archived.ExtendedAttributes.size(), 2);
    EXPECT_EQ(archived.ExtendedAttributes.Get<CF::Data>("com.example.first").vector(), (Bytes{0, 1, 2}));
    EXPECT_EQ(Text(archived.ExtendedAttributes.Get<CF::Data>("com.example.second")), "second value");
}

// The checks of the archive, in binary (read in place) and XML (read through CoreFoundation).
class MBFileArchiveChecks : public ::testing::TestWithParam<Format> {
protected:
    Bytes Blob() const { return Serialize(a.archive.get(), GetParam()); }
    Archive a;
};

using Change = std::function<void(Archive&)>;
Change SetRoot(const char* key, V value) { return [=](Archive& a) { a.root.Set(key, value.v.get()); }; }
Change SetRootToNew(const char* key, V object) { return [=](Archive& a) { a.root.Set(key, UID(a.Add(object))); }; }
Change SetTop(const char* key, V value) { return [=](Archive& a) { a.top.Set(key, value.v.get()); }; }
Change SetHeader(const char* key, V value) { return [=](Archive& a) { a.archive.Set(key, value.v.get()); }; }
Change Remove(std::initializer_list<const char*> keys) {
    return [v = std::vector<const char*>(keys)](Archive& a) {
        for (const char* key : v) (std::string_view(key) == "root" ? a.top : a.archive).Remove(key);
    };
}
// Attributes as an archived dictionary of "name" to `value`, listing the key `keys` times.
void SetArchivedAttributes(Archive& a, const V& value, int keys) {
    const uint32_t key = a.Add("name");
    a.root.Set("ExtendedAttributes", UID(a.Add(Dict({{"NS.keys", keys == 1 ? Arr({UID(key)}) : Arr({UID(key), UID(key)})},
                                                      {"NS.objects", Arr({UID(a.Add(value))})}}))));
}

TEST_P(MBFileArchiveChecks, EachBrokenArchiveFailsWithItsOwnError) {
    const char* const creator = "Archive was not created with a keyed archiver";
    const char* const noRoot = "Archive does not have a root object";
    const char* const noObjects = "Archive is missing the $objects key";
    const char* const cycle = "A cycle was detected when decoding the archive";
    const std::type_info& wrongType = typeid(ax::cant_decode_as_value);
    auto Cant = [](const char* type, const char* as) { return "Cant decode type '" + std::string(type) + "' as " + as; };
    const struct {
        Change breakIt;
        const std::type_info& type;
        std::string message;
    } cases[] = {
        // The header, checked in order: creator before everything else, $top before $objects.
        {SetHeader("$archiver", "NSArchiver"), typeid(ax::invalid_creator), creator},
        {SetHeader("$archiver", 1), typeid(ax::invalid_creator), creator},
        {Remove({"$archiver", "$version", "$top"}), typeid(ax::invalid_creator), creator},
        {Remove({"$version", "$top"}), typeid(ax::missing_version), "Archive has no version"},
        {SetHeader("$version", 100001), typeid(ax::unknown_version), "Archive has unknown version"},
        {SetHeader("$version", "100000"), typeid(ax::unknown_version), "Archive has unknown version"},
        {Remove({"$top", "$objects"}), typeid(ax::missing_top), "Archive is missing the $top key"},
        {Remove({"$objects"}), typeid(ax::missing_objects), noObjects},
        {SetHeader("$objects", Dict({{"a", 1}})), typeid(ax::missing_objects), noObjects},
        // The root: a UID, not nil, naming an object.
        {Remove({"root"}), typeid(ax::missing_root), noRoot},
        {SetTop("root", 1), typeid(ax::missing_root), noRoot},
        {SetHeader("$top", "root"), typeid(ax::missing_root), noRoot},
        {SetTop("root", UID(0)), typeid(ax::missing_root), noRoot},
        {SetTop("root", UID(2)), wrongType, Cant("string", "MBFile")},
        // In XML the reference reads as a dictionary {"CF$UID": 2}; it is still no object.
        {[](Archive& a) { a.top.Set("root", UID(a.Add(UID(2)))); }, wrongType, Cant("uid", "MBFile")},
        // Cycles: the record itself, a string object naming itself, an attribute dictionary holding itself.
        {SetRoot("RelativePath", UID(1)), typeid(ax::decode_cycle), cycle},
        {[](Archive& a) {
             const uint32_t s = a.Add(Dict({{"$class", UID(3)}}));
             a.objects.at<CF::Dictionary>(s).Set("NS.string", UID(s)), a.root.Set("RelativePath", UID(s));
         }, typeid(ax::decode_cycle), cycle},
        {[](Archive& a) {
             const uint32_t key = a.Add("name"), dict = a.Add(Dict({{"NS.keys", Arr({UID(key)})}}));
             a.objects.at<CF::Dictionary>(dict).Set("NS.objects", Arr({UID(dict)})), a.root.Set("ExtendedAttributes", UID(dict));
         }, typeid(ax::decode_cycle), cycle},
        {SetRoot("RelativePath", UID(4)), typeid(ax::uid_out_of_range), "Archive refers to object 4 but holds only 4 objects"},
        {SetRoot("RelativePath", UID(0xFFFFFFFF)), typeid(ax::uid_out_of_range),
         "Archive refers to object 4294967295 but holds only 4 objects"},
        {SetTop("root", UID(9)), typeid(ax::uid_out_of_range), "Archive refers to object 9 but holds only 4 objects"},
        // Members of the wrong type, named by their type, or by their class if archived objects.
        {SetRoot("Mode", "0644"), wrongType, Cant("string", "32-bit integer")},
        {SetRoot("Size", CF::Number(1.5)), wrongType, Cant("real", "64-bit integer")},
        {SetRoot("Size", UID(2)), wrongType, Cant("uid", "64-bit integer")},
        {SetRoot("UserID", int64_t{1} << 32), wrongType, Cant("integer", "32-bit integer")},
        {SetRoot("UserID", int64_t{INT32_MIN} - 1), wrongType, Cant("integer", "32-bit integer")},
        {SetRoot("RelativePath", 5), wrongType, Cant("integer", "string")},
        {SetRootToNew("RelativePath", Bytes{1, 2}), wrongType, Cant("data", "string")},
        {SetRoot("RelativePath", UID(3)), wrongType, Cant("dictionary", "string")},
        {[](Archive& a) {
             const uint32_t cls = a.Add(Dict({{"$classname", "NSDate"}}));
             a.root.Set("RelativePath", UID(a.Add(Dict({{"NS.time", 5}, {"$class", UID(cls)}}))));
         }, wrongType, Cant("NSDate", "string")},
        {SetRoot("Digest", UID(2)), wrongType, Cant("string", "data")},
        {SetRootToNew("Digest", Dict({{"NS.data", "text"}})), wrongType, Cant("string", "data")},
        // Attributes: a dictionary, or data holding a property list, of names to data.
        {SetRoot("ExtendedAttributes", UID(2)), wrongType, Cant("string", "dictionary")},
        {SetRootToNew("ExtendedAttributes", Bytes{'n', 'o', 'p', 'e'}), wrongType, Cant("data", "dictionary")},
        {SetRootToNew("ExtendedAttributes", Serialize(Arr({"x"}).get())), wrongType, Cant("array", "dictionary")},
        {SetRootToNew("ExtendedAttributes", Serialize(Dict({{"name", "text value"}}).get())), wrongType,
         Cant("string", "data")},
        {[](Archive& a) { SetArchivedAttributes(a, 5, 1); }, wrongType, Cant("integer", "data")},
        {[](Archive& a) { SetArchivedAttributes(a, Bytes{1}, 2); }, typeid(ax::mismatched_collection),
         "Archived dictionary has different numbers of keys and objects"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        a = Archive();
        c.breakIt(a);
        try {
            MB::File::Decode(Blob());
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::exception& e) {
            EXPECT_EQ(typeid(e), c.type) << typeid(e).name();
            EXPECT_EQ(std::string(e.what()), c.message);
            auto* unknown = dynamic_cast<const ax::unknown_version*>(&e);
            if (unknown && CFGetTypeID(a.archive.Get("$version")) == CFNumberGetTypeID()) { EXPECT_EQ(unknown->version(), 100001); }
        }
    }
}

TEST_P(MBFileArchiveChecks, ValidVariationsDecode) {
    // Absent and nil members keep their defaults; an object shared by two members is no cycle; 32-bit members
    // take INT32_MIN; data objects hold their bytes in place or by UID; the protection class is kept for the
    // caller to check; attributes may be an archived dictionary.
    a.root.Remove("InodeNumber");
    a.root.Set("RelativePath", UID(0));
    a.root.Set("Target", UID(2));
    a.root.Set("UserID", CF::Number(int64_t{INT32_MIN}));
    a.root.Set("ProtectionClass", CF::Number(int64_t{7}));
    const uint32_t cls = a.Add(Dict({{"$classname", "NSMutableData"}, {"$classes", Arr({"NSMutableData", "NSData"})}}));
    const uint32_t bytes = a.Add(Range(9, 44)), name = a.Add("name");
    a.root.Set("Digest", UID(a.Add(Dict({{"NS.data", Range(0, 20)}, {"$class", UID(cls)}}))));
    a.root.Set("EncryptionKey", UID(a.Add(Dict({{"NS.data", UID(bytes)}, {"$class", UID(cls)}}))));
    a.root.Set("ExtendedAttributes", UID(a.Add(Dict({{"NS.keys", Arr({UID(name)})}, {"NS.objects", Arr({UID(bytes)})}}))));
    auto f = MB::File::Decode(Blob());
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->RelativePath.utf8(), "");
    EXPECT_EQ(f->InodeNumber, 0u);
    EXPECT_EQ(f->Target.utf8(), "Media/a.jpg");
    EXPECT_EQ(f->UserID, 0x80000000u);
    EXPECT_EQ(f->ProtectionClass, 7u);
    EXPECT_EQ(f->Digest.vector(), Range(0, 20));
    EXPECT_EQ(f->EncryptionKey.vector(), Range(9, 44));
    EXPECT_EQ(f->ExtendedAttributes.Get<CF::Data>("name").vector(), Range(9, 44));
}

TEST_P(MBFileArchiveChecks, FlagsAndUnmodelledKeysAreKeptAndWrittenBackInTheirForm) {
    a.root.Set("Flags", CF::Number(int64_t{128}));
    a.root.Set("Generation", CF::Number(int64_t{-7}));
    a.root.Set("Hidden", kCFBooleanTrue);
    a.root.Set("Note", UID(2));  // the string that RelativePath names too
    a.root.Set("Blob", UID(a.Add(Bytes{1, 2})));
    // Kept nowhere: nil, an archived object, a reference past the end.
    a.root.Set("Nothing", UID(0));
    a.root.Set("Class", UID(3));
    a.root.Set("Far", UID(99));
    auto f = MB::File::Decode(Blob());
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->Flags, 128);
    ASSERT_EQ(f->Unmodelled.size(), 4);
    EXPECT_EQ(f->Unmodelled.Get<CF::Number>("Generation").Int64(), -7);
    EXPECT_EQ(f->Unmodelled.Get("Hidden"), kCFBooleanTrue);
    EXPECT_EQ(f->Unmodelled.Get<CF::String>("Note").utf8(), "Media/a.jpg");
    EXPECT_EQ(f->Unmodelled.Get<CF::Data>("Blob").vector(), (Bytes{1, 2}));

    const CF::Data blob = f->Encode();
    auto back = MB::File::Decode(blob.get());
    ASSERT_TRUE(back.has_value());
    EXPECT_TRUE(*back == *f);
    cf_value parsed = Parse(blob.vector());
    auto objects = CF::Dictionary::Retain(static_cast<CFDictionaryRef>(parsed.get())).Get<CF::Array>("$objects");
    CF::Dictionary root = objects.at<CF::Dictionary>(1);
    EXPECT_EQ(CFGetTypeID(root.Get("Generation")), CFNumberGetTypeID());
    EXPECT_EQ(root.Get("Hidden"), kCFBooleanTrue);
    for (const char* key : {"Note", "Blob"}) EXPECT_EQ(CFGetTypeID(root.Get(key)), _CFKeyedArchiverUIDGetTypeID()) << key;
}

INSTANTIATE_TEST_SUITE_P(BothFormats, MBFileArchiveChecks, ::testing::Values(Format::Binary, Format::XML),
                         [](const auto& info) { return info.param == Format::Binary ? "Binary" : "XML"; });

TEST(MBFileNotAnArchive, NoDictionaryTruncatedCorruptedOrFuzzFindingsFailCleanly) {
    EXPECT_FALSE(MB::File::Decode(Bytes{}).has_value());
    EXPECT_FALSE(MB::File::Decode(static_cast<CFDataRef>(nullptr)).has_value());
    const std::string text = "definitely not a property list";
    EXPECT_FALSE(MB::File::Decode(Bytes(text.begin(), text.end())).has_value());
    EXPECT_FALSE(MB::File::Decode(Serialize(Arr({"$archiver"}).get())).has_value());
    EXPECT_FALSE(MB::File::Decode(Serialize(Arr({"$archiver"}).get(), Format::XML)).has_value());
    const Bytes blob = FullRecord().Encode().vector();
    for (size_t n : {size_t{8}, size_t{39}, blob.size() / 2, blob.size() - 1})
        EXPECT_FALSE(MB::File::Decode(Bytes(blob.begin(), blob.begin() + static_cast<long>(n))).has_value()) << n;
    // Every entry of the offset table pointing into the header.
    Bytes corrupt = blob;
    const uint64_t tableOffset = Quiver::Support::byte_reader(corrupt).be(corrupt.size() - 8, 8).value();
    std::fill(corrupt.begin() + static_cast<long>(tableOffset), corrupt.end() - 32, 0);
    EXPECT_FALSE(MB::File::Decode(corrupt).has_value());
    // Inputs that the fuzz target found, each once a crash.
    const fs::path dir = fs::path(QUIVER_TEST_DATA) / "mbfile" / "regressions";
    // A property list in an attribute blob whose dictionary key is no string.
    EXPECT_THROW(MB::File::Decode(ReadFile(dir / "attribute-key-not-a-string.bplist")), ax::cant_decode_as_value);
    // A list whose top object is a UID.
    EXPECT_FALSE(MB::File::Decode(ReadFile(dir / "top-level-uid.bplist")).has_value());
}

TEST(MBFileRealData, EveryRowOfEveryManifestDatabaseDecodes) {
    const fs::path root(QUIVER_REALDATA);
    if (!fs::is_directory(root)) GTEST_SKIP() << "no real data at " << root;
    size_t rows = 0, databases = 0;
    for (const auto& item : fs::recursive_directory_iterator(root)) {
        if (!item.is_regular_file() || item.path().filename() != "Manifest.db" || item.file_size() == 0) continue;
        std::unique_ptr<SQLite::Database> db;
        try {
            db = std::make_unique<SQLite::Database>("file:" + item.path().string() + "?immutable=1",
                                                    SQLite::OPEN_READONLY | SQLite::OPEN_URI);
            db->exec("SELECT count(*) FROM Files");
        } catch (const SQLite::Exception&) {
            continue;  // an encrypted database
        }
        ++databases;
        SQLite::Statement query(*db, "SELECT fileID, relativePath, flags, file FROM Files");
        while (query.executeStep()) {
            SCOPED_TRACE(item.path().string() + " " + query.getColumn(0).getString());
            const SQLite::Column column = query.getColumn(3);
            const auto* p = static_cast<const uint8_t*>(column.getBlob());
            auto f = MB::File::Decode(Bytes(p, p + column.getBytes()));
            ASSERT_TRUE(f.has_value());
            EXPECT_EQ(f->RelativePath.utf8(), query.getColumn(1).getString());
            const int flags = query.getColumn(2).getInt();
            EXPECT_EQ(f->Mode & 0xE000, flags == 1 ? 0x8000u : flags == 2 ? 0x4000u : 0xA000u);
            EXPECT_LE(f->ProtectionClass, 4u);
            // What we write reads back the same.
            auto again = MB::File::Decode(f->Encode().get());
            ASSERT_TRUE(again.has_value());
            EXPECT_TRUE(*again == *f);
            ++rows;
        }
    }
    if (databases == 0) GTEST_SKIP() << "no readable Manifest.db below " << root;
    EXPECT_GT(rows, 0u);
}

}  // namespace
