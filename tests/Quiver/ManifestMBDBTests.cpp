// Manifest.mbdb: a record assembled here byte by byte from the format, entries of every kind written
// and read back (one record and whole images), and damaged images, which must fail with the reader's
// log messages and never read past their bytes.
#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <tuple>

#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVManifestMBDB.hpp"
#include "support/TemporaryPath.hpp"

using namespace Quiver;

namespace {

using Bytes = std::vector<uint8_t>;

struct Builder {
    Bytes b;
    Builder& be(uint64_t v, int width) {
        while (width-- > 0) b.push_back(static_cast<uint8_t>(v >> (8 * width)));
        return *this;
    }
    Builder& field(const std::string& s) { be(s.size(), 2).b.insert(b.end(), s.begin(), s.end()); return *this; }
};

// A file record: empty target (0xFFFF), a digest, empty key (0x0000), then two properties in its last
// 22 bytes, just after the class and count bytes.
constexpr size_t kPropertyBytes = 22;
const Bytes kRecord = Builder()
    .field("CameraRollDomain").field("Media/DCIM/100APPLE/IMG_0001.JPG").be(0xFFFF, 2).field("0123456789abcdefghij")
    .be(0, 2).be(0x81A4, 2).be(0x0102030405060708, 8).be(501, 4).be(20, 4)
    .be(1300000000, 4).be(1300000001, 4).be(1300000002, 4).be(0x100000001, 8).be(3, 1)
    .be(2, 1).field("com.apple.a").field("\x01\x02").field("b").be(0xFFFF, 2).b;

Bytes image(const Bytes& record, Bytes header = {'m', 'b', 'd', 'b', 5, 0}) {
    header.insert(header.end(), record.begin(), record.end());
    return header;
}

// Exactly the first n bytes on the heap, so that the address checker sees a read past them.
struct Heap {
    std::unique_ptr<uint8_t[]> bytes;
    CF::Data data;
    Heap(const Bytes& b, size_t n) : bytes(new uint8_t[std::max<size_t>(n, 1)]) {
        std::copy_n(b.begin(), n, bytes.get());
        data = CF::Data::NoCopy({bytes.get(), n});
    }
};

void expectSameEntry(const Entry& a, const Entry& b) {
    auto fields = [](const Entry& e) {
        return std::make_tuple(CF::UTF8(QVManifestEntryGetDomainPathPair(e)), e->fileID(), std::string(e->target()),
                               Bytes(e->digest().begin(), e->digest().end()),
                               Bytes(e->encryptionKey().begin(), e->encryptionKey().end()), e->mode, e->inode, e->userID, e->groupID, e->size,
                               e->protectionClass, e->birth, e->lastModified, e->lastStatusChange);
    };
    EXPECT_EQ(fields(a), fields(b));
    EXPECT_TRUE(CFEqual(QVManifestEntryGetProperties(a), QVManifestEntryGetProperties(b))) << CF::UTF8(QVManifestEntryGetDomainPathPair(a));
}

class ManifestMBDB : public ::testing::Test {
protected:
    void SetUp() override {
        QuiverTest::UseTestTemporaryPath();
        saved = Logger().sinks();
        Logger().sinks() = {std::make_shared<spdlog::sinks::ostream_sink_mt>(log)};
        Logger().set_pattern("%v");
    }
    void TearDown() override { Logger().sinks() = saved; }

    // A symlink, a file and a directory, in that order, with every field away from its default.
    static std::vector<Entry> sampleEntries() {
        auto file = QVManifestEntryCreateForFile(QVFileCreateFromData(Bytes{'h', 'i'}, nullptr), CFSTR("HomeDomain"),
                                                 CFSTR("Library/notes.db"), CF::Data(Bytes(44, 0xA5)).get(), nullptr);
        file->size = 0xFEDCBA9876543210ull;
        file->inode = 0x8000000000000001ull;
        file->protectionClass = EntryProtectionClassCompleteUntilUnlocked;
        file->birth = -5000.0;
        file->properties = CF::Dictionary::CreateMutable();
        file->properties.Set("com.apple.assetsd.UUID", CF::Data(Bytes{0, 1, 2, 0xFF}));
        file->properties.Set("", CF::Data(Bytes{}));
        auto directory = QVManifestEntryCreateForDirectory(CFSTR("CameraRollDomain"), CFSTR("Média/DCIM"));
        directory->userID = 0xFFFFFFFF;
        auto link = QVManifestEntryCreateForSymlink(CFSTR("AppDomain-x"), CFSTR("a/link"), CFSTR("../target"));
        for (const Entry& e : {file, directory, link})  // stored times are whole seconds
            for (double* d : {&e->birth, &e->lastModified, &e->lastStatusChange}) *d = std::trunc(*d);
        return {link, file, directory};
    }

