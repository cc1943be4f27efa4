// Verification through the library: each fault of the damaged-backup collection that loading lets
// through is reported as a record of its own kind, naming its entry or stored file, with the rest of
// the backup sound; the quick mode reads no file whole.
#include <gtest/gtest.h>

#include <map>

#include "Quiver/QVError.hpp"
#include "Quiver/QVVerify.hpp"
#include "support/BackupBuilder.hpp"
#include "support/DamagedBackups.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
namespace fs = std::filesystem;

namespace {

class VerifyTest : public QuiverTest::ScratchBackupTest {
protected:
    static Backup open(const fs::path& path, const std::string& password) {
        return OpenBackup(path, password.empty() ? nullptr : password.c_str());
    }

    static std::vector<QVProblem> verify(const Backup& backup, QVVerifyMode mode, int64_t* damaged = nullptr) {
        std::vector<QVProblem> problems;
        int64_t last = -1, total = -1;
        CFErrorRef error = nullptr;
        const auto count = QVBackupContainerVerify(
            backup, mode, [&](const QVProblem& p) { problems.push_back(p); },
            [&](int64_t done, int64_t all, double) { last = done, total = all; }, &error);
        EXPECT_TRUE(count) << CF::Error::Adopt(error).Text();
        EXPECT_EQ(last, total);  // progress ends at the end
        if (damaged) *damaged = count.value_or(-1);
        return problems;
    }
};

TEST_F(VerifyTest, EachFaultOfTheCollectionIsReportedAsItsKindAndNothingElseIsDamaged) {
    const std::vector<QuiverTest::DamagedBackup> backups = QuiverTest::BuildDamagedBackups(root / "damaged");
    size_t checked = 0;
    for (const QuiverTest::DamagedBackup& b : backups) {
        if (b.kind.empty()) continue;  // loading refuses these
        SCOPED_TRACE(b.name);
        ++checked;
        Backup backup = open(b.path, b.password);
        ASSERT_TRUE(backup);
        int64_t damaged = 0;
        const std::vector<QVProblem> problems = verify(backup, QVVerifyMode::Full, &damaged);
        std::vector<const QVProblem*> serious;
        for (const QVProblem& p : problems)
            if (!p.warning) serious.push_back(&p);
        ASSERT_EQ(serious.size(), 1u) << (problems.empty() ? "nothing found" : problems.front().detail);
        EXPECT_EQ(damaged, 1);
        const QVProblem& p = *serious.front();
        EXPECT_EQ(to_string(p.kind), b.kind);
        EXPECT_TRUE(p.path == b.named || p.storedName == b.named) << p.path << " / " << p.storedName;
        if (p.kind != QVProblemKind::OrphanStoredFile && p.kind != QVProblemKind::MetadataUnreadable) {
            EXPECT_EQ(p.domain, b.domain);
            EXPECT_FALSE(p.fileID.empty());
        }
    }
    EXPECT_EQ(checked, 14u);
}

// A program tells load failures apart by the keys of the error, not its text: which file of the backup,
// and what failed where that is more than the code says. Counting a backup's entries fails alike.
TEST_F(VerifyTest, LoadFailuresNameTheFileOfTheBackupAndTheCheckThatFailed) {
    const std::vector<QuiverTest::DamagedBackup> backups = QuiverTest::BuildDamagedBackups(root / "damaged");
    const std::map<std::string, std::pair<std::string, std::string>> expected{
        {"DatabaseTruncated", {"Manifest.db", ""}},
        {"EncryptedDatabaseTruncated", {"Manifest.db", ""}},
        {"ManifestPlistGarbageEncrypted", {"Manifest.plist", "not-a-property-list"}},
        {"ManifestPlistGarbageEncryptedMbdb", {"Manifest.plist", "not-a-property-list"}},
        {"ManifestKeyTooShort", {"Manifest.plist", "manifest-key"}},
        {"MbdbTruncated", {"Manifest.mbdb", ""}},
    };
    size_t seen = 0;
    for (const QuiverTest::DamagedBackup& b : backups) {
        auto want = expected.find(b.name);
        if (want == expected.end()) continue;
        ++seen;
        const CF::String path(b.path.string()), pw(b.password);
        // A backup whose Manifest.plist is unreadable fails with or without the password: with it, as
        // the password has no key bag to open; without it, by its enciphered manifest or wrapped keys.
        std::vector<CFStringRef> passwords{b.password.empty() ? nullptr : pw.get()};
        if (b.name.starts_with("ManifestPlistGarbage")) passwords.push_back(nullptr);
        for (CFStringRef password : passwords) {
            for (bool count : {false, true}) {
                CFErrorRef error = nullptr;
                EXPECT_FALSE(count ? QVBackupContainerCount(QVDataSourceTypeDirectory, path.get(), password, nullptr, &error)
                                   : QVBackupContainerCreateFromDirectory(path.get(), password, nullptr, &error));
                const CF::Error failure = CF::Error::Adopt(error);
                EXPECT_EQ(ErrorContextValue(failure, kQVErrorBackupFileKey), want->second.first) << b.name << count;
                EXPECT_EQ(ErrorContextValue(failure, kQVErrorCheckKey), want->second.second) << b.name << count;
            }
        }
    }
    EXPECT_EQ(seen, expected.size());

    // A wrong password against a sound key bag, and a folder that is no backup at all.
    const QuiverTest::BackupDescription d{.items = QuiverTest::SampleItems(), .encrypted = true};
    QuiverTest::BuiltBackup built = QuiverTest::BuildBackup(root / "sound", d);
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVBackupContainerCreateFromDirectory(CF::String(built.directory.string()).get(), CFSTR("wrong"), nullptr, &error));
    EXPECT_EQ(ErrorContextValue(CF::Error::Adopt(error), kQVErrorCheckKey), "password");
    fs::create_directories(root / "empty");
    error = nullptr;
    EXPECT_FALSE(QVBackupContainerCreateFromDirectory(CF::String((root / "empty").string()).get(), nullptr, nullptr, &error));
    const CF::Error none = CF::Error::Adopt(error);
    EXPECT_EQ(ErrorContextValue(none, kQVErrorCheckKey), "missing") << none.Text();
}

