// The backup container on backups made by the test builder: metadata and names, partial copies, the
// loading failures, and the edits. Every generation read back whole is in GenerationTests.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Hash.hpp"
#include "support/BackupBuilder.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

std::string text(CFStringRef s) { return CF::String::Retain(s).utf8(); }

class ContainerTest : public ScratchBackupTest {
protected:
    BuiltBackup build(const std::string& version, bool encrypted, const char* name = "backup") {
        return BuildBackup(root / name, {.items = SampleItems(), .manifestVersion = version, .encrypted = encrypted});
    }
};

}  // namespace

TEST_F(ContainerTest, MetadataAndNamesOfALoadedBackup) {
    BuiltBackup built = build("3.3", false);
    std::vector<double> fractions;
    Backup backup = QVBackupContainerCreateFromDirectory(CF::String(built.directory.string()).get(), nullptr,
                                                         [&](int64_t, int64_t, double f) { fractions.push_back(f); }, nullptr);
    ASSERT_TRUE(backup);
    EXPECT_FALSE(fractions.empty());
    EXPECT_EQ(backup->manifestVersion, QVManifestDataVersion33);
    CF::Dictionary status = CF::Dictionary::Adopt(QVBackupContainerCopyStatusDict(backup));
    EXPECT_EQ(status.Get<CF::String>("Version").utf8(), "3.3");
    CF::Dictionary info = CF::Dictionary::Adopt(QVBackupContainerCopyInfoDict(backup));
    EXPECT_EQ(info.Get<CF::String>("Device Name").utf8(), "Test Device");
    // Loading leaves the version read from the empty dictionary at construction; setting recomputes it.
    EXPECT_FALSE(QVBackupContainer(backup).get_source_ios_version().valid());
    QVBackupContainerSetDictionaries(backup, nullptr, nullptr, QVBackupContainerGetManifestDict(backup).get());
    EXPECT_EQ(QVBackupContainer(backup).get_source_ios_version().text(), "14.3");

    size_t files = 0;
    for (const BuiltItem& item : built.items) files += item.kind == ItemKind::File;
    EXPECT_EQ(QVBackupContainerGetTotalFileCount(backup), static_cast<int64_t>(files) + 4);
    CF::Array paths = CF::Array::Adopt(QVBackupContainerCopyFilesystemPathsList(backup, 1));
    ASSERT_EQ(paths.size(), static_cast<CFIndex>(files + 4));
    std::vector<std::string> tail;
    for (CFIndex i = paths.size() - 4; i < paths.size(); ++i) tail.push_back(text(static_cast<CFStringRef>(paths[i])));
    EXPECT_EQ(tail, (std::vector<std::string>{"Manifest.db", "Manifest.plist", "Info.plist", "Status.plist"}));
    for (CFIndex i = 0; i < paths.size() - 4; ++i) {
        std::string name = text(static_cast<CFStringRef>(paths[i]));
        EXPECT_TRUE(fs::is_regular_file(built.directory / name)) << name;
        unsigned char metadata = 9;
        EXPECT_TRUE(QVBackupContainerGetEntryForLocalFilename(backup, static_cast<CFStringRef>(paths[i]), &metadata));
        EXPECT_EQ(metadata, 0);
    }
    unsigned char metadata = 0;
    EXPECT_FALSE(QVBackupContainerGetEntryForLocalFilename(backup, CFSTR("Status.plist"), &metadata));
    EXPECT_EQ(metadata, 1);
}

// A class that only the device's key opens stays locked: its files fail on their own, naming the
// class, and the rest of the backup reads.
TEST_F(ContainerTest, FilesOfADeviceOnlyClassFailAloneNamingTheClass) {
    BuiltBackup built = build("3.3", true);
    CF::Dictionary manifest = ReadPropertyList(built.directory / "Manifest.plist").MutableCopy();
    std::vector<uint8_t> keyBag = manifest.Get<CF::Data>("BackupKeyBag").vector();
    const std::vector<uint8_t> classOne = {'C', 'L', 'A', 'S', 0, 0, 0, 4, 0, 0, 0, 1};
    auto at = std::search(keyBag.begin(), keyBag.end(), classOne.begin(), classOne.end());
    ASSERT_NE(at, keyBag.end());
    ASSERT_TRUE(std::equal(at + 12, at + 16, "WRAP"));
    at[23] = 1;  // WRAP 1: the device's key alone
    manifest.Set("BackupKeyBag", CF::Data(keyBag));
    WritePropertyList(built.directory / "Manifest.plist", manifest.get());

    Backup backup = OpenBackup(built.directory, "password");
    ASSERT_TRUE(backup);
    for (const BuiltItem& item : built.items) {
        if (item.kind != ItemKind::File) continue;
        CFErrorRef error = nullptr;
        auto file = QVBackupContainerCopyFileForPath(backup, CF::String(item.domain).get(),
                                                     CF::String(item.relativePath).get(), &error);
        CF::Error failure = CF::Error::Adopt(error);
        if (item.protectionClass != 1) {
            ASSERT_TRUE(file) << item.relativePath << ": " << failure.Text();
            EXPECT_EQ(ReadFileObject(file), item.content);
            continue;
        }
        EXPECT_FALSE(file);
        EXPECT_EQ(failure.Code(), QVErrorUnlockFailed);
        EXPECT_EQ(failure.Underlying().Reason(), "Class 1 is wrapped with the device's own key, which a backup does not hold");
    }
}

