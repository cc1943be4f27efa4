// The file manager's registry, storage locations and memory limit.
#include <gtest/gtest.h>

#include "Quiver/FileManager.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "support/TemporaryPath.hpp"

using namespace Quiver;
namespace fs = std::filesystem;

TEST(FileManagerRegistry, CountsAndRemovesDigestsAndTheMemoryLimitIsFourMebibytes) {
    QuiverTest::UseTestTemporaryPath();
    EXPECT_EQ(FileManager::kDefaultMaxMemorySize, 4194304u);
    EXPECT_EQ(FileManager::GetMaxMemorySize(), 4194304u);
    QVFileClass probe;
    probe.referenceDigest = {0xde, 0xad, 0xbe, 0xef, 0x01};
    auto shared = std::shared_ptr<QVFileClass>(&probe, [](QVFileClass*) {});
    FileManager::RegisterReferenceForFile(shared);
    FileManager::RegisterReferenceForFile(shared);
    FileManager::DeregisterReferenceForFile(probe);
    EXPECT_EQ(FileManager::GetReferenceCount(probe.referenceDigest), 1u);
    FileManager::DeregisterReferenceForFile(shared);
    EXPECT_EQ(FileManager::GetReferenceCount(probe.referenceDigest), 0u);
    try {
        FileManager::DeregisterReferenceForFile(probe);
        ADD_FAILURE() << "deregistering an unknown digest succeeded";
    } catch (const CF::Error& e) {
        EXPECT_EQ(e.Code(), QVErrorInvalidArgument);
        EXPECT_EQ(e.Reason(), "Attempted to deregister reference for nonexistent hash '" +
                                  Support::hex_encode(probe.referenceDigest) + "'");
    }
    probe.referenceDigest.clear();  // nothing to deregister when the probe goes
    EXPECT_THROW(FileManager::RegisterReferenceForFile(nullptr), CF::Error);
}

TEST(FileManagerLocations, TemporaryIdentifierAndFreshNamesLieInTheStorageDirectoryCachedOnesAreRegularFiles) {
    fs::path root = QuiverTest::UseTestTemporaryPath();
    fs::path temp = FileManager::GetStorageLocationForTempIdentifier(CFSTR("ABC"));
    EXPECT_EQ(temp.filename(), "__ABC");
    EXPECT_EQ(temp.parent_path().filename(), "QVFileManager");
    fs::path a = FileManager::GetStorageLocationForFile(), b = FileManager::GetStorageLocationForFile();
    EXPECT_NE(a, b);
    EXPECT_EQ(a.parent_path(), temp.parent_path());
    EXPECT_FALSE(fs::exists(a));
    EXPECT_THROW(FileManager::GetStorageLocationForTempIdentifier(nullptr), CF::Error);
    // A cached reference only for regular files.
    CFErrorRef error = nullptr;
    EXPECT_FALSE(FileManager::CopyCachedFileReference(root, {1, 2}, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CFErrorGetCode(error), QVErrorFileNotInCache);
    CFRelease(error);
    EXPECT_FALSE(FileManager::CopyCachedFileReference(root / "missing", {1, 2}, nullptr));
}

TEST(FileManagerLocations, StorageNeedsTheTemporaryPathAndRetriesOnceItIsSet) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto check = [] {
        try {
            FileManager::GetStorageLocationForFile();
            return false;
        } catch (const CF::Error& e) {
            if (e.Code() != QVErrorInvalidArgument ||
                e.Reason() != "QVFileManager: Failed to initialize temp path (Temporary storage path not set)")
                return false;
        }
        QuiverTest::UseTestTemporaryPath();
        return !FileManager::GetStorageLocationForFile().empty();
    };
    EXPECT_EXIT(std::exit(check() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}