    Bytes write(std::vector<Entry> entries) {
        Manifest m = MakeManifest(std::move(entries), QVManifestDataVersion24, CF::Dictionary(), nullptr);
        CF::Data d = CF::Data::Adopt(QVManifestCreateManifestDataRepresentation(m, QVManifestDataVersion24, nullptr));
        return d.vector();
    }

    Manifest read(const Bytes& b, size_t n, QVManifestDataVersion version = QVManifestDataVersion24) {
        log.str("");
        Heap heap(b, n);
        return QVManifestCreateFromManifestData(heap.data.get(), version, nullptr, nullptr);
    }
    bool logged(const std::string& text) const { return log.str().find(": " + text + "\n") != std::string::npos; }

    std::ostringstream log;
    std::vector<spdlog::sink_ptr> saved;
};

}  // namespace

TEST_F(ManifestMBDB, RecordBuiltFromTheFormatDecodesToItsValues) {
    Bytes bytes = {'x', 'y', 'z'};  // a record may start anywhere; what follows it is not read
    bytes.insert(bytes.end(), kRecord.begin(), kRecord.end());
    bytes.push_back(0xAB);
    Heap heap(bytes, bytes.size());
    int64_t next = -1;
    Entry e = QVManifestEntryCreateFromManifestData(heap.data.get(), 3, &next, nullptr);
    ASSERT_TRUE(e);
    EXPECT_EQ(next, static_cast<int64_t>(bytes.size() - 1));
    EXPECT_EQ(CF::UTF8(QVManifestEntryGetDomainPathPair(e)), "CameraRollDomain-Media/DCIM/100APPLE/IMG_0001.JPG");
    EXPECT_EQ(e->fileID(), CF::UTF8(CF::String::Adopt(QVManifestEntryCopyFileIDForPath(
                               QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e))).get()));
    EXPECT_EQ(CF::UTF8(QVManifestEntryGetDeviceFilename(e)), "IMG_0001.JPG");
    EXPECT_EQ(std::make_tuple(std::string(e->target()), e->digest().size(), e->encryptionKey().size()),
              std::make_tuple("", 20u, 0u));
    EXPECT_EQ(std::make_tuple(e->mode, e->inode, e->userID, e->groupID, e->size),
              std::make_tuple(0x81A4, 0x0102030405060708u, 501u, 20u, 0x100000001u));
    EXPECT_EQ(e->lastStatusChange, 1300000000.0 - 978307200.0);
    EXPECT_EQ(e->lastModified, 1300000001.0 - 978307200.0);
    EXPECT_EQ(e->birth, 1300000002.0 - 978307200.0);
    EXPECT_EQ(e->protectionClass, EntryProtectionClassCompleteUntilUnlocked);
    EXPECT_EQ(std::make_tuple(e->fileType, e->external), std::make_tuple(0, false));
    EXPECT_EQ(e->properties.Get<CF::Data>("com.apple.a").vector(), (Bytes{1, 2}));
    EXPECT_TRUE(e->properties.Get<CF::Data>("b").IsEmpty());

    // Written back (fractions of a second dropped), empty fields take the 0x0000 form and the rest,
    // the order of the three times included, is as it was.
    e->lastModified += 0.9;
    Bytes expected = kRecord;
    expected[2 + 16 + 2 + 32] = expected[2 + 16 + 2 + 32 + 1] = 0;
    Bytes written = CF::Data::Adopt(QVManifestEntryCreateManifestDataRepresentation(e)).vector();
    ASSERT_EQ(written.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end() - kPropertyBytes, written.begin()));
}

TEST_F(ManifestMBDB, EntriesOfEveryKindSurviveOneRecordAndWholeImages) {
    std::vector<Entry> entries = sampleEntries();
    for (const Entry& original : entries) {
        CF::Data record = CF::Data::Adopt(QVManifestEntryCreateManifestDataRepresentation(original));
        int64_t next = -1;
        Entry back = QVManifestEntryCreateFromManifestData(record.get(), 0, &next, nullptr);
        ASSERT_TRUE(back);
        EXPECT_EQ(next, 0);  // the record ends exactly at the end
        expectSameEntry(original, back);
    }
    Bytes bytes = write(entries);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 6), (Bytes{'m', 'b', 'd', 'b', 5, 0}));
    std::vector<std::tuple<int64_t, int64_t, double>> calls;
    auto progress = [&](int64_t d, int64_t t, double f) { calls.emplace_back(d, t, f); };
    Manifest back = QVManifestCreateFromManifestData(CF::Data(bytes).get(), QVManifestDataVersion24, nullptr, progress);
    ASSERT_TRUE(back);
    ASSERT_EQ(back->entries.size(), 3u);
    // Written in literal order of the domain-path pairs: "AppDomain-x-a/link", "CameraRoll...", "Home...".
    expectSameEntry(back->entries[0], entries[0]);
    expectSameEntry(back->entries[1], entries[2]);
    expectSameEntry(back->entries[2], entries[1]);
    EXPECT_EQ(back->totalFileCount, 1);
    const int64_t n = static_cast<int64_t>(bytes.size());
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0], std::make_tuple(int64_t(0), n, 0.0));
    EXPECT_EQ(calls[1], std::make_tuple(int64_t(6), n, 6.0 / n));
    EXPECT_EQ(std::get<0>(calls[2]), 6);
}

