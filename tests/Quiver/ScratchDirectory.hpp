// A fixture that gives each test a fresh directory of its own and removes it when the test ends; and one
// that also sets the library's temporary storage and opens backups as a caller of the library does.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Quiver/QVBackupContainer.hpp"
#include "support/TemporaryPath.hpp"

namespace QuiverTest {

class ScratchDirectoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "quiver-scratch-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(root); }

    std::filesystem::path root;
};

class ScratchBackupTest : public ScratchDirectoryTest {
protected:
    void SetUp() override {
        ScratchDirectoryTest::SetUp();
        UseTestTemporaryPath();
    }

    // Opens a backup folder, or a zip file when the name ends in ".zip", with password (none when null).
    // The error goes to *failure when asked for; otherwise the backup is expected to open.
    static Quiver::Backup OpenBackup(const std::filesystem::path& path, const char* password = nullptr,
                                     CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        CF::String name(path.string()), pw = password ? CF::String(password) : CF::String();
        Quiver::Backup backup = path.extension() == ".zip"
                                    ? Quiver::QVBackupContainerCreateFromZipFile(name.get(), pw.get(), nullptr, &error)
                                    : Quiver::QVBackupContainerCreateFromDirectory(name.get(), pw.get(), nullptr, &error);
        CF::Error e = CF::Error::Adopt(error);
        if (failure) *failure = e;
        else EXPECT_TRUE(backup) << path << ": " << e.Text();
        return backup;
    }
};

}  // namespace QuiverTest
