// The C++ front: what it adds over the layer beneath (views that outlive what they came from, ranges,
// plain values and errors that carry their context). What the layer below does is tested there.
#include <gtest/gtest.h>

#include <array>
#include <sstream>

#include <SQLiteCpp/SQLiteCpp.h>

#include "ScratchDirectory.hpp"
#include "support/BackupBuilder.hpp"
#include "support/TemporaryPath.hpp"
#include "quiver/quiver.hpp"

using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

class FrontTest : public ScratchBackupTest {
protected:
    BuiltBackup Build(bool encrypted, const std::string& version = "3.3") {
        return BuildBackup(root / (encrypted ? "enc" : "plain") / version,
                           {.items = SampleItems(), .manifestVersion = version, .encrypted = encrypted});
    }
};

TEST_F(FrontTest, EntriesAreViewsThatKeepTheirRecordAlive) {
    const BuiltBackup built = Build(true);
    std::optional<quiver::Entry> kept;
    std::string_view path;
    {
        quiver::Backup backup = quiver::Backup::open(built.directory, "password");
        EXPECT_TRUE(backup.encrypted());
        EXPECT_EQ(backup.entries().size(), built.items.size());
        const BuiltItem& item = built.items.back();
        kept = backup.find(item.domain, item.relativePath);
        ASSERT_TRUE(kept);
        path = kept->path();
        // Removing the entry from the backup leaves the view whole.
        EXPECT_TRUE(backup.remove(item.domain, item.relativePath));
        EXPECT_FALSE(backup.find(item.domain, item.relativePath));
    }
    // The backup handle is gone; the entry and the view into it are not.
    EXPECT_EQ(path, built.items.back().relativePath);
    EXPECT_EQ(kept->fileID(), built.items.back().fileID);
}

TEST_F(FrontTest, RangesListLookUpAndReadEveryEntry) {
    for (bool encrypted : {false, true}) {
        const BuiltBackup built = Build(encrypted, encrypted ? "3.3" : "2.4");
        quiver::Backup backup = quiver::Backup::open(built.directory, std::string("password"));
        size_t files = 0;
        for (const quiver::Entry& entry : backup.entries()) {
            const BuiltItem& item = built.Item(entry.domain(), entry.path());
            EXPECT_EQ(entry.fileID(), item.fileID);
            ASSERT_EQ(backup.findByFileID(item.fileID)->path(), entry.path());
            if (!entry.isFile()) continue;
            ++files;
            EXPECT_EQ(backup.readAll(entry), std::string(item.content.begin(), item.content.end()));
            EXPECT_EQ(entry.protectionClass(), static_cast<quiver::ProtectionClass>(item.protectionClass));
            std::ostringstream out;
            backup.read(entry, out);
            EXPECT_EQ(out.str().size(), entry.size());
        }
        EXPECT_EQ(files, backup.fileCount());
        // Selections come sorted by path, the entry at the path first.
        const std::string domain = built.items.front().domain;
        quiver::EntryRange inDomain = backup.entriesInDomain(domain);
        ASSERT_FALSE(inDomain.empty());
        EXPECT_TRUE(std::is_sorted(inDomain.begin(), inDomain.end(),
                                   [](const quiver::Entry& a, const quiver::Entry& b) { return a.path() < b.path(); }));
        EXPECT_EQ(backup.entriesUnder(domain, "").size(), inDomain.size());
        EXPECT_TRUE(backup.entriesUnder(domain, "no/such/folder").empty());
    }
}

