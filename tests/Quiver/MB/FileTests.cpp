// MB::File: blobs round-trip, device-style archives written by Python's plistlib decode, every archive
// check fails with its message in both property-list formats, hostile references are refused, and
// the blobs of real Manifest.db files decode.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
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
    f.RelativePath = CF::String("Library/SMS/sms.db");
    f.Target = CF::String("../elsewhere");
    f.Digest = CF::Data(Range(1, 20));
    f.EncryptionKey = CF::Data(Range(50, 44));
    f.Mode = 0100600;
    f.UserID = 501;
    f.GroupID = 0xFFFFFFFE;
    f.LastModified = 1610674653;
    f.LastStatusChange = -5;
    f.Birth = 0;
    f.Size = 0x8000000000000001ULL;
    f.InodeNumber = 1ULL << 40;
    f.ProtectionClass = 3;
    f.ExtendedAttributes = Dict({{"com.apple.TextEncoding", Bytes{'u', 't', 'f'}}, {"empty", Bytes{}}});
    return f;
}

// The parts of an archive as devices write it, mutable so that each test can break one thing.
struct Archive {
    CF::Dictionary root = Dict({{"RelativePath", UID(2)},
                                {"Mode", 0100644},
                                {"UserID", 501},
                                {"GroupID", 501},
                                {"LastModified", 1000},
                                {"LastStatusChange", 1001},
                                {"Birth", 999},
                                {"Size", 42},
                                {"InodeNumber", 7},
                                {"ProtectionClass", 4},
                                {"Flags", 0},
                                {"$class", UID(3)}});
    CF::Array objects =
        Arr({"$null", root, "Media/a.jpg", Dict({{"$classname", "MBFile"}, {"$classes", Arr({"MBFile", "NSObject"})}})});
    CF::Dictionary top = Dict({{"root", UID(1)}});
    CF::Dictionary archive =
        Dict({{"$archiver", "NSKeyedArchiver"}, {"$version", 100000}, {"$top", top}, {"$objects", objects}});

    // Appends an object and returns its UID.
    uint32_t Add(const V& object) {
        objects.Append(object.v);
        return static_cast<uint32_t>(objects.size() - 1);
    }
};

class MBFileRoundTrip : public ::testing::Test {
protected:
    static MB::File RoundTrip(const MB::File& f) {
        CF::Data blob = f.Encode();
        EXPECT_FALSE(blob.IsEmpty());
        auto back = MB::File::Decode(blob.get());
        EXPECT_TRUE(back.has_value());
        return back.value_or(MB::File());
    }
    // The MBFile object of an encoded record, as a property list.
    static CF::Dictionary RootObject(const MB::File& f) {
        cf_value archive = Parse(f.Encode().vector());
        auto objects = CF::Dictionary::Retain(static_cast<CFDictionaryRef>(archive.get())).Get<CF::Array>("$objects");
        return objects.at<CF::Dictionary>(1);
    }
};

TEST_F(MBFileRoundTrip, EveryMemberSurvives) {
    const MB::File f = FullRecord();
    const MB::File back = RoundTrip(f);
    EXPECT_TRUE(back == f);
    EXPECT_EQ(back.RelativePath.utf8(), "Library/SMS/sms.db");
    EXPECT_EQ(back.Target.utf8(), "../elsewhere");
    EXPECT_EQ(back.Digest.vector(), Range(1, 20));
    EXPECT_EQ(back.EncryptionKey.vector(), Range(50, 44));
    EXPECT_EQ(back.GroupID, 0xFFFFFFFEu);
    EXPECT_EQ(back.LastStatusChange, -5);
    EXPECT_EQ(back.Size, 0x8000000000000001ULL);
    EXPECT_EQ(back.InodeNumber, 1ULL << 40);
    EXPECT_EQ(back.ExtendedAttributes.size(), 2);
}