TEST_F(VerifyTest, QuickModeReadsNoFileWholeAndHandsTheDigestToAReaderThatHashes) {
    const QuiverTest::BackupDescription d{.items = QuiverTest::SampleItems(), .manifestVersion = "3.3"};
    QuiverTest::BuiltBackup built = QuiverTest::BuildBackup(root / "plain", d);
    const QuiverTest::BuiltItem& large = built.Item("AppDomain-com.example.notes", "Documents/large.db");
    // The same length, other bytes: only a digest can tell.
    std::vector<uint8_t> bytes = QuiverTest::ReadWholeFile(built.directory / large.localFilename);
    bytes[bytes.size() / 2] ^= 1;
    QuiverTest::WriteWholeFile(built.directory / large.localFilename, bytes);

    Backup backup = open(built.directory, "");
    EXPECT_TRUE(verify(backup, QVVerifyMode::Quick).empty());
    Entry entry = QVBackupContainerGetEntryForPath(backup, CFSTR("AppDomain-com.example.notes"), CFSTR("Documents/large.db"));
    ASSERT_TRUE(entry);
    std::vector<uint8_t> digest;
    EXPECT_TRUE(QVBackupContainerVerifyEntry(backup, entry, QVVerifyMode::Quick, &digest).empty());
    EXPECT_EQ(digest, large.digest);
    const auto found = QVBackupContainerVerifyEntry(backup, entry, QVVerifyMode::Digests);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found.front().kind, QVProblemKind::DigestMismatch);
    EXPECT_EQ(found.front().storedName, large.localFilename);
    EXPECT_EQ(found.front().storedLength, bytes.size());
}

TEST_F(VerifyTest, RealBackupsShowOnlyTheirKnownFaults) {
    const fs::path real = "/work/shared/realdata/hv20-encrypted-mbdb/backup";
    if (!fs::exists(real)) GTEST_SKIP() << "no real data at " << real;
    Backup backup = open(real, "20201225");
    ASSERT_TRUE(backup);
    auto kinds = [&](QVVerifyMode mode) {
        std::map<std::string, int> found;
        for (const QVProblem& p : verify(backup, mode)) ++found[std::string(to_string(p.kind)) + (p.warning ? "?" : "")];
        return found;
    };
    // One video is missing from the copy. Seven files changed length while the device copied them: the
    // quick check can only warn of each, and reading them lets the recorded digests clear six (the voice
    // memo database has none).
    EXPECT_EQ(kinds(QVVerifyMode::Quick), (std::map<std::string, int>{{"size-disagrees?", 7}, {"stored-file-missing", 1}}));
    EXPECT_EQ(kinds(QVVerifyMode::Full), (std::map<std::string, int>{{"size-disagrees?", 1}, {"stored-file-missing", 1}}));
}

}  // namespace
