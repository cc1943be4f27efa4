// Reading out through the library as another program would, with nothing but the library's own
// interface: a hostile backup is verified and extracted without anything landing outside the
// destination, each refused entry saying why; a damaged file leaves nothing behind.
#include <gtest/gtest.h>

#include <map>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVExtract.hpp"
#include "Quiver/QVVerify.hpp"
#include "support/BackupBuilder.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

using ExtractTest = ScratchBackupTest;

TEST_F(ExtractTest, NameRulesRefuseEscapesAndWritingIsStricterThanReading) {
    using Name = std::pair<std::string_view, std::string_view>;
    for (auto [domain, path] : {Name{"", "a"}, Name{"..", "a"}, Name{".", "a"}, Name{"Home/Domain", "a"},
                                Name{"HomeDomain", "/etc/passwd"}, Name{"HomeDomain", "a/../../b"}, Name{"HomeDomain", ".."},
                                Name{"HomeDomain", std::string_view("a\0b", 3)}})
        for (QVNameUse use : {QVNameUse::Extract, QVNameUse::Write})
            EXPECT_TRUE(QVEntryNameProblem(domain, path, use)) << domain << " " << path;
    for (const char* path : {"a//b", "./a", "a/"}) {
        EXPECT_FALSE(QVEntryNameProblem("HomeDomain", path, QVNameUse::Extract)) << path;
        EXPECT_TRUE(QVEntryNameProblem("HomeDomain", path, QVNameUse::Write)) << path;
    }
    EXPECT_FALSE(QVEntryNameProblem("HomeDomain", "", QVNameUse::Write));  // the domain's own folder
    EXPECT_FALSE(QVEntryNameProblem("AppDomain-com.x", "Library/..hidden/a.b", QVNameUse::Write));
}

TEST_F(ExtractTest, AHostileBackupIsVerifiedAndExtractedWithoutLeavingTheDestination) {
    const fs::path outside = root / "outside";
    fs::create_directories(outside);
    std::vector<BackupItem> items{
        BackupItem::File("HomeDomain", "good.txt", std::string_view("kept")),
        BackupItem::File("HomeDomain", "../climbed.txt", std::string_view("x")),
        BackupItem::File("HomeDomain", (root / "absolute.txt").string(), std::string_view("x")),
        BackupItem::File("..", "domain-climbed.txt", std::string_view("x")),
        BackupItem::Symlink("HomeDomain", "link", outside.string()),
        BackupItem::File("HomeDomain", "link/through.txt", std::string_view("x")),
    };
    BuiltBackup built = BuildBackup(root / "hostile", {.items = items});
    Backup backup = OpenBackup(built.directory);
    ASSERT_TRUE(backup);

    // The names are the manifest's business, not the stored files': verification finds the files
    // sound and says which parents are missing.
    std::map<QVProblemKind, int> kinds;
    ASSERT_TRUE(QVBackupContainerVerify(backup, QVVerifyMode::Full, [&](const QVProblem& p) { ++kinds[p.kind]; }, nullptr, nullptr));
    EXPECT_EQ(kinds.count(QVProblemKind::DigestMismatch) + kinds.count(QVProblemKind::StoredFileMissing), 0u);

    const fs::path dest = root / "dest" / "inner";
    std::map<std::string, QVExtractEvent> refused;
    CFErrorRef error = nullptr;
    const auto summary = QVBackupContainerExtractEntries(
        backup, QVManifestGetEntries(backup->manifest), dest,
        [&](const QVExtractEvent& e) { refused.emplace(std::string(QVManifestEntryGetPathUTF8(e.entry)), e); },
        [](double) { return true; }, &error);
    ASSERT_TRUE(summary) << CF::Error::Adopt(error).Text();
    EXPECT_EQ(summary->unsafe, 4u);
    EXPECT_EQ(summary->failed + summary->damaged, 0u);
    ASSERT_EQ(refused.size(), 4u);
    for (const auto& [path, event] : refused) EXPECT_EQ(event.result, QVExtractResult::Unsafe) << path;
    EXPECT_NE(refused.at("link/through.txt").reason.find("symbolic link"), std::string::npos);
    EXPECT_NE(refused.at("../climbed.txt").reason.find(".."), std::string::npos);
    EXPECT_EQ(ReadWholeFile(dest / "HomeDomain/good.txt"), (std::vector<uint8_t>{'k', 'e', 'p', 't'}));
    EXPECT_EQ(fs::read_symlink(dest / "HomeDomain/link"), outside);
    EXPECT_FALSE(fs::exists(dest / "climbed.txt"));
    EXPECT_FALSE(fs::exists(root / "absolute.txt"));
    EXPECT_FALSE(fs::exists(root / "dest" / "domain-climbed.txt"));
    EXPECT_TRUE(fs::is_empty(outside));
}

TEST_F(ExtractTest, ADamagedFileIsReportedAndLeavesNothingAndAReadStopsWhenAsked) {
    BuiltBackup built = BuildBackup(root / "enc", {.items = SampleItems(), .encrypted = true});
    const BuiltItem& large = built.Item("AppDomain-com.example.notes", "Documents/large.db");
    std::vector<uint8_t> bytes = ReadWholeFile(built.directory / large.localFilename);
    bytes[bytes.size() - 40] ^= 1;  // the digest decides, found only at the end of the read
    WriteWholeFile(built.directory / large.localFilename, bytes);
    Backup backup = OpenBackup(built.directory, "password");
    ASSERT_TRUE(backup);
    Entry entry = QVBackupContainerGetEntryForPath(backup, CFSTR("AppDomain-com.example.notes"), CFSTR("Documents/large.db"));
    ASSERT_TRUE(entry);

    size_t given = 0;
    uint64_t delivered = 99;
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVBackupContainerReadEntry(backup, entry, [&](const uint8_t*, size_t n) { return given += n, true; },
                                            nullptr, &delivered, &error));
    CF::Error failure = CF::Error::Adopt(error);
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_EQ(ErrorContextValue(failure, kQVErrorCheckKey), "digest-mismatch");
    EXPECT_EQ(ErrorContextValue(failure, kQVErrorBackupFileKey), large.localFilename);
    EXPECT_EQ(ErrorContextValue(failure, kQVErrorEntryPathKey), "Documents/large.db");
    EXPECT_EQ(given, 0u);  // 100,000 bytes are held back whole until the digest is known
    EXPECT_EQ(delivered, 0u);

    std::vector<QVExtractEvent> events;
    const auto summary = QVBackupContainerExtractEntries(
        backup, {entry}, root / "out", [&](const QVExtractEvent& e) { events.push_back(e); }, nullptr, nullptr);
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->damaged, 1u);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events.front().result, QVExtractResult::Damaged);
    EXPECT_FALSE(fs::exists(root / "out/AppDomain-com.example.notes/Documents/large.db"));

    // A sound file read by a sink that stops after the first piece: no error, nothing more given.
    Entry other = QVBackupContainerGetEntryForPath(backup, CFSTR("HomeDomain"), CFSTR("Library/Preferences/one.txt"));
    ASSERT_TRUE(other);
    int calls = 0;
    EXPECT_TRUE(QVBackupContainerReadEntry(backup, other, [&](const uint8_t*, size_t) { return ++calls, false; }, nullptr,
                                           nullptr, nullptr));
    EXPECT_EQ(calls, 1);
}

}  // namespace
