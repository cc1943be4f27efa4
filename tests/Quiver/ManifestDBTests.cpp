// Manifest.db reading and writing: round trips, the schema, flag-only records, bad rows and files
// that are not manifest databases.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>

#include "Quiver/QVError.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVManifestDB.hpp"
#include "support/TemporaryPath.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
namespace fs = std::filesystem;

namespace {

std::string text(CFStringRef s) { return CF::String::Retain(s).utf8(); }

class ManifestDBTest : public QuiverTest::ScratchBackupTest {
protected:
    fs::path save(const std::vector<std::byte>& bytes, const char* name = "Manifest.db") {
        fs::path p = root / name;
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                 static_cast<std::streamsize>(bytes.size()));
        return p;
    }

    Manifest read(const fs::path& p, CF::Error* failure = nullptr, QVProgressFunction progress = nullptr) {
        CFErrorRef error = nullptr;
        Manifest m = QVManifestCreateFromManifestDatabase(CF::String(p.string()).get(), QVManifestDataVersion31,
                                                          nullptr, std::move(progress), &error);
        if (failure) *failure = CF::Error::Adopt(error);
        else if (error) CFRelease(error);
        return m;
    }

    // A database made with SQL alone, in the layout devices write.
    fs::path handMade(const std::function<void(SQLite::Database&)>& fill) {
        fs::path p = root / "hand.db";
        SQLite::Database db(p.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        db.exec("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB);");
        fill(db);
        return p;
    }

    // `count` directories of HomeDomain, named `prefix` and a number.
    Manifest directories(int count, const std::string& prefix) {
        Manifest m = QVManifestCreateEmpty();
        std::vector<Entry> entries;
        for (int i = 0; i < count; ++i)
            entries.push_back(QVManifestEntryCreateForDirectory(CFSTR("HomeDomain"), CF::String(prefix + std::to_string(i)).get()));
        QVManifestUpdateEntries(m, entries);
        return m;
    }

    Manifest sample() {
        Manifest m = QVManifestCreateEmpty();
        auto content = QVFileCreateFromData(std::vector<uint8_t>{'d', 'a', 't', 'a'}, nullptr);
        Entry file = QVManifestEntryCreateForFile(content, CFSTR("HomeDomain"), CFSTR("Library/a \"q\".db"), nullptr,
                                                  nullptr);
        file->inode = 123456789012ULL;
        CF::Dictionary attributes = CF::Dictionary::CreateMutable();
        attributes.Set("com.apple.x", CF::Data(std::vector<uint8_t>{1, 2, 3}));
        file->properties = attributes;
        QVManifestUpdateEntries(m, {
            QVManifestEntryCreateForSymlink(CFSTR("MediaDomain"), CFSTR("Media/link"), CFSTR("../target")),
            file,
            QVManifestEntryCreateForDirectory(CFSTR("HomeDomain"), CFSTR("Library")),
            QVManifestEntryCreateForDirectory(CFSTR("AppDomain-com.example"), CFSTR("")),
        });
        m->flagOnlyRecords.Set("0123456789abcdef0123456789abcdef01234567", CF::Number(int64_t{16}));
        return m;
    }
};

}  // namespace

