// The MBFile archives we write have the shape of those a device writes, object for object: the same
// classes, the same keys on the root and the same kind of value under each. Decryptors in common use
// walk the archive by that shape, so a difference in it (bare data where an NSMutableData object is
// expected, a missing "Flags") fails every file of a backup even when all values are right. Compared
// against the rows of a real iOS 14 Manifest.db, skipped where that database is absent.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <compare>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Quiver/MB/File.hpp"
#include "Quiver/QVManifestEntry.hpp"
#include "Quiver/Support/KeyedArchiver.hpp"
#include "Quiver/Support/PlistValues.hpp"

namespace fs = std::filesystem;
using namespace plist_values;
using Quiver::Support::cfTypeName;

namespace {

const fs::path kRealManifest = fs::path(QUIVER_REALDATA "/mvt-ios-backup/backup/Manifest.db");

std::string Describe(CFTypeRef object, const CF::Array& objects, int depth);

// A value as it sits in an object: inline by its type, a reference by what it names.
std::string Kind(CFTypeRef value, const CF::Array& objects, int depth) {
    if (CFGetTypeID(value) != _CFKeyedArchiverUIDGetTypeID()) return std::string(cfTypeName(value));
    const CFIndex id = _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(value));
    if (id >= objects.size()) return "uid out of range";
    return "uid -> " + Describe(objects[id], objects, depth + 1);
}

// Keys in order, so that two dictionaries written in different orders describe alike.
std::vector<std::pair<std::string, CFTypeRef>> SortedEntries(CFTypeRef dictionary) {
    std::vector<std::pair<std::string, CFTypeRef>> entries;
    for (const auto& [k, v] : CF::Dictionary::Retain(static_cast<CFDictionaryRef>(dictionary)).Entries())
        entries.emplace_back(CF::String::Retain(static_cast<CFStringRef>(k)).utf8(), v);
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::string Describe(CFTypeRef object, const CF::Array& objects, int depth) {
    if (depth > 8) return "too deep";
    const CFTypeID t = CFGetTypeID(object);
    if (t == CFDataGetTypeID()) {
        // Data holding a property list (the attributes) is described by what the list holds.
        const Bytes bytes = CF::Data::Retain(static_cast<CFDataRef>(object)).vector();
        if (bytes.size() < 8 || std::string(bytes.begin(), bytes.begin() + 8) != "bplist00") return "data";
        cf_value inner = Parse(bytes);
        if (!inner || CFGetTypeID(inner.get()) != CFDictionaryGetTypeID()) return "data holding a property list";
        std::set<std::string> valueTypes;
        for (const auto& entry : SortedEntries(inner.get())) valueTypes.insert(std::string(cfTypeName(entry.second)));
        std::string text = "data holding a dictionary of";
        for (const auto& type : valueTypes) text += " " + type;
        return text;
    }
    if (t != CFDictionaryGetTypeID()) return std::string(cfTypeName(object));
    std::string text = "{";
    for (const auto& [key, value] : SortedEntries(object)) {
        text += " " + key + ": ";
        if (key != "$class") {
            text += Kind(value, objects, depth);
        } else if (CFGetTypeID(value) == _CFKeyedArchiverUIDGetTypeID()) {
            // The class description itself, named rather than walked.
            const CFIndex id = _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(value));
            const CF::Dictionary cls = objects.at<CF::Dictionary>(id);
            text += cls.Get<CF::String>("$classname").utf8() + " (";
            for (CFTypeRef name : cls.Get<CF::Array>("$classes"))
                text += " " + CF::String::Retain(static_cast<CFStringRef>(name)).utf8();
            text += " )";
        } else {
            text += "not a uid";
        }
        text += ";";
    }
    return text + " }";
}

// The whole archive: its header, how many objects it holds (so that strays show) and the root's shape.
std::string Shape(const Bytes& blob) {
    cf_value parsed = Parse(blob);
    if (!parsed || CFGetTypeID(parsed.get()) != CFDictionaryGetTypeID()) return "not an archive";
    const CF::Dictionary archive = CF::Dictionary::Retain(static_cast<CFDictionaryRef>(parsed.get()));
    const CF::Array objects = archive.Get<CF::Array>("$objects");
    const CF::Dictionary top = archive.Get<CF::Dictionary>("$top");
    std::string text = archive.Get<CF::String>("$archiver").utf8() + " " +
                       std::to_string(archive.Get<CF::Number>("$version").Int64().value_or(-1)) + ", " +
                       std::to_string(objects.size()) + " objects, top keys " + std::to_string(top.size());
    if (!top.Contains("root")) return text + ", no root";
    return text + ", root " + Kind(top.Get("root"), objects, 0);
}

Bytes Blob(const SQLite::Column& column) {
    const auto* p = static_cast<const uint8_t*>(column.getBlob());
    return Bytes(p, p + column.getBytes());
}

// The optional members a row has, with the row's kind: what a record of the same kind must set.
struct RowKind {
    int flags;
    bool target, digest, key, attributes;
    auto operator<=>(const RowKind&) const = default;
};

