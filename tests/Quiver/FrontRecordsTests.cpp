// The C++ front as a program that lists, inspects and edits backups uses it: what the manifest
// records of an entry beyond its name, where its content is stored, the key bag's parameters read
// without the password, a bare Manifest.db, and the errors a program acts on.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "quiver/quiver.hpp"
#include "support/BackupBuilder.hpp"
#include "support/TemporaryPath.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

class FrontRecords : public ScratchBackupTest {
protected:
    BuiltBackup build(const std::string& name, BackupDescription description) {
        return BuildBackup(root / name, description);
    }
};

// Every generation names its manifest file and version as the directory holds them, and each
// file's stored name is where its content lies, at the length the backup holds.
TEST_F(FrontRecords, StoredNamesAndManifestFormatMatchTheDirectoryInEveryGeneration) {
    for (const char* version : {"2.4", "3.0", "3.1", "3.2", "3.3"}) {
        BuiltBackup built = build(version, {.items = SampleItems(), .manifestVersion = version});
        quiver::Backup backup = quiver::Backup::open(built.directory);
        EXPECT_EQ(backup.manifestVersion(), version);
        EXPECT_EQ(backup.manifestFormat(), built.manifestName) << version;
        EXPECT_TRUE(fs::exists(built.directory / backup.manifestFormat())) << version;
        for (const BuiltItem& item : built.items) {
            const quiver::Entry entry = *backup.find(item.domain, item.relativePath);
            EXPECT_EQ(backup.storedName(entry), item.localFilename) << version << " " << item.relativePath;
            if (item.kind == ItemKind::File)
                EXPECT_EQ(backup.storedLength(entry), fs::file_size(built.directory / item.localFilename));
            else
                EXPECT_THROW(backup.storedLength(entry), quiver::Error);
        }
    }
}

TEST_F(FrontRecords, AMissingStoredFileKeepsItsNameAndFailsItsLengthNamingTheEntry) {
    BuiltBackup built = build("b", {.items = SampleItems()});
    const BuiltItem& item = built.Item("HomeDomain", "Library/Preferences/one.txt");
    fs::remove(built.directory / item.localFilename);
    quiver::Backup backup = quiver::Backup::open(built.directory);
    const quiver::Entry entry = *backup.find(item.domain, item.relativePath);
    EXPECT_EQ(backup.storedName(entry), item.localFilename);
    try {
        backup.storedLength(entry);
        FAIL() << "a missing stored file has a length";
    } catch (const quiver::Error& e) {
        EXPECT_FALSE(std::string(e.what()).empty());
        EXPECT_FALSE(e.isPasswordProblem());
    }
}

// 2001-01-01 is where manifest times count from; it is a time like any other, not "none".
TEST_F(FrontRecords, TimesAtTheManifestEpochAndAfterAnEditSurviveAsUnixSeconds) {
    std::vector<BackupItem> items = SampleItems();
    items.push_back(BackupItem::File("HomeDomain", "epoch.txt", std::string_view("e")));
    items.back().modified = 978307200;
    BuiltBackup built = build("b", {.items = items});
    quiver::Backup backup = quiver::Backup::open(built.directory);
    const quiver::Entry epoch = *backup.find("HomeDomain", "epoch.txt");
    EXPECT_EQ(epoch.times().modified, 978307200);
    EXPECT_EQ(epoch.times().birth, 978307200);

    const quiver::Entry added = backup.putData("HomeDomain", "new.txt", std::vector<uint8_t>{'n'});
    backup.setTimes(added, {-86400, 978307199, 978307200});
    EXPECT_EQ(added.times().birth, -86400);
    EXPECT_EQ(added.times().modified, 978307199);
    // Manifest.db keeps times since 2001 only, as devices write them.
    backup.setTimes(added, {1000000000, 1234567890, 1710498600});
    backup.write(root / "copy");
    const quiver::Times times = quiver::Backup::open(root / "copy").find("HomeDomain", "new.txt")->times();
    EXPECT_EQ(times.birth, 1000000000);
    EXPECT_EQ(times.modified, 1234567890);
    EXPECT_EQ(times.statusChanged, 1710498600);
}