TEST_F(ManifestDBTest, WrittenManifestReadsBackInDomainPathOrder) {
    Manifest original = sample();
    fs::path p = save(QVManifestCreateManifestDBRepresentation(original, QVManifestDataVersion33));
    CF::Error failure;
    std::vector<double> fractions;
    Manifest back = read(p, &failure, [&](int64_t, int64_t total, double f) {
        EXPECT_EQ(total, 5);
        fractions.push_back(f);
    });
    ASSERT_TRUE(back) << failure.Text();
    EXPECT_EQ(back->dataVersion, QVManifestDataVersion31);
    EXPECT_EQ(fractions, (std::vector<double>{0.0, 0.2, 0.4, 0.6, 0.8}));  // no final 1.0
    auto entries = QVManifestGetEntries(back);
    std::vector<std::string> order;
    for (const Entry& e : entries) order.push_back(text(QVManifestEntryGetDomainPathPair(e)));
    EXPECT_EQ(order, (std::vector<std::string>{"AppDomain-com.example-", "HomeDomain-Library",
                                               "HomeDomain-Library/a \"q\".db", "MediaDomain-Media/link"}));
    Entry file = entries[2];
    const Entry& source = original->entries[1];
    EXPECT_EQ(text(QVManifestEntryGetFileID(file)), text(QVManifestEntryGetFileID(source)));
    EXPECT_EQ(file->inode, 123456789012ULL);
    EXPECT_EQ(file->size, 4u);
    EXPECT_EQ(file->mode, 0x81A4);
    EXPECT_EQ(file->fileType, 1);
    EXPECT_EQ(file->protectionClass, EntryProtectionClassNone);
    EXPECT_TRUE(CFEqual(QVManifestEntryGetDataHash(file), QVManifestEntryGetDataHash(source)));
    EXPECT_TRUE(CFEqual(QVManifestEntryGetProperties(file), QVManifestEntryGetProperties(source)));
    EXPECT_EQ(static_cast<int64_t>(file->lastModified), static_cast<int64_t>(source->lastModified));
    EXPECT_FALSE(file->external);
    EXPECT_EQ(text(QVManifestEntryGetTarget(entries[3])), "../target");
    EXPECT_EQ(QVManifestGetTotalFileCount(back), 1);
    EXPECT_EQ(back->flagOnlyRecords.size(), 1);
    EXPECT_EQ(QVManifestGetEntries(original)[0]->fileType, 4);  // the source keeps its order
}

// Rows follow the whole "<domain>-<path>" text, also where one domain followed by "-" begins another
// (so that domain order alone would be wrong) and in manifests large enough to be sorted on two threads;
// a manifest read back in that order writes the same file again.
TEST_F(ManifestDBTest, RowsFollowTheWholeDomainPathTextWhateverTheDomains) {
    for (bool prefixDomains : {false, true}) {
        std::vector<std::string> domains = {"HomeDomain", "AppDomainGroup-x", "MediaDomain", "AppDomain-com.b", ""};
        if (prefixDomains) domains.insert(domains.end(), {"AppDomain", "AppDomain-com"});
        Manifest m = QVManifestCreateEmpty();
        std::vector<Entry> entries;
        std::vector<std::string> expected;
        for (int i = 0; i < 5000; ++i) {
            const std::string& domain = domains[static_cast<size_t>(i) % domains.size()];
            const std::string path = (i % 3 ? "com.b-" : "") + std::to_string((i * 7919) % 5003);
            entries.push_back(QVManifestEntryCreateForDirectory(CF::String(domain).get(), CF::String(path).get()));
            expected.push_back(domain + "-" + path);
        }
        QVManifestUpdateEntries(m, entries);
        std::sort(expected.begin(), expected.end());
        const auto bytes = QVManifestCreateManifestDBRepresentation(m, QVManifestDataVersion33);
        Manifest back = read(save(bytes));
        ASSERT_TRUE(back);
        std::vector<std::string> order;
        for (const Entry& e : QVManifestGetEntries(back))
            order.push_back(std::string(e->domainText) + "-" + std::string(e->path()));
        EXPECT_EQ(order, expected) << prefixDomains;
        EXPECT_TRUE(QVManifestCreateManifestDBRepresentation(back, QVManifestDataVersion33) == bytes);
    }
}