TEST_F(FrontTest, ErrorsSayWhatTheyAreAbout) {
    const BuiltBackup built = Build(true);
    try {
        quiver::Backup::open(built.directory, std::string("wrong"));
        FAIL() << "a wrong password opened the backup";
    } catch (const quiver::Error& e) {
        EXPECT_TRUE(e.isPasswordProblem()) << e.what();
        EXPECT_FALSE(e.isBadBackup());
    }
    try {
        quiver::Backup::open(built.directory);
        FAIL() << "no password opened an encrypted backup";
    } catch (const quiver::Error& e) {
        EXPECT_EQ(e.code(), quiver::ErrorCode::PasswordRequired);
    }

    // A damaged stored file: the error names the entry, its stored file and the check that failed.
    const BuiltItem* victim = nullptr;
    for (const BuiltItem& item : built.items)
        if (item.kind == ItemKind::File && item.content.size() > 100) victim = &item;
    ASSERT_NE(victim, nullptr);
    std::vector<uint8_t> stored = ReadWholeFile(built.directory / victim->localFilename);
    stored[10] ^= 1;
    WriteWholeFile(built.directory / victim->localFilename, stored);
    quiver::Backup backup = quiver::Backup::open(built.directory, std::string("password"));
    std::optional<quiver::Entry> entry = backup.find(victim->domain, victim->relativePath);
    ASSERT_TRUE(entry);
    size_t delivered = 0;
    try {
        backup.read(*entry, [&](std::span<const uint8_t> chunk) {
            delivered += chunk.size();
            return true;
        });
        FAIL() << "a damaged file read whole";
    } catch (const quiver::Error& e) {
        EXPECT_TRUE(e.isBadBackup()) << e.what();
        EXPECT_EQ(e.check(), "digest-mismatch");
        EXPECT_EQ(e.entryPath(), victim->relativePath);
        EXPECT_EQ(e.fileID(), victim->fileID);
        EXPECT_FALSE(e.reasons().empty());
    }
    EXPECT_EQ(delivered, 0u) << "plaintext of a damaged file was passed on";
    uint64_t damaged = backup.verify(quiver::VerifyMode::Digests, [](const quiver::Problem&) {});
    EXPECT_EQ(damaged, 1u);
}