TEST_F(MBFileRoundTrip, DefaultRecordSurvivesWithSharedEmptyMembers) {
    const MB::File back = RoundTrip(MB::File());
    EXPECT_TRUE(back == MB::File());
    // Empty members are real, empty objects, the same ones for every record.
    ASSERT_TRUE(back.RelativePath && back.Target && back.Digest && back.EncryptionKey && back.ExtendedAttributes);
    const MB::File other;
    EXPECT_EQ(back.Target.get(), other.Target.get());
    EXPECT_EQ(back.RelativePath.get(), other.RelativePath.get());
    EXPECT_EQ(back.Digest.get(), other.Digest.get());
    EXPECT_EQ(back.ExtendedAttributes.get(), other.ExtendedAttributes.get());
}

TEST_F(MBFileRoundTrip, EmptyMembersAreLeftOutOfTheArchive) {
    MB::File f;
    f.Mode = 040755;
    CF::Dictionary root = RootObject(f);
    for (const char* key : {"Target", "Digest", "EncryptionKey", "ExtendedAttributes"}) EXPECT_FALSE(root.Contains(key)) << key;
    for (const char* key : {"RelativePath", "Mode", "UserID", "GroupID", "LastModified", "LastStatusChange", "Birth",
                            "Size", "InodeNumber", "ProtectionClass", "$class"})
        EXPECT_TRUE(root.Contains(key)) << key;
}

TEST_F(MBFileRoundTrip, ArchiveHasTheKeyedArchiverLayout) {
    const MB::File f = FullRecord();
    cf_value parsed = Parse(f.Encode().vector());
    auto archive = CF::Dictionary::Retain(static_cast<CFDictionaryRef>(parsed.get()));
    EXPECT_EQ(archive.Get<CF::String>("$archiver").utf8(), "NSKeyedArchiver");
    EXPECT_EQ(archive.Get<CF::Number>("$version").Int64(), 100000);
    auto objects = archive.Get<CF::Array>("$objects");
    EXPECT_EQ(objects.at<CF::String>(0).utf8(), "$null");
    CF::Dictionary root = objects.at<CF::Dictionary>(1);
    // Strings, data and the attribute dictionary are objects of their own, referred to by UID.
    for (const char* key : {"RelativePath", "Target", "Digest", "EncryptionKey", "ExtendedAttributes", "$class"}) {
        CFTypeRef v = root.Get(key);
        ASSERT_TRUE(v && CFGetTypeID(v) == _CFKeyedArchiverUIDGetTypeID()) << key;
    }
    auto uidOf = [&](const char* key) {
        return _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(root.Get(key)));
    };
    CF::Dictionary cls = objects.at<CF::Dictionary>(uidOf("$class"));
    EXPECT_EQ(cls.Get<CF::String>("$classname").utf8(), "MBFile");
    EXPECT_EQ(cls.Get<CF::Array>("$classes").size(), 2);
    CF::Dictionary attributes = objects.at<CF::Dictionary>(uidOf("ExtendedAttributes"));
    EXPECT_EQ(attributes.Get<CF::Array>("NS.keys").size(), 2);
    EXPECT_EQ(attributes.Get<CF::Array>("NS.objects").size(), 2);
    // IDs are 32-bit numbers: 0xFFFFFFFE is stored as -2.
    EXPECT_EQ(root.Get<CF::Number>("GroupID").Int64(), -2);
}

TEST_F(MBFileRoundTrip, AttributesThatAreNotNamesToDataAreNotWritten) {
    // Such a record would be written but could never be read back.
    MB::File f;
    f.ExtendedAttributes = Dict({{"name", "a string, not data"}});
    EXPECT_THROW(f.Encode(), ax::archive_error);
    f.ExtendedAttributes = CF::Dictionary::CreateMutable();
    f.ExtendedAttributes.Set(CF::Number(int64_t{1}).get(), CF::Data(Bytes{1}).get());
    EXPECT_THROW(f.Encode(), ax::archive_error);
}

TEST_F(MBFileRoundTrip, TextWithNULIsRefusedRatherThanCutShort) {
    MB::File f;
    f.Target = CF::String(std::string_view("a\0b", 3));
    EXPECT_THROW(f.Encode(), ax::archive_error);
}