RowKind KindOf(int flags, const MB::File& f) {
    return {flags, !f.Target.IsEmpty(), !f.Digest.IsEmpty(), !f.EncryptionKey.IsEmpty(), !f.ExtendedAttributes.IsEmpty()};
}

// A record of our own with exactly the members that kind of row has, and values of our own.
MB::File RecordOfKind(const RowKind& kind) {
    MB::File f;
    f.RelativePath = CF::String("Library/Example/item");
    f.Mode = kind.flags == 2 ? 040755 : kind.flags == 4 ? 0120755 : 0100644;
    f.UserID = f.GroupID = 501;
    f.LastModified = f.LastStatusChange = f.Birth = 1617115200;
    f.Size = 12, f.InodeNumber = 4242, f.ProtectionClass = 3;
    if (kind.target) f.Target = CF::String("../target");
    if (kind.digest) f.Digest = CF::Data(Bytes(20, 0xAB));
    if (kind.key) f.EncryptionKey = CF::Data(Bytes(44, 0xCD));
    if (kind.attributes) f.ExtendedAttributes = Dict({{"com.apple.TextEncoding", Bytes{'u', 't', 'f', '-', '8'}}});
    return f;
}

class RealManifestShape : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(kRealManifest)) GTEST_SKIP() << "no real data at " << kRealManifest;
        db = std::make_unique<SQLite::Database>("file:" + kRealManifest.string() + "?immutable=1",
                                                SQLite::OPEN_READONLY | SQLite::OPEN_URI);
    }
    std::unique_ptr<SQLite::Database> db;
};

TEST_F(RealManifestShape, RecordsWeWriteHaveTheShapeOfEachKindOfDeviceRow) {
    std::map<RowKind, Bytes> firstOfKind;
    SQLite::Statement query(*db, "SELECT flags, file FROM Files");
    while (query.executeStep()) {
        const Bytes blob = Blob(query.getColumn(1));
        auto f = MB::File::Decode(blob);
        ASSERT_TRUE(f.has_value());
        firstOfKind.try_emplace(KindOf(query.getColumn(0).getInt(), *f), blob);
    }
    // The kinds this database is known to hold; all must have been compared.
    for (const RowKind& needed : {RowKind{1, false, false, true, false}, RowKind{1, false, true, true, false},
                                  RowKind{1, false, false, true, true}, RowKind{1, false, true, true, true},
                                  RowKind{2, false, false, false, false}, RowKind{4, true, false, false, false}})
        EXPECT_TRUE(firstOfKind.contains(needed)) << "flags " << needed.flags;
    for (const auto& [kind, device] : firstOfKind) {
        SCOPED_TRACE("flags " + std::to_string(kind.flags) + (kind.target ? " target" : "") + (kind.digest ? " digest" : "") +
                     (kind.key ? " key" : "") + (kind.attributes ? " attributes" : ""));
        EXPECT_EQ(Shape(RecordOfKind(kind).Encode().vector()), Shape(device));
    }
}

TEST_F(RealManifestShape, EveryDeviceRowWrittenAgainKeepsItsShapeAndValues) {
    SQLite::Statement query(*db, "SELECT fileID, domain, relativePath, flags, file FROM Files");
    size_t rows = 0;
    while (query.executeStep()) {
        const std::string fileID = query.getColumn(0).getString();
        SCOPED_TRACE(fileID);
        const Bytes device = Blob(query.getColumn(4));
        const std::string shape = Shape(device);
        auto f = MB::File::Decode(device);
        ASSERT_TRUE(f.has_value());
        const Bytes again = f->Encode().vector();
        EXPECT_EQ(Shape(again), shape);
        auto back = MB::File::Decode(again);
        ASSERT_TRUE(back.has_value());
        EXPECT_TRUE(*back == *f);

        // Through an entry and a copy of it, as a backup being re-encrypted carries its rows.
        const CF::Data deviceData(device);
        Quiver::Entry entry = Quiver::QVManifestEntryCreateFromMBFileData(
            CF::String(fileID).get(), CF::String(query.getColumn(1).getString()).get(),
            CF::String(query.getColumn(2).getString()).get(), query.getColumn(3).getInt(), deviceData.get(), nullptr);
        ASSERT_TRUE(entry);
        const CF::Data fromEntry = CF::Data::Adopt(
            Quiver::QVManifestEntryCreateMBFileDataRepresentation(Quiver::QVManifestEntryCreateCopy(entry, nullptr)));
        ASSERT_TRUE(fromEntry);
        EXPECT_EQ(Shape(fromEntry.vector()), shape);
        auto viaEntry = MB::File::Decode(fromEntry.get());
        ASSERT_TRUE(viaEntry.has_value());
        // Entries hold dates as 32 bits of seconds since 2001, so a date before then (some app files carry a
        // 1980 birth) comes back changed; nothing else may.
        for (auto date : {&MB::File::LastModified, &MB::File::LastStatusChange, &MB::File::Birth})
            if ((*f).*date < 978307200) (*viaEntry).*date = (*f).*date;
        EXPECT_TRUE(*viaEntry == *f);
        ++rows;
    }
    EXPECT_EQ(rows, 3721u);
}

}  // namespace