// Forensic copies often hold a manifest without Status.plist or Manifest.plist: they read, with a
// warning that names what is missing, and are never written out as if whole. A present file that is
// not a property list is damage.
TEST_F(ContainerTest, PartialCopiesReadAndDamagedMetadataFailsWithTheNamedFile) {
    BuiltBackup built = build("3.3", false);
    fs::path status = built.directory / "Status.plist";
    auto original = ReadWholeFile(status);
    auto missingOf = [](const Backup& b) { return QVBackupContainerCopyMissingMetadata(b); };

    fs::remove(built.directory / "Info.plist");
    Backup withoutInfo = OpenBackup(built.directory, nullptr);
    ASSERT_TRUE(withoutInfo);
    EXPECT_EQ(CF::Dictionary::Adopt(QVBackupContainerCopyInfoDict(withoutInfo)).size(), 0);
    EXPECT_EQ(missingOf(withoutInfo), std::vector<std::string>{"Info.plist"});
    EXPECT_TRUE(QVBackupContainerCopyLoadWarnings(withoutInfo).empty());

    fs::remove(status);
    Backup noStatus = OpenBackup(built.directory, nullptr);
    ASSERT_TRUE(noStatus);
    EXPECT_EQ(noStatus->manifestVersion, QVManifestDataVersion33);
    EXPECT_EQ(missingOf(noStatus), (std::vector<std::string>{"Info.plist", "Status.plist"}));
    ASSERT_EQ(QVBackupContainerCopyLoadWarnings(noStatus).size(), 1u);
    EXPECT_EQ(QVBackupContainerCopyLoadWarnings(noStatus)[0],
              "there is no Status.plist: read as a Manifest.db backup (manifest version 3.3)");
    const BuiltItem& file = built.Item("HomeDomain", "Library/Preferences/one.txt");
    auto read = QVBackupContainerCopyFileForPath(noStatus, CFSTR("HomeDomain"), CF::String(file.relativePath).get(), nullptr);
    ASSERT_TRUE(read);
    EXPECT_EQ(ReadFileObject(read), file.content);
    // Never half a backup: the export refuses and writes nothing.
    EXPECT_EQ(QVBackupContainerExportToDirectory(noStatus, CF::String((root / "out").string()).get(), nullptr), 0);
    EXPECT_EQ(QVBackupContainerExportToZip(noStatus, CF::String((root / "out.zip").string()).get(), nullptr), 0);
    EXPECT_FALSE(fs::exists(root / "out") || fs::exists(root / "out.zip"));

    // Without Manifest.plist a copy cannot be decrypted: it reads as plain.
    fs::rename(built.directory / "Manifest.plist", root / "Manifest.plist");
    Backup bare = OpenBackup(built.directory, nullptr);
    ASSERT_TRUE(bare);
    EXPECT_EQ(missingOf(bare), (std::vector<std::string>{"Manifest.plist", "Info.plist", "Status.plist"}));
    EXPECT_EQ(QVBackupContainerCopyLoadWarnings(bare).size(), 2u);
    // And without a manifest either, it is no backup at all.
    fs::rename(built.directory / "Manifest.db", root / "Manifest.db");
    CF::Error failure;
    EXPECT_FALSE(OpenBackup(built.directory, nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_EQ(failure.Reason(), "Backup metadata file missing. Are you sure this is a valid backup? (Manifest.plist)");
    // iOS 3 and earlier kept .mdinfo/.mddata pairs: the message says which generation that is.
    WriteWholeFile(built.directory / "0123.mdinfo", {1});
    WriteWholeFile(built.directory / "0123.mddata", {1});
    EXPECT_FALSE(OpenBackup(built.directory, nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorUnknownManifestVersion);
    EXPECT_TRUE(failure.Reason().starts_with("This backup was made by iOS 3 or earlier")) << failure.Text();
    fs::remove(built.directory / "0123.mdinfo");
    fs::remove(built.directory / "0123.mddata");
    fs::rename(root / "Manifest.db", built.directory / "Manifest.db");
    fs::rename(root / "Manifest.plist", built.directory / "Manifest.plist");

    // A Status.plist without "Version" is a partial copy as well. One that is not a property list is
    // damage, read as if it were missing: the backup reads, and no copy of it is written.
    WritePropertyList(status, CF::Dictionary::CreateMutable().get());
    Backup noVersion = OpenBackup(built.directory, nullptr);
    ASSERT_TRUE(noVersion);
    EXPECT_EQ(missingOf(noVersion), (std::vector<std::string>{"Info.plist", "Version in Status.plist"}));
    for (const char* name : {"Status.plist", "Manifest.plist"}) {
        fs::path damaged = built.directory / name;
        auto kept = ReadWholeFile(damaged);
        WriteWholeFile(damaged, {'n', 'o', 't', ' ', 'a', ' ', 'p', 'l', 'i', 's', 't'});
        Backup unreadable = OpenBackup(built.directory, nullptr);
        ASSERT_TRUE(unreadable) << name;
        EXPECT_EQ(QVBackupContainerCopyUnreadableMetadata(unreadable), std::vector<std::string>{name});
        EXPECT_NE(std::find(missingOf(unreadable).begin(), missingOf(unreadable).end(), name), missingOf(unreadable).end());
        EXPECT_EQ(QVBackupContainerCopyLoadWarnings(unreadable).front(),
                  fmt::format("{} is not a property list: it is read as if it were missing", name));
        EXPECT_EQ(QVBackupContainerExportToDirectory(unreadable, CF::String((root / "out").string()).get(), nullptr), 0);
        EXPECT_FALSE(fs::exists(root / "out"));
        WriteWholeFile(damaged, kept);
    }

    CF::Dictionary newer = CF::Dictionary::CreateMutable();
    newer.Set("Version", CF::String("3.4"));
    WritePropertyList(status, newer.get());
    EXPECT_FALSE(OpenBackup(built.directory, nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorUnknownManifestVersion);
    EXPECT_EQ(failure.Reason(), "Unsupported version '3.4' specified");
    EXPECT_TRUE(failure.IsFriendly());
    WriteWholeFile(status, original);
}

TEST_F(ContainerTest, DamagedManifestsAndStoredFilesAreReported) {
    BuiltBackup built = build("3.3", false);
    BuiltBackup mbdb = build("2.4", false, "old");
    CF::Error failure;
    WriteWholeFile(mbdb.directory / "Manifest.mbdb", {'m', 'b', 'd', 'b', 5, 0, 0, 9});
    EXPECT_FALSE(OpenBackup(mbdb.directory, nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorLoadingExternalRepresentation);
    EXPECT_EQ(failure.Reason(), "An error ocurred while loading manifest file");

    // A missing stored file is found when it is read, and named.
    const BuiltItem* victim = nullptr;
    for (const BuiltItem& item : built.items)
        if (item.kind == ItemKind::File && !item.content.empty()) victim = &item;
    ASSERT_NE(victim, nullptr);
    fs::remove(built.directory / victim->localFilename);
    Backup backup = OpenBackup(built.directory, nullptr);
    ASSERT_TRUE(backup);
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVBackupContainerCopyFileForPath(backup, CF::String(victim->domain).get(),
                                                  CF::String(victim->relativePath).get(), &error));
    CF::Error missing = CF::Error::Adopt(error);
    EXPECT_EQ(missing.Code(), QVErrorLoadingExternalRepresentation);
    EXPECT_EQ(missing.Reason(), "Failed to load file (" + victim->localFilename + ")");

    fs::remove(built.directory / "Manifest.db");
    EXPECT_FALSE(OpenBackup(built.directory, nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorFileNotFound);
}

TEST_F(ContainerTest, DirectoriesSymlinksAndRemoval) {
    Backup backup = QVBackupContainerCreateEmpty(nullptr);
    Entry dir = QVBackupContainerCreateDirectoryAtPath(backup, CFSTR("D"), CFSTR("a"));
    ASSERT_TRUE(dir);
    EXPECT_EQ(QVBackupContainerCreateDirectoryAtPath(backup, CFSTR("D"), CFSTR("a")), dir);
    auto file = QVFileCreateFromData(std::vector<uint8_t>{'1'}, nullptr);
    QVBackupContainerStoreFileForPath(backup, CFSTR("D"), CFSTR("a/f"), file, nullptr);
    EXPECT_FALSE(QVBackupContainerCreateDirectoryAtPath(backup, CFSTR("D"), CFSTR("a/f")));
    EXPECT_FALSE(QVBackupContainerCreateSymlinkAtPath(backup, CFSTR("D"), CFSTR("a/f"), CFSTR("t")));
    ASSERT_TRUE(QVBackupContainerCreateSymlinkAtPath(backup, CFSTR("D"), CFSTR("l"), CFSTR("one")));
    ASSERT_TRUE(QVBackupContainerCreateSymlinkAtPath(backup, CFSTR("D"), CFSTR("l"), CFSTR("two")));
    EXPECT_EQ(text(QVManifestEntryGetTarget(QVBackupContainerGetEntryForPath(backup, CFSTR("D"), CFSTR("l")))), "two");
    size_t before = QVManifestGetEntries(backup->manifest).size();
    EXPECT_EQ(QVBackupContainerRemovePath(backup, CFSTR("D"), CFSTR("nothing")), 0);
    EXPECT_EQ(QVManifestGetEntries(backup->manifest).size(), before);
    EXPECT_EQ(QVBackupContainerRemovePath(backup, CFSTR("D"), CFSTR("a")), 1);
    EXPECT_FALSE(QVBackupContainerGetEntryForPath(backup, CFSTR("D"), CFSTR("a/f")));
    EXPECT_EQ(QVManifestGetEntries(backup->manifest).size(), before - 2);
}

// Devices keep most files under class 3: a file replaced in an encrypted backup keeps its attributes
// and its class, and gets a key of its own, wrapped under that class, with the digest of what is
// stored.
TEST_F(ContainerTest, ReplacingAFileOfAnEncryptedBackupKeepsItsClassWithAFreshKey) {
    BuiltBackup built = build("3.3", true);
    Backup backup = OpenBackup(built.directory, "password");
    ASSERT_TRUE(backup);
    const std::vector<uint8_t> plain = {'r', 'e', 'p', 'l', 'a', 'c', 'e', 'd'};
    for (const char* path : {"Library/Preferences/one.txt", "Documents/large.db"}) {
        SCOPED_TRACE(path);
        const BuiltItem& item = built.Item(path[0] == 'L' ? "HomeDomain" : "AppDomain-com.example.notes", path);
        CF::String domain(item.domain), relativePath(item.relativePath);
        Entry old = QVBackupContainerGetEntryForPath(backup, domain.get(), relativePath.get());
        ASSERT_TRUE(old);
        const size_t count = QVManifestGetEntries(backup->manifest).size();
        CFErrorRef error = nullptr;
        Entry created = QVBackupContainerStoreFileForPath(backup, domain.get(), relativePath.get(),
                                                          QVFileCreateFromData(plain, nullptr), &error);
        ASSERT_TRUE(created) << CF::Error::Adopt(error).Text();
        EXPECT_EQ(QVBackupContainerGetEntryForPath(backup, domain.get(), relativePath.get()), created);
        EXPECT_EQ(QVManifestGetEntries(backup->manifest).size(), count);  // the old entry gone, no parents added
        EXPECT_EQ(created->inode, old->inode);
        EXPECT_EQ(ProtectionClassCode(created->protectionClass), item.protectionClass);
        EXPECT_EQ(created->mode, old->mode);
        EXPECT_EQ(created->userID, old->userID);
        EXPECT_EQ(created->groupID, old->groupID);
        EXPECT_EQ(created->birth, old->birth);
        EXPECT_EQ(created->lastModified, old->lastModified);
        EXPECT_EQ(created->size, plain.size());

        const std::span<const uint8_t> wrapped = QVManifestEntryGetEncryptionDataBytes(created);
        ASSERT_EQ(wrapped.size(), 44u);
        EXPECT_EQ(wrapped[0] | wrapped[1] << 8 | wrapped[2] << 16 | wrapped[3] << 24, static_cast<int>(item.protectionClass));
        EXPECT_NE(std::vector<uint8_t>(wrapped.begin(), wrapped.end()), item.encryptionKey);
        const auto key = built.encryption->UnlockKey(CF::Data(std::vector<uint8_t>(wrapped.begin(), wrapped.end())));
        EXPECT_NE(key, built.encryption->UnlockKey(CF::Data(item.encryptionKey)));
        auto stored = ReadFileObject(QVBackupContainerCopyFileForLocalFilename(backup, CF::String(item.localFilename).get(), nullptr));
        EXPECT_EQ(Support::Cryptor::Decrypt(Support::Cryptor::Algorithm::AES256, key, {}, stored), plain);
        const std::span<const uint8_t> digest = QVManifestEntryGetDataHashBytes(created);
        EXPECT_EQ(std::vector<uint8_t>(digest.begin(), digest.end()), Support::Sha1(stored));
        EXPECT_EQ(ReadFileObject(QVBackupContainerCopyFileForPath(backup, domain.get(), relativePath.get(), nullptr)), plain);
    }
}
