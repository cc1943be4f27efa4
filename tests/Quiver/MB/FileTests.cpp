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

#include "Quiver/CF/Empty.hpp"
#include "Quiver/MB/File.hpp"
#include "Quiver/QVManifestEntry.hpp"
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

// The writer that encodes records straight from entries must make the very bytes of the general
// archiver, or fail with its message: every kind of entry, members present and absent, numbers at each
// width boundary, texts that repeat archive keys or each other, UTF-16 and malformed text, attributes and
// unmodelled keys, and records big enough for wider references and offsets.
TEST(MBFileWriter, WritesTheBytesOfTheGeneralArchiver) {
    using Entry = std::shared_ptr<QVManifestEntryClass>;
    auto entry = [](uint8_t type, std::string_view path, std::string_view target = {}) {
        auto e = std::make_shared<QVManifestEntryClass>();
        e->SetDomain(CF::String("HomeDomain"));
        e->fileType = type;
        e->mode = type == 1 ? 0100644 : type == 2 ? 040755 : 0120755;
        e->SetTexts({{QVManifestEntryClass::kPath, path}, {QVManifestEntryClass::kTarget, target}});
        return e;
    };
    auto withBytes = [](Entry e, Bytes digest, Bytes key) {
        const std::string path(e->path()), target(e->target());
        const std::string d(digest.begin(), digest.end()), k(key.begin(), key.end());
        e->SetTexts({{QVManifestEntryClass::kPath, path},
                     {QVManifestEntryClass::kTarget, target},
                     {QVManifestEntryClass::kDigest, d},
                     {QVManifestEntryClass::kEncryptionKey, k}});
        return e;
    };
    std::vector<Entry> entries = {
        entry(2, ""),
        entry(2, "Library"),
        entry(1, "Library/SMS/sms.db"),
        entry(4, "Library/link", "../Library/SMS/sms.db"),
        entry(4, "same", "same"),
        entry(1, "Mode"),  // the text of a key
        entry(1, "$null"),
        entry(4, "MBFile", "NSObject"),
        entry(1, "Médias/photo ☃.jpg"),
        entry(1, "emoji 😀 outside the basic plane"),
        entry(4, "日本語", "日本語"),
        entry(1, std::string(14, 'a')),
        entry(1, std::string(15, 'b')),
        entry(1, std::string(300, 'c')),
        entry(1, std::string(70000, 'd')),
        entry(1, "not \xff UTF-8"),
        entry(4, "target not UTF-8", "\xc3"),
        withBytes(entry(1, "digest only"), Range(1, 20), {}),
        withBytes(entry(1, "key only"), {}, Range(50, 44)),
        withBytes(entry(1, "both"), Range(1, 20), Range(50, 44)),
        withBytes(entry(1, "key equal to digest"), Range(1, 20), Range(1, 20)),
    };
    const uint64_t numbers[] = {0, 1, 255, 256, 65535, 65536, 0xFFFFFFFFULL, 0x100000000ULL, 1ULL << 40,
                                0x7FFFFFFFFFFFFFFFULL, 0x8000000000000001ULL, ~0ULL};
    for (size_t i = 0; i < std::size(numbers); ++i) {
        Entry e = withBytes(entry(1, "numbers " + std::to_string(i)), Range(static_cast<uint8_t>(i), 20), {});
        e->size = numbers[i];
        e->inode = numbers[(i + 3) % std::size(numbers)];
        e->userID = static_cast<uint32_t>(numbers[(i + 5) % std::size(numbers)]);
        e->groupID = 0xFFFFFFFE;
        e->lastModified = static_cast<double>(i) * 1e8 - 5e8 + 0.75;
        e->lastStatusChange = -978307200.0 - static_cast<double>(i);
        e->birth = 4e9;
        e->protectionClass = static_cast<EntryProtectionClass>(i % 5);
        e->archiveFlags = i % 2 ? -1 : static_cast<int64_t>(numbers[i]);
        entries.push_back(e);
    }
    Entry attributes = entry(1, "attributes");
    attributes->properties = Dict({{"com.apple.TextEncoding", Bytes{'u', 't', 'f'}},
                                   {"empty", Bytes{}},
                                   {"attributes", Bytes{1}},  // the path's text
                                   {"clé", Bytes(20, 7)}});
    entries.push_back(attributes);
    Entry manyAttributes = entry(1, "many attributes");
    manyAttributes->properties = CF::Dictionary::CreateMutable();
    for (int i = 0; i < 40; ++i)
        manyAttributes->properties.Set(CF::String("name" + std::to_string(i)).get(),
                                       CF::Data(Range(0, i % 3 == 0 ? 70000 : 3)).get());
    entries.push_back(manyAttributes);
    Entry extras = withBytes(entry(1, "kept"), Range(1, 20), Range(9, 44));
    extras->archiveExtras = Dict({{"Generation", 7}, {"Negative", int64_t{-3}}, {"Note", "kept"}, {"Blob", Bytes{9, 8}},
                                  {"Wide", "ü"}, {"Ratio", CF::Number(0.5)}, {"Mode2", "Mode"}});
    extras->archiveExtras.Set("Hidden", kCFBooleanTrue);
    extras->archiveExtras.Set("Shown", kCFBooleanFalse);
    const CF::String shared("one object under two keys");
    extras->archiveExtras.Set("First", shared.get());
    extras->archiveExtras.Set("Second", shared.get());
    extras->archiveExtras.Set("Empty", CF::EmptyString().get());
    extras->archiveExtras.Set("", CF::String("").get());  // the empty text twice, as key and as value
    entries.push_back(extras);
    // More than 255 objects and UIDs; the path is archived as the shared empty string.
    Entry manyExtras = entry(1, "not \xfe UTF-8 either");
    manyExtras->archiveExtras = CF::Dictionary::CreateMutable();
    manyExtras->archiveExtras.Set("Empty", CF::EmptyString().get());
    for (int i = 0; i < 300; ++i) {
        const std::string n = std::to_string(i);
        manyExtras->archiveExtras.Set(CF::String("k" + n).get(), CF::Number(int64_t{i}).get());
        manyExtras->archiveExtras.Set(CF::String("s" + n).get(), CF::String("v" + std::to_string(i % 7)).get());
    }
    entries.push_back(manyExtras);
    // Records that neither may write.
    entries.push_back(entry(1, std::string_view("a\0b", 3)));
    entries.push_back(entry(4, "link", std::string_view("a\0b", 3)));
    Entry badAttributes = entry(1, "bad attributes");
    badAttributes->properties = Dict({{"name", "a string, not data"}});
    entries.push_back(badAttributes);
    for (const char* key : {"Flags", "$class"}) {
        Entry badExtras = entry(1, "bad extras");
        badExtras->archiveExtras = Dict({{key, 1}});
        entries.push_back(badExtras);
    }
    Entry listExtra = entry(1, "list");
    listExtra->archiveExtras = Dict({{"List", Arr({1})}});
    entries.push_back(listExtra);

    MB::FileWriter writer;  // one writer for all, as the manifest writer uses it
    size_t written = 0, refused = 0;
    for (const Entry& e : entries) {
        SCOPED_TRACE(std::string(e->path().substr(0, 40)));
        std::string expectedError, error;
        Bytes expected, direct{0xEE};  // what was in the buffer before stays
        try {
            const CF::Data blob = Quiver::MBFileRecordForEntry(*e).Encode();
            expected.assign(blob.begin(), blob.end());
        } catch (const ax::archive_error& x) {
            expectedError = x.what();
        }
        try {
            Quiver::AppendMBFileData(writer, *e, direct);
        } catch (const ax::archive_error& x) {
            error = x.what();
        }
        EXPECT_EQ(error, expectedError);
        if (expectedError.empty()) {
            ++written;
            ASSERT_EQ(direct.size(), expected.size() + 1);
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), direct.begin() + 1));
        } else {
            ++refused;
            EXPECT_EQ(direct, Bytes{0xEE});
        }
    }
    EXPECT_EQ(refused, 6u);
    EXPECT_EQ(written, entries.size() - refused);
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
    MB::FileWriter writer;
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
            // What we write reads back the same, and the direct writer writes the same bytes.
            const CF::Data encoded = f->Encode();
            MB::FileView view;
            const Bytes blob(p, p + column.getBytes());
            ASSERT_TRUE(MB::File::DecodeView(blob, view));
            Bytes direct;
            writer.Append(view, direct);
            EXPECT_TRUE(std::equal(direct.begin(), direct.end(), encoded.begin(), encoded.end()));
            auto again = MB::File::Decode(encoded.get());
            ASSERT_TRUE(again.has_value());
            EXPECT_TRUE(*again == *f);
            ++rows;
        }
    }
    if (databases == 0) GTEST_SKIP() << "no readable Manifest.db below " << root;
    EXPECT_GT(rows, 0u);
}

}  // namespace
