// The conversion commands as people run them: `passwd` with the new password from a file or the
// environment (never the command line), `encrypt` and `decrypt` round trips, a damaged backup that is
// refused or written without its damaged files, and `export --manifest db`. Backups come from the test
// fixtures.
#include <gtest/gtest.h>

#include <fstream>

#include "support/BackupBuilder.hpp"
#include "support/TemporaryPath.hpp"
#include "tool/ToolRunner.hpp"

namespace fs = std::filesystem;
using namespace QuiverTest;
using namespace QuiverToolTest;

namespace {

const std::vector<std::string> kFast = {"--iterations", "1", "--sha1-iterations", "1"};

class ConvertToolTest : public ScratchToolTest {
protected:
    RunResult Run(std::vector<std::string> args, Environment env = {}, bool fast = false) {
        env["TMPDIR"] = (work_ / "tmp").string();
        if (fast) args.insert(args.end(), kFast.begin(), kFast.end());
        return RunTool(args, env);
    }

    BuiltBackup Build(const std::string& name, bool encrypted, const std::string& version = "3.3") {
        return BuildBackup(work_ / name, {.items = SampleItems(), .manifestVersion = version, .encrypted = encrypted});
    }

    std::string Cat(const fs::path& backup, const std::string& password, const std::string& domain,
                    const std::string& path, int* status = nullptr) {
        Environment env;
        if (!password.empty()) env["QUIVER_PASSWORD"] = password;
        RunResult r = Run({"cat", backup.string(), domain, path}, env);
        if (status) *status = r.status;
        return r.out;
    }

    // Every file of `built` reads through the tool from `backup` as it was written.
    void ExpectEveryFile(const BuiltBackup& built, const fs::path& backup, const std::string& password) {
        for (const BuiltItem& item : built.items) {
            if (item.kind != ItemKind::File) continue;
            int status = -1;
            EXPECT_EQ(Cat(backup, password, item.domain, item.relativePath, &status),
                      std::string(item.content.begin(), item.content.end()))
                << item.relativePath;
            EXPECT_EQ(status, 0);
        }
    }
};

TEST_F(ConvertToolTest, PasswdTakesTheNewPasswordFromAFileOrTheEnvironment) {
    const BuiltBackup built = Build("b", true, "2.4");
    const std::vector<uint8_t>& content = built.Item("AppDomain-com.example.notes", "Documents/large.db").content;
    const std::string large(content.begin(), content.end());
    std::ofstream(work_ / "new.txt") << "from a file\n";
    RunResult r = Run({"passwd", built.directory.string(), "--new-password-file", (work_ / "new.txt").string()},
                      {{"QUIVER_PASSWORD", "password"}}, true);
    ASSERT_EQ(r.status, 0) << r.err;
    int status = 0;
    Cat(built.directory, "password", "HomeDomain", "Library/Preferences/one.txt", &status);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(Cat(built.directory, "from a file", "AppDomain-com.example.notes", "Documents/large.db"), large);

    r = Run({"passwd", built.directory.string()}, {{"QUIVER_PASSWORD", "from a file"}, {"QUIVER_NEW_PASSWORD", "env"}}, true);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Cat(built.directory, "env", "AppDomain-com.example.notes", "Documents/large.db"), large);
}

TEST_F(ConvertToolTest, PasswdChangesNothingWithoutTheRightPasswords) {
    const BuiltBackup built = Build("b", true);
    const auto before = SnapshotTree(built.directory);
    RunResult r = Run({"passwd", built.directory.string()}, {{"QUIVER_PASSWORD", "wrong"}, {"QUIVER_NEW_PASSWORD", "x"}}, true);
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(Contains(r.err, "incorrect")) << r.err;
    // No new password and no terminal to ask on.
    r = Run({"passwd", built.directory.string()}, {{"QUIVER_PASSWORD", "password"}}, true);
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(Contains(r.err, "QUIVER_NEW_PASSWORD")) << r.err;
    // There is no option that takes the password itself.
    r = Run({"passwd", built.directory.string(), "--new-password", "x"}, {{"QUIVER_PASSWORD", "password"}}, true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(SnapshotTree(built.directory), before);

    // A plain backup has no password to change, and none is asked for.
    const BuiltBackup plain = Build("plain", false);
    r = Run({"passwd", plain.directory.string()}, {{"QUIVER_NEW_PASSWORD", "x"}}, true);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "not encrypted")) << r.err;
}