// ---- Archives written by Python's plistlib in the layouts devices use ----

class MBFilePythonBlobs : public ::testing::Test {
protected:
    static MB::File DecodeFile(const char* name) {
        const Bytes blob = ReadFile(fs::path(QUIVER_TEST_DATA) / "mbfile" / name);
        EXPECT_FALSE(blob.empty()) << name;
        auto f = MB::File::Decode(blob);
        EXPECT_TRUE(f.has_value()) << name;
        return f.value_or(MB::File());
    }
};

TEST_F(MBFilePythonBlobs, RegularFileWithPlainDigestAndMutableDataKey) {
    for (const char* name : {"ios-file.bplist", "ios-file.xml"}) {
        SCOPED_TRACE(name);
        const MB::File f = DecodeFile(name);
        EXPECT_EQ(f.RelativePath.utf8(), "Library/Preferences/com.example.plist");
        EXPECT_EQ(f.Target.utf8(), "");
        EXPECT_EQ(f.Digest.vector(), Range(1, 20));
        Bytes key{3, 0, 0, 0};
        const Bytes wrapped = Range(100, 40);
        key.insert(key.end(), wrapped.begin(), wrapped.end());
        EXPECT_EQ(f.EncryptionKey.vector(), key);
        EXPECT_EQ(f.Mode, 0100644u);
        EXPECT_EQ(f.UserID, 501u);
        EXPECT_EQ(f.GroupID, 501u);
        EXPECT_EQ(f.LastModified, 1610674653);
        EXPECT_EQ(f.LastStatusChange, 1610674660);
        EXPECT_EQ(f.Birth, 1610674600);
        EXPECT_EQ(f.Size, 1620u);
        EXPECT_EQ(f.InodeNumber, 162058u);
        EXPECT_EQ(f.ProtectionClass, 3u);
        EXPECT_TRUE(f.ExtendedAttributes.IsEmpty());
    }
}

TEST_F(MBFilePythonBlobs, DirectoryWithEmptyPathAndNoInode) {
    const MB::File f = DecodeFile("ios-directory.bplist");
    EXPECT_EQ(f.RelativePath.utf8(), "");
    EXPECT_EQ(f.Mode, 040755u);
    EXPECT_EQ(f.InodeNumber, 0u);
    EXPECT_TRUE(f.Digest.IsEmpty());
    EXPECT_TRUE(f.EncryptionKey.IsEmpty());
}

TEST_F(MBFilePythonBlobs, SymlinkWithUTF16PathNegativeIDsAndWideSize) {
    const MB::File f = DecodeFile("ios-symlink.bplist");
    EXPECT_EQ(f.RelativePath.utf8(), "Library/Caches/\xC3\x9Cn\xC3\xAF" "c\xC3\xB6" "d\xC3\xA9 link");
    EXPECT_EQ(f.Target.utf8(), "/var/mobile/Library/Caches");
    EXPECT_EQ(f.Mode, 0120755u);
    EXPECT_EQ(f.UserID, 0xFFFFFFFEu);   // written as -2
    EXPECT_EQ(f.GroupID, 0xFFFFFFFEu);  // written as 4294967294
    EXPECT_EQ(f.Size, (1ULL << 63) + 5);
    EXPECT_EQ(f.LastModified, -86400);
}

TEST_F(MBFilePythonBlobs, AttributesAsDataHoldingAPropertyList) {
    const MB::File f = DecodeFile("ios-xattr-data.bplist");
    ASSERT_EQ(f.ExtendedAttributes.size(), 2);
    EXPECT_EQ(Text(f.ExtendedAttributes.Get<CF::Data>("com.apple.TextEncoding")), "utf-8;134217984");
    EXPECT_EQ(Text(f.ExtendedAttributes.Get<CF::Data>("com.apple.rootless")), "coreknowledge");
}