TEST_F(ManifestDBTest, SchemaAndPragmasAreThoseOfDeviceBackups) {
    fs::path p = save(QVManifestCreateManifestDBRepresentation(sample(), QVManifestDataVersion30));
    SQLite::Database db(p.string(), SQLite::OPEN_READONLY);
    EXPECT_EQ(db.execAndGet("PRAGMA user_version;").getInt(), 2);
    EXPECT_EQ(db.execAndGet("PRAGMA journal_mode;").getString(), "wal");
    EXPECT_EQ(db.execAndGet("PRAGMA auto_vacuum;").getInt(), 2);  // incremental
    EXPECT_EQ(db.execAndGet("PRAGMA integrity_check;").getString(), "ok");
    EXPECT_EQ(db.execAndGet("SELECT COUNT(*) FROM Properties;").getInt(), 0);
    SQLite::Statement flagOnly(db, "SELECT domain, relativePath, flags, file FROM Files WHERE flags = 16;");
    ASSERT_TRUE(flagOnly.executeStep());
    EXPECT_TRUE(flagOnly.getColumn(0).isNull());
    EXPECT_TRUE(flagOnly.getColumn(1).isNull());
    EXPECT_TRUE(flagOnly.getColumn(3).isNull());
    // The file ID is a real key: SQLite refuses a second row with it and finds rows through its index.
    const std::string id = db.execAndGet("SELECT fileID FROM Files LIMIT 1;").getString();
    SQLite::Database writable(p.string(), SQLite::OPEN_READWRITE);
    EXPECT_THROW(writable.exec("INSERT INTO Files VALUES ('" + id + "', 'D', 'p', 1, NULL);"), SQLite::Exception);
    SQLite::Statement plan(db, "EXPLAIN QUERY PLAN SELECT * FROM Files WHERE fileID = 'x';");
    ASSERT_TRUE(plan.executeStep());
    EXPECT_NE(plan.getColumn(3).getString().find("sqlite_autoindex_Files_1"), std::string::npos);
    // The schema, row for row, as a device writes it.
    auto schema = [](SQLite::Database& of) {
        std::vector<std::string> rows;
        SQLite::Statement q(of, "SELECT type || '|' || name || '|' || tbl_name || '|' || ifnull(sql, '') FROM sqlite_master;");
        while (q.executeStep()) rows.push_back(q.getColumn(0).getString());
        return rows;
    };
    fs::path real = fs::path(QUIVER_REALDATA) / "mvt-ios-backup" / "backup" / "Manifest.db";
    if (!fs::exists(real)) GTEST_SKIP() << "no real data at " << real;
    SQLite::Database device(real.string(), SQLite::OPEN_READONLY);
    EXPECT_EQ(schema(db), schema(device));
}

TEST_F(ManifestDBTest, ABackupBeingWrittenGetsTheSameBytesFromAFileWithoutAName) {
    Manifest m = sample();
    const std::vector<std::byte> inMemory = QVManifestCreateManifestDBRepresentation(m, QVManifestDataVersion33);
    auto file = QVManifestCreateManifestDBFile(m, QVManifestDataVersion33);
    ASSERT_TRUE(file);
    std::vector<uint8_t> written;
    QVFileGetData(file, 0, [&](const std::vector<uint8_t>& chunk) {
        written.insert(written.end(), chunk.begin(), chunk.end());
        return true;
    });
    ASSERT_EQ(written.size(), inMemory.size());
    EXPECT_TRUE(std::memcmp(written.data(), inMemory.data(), written.size()) == 0);
    // Nothing of it has a name, not even beside the file SQLite wrote.
    EXPECT_TRUE(fs::is_empty(ManifestDatabaseDirectory()));
    EXPECT_EQ(QVFileGetHash(file), Support::Sha1({written.data(), written.size()}));
}

TEST_F(ManifestDBTest, AFileIDGivenTwiceKeepsTheLaterRow) {
    ManifestDatabase database;
    database.Create(2);
    const std::vector<uint8_t> first{1}, second{2};
    database.InsertRow("aa", "D", "first", 1, first);
    database.InsertRow("bb", "D", "other", 1, first);
    database.InsertRow("aa", "D", "second", 1, second);
    database.Finish();
    fs::path p = save(database.Serialize());
    SQLite::Database db(p.string(), SQLite::OPEN_READONLY);
    EXPECT_EQ(db.execAndGet("PRAGMA integrity_check;").getString(), "ok");
    EXPECT_EQ(db.execAndGet("SELECT count(*) FROM Files;").getInt(), 2);
    EXPECT_EQ(db.execAndGet("SELECT relativePath FROM Files WHERE fileID = 'aa';").getString(), "second");
}

TEST_F(ManifestDBTest, EmptyTableGivesAnEmptyManifestWithoutProgressOneBadRowFailsTheWholeLoad) {
    int calls = 0;
    Manifest m = read(handMade([](SQLite::Database&) {}), nullptr, [&](int64_t, int64_t, double) { ++calls; });
    ASSERT_TRUE(m);
    EXPECT_TRUE(m->entries.empty());
    EXPECT_EQ(calls, 0);
    // A row without a blob whose flags are not 16, and a blob that is no archive.
    for (const char* insert : {"INSERT INTO Files VALUES ('aa', 'D', 'p', 1, NULL);",
                               "INSERT INTO Files VALUES ('bb', 'D', 'q', 1, x'0102030405');"}) {
        fs::remove(root / "hand.db");
        fs::path p = handMade([&](SQLite::Database& db) {
            db.exec("INSERT INTO Files VALUES ('cc', NULL, NULL, 16, NULL);");
            db.exec(insert);
        });
        CF::Error failure;
        EXPECT_FALSE(read(p, &failure));
        EXPECT_EQ(failure.Code(), QVErrorInvalidManifestDatabase);
        EXPECT_EQ(failure.Reason(), "Database contains 1 invalid entries");
    }
}