TEST_F(FrontTest, EditsMakeParentsAndRefuseUnsafeNames) {
    quiver::Backup backup = quiver::Backup::open(Build(false).directory);
    const std::string text = "new content";
    quiver::Entry put = backup.putData("HomeDomain", "Library/New/deep/file.txt",
                                       std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
    EXPECT_TRUE(backup.find("HomeDomain", "Library/New/deep")->isDirectory());
    EXPECT_EQ(backup.readAll(put), text);
    EXPECT_TRUE(backup.makeSymlink("HomeDomain", "Library/Link", "New/deep/file.txt").isSymlink());
    EXPECT_THROW(backup.putData("HomeDomain", "../escape", {}), quiver::Error);
    EXPECT_THROW(backup.putData("HomeDomain", "Library/New", {}), quiver::Error);  // a folder is there

    quiver::WriteOptions zip;
    zip.zip = true;
    backup.write(root / "written.zip", zip);
    quiver::Backup reopened = quiver::Backup::open(root / "written.zip");
    EXPECT_EQ(reopened.readAll(*reopened.find("HomeDomain", "Library/New/deep/file.txt")), text);
    EXPECT_EQ(reopened.find("HomeDomain", "Library/Link")->target(), "New/deep/file.txt");
    // Two directories written from it share no file: what the export made for itself (the manifest)
    // may be named in place, but a file the backup holds is copied.
    backup.write(root / "one");
    backup.write(root / "two");
    for (const auto& item : std::filesystem::recursive_directory_iterator(root / "two")) {
        if (!item.is_regular_file()) continue;
        EXPECT_EQ(std::filesystem::hard_link_count(item.path()), 1u) << item.path();
    }
    EXPECT_EQ(quiver::Backup::open(root / "two").readAll(*backup.find("HomeDomain", "Library/New/deep/file.txt")), text);
}

// A summary counts what opening keeps, and fails where opening fails, however large the manifest (a
// large one is read on two threads) and whatever its kind.
TEST_F(FrontTest, ASummaryCountsWhatOpeningKeepsAndFailsWhereOpeningFails) {
    std::vector<BackupItem> items = SampleItems();
    for (int i = 0; i < 20000; ++i)
        items.push_back(BackupItem::Directory(i % 3 ? "HomeDomain" : "AppDomain-com.x", "d/" + std::to_string(i)));
    BackupItem fifo = BackupItem::File("MediaDomain", "odd", "x");  // no kind a listing names: a file
    fifo.mode = 0010644;
    items.push_back(fifo);
    auto fields = [](const quiver::Contents& c) {
        return std::array<uint64_t, 5>{c.files, c.directories, c.symlinks, c.totalSize, c.domains};
    };
    for (const auto& [encrypted, version] : {std::pair(false, "3.3"), std::pair(true, "3.3"), std::pair(true, "2.4")}) {
        SCOPED_TRACE(std::string(version) + (encrypted ? " encrypted" : ""));
        const BuiltBackup built = BuildBackup(root / (encrypted ? "enc" : "plain") / version,
                                              {.items = items, .manifestVersion = version, .encrypted = encrypted});
        const quiver::Backup backup = quiver::Backup::open(built.directory, "password");
        quiver::Contents expected;
        for (const quiver::Entry& entry : backup.entries()) {
            if (entry.isDirectory()) ++expected.directories;
            else if (entry.isSymlink()) ++expected.symlinks;
            else ++expected.files, expected.totalSize += entry.size();
        }
        expected.domains = backup.domains().size();
        EXPECT_EQ(fields(backup.contents()), fields(expected));
        const quiver::Summary summary = quiver::Backup::summarize(built.directory, "password");
        EXPECT_EQ(fields(summary.contents), fields(expected));
        EXPECT_EQ(summary.encrypted, encrypted);
        EXPECT_EQ(summary.manifestEnciphered, backup.manifestEnciphered());
        EXPECT_EQ(summary.manifestVersion, version);
        EXPECT_EQ(summary.metadata.manifestFile, backup.manifestFormat());
        if (!encrypted) continue;
        for (auto open : {+[](const fs::path& p) { (void)quiver::Backup::open(p, "wrong"); },
                          +[](const fs::path& p) { (void)quiver::Backup::summarize(p, "wrong"); }}) {
            try {
                open(built.directory);
                ADD_FAILURE() << "a wrong password opened the backup";
            } catch (const quiver::Error& e) {
                EXPECT_TRUE(e.isPasswordProblem()) << e.what();
            }
        }
    }
    // One record near the end that does not decode.
    const fs::path plain = root / "plain" / "3.3";
    SQLite::Database((plain / "Manifest.db").string(), SQLite::OPEN_READWRITE)
        .exec("UPDATE Files SET file = x'0102' WHERE rowid = (SELECT max(rowid) - 3 FROM Files);");
    std::vector<std::string> failures;
    for (auto open : {+[](const fs::path& p) { (void)quiver::Backup::open(p); },
                      +[](const fs::path& p) { (void)quiver::Backup::summarize(p); }}) {
        try {
            open(plain);
            ADD_FAILURE() << "a damaged manifest opened";
        } catch (const quiver::Error& e) {
            failures.push_back(e.what());
        }
    }
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0], failures[1]);
}

TEST(FrontValue, PropertyListsRoundTrip) {
    quiver::Value dictionary = quiver::Value::dictionary({
        {"Name", quiver::Value::string("Ünïcode")},
        {"Count", quiver::Value::integer(-7)},
        {"Ratio", quiver::Value::real(0.5)},
        {"Flag", quiver::Value::boolean(true)},
        {"When", quiver::Value::date(1609459200)},
        {"Bytes", quiver::Value::data({0, 1, 255})},
    });
    dictionary.set("List", quiver::Value::array({quiver::Value::string("a"), quiver::Value::integer(2)}));
    const quiver::Value back = quiver::Value::fromXML(dictionary.toXML());
    EXPECT_EQ(back, dictionary);
    EXPECT_EQ(back["Name"].asString(), "Ünïcode");
    EXPECT_EQ(back["When"].asDate(), 1609459200);
    EXPECT_TRUE(back["Missing"].isNull());
    EXPECT_EQ(back["Name"].asInteger(42), 42);  // a mistyped key reads as absent
    EXPECT_EQ(back.keyAt(0), "Bytes");           // keys are sorted
    EXPECT_THROW(quiver::Value::fromXML("not a property list"), quiver::Error);
}

}  // namespace