TEST_F(ManifestMBDB, EveryTruncationFailsExceptAtRecordEnds) {
    const Bytes bytes = write(sampleEntries());
    std::vector<size_t> ends;
    for (int64_t offset = 6, next = 0;; offset = next) {
        ASSERT_TRUE(QVManifestEntryCreateFromManifestData(CF::Data(bytes).get(), offset, &next, nullptr));
        if (next == 0) break;
        ends.push_back(static_cast<size_t>(next));
    }
    ASSERT_EQ(ends.size(), 2u);
    for (size_t n = 0; n < bytes.size(); ++n) {
        const bool atEnd = std::find(ends.begin(), ends.end(), n) != ends.end();
        EXPECT_EQ(bool(read(bytes, n)), atEnd) << n;
        if (!atEnd) {
            EXPECT_TRUE(logged(n < 6 ? "Invalid file" : "Invalid manifest entry")) << n;
        }
    }
}

TEST_F(ManifestMBDB, DamagedImagesFailWithTheirMessages) {
    EXPECT_TRUE(read(image(kRecord, {'m', 'b', 'd', 'b', 4, 7}), 6 + kRecord.size()));  // format bytes not checked
    Bytes badMagic = image(kRecord), pastEnd = image(Builder().field("D").be(0x1000, 2).field("short").b);
    Bytes moreProperties = image(kRecord), badClass = image(kRecord), notUtf8 = image(kRecord);
    badMagic[3] = 'c';
    moreProperties[moreProperties.size() - kPropertyBytes - 1] = 3;  // two follow
    badClass[badClass.size() - kPropertyBytes - 2] = 5;
    notUtf8[8] = 0xC3;
    EXPECT_FALSE(read(badMagic, badMagic.size()));
    EXPECT_TRUE(logged("Invalid file header"));
    for (const Bytes* b : {&pastEnd, &moreProperties, &badClass, &notUtf8}) {
        EXPECT_FALSE(read(*b, b->size()));
        EXPECT_TRUE(logged("Invalid manifest entry"));
    }
    EXPECT_THROW(QVManifestEntryCreateFromManifestData(CF::Data(badClass).get(), 6, nullptr, nullptr),
                 std::invalid_argument);
    EXPECT_FALSE(read(image(kRecord), 6 + kRecord.size(), QVManifestDataVersion31));
    EXPECT_TRUE(logged("Invalid manifest version '31' for this encoding scheme"));
}

TEST_F(ManifestMBDB, RealManifestsRewriteToTheSameEntries) {
    const std::filesystem::path root = QUIVER_REALDATA;
    if (!std::filesystem::is_directory(root)) GTEST_SKIP() << "no sample backups at " << root;
    int seen = 0;
    for (const auto& item : std::filesystem::recursive_directory_iterator(root)) {
        if (!item.path().filename().string().ends_with("Manifest.mbdb")) continue;
        std::ifstream in(item.path(), std::ios::binary);
        const Bytes bytes{std::istreambuf_iterator<char>(in), {}};
        Manifest m = read(bytes, bytes.size());
        ASSERT_TRUE(m && !m->entries.empty()) << item.path();
        const Bytes rewritten = write(m->entries);
        EXPECT_EQ(rewritten.size(), bytes.size()) << item.path();  // nothing dropped or added
        Manifest back = read(rewritten, rewritten.size());
        ASSERT_TRUE(back && back->entries.size() == m->entries.size());
        std::vector<Entry> sorted = m->entries;
        std::stable_sort(sorted.begin(), sorted.end(), [](const Entry& a, const Entry& b) {
            return CFStringCompare(QVManifestEntryGetDomainPathPair(a), QVManifestEntryGetDomainPathPair(b), 0) == kCFCompareLessThan;
        });
        for (size_t i = 0; i < sorted.size(); ++i) expectSameEntry(sorted[i], back->entries[i]);
        ++seen;
    }
    if (seen == 0) GTEST_SKIP() << "no Manifest.mbdb below " << root;
}
