// The test backups checked against the backup format itself rather than against the container that
// will read them: where each stored file lies, that its bytes decipher under the key its entry
// carries, what the manifests hold and the metadata keys loaders look for. A fault here would make
// every container test pass or fail for the wrong reason.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <set>
#include <string>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/QVManifestEntry.hpp"
#include "Quiver/QVManifestMBDB.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/Support/KeyWrap.hpp"
#include "support/BackupBuilder.hpp"
#include "support/TemporaryPath.hpp"

using namespace QuiverTest;
using Quiver::Support::Cryptor;
namespace fs = std::filesystem;

namespace {

std::string FileIDOf(const std::string& domain, const std::string& path) {
    const std::string pair = domain + "-" + path;
    return Quiver::Support::hex_encode(Quiver::Support::Sha1({reinterpret_cast<const uint8_t*>(pair.data()), pair.size()}));
}

std::string Head(const fs::path& path, std::size_t n) {
    const std::vector<uint8_t> bytes = ReadWholeFile(path);
    return std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(std::min(n, bytes.size())));
}

std::vector<uint8_t> Decipher(std::span<const uint8_t> key, const std::vector<uint8_t>& bytes) {
    return Cryptor::Decrypt(Cryptor::Algorithm::AES256, key, {}, bytes);
}

class BackupBuilderTest : public ::testing::Test {
protected:
    void SetUp() override {
        UseTestTemporaryPath();
        root = fs::temp_directory_path() / ("quiver-builder-" + std::to_string(::getpid()) + "-" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root);
    }
    void TearDown() override { fs::remove_all(root); }

    BuiltBackup build(const std::string& version, bool encrypted, const std::string& name = "backup") {
        BackupDescription d;
        d.items = SampleItems();
        d.manifestVersion = version;
        d.encrypted = encrypted;
        return BuildBackup(root / name, d);
    }

    static std::set<std::string> filesIn(const fs::path& dir) {
        std::set<std::string> names;
        for (const auto& e : fs::recursive_directory_iterator(dir)) {
            if (e.is_regular_file()) names.insert(fs::relative(e.path(), dir).generic_string());
        }
        return names;
    }

    fs::path root;
};

TEST_F(BackupBuilderTest, PlainBackupHoldsOneStoredFilePerRegularFileAndOneRowPerItem) {
    BuiltBackup b = build("3.1", false);
    const std::set<std::string> present = filesIn(b.directory);  // before SQLite adds its side files
    SQLite::Database db((b.directory / "Manifest.db").string(), SQLite::OPEN_READONLY);
    EXPECT_EQ(db.execAndGet("SELECT COUNT(*) FROM Files").getInt(), static_cast<int>(b.items.size()));
    std::set<std::string> expected{"Manifest.plist", "Info.plist", "Status.plist", "Manifest.db"};
    for (const BuiltItem& item : b.items) {
        EXPECT_EQ(item.fileID, FileIDOf(item.domain, item.relativePath));
        SQLite::Statement row(db, "SELECT domain, relativePath, flags FROM Files WHERE fileID = ?");
        row.bind(1, item.fileID);
        ASSERT_TRUE(row.executeStep()) << item.relativePath;
        EXPECT_EQ(row.getColumn(0).getString(), item.domain);
        EXPECT_EQ(row.getColumn(1).getString(), item.relativePath);
        EXPECT_EQ(row.getColumn(2).getInt(), item.kind == ItemKind::File ? 1 : item.kind == ItemKind::Directory ? 2 : 4);
        if (item.kind != ItemKind::File) continue;
        EXPECT_EQ(ReadWholeFile(b.directory / item.localFilename), item.content) << item.relativePath;
        EXPECT_TRUE(item.encryptionKey.empty());
        expected.insert(item.localFilename);
    }
    EXPECT_EQ(present, expected) << "nothing else, no database side files";
}

