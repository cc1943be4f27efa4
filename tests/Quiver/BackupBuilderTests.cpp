// The test backups checked against the backup format itself rather than against the container that reads
// them: where each stored file lies, what Manifest.db holds, and that an encrypted backup deciphers from its
// password alone. A fault here would make every container test pass or fail for the wrong reason.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <set>
#include <string>

#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVManifestEntry.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/Hash.hpp"
#include "support/BackupBuilder.hpp"
#include "support/TemporaryPath.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace QuiverTest;
using Quiver::Support::Cryptor;
namespace fs = std::filesystem;

namespace {

std::vector<uint8_t> Decipher(std::span<const uint8_t> key, const std::vector<uint8_t>& bytes) {
    return Cryptor::Decrypt(Cryptor::Algorithm::AES256, key, {}, bytes);
}

class BackupBuilderTest : public ScratchDirectoryTest {
protected:
    void SetUp() override {
        ScratchDirectoryTest::SetUp();
        UseTestTemporaryPath();
    }

    BuiltBackup build(const std::string& version, bool encrypted) {
        BackupDescription d;
        d.items = SampleItems();
        d.manifestVersion = version;
        d.encrypted = encrypted;
        return BuildBackup(root / "backup", d);
    }
};

class StoreLayoutTest : public BackupBuilderTest, public ::testing::WithParamInterface<const char*> {};

// One stored file per regular file, named for the SHA-1 of "domain-path", in two-character folders
// since 3.0; nothing else beside the metadata and the manifest, and in Manifest.db one row per item.
TEST_P(StoreLayoutTest, StoreAndManifestFollowTheManifestVersion) {
    const std::string version = GetParam();
    BuiltBackup b = build(version, false);
    EXPECT_EQ(ReadPropertyList(b.directory / "Status.plist").Get<CF::String>("Version").utf8(), version);
    const bool flat = version == "2.4";
    std::set<std::string> present;
    std::set<std::string> expected{"Manifest.plist", "Info.plist", "Status.plist", flat ? "Manifest.mbdb" : "Manifest.db"};
    for (const auto& e : fs::recursive_directory_iterator(b.directory)) {
        if (e.is_regular_file()) present.insert(fs::relative(e.path(), b.directory).generic_string());
    }
    for (const BuiltItem& item : b.items) {
        const std::string pair = item.domain + "-" + item.relativePath;
        EXPECT_EQ(item.fileID, Quiver::Support::hex_encode(Quiver::Support::Sha1(
                                   {reinterpret_cast<const uint8_t*>(pair.data()), pair.size()})));
        if (item.kind != ItemKind::File) continue;
        EXPECT_EQ(item.localFilename, flat ? item.fileID : item.fileID.substr(0, 2) + "/" + item.fileID);
        EXPECT_EQ(ReadWholeFile(b.directory / item.localFilename), item.content) << item.relativePath;
        expected.insert(item.localFilename);
    }
    EXPECT_EQ(present, expected) << "nothing else, no database side files";
    if (flat) return;

    SQLite::Database db((b.directory / "Manifest.db").string(), SQLite::OPEN_READONLY);
    EXPECT_EQ(db.execAndGet("SELECT COUNT(*) FROM Files").getInt(), static_cast<int>(b.items.size()));
    for (const BuiltItem& item : b.items) {
        SQLite::Statement row(db, "SELECT domain, relativePath, flags FROM Files WHERE fileID = ?");
        row.bind(1, item.fileID);
        ASSERT_TRUE(row.executeStep()) << item.relativePath;
        EXPECT_EQ(row.getColumn(0).getString(), item.domain);
        EXPECT_EQ(row.getColumn(1).getString(), item.relativePath);
        EXPECT_EQ(row.getColumn(2).getInt(), item.kind == ItemKind::File ? 1 : item.kind == ItemKind::Directory ? 2 : 4);
    }
}

INSTANTIATE_TEST_SUITE_P(Versions, StoreLayoutTest, ::testing::Values("2.4", "3.0", "3.1", "3.2", "3.3"));

TEST_F(BackupBuilderTest, EncryptedDatabaseAndStoredFilesOpenWithThePasswordAlone) {
    BuiltBackup b = build("3.3", true);
    CF::Dictionary plist = ReadPropertyList(b.directory / "Manifest.plist");
    ASSERT_TRUE(plist.Get<CF::Boolean>("IsEncrypted").value());
    EXPECT_EQ(plist.Get<CF::Data>("ManifestKey").vector().at(0), 4);  // devices wrap the manifest key under class 4
    MB::ManifestEncryption keys(plist, "password");
    WriteWholeFile(root / "plain.db", Decipher(keys.GetManifestKey(), ReadWholeFile(b.directory / "Manifest.db")));
    SQLite::Database db((root / "plain.db").string(), SQLite::OPEN_READONLY);
    for (const BuiltItem& item : b.items) {
        if (item.kind != ItemKind::File) continue;
        SQLite::Statement row(db, "SELECT file FROM Files WHERE fileID = ?");
        row.bind(1, item.fileID);
        ASSERT_TRUE(row.executeStep()) << item.relativePath;
        SQLite::Column blob = row.getColumn(0);
        CF::Data archive(
            std::span<const uint8_t>(static_cast<const uint8_t*>(blob.getBlob()), static_cast<size_t>(blob.getBytes())));
        Quiver::Entry entry = Quiver::QVManifestEntryCreateFromMBFileData(
            CF::String(item.fileID).get(), CF::String(item.domain).get(), CF::String(item.relativePath).get(), 1,
            archive.get(), nullptr);
        ASSERT_TRUE(entry);
        EXPECT_EQ(entry->size, item.content.size());
        EXPECT_EQ(entry->protectionClass, item.protectionClass);
        CF::Data wrapped = CF::Data::Retain(Quiver::QVManifestEntryGetEncryptionData(entry));
        EXPECT_EQ(Decipher(keys.UnlockKey(wrapped), ReadWholeFile(b.directory / item.localFilename)), item.content)
            << item.relativePath;
    }
}

}  // namespace