TEST_F(ManifestDBTest, FilesThatAreNotManifestDatabasesFailWithAnError) {
    std::ofstream(root / "garbage.db") << "this is not an SQLite database at all, just some text";
    CF::Error failure;
    EXPECT_FALSE(read(root / "garbage.db", &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidManifestDatabase);
    EXPECT_EQ(failure.Reason(), "Failed to parse records from manifest database");
    EXPECT_TRUE(failure.Underlying());

    SQLite::Database((root / "other.db").string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
        .exec("CREATE TABLE Something (x INTEGER);");
    EXPECT_FALSE(read(root / "other.db", &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidManifestDatabase);

    EXPECT_FALSE(read(root / "missing.db", &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidManifestDatabase);
    EXPECT_EQ(failure.Underlying().Code(), QVErrorFileNotFound);
}

// A device that copies its database while pages sit in the write-ahead log leaves them in a -wal file
// beside it; they are part of the manifest. Without one, the file is read in place and nothing is
// written beside it, even in a folder that cannot be written.
TEST_F(ManifestDBTest, PagesInAWriteAheadLogAreReadAndNothingIsWrittenBesideTheFile) {
    fs::path p = save(QVManifestCreateManifestDBRepresentation(sample(), QVManifestDataVersion33));
    const size_t rows = read(p)->entries.size();
    fs::create_directories(root / "copy");
    {
        SQLite::Database db(p.string(), SQLite::OPEN_READWRITE);
        db.exec("PRAGMA wal_autocheckpoint=0;");
        db.exec("INSERT INTO Files SELECT 'ffffffffffffffffffffffffffffffffffffffff', domain, relativePath || '.more', "
                "flags, file FROM Files WHERE flags = 1 LIMIT 1;");
        ASSERT_GT(fs::file_size(p.string() + "-wal"), 0u);
        fs::copy_file(p, root / "copy" / "Manifest.db");
        fs::copy_file(p.string() + "-wal", root / "copy" / "Manifest.db-wal");
    }
    Manifest logged = read(root / "copy" / "Manifest.db");
    ASSERT_TRUE(logged);
    EXPECT_EQ(logged->entries.size(), rows + 1);
    EXPECT_TRUE(fs::is_empty(ManifestDatabaseDirectory()));

    fs::remove(root / "copy" / "Manifest.db-wal");
    fs::permissions(root / "copy", fs::perms::owner_read | fs::perms::owner_exec);
    Manifest inPlace = read(root / "copy" / "Manifest.db");
    fs::permissions(root / "copy", fs::perms::owner_all);
    ASSERT_TRUE(inPlace);
    EXPECT_EQ(inPlace->entries.size(), rows);
    EXPECT_EQ(std::distance(fs::directory_iterator(root / "copy"), fs::directory_iterator()), 1);
}

TEST_F(ManifestDBTest, ReadingLeavesTheCallersFileAndNoPrivateCopies) {
    fs::path p = save(QVManifestCreateManifestDBRepresentation(sample(), QVManifestDataVersion31));
    auto before = fs::last_write_time(p);
    auto bytesBefore = fs::file_size(p);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(read(p));
    EXPECT_EQ(fs::last_write_time(p), before);
    EXPECT_EQ(fs::file_size(p), bytesBefore);
    EXPECT_FALSE(fs::exists(p.string() + "-wal"));
    EXPECT_TRUE(fs::is_empty(ManifestDatabaseDirectory()));
}

TEST_F(ManifestDBTest, RealDeviceDatabaseLoadsWholeAndSurvivesARoundTrip) {
    fs::path real = fs::path(QUIVER_REALDATA) / "mvt-ios-backup" / "backup" / "Manifest.db";
    if (!fs::exists(real)) GTEST_SKIP() << "no real data at " << real;
    CF::Error failure;
    Manifest m = read(real, &failure);
    ASSERT_TRUE(m) << failure.Text();
    ASSERT_EQ(m->entries.size(), 3721u);
    size_t files = 0, dirs = 0, links = 0;
    for (const Entry& e : m->entries) {
        files += QVManifestEntryIsFile(e);
        dirs += QVManifestEntryIsDirectory(e);
        links += QVManifestEntryIsSymlink(e);
        // Every row's file ID is the hash of its names.
        CF::String computed = CF::String::Adopt(
            QVManifestEntryCopyFileIDForPath(QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e)));
        ASSERT_EQ(computed.utf8(), text(QVManifestEntryGetFileID(e)));
    }
    EXPECT_EQ(files, 1089u);
    EXPECT_EQ(dirs, 2618u);
    EXPECT_EQ(links, 14u);

    Manifest back = read(save(QVManifestCreateManifestDBRepresentation(m, QVManifestDataVersion33)));
    ASSERT_TRUE(back);
    ASSERT_EQ(back->entries.size(), m->entries.size());
    EXPECT_EQ(QVManifestGetTotalFileSize(back), QVManifestGetTotalFileSize(m));
    for (const Entry& e : m->entries) {
        Entry again = QVManifestGetEntryForFileID(back, QVManifestEntryGetFileID(e));
        ASSERT_TRUE(again);
        EXPECT_EQ(again->mode, e->mode);
        EXPECT_EQ(again->size, e->size);
        EXPECT_EQ(again->inode, e->inode);
        EXPECT_TRUE(CFEqual(QVManifestEntryGetEncryptionData(again), QVManifestEntryGetEncryptionData(e)));
        EXPECT_EQ(again->target(), e->target());
        EXPECT_EQ(again->lastModified, e->lastModified);
    }
}

// A large table is read in runs of rowids on two connections: whatever the source, the entries come in
// the order of a full scan, across gaps in the rowids, and a bad row in any run fails the load.
TEST_F(ManifestDBTest, ALargeTableLoadsInRowOrderFromEverySource) {
    const fs::path plain = save(QVManifestCreateManifestDBRepresentation(directories(20000, "d/"), QVManifestDataVersion33));
    std::vector<std::string> expected;
    {
        SQLite::Database db(plain.string(), SQLite::OPEN_READWRITE);
        db.exec("PRAGMA journal_mode=DELETE;");
        db.exec("DELETE FROM Files WHERE rowid % 7 = 3 OR rowid BETWEEN 9000 AND 13000;");
        db.exec("INSERT INTO Files (rowid, fileID, flags) VALUES (40000, 'flagonly', 16);");
        SQLite::Statement q(db, "SELECT fileID FROM Files WHERE flags != 16 ORDER BY rowid;");
        while (q.executeStep()) expected.push_back(q.getColumn(0).getString());
    }
    auto fileIDs = [](const Manifest& loaded) {
        std::vector<std::string> ids;
        for (const Entry& e : QVManifestGetEntries(loaded)) ids.push_back(text(QVManifestEntryGetFileID(e)));
        return ids;
    };
    std::vector<double> fractions;
    Manifest inPlace = read(plain, nullptr, [&](int64_t done, int64_t total, double fraction) {
        EXPECT_LE(done, total);
        fractions.push_back(fraction);
    });
    ASSERT_TRUE(inPlace);
    EXPECT_EQ(fileIDs(inPlace), expected);
    EXPECT_EQ(inPlace->flagOnlyRecords.size(), 1);
    ASSERT_FALSE(fractions.empty());
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));

    std::array<uint8_t, 32> key{};
    key[5] = 9;
    MB::ManifestEncryption::EncryptFile(plain, root / "enciphered.db", key);
    CFErrorRef error = nullptr;
    Manifest enciphered = QVManifestCreateFromEncipheredManifestDatabase(
        CF::String((root / "enciphered.db").string()).get(), key, QVManifestDataVersion33, nullptr, nullptr, &error);
    ASSERT_TRUE(enciphered) << CF::Error::Adopt(error).Text();
    EXPECT_EQ(fileIDs(enciphered), expected);

    std::ifstream in(plain, std::ios::binary);
    DatabaseImage image(fs::file_size(plain));
    in.read(reinterpret_cast<char*>(image.data()), static_cast<std::streamsize>(image.capacity()));
    image.setSize(image.capacity());
    Manifest fromMemory = QVManifestCreateFromManifestDatabaseImage(std::move(image), QVManifestDataVersion33, nullptr,
                                                                   nullptr, &error);
    ASSERT_TRUE(fromMemory) << CF::Error::Adopt(error).Text();
    EXPECT_EQ(fileIDs(fromMemory), expected);

    // Through the private copy that takes a write-ahead log in, then with a bad row in a late run.
    {
        SQLite::Database db(plain.string(), SQLite::OPEN_READWRITE);
        db.exec("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;");
        db.exec("UPDATE Files SET file = x'0102' WHERE rowid = 19998;");
        fs::copy_file(plain, root / "logged.db");
        fs::copy_file(plain.string() + "-wal", root / "logged.db-wal");
    }
    CF::Error failure;
    EXPECT_FALSE(read(root / "logged.db", &failure));
    EXPECT_EQ(failure.Reason(), "Database contains 1 invalid entries");
    EXPECT_TRUE(fs::is_empty(ManifestDatabaseDirectory()));

    // A table without rowids is read whole.
    fs::path noRowids = root / "norowid.db";
    {
        SQLite::Database db(noRowids.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        db.exec("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, "
                "file BLOB) WITHOUT ROWID;");
        db.exec(fmt::format("ATTACH '{}' AS source; INSERT INTO Files SELECT * FROM source.Files WHERE rowid < 50;",
                            plain.string()));
    }
    Manifest whole = read(noRowids);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->entries.size(), 42u);
}

// An enciphered database reads where it lies, page by page, whether or not its writer added a padding
// block, and leaves nothing behind; a wrong key or a file cut short of a block fails with an error.
TEST_F(ManifestDBTest, EncipheredDatabaseReadsInPlaceWithOrWithoutPadding) {
    // Enough rows for several pages, so that reads land across many blocks.
    const fs::path plain =
        save(QVManifestCreateManifestDBRepresentation(directories(400, "Library/d"), QVManifestDataVersion33), "plain.db");
    std::array<uint8_t, 32> key{};
    for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(3 * i + 1);

    const fs::path padded = root / "padded.db", bare = root / "bare.db";
    MB::ManifestEncryption::EncryptFile(plain, padded, key);  // PKCS#7: one whole padding block
    {
        std::vector<uint8_t> bytes(fs::file_size(padded));
        std::ifstream(padded, std::ios::binary).read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        bytes.resize(bytes.size() - 16);
        std::ofstream(bare, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    auto names = [](const Manifest& loaded) {
        std::set<std::string> paths;
        for (const Entry& e : QVManifestGetEntries(loaded)) paths.emplace(QVManifestEntryGetPathUTF8(e));
        return paths;
    };
    const std::set<std::string> expected = names(read(plain));
    ASSERT_EQ(expected.size(), 400u);
    for (const fs::path& file : {padded, bare}) {
        CFErrorRef error = nullptr;
        Manifest loaded = QVManifestCreateFromEncipheredManifestDatabase(CF::String(file.string()).get(), key,
                                                                         QVManifestDataVersion33, nullptr, nullptr, &error);
        ASSERT_TRUE(loaded) << CF::Error::Adopt(error).Text();
        EXPECT_EQ(names(loaded), expected) << file;
    }
    EXPECT_TRUE(fs::is_empty(ManifestDatabaseDirectory()));

    std::array<uint8_t, 32> wrong = key;
    wrong[0] ^= 1;
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVManifestCreateFromEncipheredManifestDatabase(CF::String(padded.string()).get(), wrong,
                                                                QVManifestDataVersion33, nullptr, nullptr, &error));
    EXPECT_EQ(CF::Error::Adopt(error).Code(), QVErrorInvalidManifestDatabase);

    fs::resize_file(bare, fs::file_size(bare) - 5);
    error = nullptr;
    EXPECT_FALSE(QVManifestCreateFromEncipheredManifestDatabase(CF::String(bare.string()).get(), key,
                                                                QVManifestDataVersion33, nullptr, nullptr, &error));
    CF::Error cut = CF::Error::Adopt(error);
    EXPECT_NE(cut.Text().find("not whole cipher blocks"), std::string::npos) << cut.Text();
}