TEST_F(MBFilePythonBlobs, AttributesAsArchivedDictionaryAndPathAsMutableString) {
    const MB::File f = DecodeFile("archived-xattr.bplist");
    EXPECT_EQ(f.RelativePath.utf8(), "Documents/notes.txt");
    ASSERT_EQ(f.ExtendedAttributes.size(), 2);
    EXPECT_EQ(f.ExtendedAttributes.Get<CF::Data>("com.example.first").vector(), (Bytes{0, 1, 2}));
    EXPECT_EQ(Text(f.ExtendedAttributes.Get<CF::Data>("com.example.second")), "second value");
}

// ---- The checks of the archive, in binary (read in place) and XML (read through CoreFoundation) ----

class MBFileArchiveChecks : public ::testing::TestWithParam<Format> {
protected:
    Bytes Blob() const { return Serialize(a.archive.get(), GetParam()); }

    // Decoding throws exactly E with this message.
    template <class E>
    void ExpectFailure(const std::string& message) const {
        const Bytes blob = Blob();
        ASSERT_FALSE(blob.empty());
        try {
            MB::File::Decode(blob);
            ADD_FAILURE() << "nothing thrown; expected " << message;
        } catch (const E& e) {
            EXPECT_EQ(typeid(e), typeid(E));
            EXPECT_EQ(std::string(e.what()), message);
        } catch (const std::exception& e) {
            ADD_FAILURE() << "unexpected exception " << typeid(e).name() << ": " << e.what();
        }
    }
    MB::File Decoded() const {
        auto f = MB::File::Decode(Blob());
        EXPECT_TRUE(f.has_value());
        return f.value_or(MB::File());
    }

    Archive a;
};

TEST_P(MBFileArchiveChecks, ValidArchiveDecodes) {
    const MB::File f = Decoded();
    EXPECT_EQ(f.RelativePath.utf8(), "Media/a.jpg");
    EXPECT_EQ(f.Mode, 0100644u);
    EXPECT_EQ(f.InodeNumber, 7u);
    EXPECT_EQ(f.ProtectionClass, 4u);
}

TEST_P(MBFileArchiveChecks, OtherCreatorIsRefused) {
    a.archive.Set("$archiver", CF::String("NSArchiver"));
    ExpectFailure<ax::invalid_creator>("Archive was not created with a keyed archiver");
    a.archive.Set("$archiver", CF::Number(int64_t{1}));
    ExpectFailure<ax::invalid_creator>("Archive was not created with a keyed archiver");
    a.archive.Remove("$archiver");
    ExpectFailure<ax::invalid_creator>("Archive was not created with a keyed archiver");
}

TEST_P(MBFileArchiveChecks, CreatorIsCheckedBeforeEverythingElse) {
    a.archive.Remove("$archiver");
    a.archive.Remove("$version");
    a.archive.Remove("$top");
    ExpectFailure<ax::invalid_creator>("Archive was not created with a keyed archiver");
}

TEST_P(MBFileArchiveChecks, MissingVersionIsRefused) {
    a.archive.Remove("$version");
    a.archive.Remove("$top");
    ExpectFailure<ax::missing_version>("Archive has no version");
}

TEST_P(MBFileArchiveChecks, UnknownVersionIsRefusedAndReported) {
    a.archive.Set("$version", CF::Number(int64_t{100001}));
    ExpectFailure<ax::unknown_version>("Archive has unknown version");
    try {
        MB::File::Decode(Blob());
    } catch (const ax::unknown_version& e) {
        EXPECT_EQ(e.version(), 100001);
    }
    a.archive.Set("$version", CF::String("100000"));
    ExpectFailure<ax::unknown_version>("Archive has unknown version");
}

TEST_P(MBFileArchiveChecks, MissingTopIsRefusedBeforeMissingObjects) {
    a.archive.Remove("$top");
    a.archive.Remove("$objects");
    ExpectFailure<ax::missing_top>("Archive is missing the $top key");
}

TEST_P(MBFileArchiveChecks, MissingOrMistypedObjectsAreRefused) {
    a.archive.Remove("$objects");
    ExpectFailure<ax::missing_objects>("Archive is missing the $objects key");
    a.archive.Set("$objects", a.root);
    ExpectFailure<ax::missing_objects>("Archive is missing the $objects key");
}