TEST_F(ConvertToolTest, EncryptThenDecryptGivesThePlainFilesBack) {
    const BuiltBackup built = Build("plain", false, "2.4");
    RunResult r = Run({"encrypt", built.directory.string(), (work_ / "enc.zip").string()},
                      {{"QUIVER_NEW_PASSWORD", "secret"}}, true);
    ASSERT_EQ(r.status, 0) << r.err;
    r = Run({"info", (work_ / "enc.zip").string()});
    EXPECT_TRUE(Contains(r.out, "3.3")) << r.out;
    r = Run({"decrypt", (work_ / "enc.zip").string(), (work_ / "back").string()}, {{"QUIVER_PASSWORD", "secret"}});
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectEveryFile(built, work_ / "back", "");
    // Each refuses the other's kind of backup.
    r = Run({"encrypt", (work_ / "enc.zip").string(), (work_ / "again").string()},
            {{"QUIVER_PASSWORD", "secret"}, {"QUIVER_NEW_PASSWORD", "x"}}, true);
    EXPECT_EQ(r.status, 1);
    r = Run({"decrypt", (work_ / "back").string(), (work_ / "again").string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(fs::exists(work_ / "again"));
}

TEST_F(ConvertToolTest, DecryptOfADamagedBackupWritesNothingUnlessToldToSkip) {
    const BuiltBackup built = Build("b", true);
    fs::remove(built.directory / built.Item("HomeDomain", "Library/Preferences/block.bin").localFilename);
    RunResult r = Run({"decrypt", built.directory.string(), (work_ / "out").string()}, {{"QUIVER_PASSWORD", "password"}});
    EXPECT_EQ(r.status, 4);
    EXPECT_TRUE(Contains(r.err, "Library/Preferences/block.bin")) << r.err;
    EXPECT_TRUE(Contains(r.err, "--skip-damaged")) << r.err;
    EXPECT_FALSE(fs::exists(work_ / "out"));

    r = Run({"decrypt", built.directory.string(), (work_ / "out").string(), "--skip-damaged"},
            {{"QUIVER_PASSWORD", "password"}});
    EXPECT_EQ(r.status, 4);
    EXPECT_TRUE(Contains(r.err, "left out")) << r.err;
    int status = -1;
    Cat(work_ / "out", "", "HomeDomain", "Library/Preferences/block.bin", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(Cat(work_ / "out", "", "HomeDomain", "Library/Preferences/one.txt", &status), "1");
    EXPECT_EQ(status, 0);
}

// `export --manifest db` moves a Manifest.mbdb backup to Manifest.db, keeping its password; a backup
// on Manifest.db already is exported as it is, and none is moved back.
TEST_F(ConvertToolTest, ExportWithManifestDBMovesAManifestMbdbBackup) {
    const BuiltBackup built = Build("old", true, "2.4");
    const auto before = SnapshotTree(built.directory);
    const fs::path moved = work_ / "new";
    RunResult r = Run({"export", built.directory.string(), moved.string(), "--manifest", "db"},
                      {{"QUIVER_PASSWORD", "password"}}, true);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(SnapshotTree(built.directory), before);
    EXPECT_TRUE(fs::is_regular_file(moved / "Manifest.db"));
    EXPECT_FALSE(fs::exists(moved / "Manifest.mbdb"));
    r = Run({"info", moved.string()});
    EXPECT_TRUE(Contains(r.out, "3.3")) << r.out;
    ExpectEveryFile(built, moved, "password");

    r = Run({"export", moved.string(), (work_ / "again.zip").string(), "--manifest", "db"},
            {{"QUIVER_PASSWORD", "password"}});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Contains(r.err, "already")) << r.err;
    EXPECT_TRUE(fs::is_regular_file(work_ / "again.zip"));
    r = Run({"export", moved.string(), (work_ / "back").string(), "--manifest", "mbdb"},
            {{"QUIVER_PASSWORD", "password"}});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "not supported")) << r.err;
    EXPECT_FALSE(fs::exists(work_ / "back"));
}

}  // namespace
