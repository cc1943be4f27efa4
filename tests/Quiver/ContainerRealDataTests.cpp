// Backups from real devices (and two synthetic ones made by another tool), where present beside the
// repository: each opens, or fails with the error that its shape calls for, and never crashes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "support/TemporaryPath.hpp"

using namespace Quiver;
namespace fs = std::filesystem;

namespace {

struct RealBackup {
    const char* folder;
    const char* password;
    int32_t expectedCode;  // 0: loads
    const char* expectedReason;
};

// Test names show the folder (gtest would otherwise print the struct's bytes, padding included).
void PrintTo(const RealBackup& backup, std::ostream* out) { *out << backup.folder; }

fs::path realdata() { return fs::path(QUIVER_REALDATA); }

}  // namespace

class ContainerRealData : public ::testing::TestWithParam<RealBackup> {};

TEST_P(ContainerRealData, OpensOrFailsAsItsShapeCallsFor) {
    const RealBackup& backup = GetParam();
    fs::path dir = realdata() / backup.folder;
    if (!fs::exists(dir)) GTEST_SKIP() << "no real data at " << dir;
    QuiverTest::UseTestTemporaryPath();
    CFErrorRef error = nullptr;
    CF::String password = backup.password ? CF::String(backup.password) : CF::String();
    Backup container = QVBackupContainerCreateFromDirectory(CF::String(dir.string()).get(), password.get(), nullptr,
                                                            &error);
    CF::Error e = CF::Error::Adopt(error);
    if (backup.expectedCode == 0) {
        ASSERT_TRUE(container) << e.Text();
        return;
    }
    EXPECT_FALSE(container);
    EXPECT_EQ(e.Code(), backup.expectedCode) << e.Text();
    EXPECT_EQ(e.Reason(), backup.expectedReason) << e.Text();
}

INSTANTIATE_TEST_SUITE_P(
    Backups, ContainerRealData,
    ::testing::Values(
        // An iPhone 4S backup of iOS 9: encrypted before manifest keys existed, so its Manifest.plist
        // has a key bag but no "ManifestKey", which this library requires of an encrypted backup.
        RealBackup{"hv20-encrypted-mbdb/backup", "20201225", QVErrorInvalidMetadata, "ManifestKey is missing"},
        // An iOS 14 Manifest.db with Info.plist only.
        RealBackup{"mvt-ios-backup/backup", nullptr, QVErrorInvalidBackup,
                   "Backup metadata file missing. Are you sure this is a valid backup? (Manifest.plist)"},
        // Synthetic: the older variant has no manifest key either. The newer one derives its key with the
        // device's 10,000,000 iterations; its key bag, like those of devices, holds classes wrapped with
        // the device key as well (WRAP 3), which a key bag opened away from the device refuses.
        RealBackup{"pyiosbackup-synthetic/mbdb-backup", "0000", QVErrorInvalidMetadata, "ManifestKey is missing"},
        RealBackup{"pyiosbackup-synthetic/sqlite-backup", "0000", QVErrorUnlockFailed,
                   "Failed to unlock a key (class 11)"}),
    [](const auto& info) { return std::string("Backup") + std::to_string(info.index); });

TEST(ContainerRealDataPassword, WrongPasswordIsRefusedAtOpening) {
    fs::path dir = realdata() / "pyiosbackup-synthetic" / "sqlite-backup";
    if (!fs::exists(dir)) GTEST_SKIP() << "no real data at " << dir;
    QuiverTest::UseTestTemporaryPath();
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVBackupContainerCreateFromDirectory(CF::String(dir.string()).get(), CFSTR("wrong"), nullptr, &error));
    CF::Error wrong = CF::Error::Adopt(error);
    EXPECT_EQ(wrong.Code(), QVErrorUnlockFailed);
    // The wrong password fails the integrity check of the first class key's unwrap.
    EXPECT_TRUE(wrong.Underlying().Reason().starts_with("RFC3394Unwrap failed")) << wrong.Text();
    EXPECT_FALSE(QVBackupContainerCreateFromDirectory(CF::String(dir.string()).get(), nullptr, nullptr, &error));
    EXPECT_EQ(CF::Error::Adopt(error).Code(), QVErrorPasswordRequired);
}