TEST_P(MBFileArchiveChecks, RootMustBeAUID) {
    a.top.Remove("root");
    ExpectFailure<ax::missing_root>("Archive does not have a root object");
    a.top.Set("root", CF::Number(int64_t{1}));
    ExpectFailure<ax::missing_root>("Archive does not have a root object");
    a.archive.Set("$top", CF::String("root"));
    ExpectFailure<ax::missing_root>("Archive does not have a root object");
}

TEST_P(MBFileArchiveChecks, NilRootIsNoRoot) {
    a.top.Set("root", UID(0));
    ExpectFailure<ax::missing_root>("Archive does not have a root object");
}

TEST_P(MBFileArchiveChecks, RootThatIsNotAnObjectIsRefused) {
    a.top.Set("root", UID(2));  // the path string
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'string' as MBFile");
}

TEST_P(MBFileArchiveChecks, RootThatIsAReferenceIsRefused) {
    // In XML the reference reads as a dictionary {"CF$UID": 2}; it is still no object.
    a.top.Set("root", UID(a.Add(UID(2))));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'uid' as MBFile");
}

TEST_P(MBFileArchiveChecks, ObjectReferringToItselfIsACycle) {
    a.root.Set("RelativePath", UID(1));
    ExpectFailure<ax::decode_cycle>("A cycle was detected when decoding the archive");
}

TEST_P(MBFileArchiveChecks, CycleThroughNestedObjectsIsDetected) {
    // Path -> NSString object whose "NS.string" refers back to that same object.
    const uint32_t s = a.Add(Dict({{"$class", UID(3)}}));
    a.objects.at<CF::Dictionary>(s).Set("NS.string", UID(s));
    a.root.Set("RelativePath", UID(s));
    ExpectFailure<ax::decode_cycle>("A cycle was detected when decoding the archive");
}

TEST_P(MBFileArchiveChecks, ObjectSharedByTwoMembersIsNoCycle) {
    a.root.Set("Target", UID(2));
    const MB::File f = Decoded();
    EXPECT_EQ(f.Target.utf8(), "Media/a.jpg");
    EXPECT_EQ(f.RelativePath.utf8(), "Media/a.jpg");
}

TEST_P(MBFileArchiveChecks, UIDsBeyondTheObjectsAreRefused) {
    a.root.Set("RelativePath", UID(4));
    ExpectFailure<ax::uid_out_of_range>("Archive refers to object 4 but holds only 4 objects");
    a.root.Set("RelativePath", UID(0xFFFFFFFF));
    ExpectFailure<ax::uid_out_of_range>("Archive refers to object 4294967295 but holds only 4 objects");
    a.root.Set("RelativePath", UID(2));
    a.top.Set("root", UID(9));
    ExpectFailure<ax::uid_out_of_range>("Archive refers to object 9 but holds only 4 objects");
}

TEST_P(MBFileArchiveChecks, AbsentAndNilMembersKeepTheirDefaults) {
    a.root.Remove("InodeNumber");
    a.root.Set("RelativePath", UID(0));
    a.root.Set("Digest", UID(0));
    const MB::File f = Decoded();
    EXPECT_EQ(f.InodeNumber, 0u);
    EXPECT_EQ(f.RelativePath.utf8(), "");
    EXPECT_TRUE(f.Digest.IsEmpty());
    EXPECT_TRUE(f.ExtendedAttributes.IsEmpty());
}

TEST_P(MBFileArchiveChecks, StoredProtectionClassIsKeptForTheCallerToCheck) {
    a.root.Set("ProtectionClass", CF::Number(int64_t{7}));
    EXPECT_EQ(Decoded().ProtectionClass, 7u);
}

TEST_P(MBFileArchiveChecks, NumberOfWrongTypeIsRefused) {
    a.root.Set("Mode", CF::String("0644"));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'string' as 32-bit integer");
    a.root.Set("Mode", CF::Number(int64_t{0644}));
    a.root.Set("Size", CF::Number(1.5));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'real' as 64-bit integer");
    a.root.Set("Size", UID(2));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'uid' as 64-bit integer");
}