class StoreLayoutTest : public BackupBuilderTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(StoreLayoutTest, StatusVersionManifestNameAndStoreFollowTheManifestVersion) {
    const std::string version = GetParam();
    BuiltBackup b = build(version, false);
    EXPECT_EQ(ReadPropertyList(b.directory / "Status.plist").Get<CF::String>("Version").utf8(), version);
    const bool flat = version == "2.4";
    EXPECT_EQ(fs::exists(b.directory / "Manifest.mbdb"), flat);
    EXPECT_EQ(fs::exists(b.directory / "Manifest.db"), !flat);
    for (const BuiltItem& item : b.items) {
        if (item.kind != ItemKind::File) continue;
        EXPECT_EQ(item.localFilename, flat ? item.fileID : item.fileID.substr(0, 2) + "/" + item.fileID);
        EXPECT_TRUE(fs::is_regular_file(b.directory / item.localFilename)) << item.localFilename;
    }
}

INSTANTIATE_TEST_SUITE_P(Versions, StoreLayoutTest, ::testing::Values("2.4", "3.0", "3.1", "3.2", "3.3"));

TEST_F(BackupBuilderTest, EncryptedDatabaseAndStoredFilesOpenWithThePasswordAlone) {
    BuiltBackup b = build("3.3", true);
    CF::Dictionary plist = ReadPropertyList(b.directory / "Manifest.plist");
    ASSERT_TRUE(plist.Get<CF::Boolean>("IsEncrypted").value());
    CF::Data wrappedManifestKey = plist.Get<CF::Data>("ManifestKey");
    ASSERT_EQ(wrappedManifestKey.size(), 44u);
    EXPECT_EQ(wrappedManifestKey.vector()[0], 4);  // devices wrap the manifest key under class 4

    MB::ManifestEncryption keys(plist, "password");
    const std::vector<uint8_t> database = Decipher(keys.GetManifestKey(), ReadWholeFile(b.directory / "Manifest.db"));
    WriteWholeFile(root / "plain.db", database);
    EXPECT_EQ(Head(root / "plain.db", 15), "SQLite format 3");
    SQLite::Database db((root / "plain.db").string(), SQLite::OPEN_READONLY);

    for (const BuiltItem& item : b.items) {
        if (item.kind != ItemKind::File) continue;
        SQLite::Statement row(db, "SELECT domain, relativePath, flags, file FROM Files WHERE fileID = ?");
        row.bind(1, item.fileID);
        ASSERT_TRUE(row.executeStep()) << item.relativePath;
        SQLite::Column blob = row.getColumn(3);
        CF::Data archive(std::span<const uint8_t>(static_cast<const uint8_t*>(blob.getBlob()), static_cast<size_t>(blob.getBytes())));
        Quiver::Entry entry = Quiver::QVManifestEntryCreateFromMBFileData(
            CF::String(item.fileID).get(), CF::String(item.domain).get(), CF::String(item.relativePath).get(), 1,
            archive.get(), nullptr);
        ASSERT_TRUE(entry);
        EXPECT_EQ(entry->size, item.content.size());
        EXPECT_EQ(entry->protectionClass, item.protectionClass);
        CF::Data wrapped = CF::Data::Retain(Quiver::QVManifestEntryGetEncryptionData(entry));
        ASSERT_EQ(wrapped.size(), 44u);
        EXPECT_EQ(wrapped.vector()[0], item.protectionClass);

        const std::vector<uint8_t> stored = ReadWholeFile(b.directory / item.localFilename);
        EXPECT_EQ(stored.size(), (item.content.size() / 16 + 1) * 16) << "PKCS#7 always adds padding";
        EXPECT_EQ(Decipher(keys.UnlockKey(wrapped), stored), item.content) << item.relativePath;
    }
}