// The type flags are what Manifest.db stores; a Manifest.mbdb record has none. A mode that is no
// file, folder or link is none of them either, and has nothing to read.
TEST_F(FrontRecords, TypeFlagsAsStoredAndAModeOfNoKnownKind) {
    std::vector<BackupItem> items = SampleItems();
    items.push_back(BackupItem::File("HomeDomain", "pipe", std::string_view()));
    items.back().mode = 0010644;
    for (const char* version : {"2.4", "3.3"}) {
        BuiltBackup built = build(version, {.items = items, .manifestVersion = version});
        quiver::Backup backup = quiver::Backup::open(built.directory);
        std::set<int> flags;
        for (const quiver::Entry entry : backup.entries()) flags.insert(entry.typeFlags());
        const std::set<int> stored = std::string(version) == "2.4" ? std::set<int>{0} : std::set<int>{1, 2, 4};
        EXPECT_EQ(flags, stored) << version;
        const quiver::Entry pipe = *backup.find("HomeDomain", "pipe");
        EXPECT_EQ(pipe.kind(), quiver::EntryKind::Other);
        EXPECT_FALSE(pipe.isFile());
        EXPECT_TRUE(backup.storedName(pipe).empty());
    }
}

// What the key bag says of the password's derivation is read from Manifest.plist alone: one pass
// before iOS 10.2, two since; a blob cut short says nothing rather than something wrong.
TEST_F(FrontRecords, KeyBagParametersWithoutThePassword) {
    BackupDescription twoPasses{.items = {}, .manifestVersion = "3.3", .encrypted = true};
    twoPasses.keyBag.iterations = 7;
    twoPasses.keyBag.dpIterations = 3;
    BuiltBackup built = build("two", twoPasses);
    quiver::Metadata metadata = quiver::Backup::readMetadata(built.directory);
    std::optional<quiver::KeyBagInfo> info = quiver::readKeyBagInfo(metadata.manifest);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->iterations, 7u);
    EXPECT_EQ(info->dpIterations, 3u);
    EXPECT_EQ(info->version, twoPasses.keyBag.version);
    EXPECT_EQ(info->classes, 11);

    BuiltBackup older = build("one", {.items = {}, .manifestVersion = "3.1", .encrypted = true});
    std::optional<quiver::KeyBagInfo> onePass = quiver::readKeyBagInfo(quiver::Backup::readMetadata(older.directory).manifest);
    ASSERT_TRUE(onePass);
    EXPECT_FALSE(onePass->dpIterations);

    quiver::Value cut = metadata.manifest;
    const std::vector<uint8_t>& blob = metadata.manifest["BackupKeyBag"].asData();
    for (size_t length : {size_t{0}, size_t{11}, size_t{14}, blob.size() - 1}) {
        cut.set("BackupKeyBag", quiver::Value::data(std::vector<uint8_t>(blob.begin(), blob.begin() + length)));
        std::optional<quiver::KeyBagInfo> partial = quiver::readKeyBagInfo(cut);
        // The last record cut short is caught by its length; shorter cuts lose the iterations.
        EXPECT_FALSE(partial) << length;
    }
    EXPECT_FALSE(quiver::readKeyBagInfo(quiver::Value()));
}

TEST_F(FrontRecords, ErrorsAProgramActsOn) {
    BuiltBackup built = build("enc", {.items = SampleItems(), .encrypted = true});
    try {
        quiver::Backup::open(built.directory, std::string("\xff\xfe"));
        FAIL() << "a password that is not text opened the backup";
    } catch (const quiver::Error& e) {
        EXPECT_TRUE(e.isPasswordProblem());
        EXPECT_EQ(e.check(), "password");
    }
    try {
        quiver::Backup::open(built.directory, std::string("wrong"));
        FAIL() << "a wrong password opened the backup";
    } catch (const quiver::Error& e) {
        EXPECT_TRUE(e.isPasswordProblem());
        // The trace carries each error's domain and code, for a report.
        EXPECT_NE(e.trace().find("Quiver.ErrorDomain code " + std::to_string(static_cast<int>(e.code()))), std::string::npos)
            << e.trace();
    }

    EXPECT_TRUE(quiver::Backup::nameProblem("HomeDomain", "a/../../b"));
    EXPECT_TRUE(quiver::Backup::nameProblem("Home/Domain", "a"));
    EXPECT_FALSE(quiver::Backup::nameProblem("HomeDomain", "Library/a.txt"));

    // A write in progress lies beside its destination and is gone once the write is whole.
    quiver::Backup backup = quiver::Backup::open(built.directory, std::string("password"));
    const fs::path destination = root / "copy";
    const fs::path partial = quiver::Backup::partialPath(destination);
    EXPECT_EQ(partial.parent_path(), destination.parent_path());
    EXPECT_NE(partial.filename().string().find("copy"), std::string::npos);
    backup.write(destination);
    EXPECT_TRUE(fs::is_directory(destination));
    EXPECT_FALSE(fs::exists(partial));
}

}  // namespace