TEST_P(MBFileArchiveChecks, ThirtyTwoBitMembersRefuseWiderValues) {
    a.root.Set("UserID", CF::Number(int64_t{1} << 32));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'integer' as 32-bit integer");
    a.root.Set("UserID", CF::Number(int64_t{INT32_MIN} - 1));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'integer' as 32-bit integer");
    a.root.Set("UserID", CF::Number(int64_t{INT32_MIN}));
    EXPECT_EQ(Decoded().UserID, 0x80000000u);
}

TEST_P(MBFileArchiveChecks, StringOfWrongTypeIsRefused) {
    a.root.Set("RelativePath", CF::Number(int64_t{5}));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'integer' as string");
    a.root.Set("RelativePath", UID(a.Add(Bytes{1, 2})));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'data' as string");
    // An archived object of another class is named by its class.
    a.root.Set("RelativePath", UID(1 + 2));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'dictionary' as string");
    a.root.Set("RelativePath", UID(a.Add(Dict({{"NS.time", 5}, {"$class", UID(a.Add(Dict({{"$classname", "NSDate"}})))}}))));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'NSDate' as string");
}

TEST_P(MBFileArchiveChecks, DataOfWrongTypeIsRefused) {
    a.root.Set("Digest", UID(2));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'string' as data");
    a.root.Set("Digest", UID(a.Add(Dict({{"NS.data", "text"}}))));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'string' as data");
}

TEST_P(MBFileArchiveChecks, DataObjectsHoldTheirBytesInPlaceOrByUID) {
    const uint32_t cls = a.Add(Dict({{"$classname", "NSMutableData"}, {"$classes", Arr({"NSMutableData", "NSData"})}}));
    a.root.Set("Digest", UID(a.Add(Dict({{"NS.data", Range(0, 20)}, {"$class", UID(cls)}}))));
    a.root.Set("EncryptionKey", UID(a.Add(Dict({{"NS.data", UID(a.Add(Range(9, 44)))}, {"$class", UID(cls)}}))));
    const MB::File f = Decoded();
    EXPECT_EQ(f.Digest.vector(), Range(0, 20));
    EXPECT_EQ(f.EncryptionKey.vector(), Range(9, 44));
}

TEST_P(MBFileArchiveChecks, AttributesOfWrongShapeAreRefused) {
    a.root.Set("ExtendedAttributes", UID(2));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'string' as dictionary");
    a.root.Set("ExtendedAttributes", UID(a.Add(Bytes{'n', 'o', 't', ' ', 'a', ' ', 'p', 'l', 'i', 's', 't'})));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'data' as dictionary");
    a.root.Set("ExtendedAttributes", UID(a.Add(Serialize(Arr({"x"}).get()))));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'array' as dictionary");
    a.root.Set("ExtendedAttributes", UID(a.Add(Serialize(Dict({{"name", "text value"}}).get()))));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'string' as data");
}

TEST_P(MBFileArchiveChecks, ArchivedAttributeDictionaryMustMapStringsToData) {
    const uint32_t key = a.Add("name"), value = a.Add(Bytes{1}), number = a.Add(5);
    const uint32_t dict = a.Add(Dict({{"NS.keys", Arr({UID(key)})}, {"NS.objects", Arr({UID(number)})}}));
    a.root.Set("ExtendedAttributes", UID(dict));
    ExpectFailure<ax::cant_decode_as_value>("Cant decode type 'integer' as data");
    a.root.Set("ExtendedAttributes", UID(a.Add(Dict({{"NS.keys", Arr({UID(key), UID(key)})}, {"NS.objects", Arr({UID(value)})}}))));
    ExpectFailure<ax::mismatched_collection>("Archived dictionary has different numbers of keys and objects");
    a.root.Set("ExtendedAttributes", UID(a.Add(Dict({{"NS.keys", Arr({UID(key)})}, {"NS.objects", Arr({UID(value)})}}))));
    EXPECT_EQ(Decoded().ExtendedAttributes.Get<CF::Data>("name").vector(), Bytes{1});
}