TEST_F(BackupBuilderTest, EncryptedMbdbBackupKeepsPerFileKeysInItsRecordsAndNoManifestKey) {
    BuiltBackup b = build("2.4", true);
    for (const auto& e : fs::directory_iterator(b.directory)) EXPECT_FALSE(e.is_directory()) << e.path();
    CF::Dictionary plist = ReadPropertyList(b.directory / "Manifest.plist");
    EXPECT_FALSE(plist.Contains("ManifestKey"));
    MB::KeyBag keyBag(plist.Get<CF::Data>("BackupKeyBag"), "password");

    EXPECT_EQ(Head(b.directory / "Manifest.mbdb", 6), std::string("mbdb\x05\x00", 6));
    CF::Data data(ReadWholeFile(b.directory / "Manifest.mbdb"));
    Quiver::Manifest manifest = Quiver::QVManifestCreateFromManifestData(data.get(), QVManifestDataVersion24, {}, {});
    ASSERT_TRUE(manifest);
    ASSERT_EQ(manifest->entries.size(), b.items.size());

    for (const Quiver::Entry& entry : manifest->entries) {
        if (!Quiver::QVManifestEntryIsFile(entry)) continue;
        const BuiltItem& item = b.Item(entry->domain.utf8(), entry->relativePath.utf8());
        const std::vector<uint8_t> blob = entry->encryptionKey.vector();
        ASSERT_EQ(blob.size(), 44u);
        const MB::KeyBag::UnlockedKey* classKey = keyBag.FindUnlockedKey(blob[0]);
        ASSERT_NE(classKey, nullptr);
        const std::vector<uint8_t> key =
            Quiver::Support::RFC3394Unwrap(classKey->key, std::span<const uint8_t>(blob).subspan(4));
        const std::vector<uint8_t> stored = ReadWholeFile(b.directory / item.fileID);
        EXPECT_EQ(Decipher(key, stored), item.content) << item.relativePath;
        EXPECT_EQ(entry->digest.vector(), Quiver::Support::Sha1(stored)) << "digest of the stored bytes";
        EXPECT_EQ(entry->size, item.content.size());
    }
}

TEST_F(BackupBuilderTest, MetadataCarriesTheDeviceInTheFormatsDevicesWrite) {
    BackupDescription d;
    d.deviceName = "Lab Phone";
    d.productVersion = "12.1";
    BuiltBackup b = BuildBackup(root / "binary", d);
    EXPECT_EQ(Head(b.directory / "Manifest.plist", 8), "bplist00");
    EXPECT_EQ(Head(b.directory / "Info.plist", 5), "<?xml");
    CF::Dictionary manifest = ReadPropertyList(b.directory / "Manifest.plist");
    EXPECT_FALSE(manifest.Get<CF::Boolean>("IsEncrypted").value());
    CF::Dictionary lockdown = manifest.Get<CF::Dictionary>("Lockdown");
    EXPECT_EQ(lockdown.Get<CF::String>("ProductVersion").utf8(), "12.1");
    EXPECT_EQ(lockdown.Get<CF::String>("DeviceName").utf8(), "Lab Phone");
    CF::Dictionary info = ReadPropertyList(b.directory / "Info.plist");
    EXPECT_EQ(info.Get<CF::String>("Product Version").utf8(), "12.1");
    EXPECT_EQ(info.Get<CF::String>("Device Name").utf8(), "Lab Phone");

    d.writeInfoPlist = false;
    d.xmlMetadata = true;
    BuiltBackup xml = BuildBackup(root / "xml", d);
    EXPECT_FALSE(fs::exists(xml.directory / "Info.plist"));
    EXPECT_EQ(Head(xml.directory / "Status.plist", 5), "<?xml");
}

TEST_F(BackupBuilderTest, RefusesDescriptionsItCannotWrite) {
    BackupDescription twice;
    twice.items = {BackupItem::Directory("HomeDomain", "a"), BackupItem::File("HomeDomain", "a", "x")};
    EXPECT_THROW(BuildBackup(root / "twice", twice), std::invalid_argument);

    BackupDescription unknown;
    unknown.manifestVersion = "3.4";
    EXPECT_THROW(BuildBackup(root / "unknown", unknown), std::invalid_argument);

    BackupDescription noClass;
    noClass.encrypted = true;
    noClass.items = {BackupItem::File("HomeDomain", "f", "x")};
    noClass.items[0].protectionClass = 0;  // the key bag has classes 1 to 11 only
    EXPECT_THROW(BuildBackup(root / "noclass", noClass), CF::Error);

    build("3.3", false);
    EXPECT_THROW(build("3.3", false), std::invalid_argument) << "an existing backup is never overwritten";
}

}  // namespace
