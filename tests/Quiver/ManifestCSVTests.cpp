// The CSV listing, checked against lines written out by hand from the rows the test stores.
#include <gtest/gtest.h>

#include <fmt/format.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <fstream>

#include "Quiver/MB/File.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVManifestCSV.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
namespace fs = std::filesystem;

namespace {

class ManifestCSVTest : public QuiverTest::ScratchBackupTest {
protected:
    void SetUp() override {
        ScratchBackupTest::SetUp();
        path = root / "Manifest.db";
        db = std::make_unique<SQLite::Database>(path.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        db->exec("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB);");
    }
    void insert(const std::string& id, const std::string& domain, const std::string& relative, int flags,
                const CF::Data& blob) {
        SQLite::Statement s(*db, "INSERT INTO Files VALUES (?,?,?,?,?);");
        s.bind(1, id);
        s.bind(2, domain);
        s.bind(3, relative);
        s.bind(4, flags);
        if (blob) {
            s.bind(5, blob.data(), static_cast<int>(blob.size()));
        } else {
            s.bind(5);
        }
        s.exec();
    }
    std::string csv(CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        CF::String s = CF::String::Adopt(QVManifestDBCopyCSVRepresentation(CF::String(path.string()).get(), &error));
        if (failure) *failure = CF::Error::Adopt(error);
        return s ? s.utf8() : "(null)";
    }
    fs::path path;
    std::unique_ptr<SQLite::Database> db;
};

const std::string kHeader =
    "\"fileID\",\"domain\",\"relativePath\",\"fileTypeFlags\",\"relativePath2\",\"target\",\"digest\","
    "\"encryptionKey\",\"mode\",\"inodeNumber\",\"userID\",\"groupID\",\"lastModified\",\"lastStatusChange\","
    "\"birth\",\"size\",\"protectionClass\",\"extendedAttributes\"";

}  // namespace

TEST_F(ManifestCSVTest, RowsAreSpelledOutSortedByFileIDWithTripledQuotes) {
    MB::File record;
    record.RelativePath = CF::String("Library/a \"q\".db");
    std::vector<uint8_t> digest = {0xa1, 0x7c, 0x9a, 0xaa, 0x61, 0xe8, 0x0a, 0x1b, 0xf7, 0x1d,
                                   0x0d, 0x85, 0x0a, 0xf4, 0xe5, 0xba, 0xa9, 0x80, 0x0b, 0xbd};
    record.Digest = CF::Data(digest);
    record.Mode = 0100644;
    record.InodeNumber = 42;
    record.UserID = 501;
    record.GroupID = 501;
    record.LastModified = 1600000000;
    record.LastStatusChange = 1600000001;
    record.Birth = 1600000002;
    record.Size = 4;
    record.ProtectionClass = 3;
    insert("ffff", "HomeDomain", "Library/a \"q\".db", 1, record.Encode());
    insert("0000", "", "", 16, CF::Data());

    CF::Error failure;
    std::string expected = kHeader +
                           "\n\"0000\",\"\",\"\",\"16\",\"\",\"\",\"\",\"\",\"0\",\"0\",\"0\",\"0\",\"0\",\"0\",\"0\","
                           "\"0\",\"0\",\"{}\""
                           "\n\"ffff\",\"HomeDomain\",\"Library/a \"\"\"q\"\"\".db\",\"1\",\"Library/a \"\"\"q\"\"\".db\","
                           "\"\",\"oXyaqmHoChv3HQ2FCvTluqmAC70=\",\"\",\"33188\",\"42\",\"501\",\"501\",\"1600000000\","
                           "\"1600000001\",\"1600000002\",\"4\",\"3\",\"{}\"";
    EXPECT_EQ(csv(&failure), expected) << failure.Text();
}

// The listing streams in pieces that add up to the whole; a writer that stops ends it, without error.
TEST_F(ManifestCSVTest, ListingStreamsInPiecesAndAWriterCanStopIt) {
    MB::File record;
    record.RelativePath = CF::String(std::string(200, 'p'));
    for (int i = 0; i < 2000; ++i) insert(fmt::format("{:04x}", 7919 * i % 65536), "HomeDomain", "p", 1, record.Encode());
    std::vector<std::string> pieces;
    CFErrorRef error = nullptr;
    ASSERT_TRUE(QVManifestDBWriteCSVRepresentation(CF::String(path.string()).get(), [&](std::string_view text) {
        pieces.emplace_back(text);
        return true;
    }, &error));
    EXPECT_GT(pieces.size(), 3u);
    std::string joined;
    for (const std::string& piece : pieces) joined += piece;
    EXPECT_EQ(joined, csv());
    int calls = 0;
    EXPECT_FALSE(QVManifestDBWriteCSVRepresentation(CF::String(path.string()).get(), [&](std::string_view) {
        return ++calls < 1;
    }, &error));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(error, nullptr);
}

TEST_F(ManifestCSVTest, EmptyTableGivesTheHeaderAloneUndecodableBlobsAndOtherFilesFail) {
    EXPECT_EQ(csv(), kHeader);
    insert("aaaa", "D", "p", 1, CF::Data(std::vector<uint8_t>{'b', 'p', 'l', 'i', 's', 't'}));
    CF::Error failure;
    EXPECT_EQ(csv(&failure), "(null)");
    EXPECT_EQ(failure.Code(), QVErrorInvalidManifestDatabase);
    EXPECT_NE(failure.Underlying().Reason().find("Missing or invalid MBFile structure"), std::string::npos);
    db.reset();
    fs::remove(path);
    std::ofstream(path) << "plain text, not a database";
    EXPECT_EQ(csv(&failure), "(null)");
    EXPECT_EQ(failure.Code(), QVErrorInvalidManifestDatabase);
    EXPECT_EQ(failure.Reason(), "Failed to parse records from manifest database");
}