TEST_P(MBFileArchiveChecks, AttributeDictionaryReferringToItselfIsACycle) {
    const uint32_t key = a.Add("name");
    const uint32_t dict = a.Add(Dict({{"NS.keys", Arr({UID(key)})}, {"NS.objects", Arr({UID(0)})}}));
    CF::Dictionary d = a.objects.at<CF::Dictionary>(dict);
    d.Set("NS.objects", Arr({UID(dict)}));
    a.root.Set("ExtendedAttributes", UID(dict));
    ExpectFailure<ax::decode_cycle>("A cycle was detected when decoding the archive");
}

INSTANTIATE_TEST_SUITE_P(BothFormats, MBFileArchiveChecks, ::testing::Values(Format::Binary, Format::XML),
                         [](const auto& info) { return info.param == Format::Binary ? "Binary" : "XML"; });

// ---- Bytes that are no keyed archive at all ----

TEST(MBFileNotAnArchive, BytesThatAreNoDictionaryGiveNothing) {
    EXPECT_FALSE(MB::File::Decode(Bytes{}).has_value());
    EXPECT_FALSE(MB::File::Decode(static_cast<CFDataRef>(nullptr)).has_value());
    const std::string text = "definitely not a property list";
    EXPECT_FALSE(MB::File::Decode(Bytes(text.begin(), text.end())).has_value());
    EXPECT_FALSE(MB::File::Decode(Serialize(Arr({"$archiver"}).get())).has_value());
    EXPECT_FALSE(MB::File::Decode(Serialize(Arr({"$archiver"}).get(), Format::XML)).has_value());
}

TEST(MBFileNotAnArchive, TruncatedOrCorruptedBinaryGivesNothing) {
    const Bytes blob = FullRecord().Encode().vector();
    for (size_t n : {size_t{8}, size_t{39}, blob.size() / 2, blob.size() - 1}) {
        EXPECT_FALSE(MB::File::Decode(Bytes(blob.begin(), blob.begin() + static_cast<long>(n))).has_value()) << n;
    }
    // Every entry of the offset table pointing into the header.
    Bytes corrupt = blob;
    const uint64_t tableOffset = Quiver::Support::byte_reader(corrupt).be(corrupt.size() - 8, 8).value();
    std::fill(corrupt.begin() + static_cast<long>(tableOffset), corrupt.end() - 32, 0);
    EXPECT_FALSE(MB::File::Decode(corrupt).has_value());
}

// Inputs that the fuzz target found, each once a crash.
TEST(MBFileRegressions, FuzzFindingsFailCleanly) {
    const fs::path dir = fs::path(QUIVER_TEST_DATA) / "mbfile" / "regressions";
    // A property list in an attribute blob whose dictionary key is no string.
    EXPECT_THROW(MB::File::Decode(ReadFile(dir / "attribute-key-not-a-string.bplist")), ax::cant_decode_as_value);
    // A list whose top object is a UID.
    EXPECT_FALSE(MB::File::Decode(ReadFile(dir / "top-level-uid.bplist")).has_value());
}

// ---- Real backups ----

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
            const std::string fileID = query.getColumn(0).getString();
            SCOPED_TRACE(item.path().string() + " " + fileID);
            const SQLite::Column blobColumn = query.getColumn(3);
            const auto* p = static_cast<const uint8_t*>(blobColumn.getBlob());
            const Bytes blob(p, p + blobColumn.getBytes());
            auto f = MB::File::Decode(blob);
            ASSERT_TRUE(f.has_value());
            EXPECT_EQ(f->RelativePath.utf8(), query.getColumn(1).getString());
            const int flags = query.getColumn(2).getInt();
            const uint32_t type = f->Mode & 0xE000;
            EXPECT_EQ(type, flags == 1 ? 0x8000u : flags == 2 ? 0x4000u : 0xA000u);
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
