// Backups from real devices (and two synthetic ones made by another tool), where present beside the
// repository (skipped when absent): each opens with its password and reads what it holds; a wrong
// password is an incorrect password, a missing stored file is named, partial copies read with warnings.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "support/BackupBuilder.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
namespace fs = std::filesystem;

namespace {

const fs::path kRealData = QUIVER_REALDATA;

class ContainerRealData : public QuiverTest::ScratchBackupTest {
protected:
    static std::vector<uint8_t> Read(const Backup& backup, const std::string& domain, const std::string& path,
                                     CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        auto file = QVBackupContainerCopyFileForPath(backup, CF::String(domain).get(), CF::String(path).get(), &error);
        CF::Error e = CF::Error::Adopt(error);
        if (failure) *failure = e;
        return file ? QuiverTest::ReadFileObject(file) : std::vector<uint8_t>{};
    }

    static std::string Sha256(const std::vector<uint8_t>& bytes) {
        std::vector<uint8_t> digest(32);
        unsigned int length = 0;
        EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr);
        return Quiver::Support::hex_encode(digest);
    }
};

#define REQUIRE_REAL(path) \
    if (!fs::exists(kRealData / (path))) GTEST_SKIP() << "no real data at " << kRealData / (path)

}  // namespace

// An iPhone 4S backup of iOS 9.3.6: Manifest.mbdb with the file keys in its records, a one-pass key bag
// and no manifest key. Every stored file deciphers to the SHA-256 of the answer key; the one file the
// backup lacks is named; seven files whose plaintext differs from their recorded size read whole.
TEST_F(ContainerRealData, EncryptedIOS9BackupReadsEveryFileToItsAnswer) {
    REQUIRE_REAL("hv20-encrypted-mbdb/answer_key.tsv");
    const fs::path dir = kRealData / "hv20-encrypted-mbdb" / "backup";
    CF::Error failure;
    Backup backup = OpenBackup(dir, "20201225", &failure);
    ASSERT_TRUE(backup) << failure.Text();
    EXPECT_TRUE(QVBackupContainerIsEncrypted(backup));
    EXPECT_FALSE(QVBackupContainerHasEncipheredManifest(backup));
    EXPECT_TRUE(QVBackupContainerCopyMissingMetadata(backup).empty());

    std::ifstream answers(kRealData / "hv20-encrypted-mbdb" / "answer_key.tsv");
    std::string line;
    std::getline(answers, line);  // heading
    int matched = 0, absent = 0, sizeDiffers = 0;
    while (std::getline(answers, line)) {
        std::istringstream fields(line);
        std::string fileID, domain, path, protection, recordedSize, length, sha256;
        std::getline(fields, fileID, '\t');
        std::getline(fields, domain, '\t');
        std::getline(fields, path, '\t');
        std::getline(fields, protection, '\t');
        std::getline(fields, recordedSize, '\t');
        std::getline(fields, length, '\t');
        std::getline(fields, sha256, '\t');
        const std::vector<uint8_t> plain = Read(backup, domain, path, &failure);
        if (sha256 == "ABSENT") {
            EXPECT_EQ(failure.Code(), QVErrorLoadingExternalRepresentation) << path;
            EXPECT_EQ(failure.Reason(), "Failed to load file (" + fileID + ")");
            ++absent;
            continue;
        }
        EXPECT_FALSE(failure) << path << ": " << failure.Text();
        EXPECT_EQ(Sha256(plain), sha256) << domain << " " << path;
        EXPECT_EQ(std::to_string(plain.size()), length) << path;
        matched += Sha256(plain) == sha256;
        sizeDiffers += recordedSize != length;
    }
    EXPECT_EQ(matched, 320);
    EXPECT_EQ(absent, 1);
    EXPECT_EQ(sizeDiffers, 7);

    EXPECT_FALSE(OpenBackup(dir, "20201224", &failure));
    EXPECT_EQ(failure.Code(), QVErrorUnlockFailed);
    EXPECT_TRUE(failure.Underlying().Reason().starts_with("RFC3394Unwrap failed")) << failure.Text();
    EXPECT_FALSE(OpenBackup(dir, nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorPasswordRequired);
}

// Synthetic backups of both eras (zero keys, empty Status.plist and Info.plist): the Status.plist holds
// no version, so the manifest present decides it, and the one file reads.
TEST_F(ContainerRealData, SyntheticBackupsOfBothErasReadTheirFile) {
    REQUIRE_REAL("pyiosbackup-synthetic/mbdb-backup");
    for (const char* folder : {"mbdb-backup", "sqlite-backup"}) {
        SCOPED_TRACE(folder);
        const fs::path dir = kRealData / "pyiosbackup-synthetic" / folder;
        CF::Error failure;
        Backup backup = OpenBackup(dir, "0000", &failure);
        ASSERT_TRUE(backup) << failure.Text();
        EXPECT_EQ(QVBackupContainerCopyMissingMetadata(backup), std::vector<std::string>{"Version in Status.plist"});
        EXPECT_EQ(QVBackupContainerHasEncipheredManifest(backup), std::string(folder) == "sqlite-backup");
        const std::vector<uint8_t> plain = Read(backup, "MyTestDomain", "Media/Test.txt", &failure);
        EXPECT_EQ(std::string(plain.begin(), plain.end()), "Test data") << failure.Text();
    }
    CF::Error failure;
    EXPECT_FALSE(OpenBackup(kRealData / "pyiosbackup-synthetic" / "mbdb-backup", "0001", &failure));
    EXPECT_EQ(failure.Code(), QVErrorUnlockFailed);
}

// An iOS 14 Manifest.db beside Info.plist alone: a partial copy, read as a plain backup with warnings.
TEST_F(ContainerRealData, PartialIOS14CopyReadsAsAPlainBackup) {
    REQUIRE_REAL("mvt-ios-backup/backup/Manifest.db");
    CF::Error failure;
    Backup backup = OpenBackup(kRealData / "mvt-ios-backup" / "backup", nullptr, &failure);
    ASSERT_TRUE(backup) << failure.Text();
    EXPECT_EQ(QVBackupContainerCopyMissingMetadata(backup), (std::vector<std::string>{"Manifest.plist", "Status.plist"}));
    EXPECT_EQ(QVBackupContainerCopyLoadWarnings(backup).size(), 2u);
    EXPECT_EQ(QVManifestGetEntries(QVBackupContainerGetManifest(backup)).size(), 3721u);
    // The one stored file that is the original (the others are stand-ins) reads at its recorded size.
    Entry tcc = QVBackupContainerGetEntryForPath(backup, CFSTR("HomeDomain"), CFSTR("Library/TCC/TCC.db"));
    ASSERT_TRUE(tcc);
    EXPECT_EQ(Read(backup, "HomeDomain", "Library/TCC/TCC.db").size(), QVManifestEntryGetFileSize(tcc));
}

// A real iOS 4/5 Manifest.mbdb, stored under another name and without its metadata: in a folder of
// its own it reads as a partial copy.
TEST_F(ContainerRealData, LoneIOS5ManifestReadsAsAPartialCopy) {
    REQUIRE_REAL("yielding-mbdb/5_Manifest.mbdb");
    fs::create_symlink(kRealData / "yielding-mbdb" / "5_Manifest.mbdb", root / "Manifest.mbdb");
    CF::Error failure;
    Backup backup = OpenBackup(root, nullptr, &failure);
    ASSERT_TRUE(backup) << failure.Text();
    EXPECT_EQ(backup->manifestVersion, QVManifestDataVersion24);
    EXPECT_EQ(QVManifestGetEntries(QVBackupContainerGetManifest(backup)).size(), 4715u);
}
