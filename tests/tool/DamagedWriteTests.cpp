// Writing a copy of a backup that is damaged: `export` names every damaged file before it writes
// anything, refuses by default, and with --skip-damaged writes the rest and says how many were left
// out; `edit` writes through the same code. Write errors name the path and the system's reason.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "support/BackupBuilder.hpp"
#include "tool/ToolRunner.hpp"

namespace fs = std::filesystem;
using nlohmann::json;
using namespace QuiverTest;
using namespace QuiverToolTest;

namespace {

size_t CountOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

class DamagedWriteTest : public ScratchToolTest {
protected:
    // A backup with two damaged files: one stored file gone, one whose bytes no longer match.
    BuiltBackup BuildDamaged(bool encrypted) {
        BuiltBackup built = BuildBackup(work_ / "source", {.items = SampleItems(), .encrypted = encrypted});
        fs::remove(built.directory / built.Item("HomeDomain", "Library/Preferences/one.txt").localFilename);
        const fs::path changed = built.directory / built.Item("HomeDomain", "Library/Preferences/block.bin").localFilename;
        std::vector<uint8_t> bytes = ReadWholeFile(changed);
        bytes[0] ^= 0xff;
        WriteWholeFile(changed, bytes);
        return built;
    }

    std::vector<std::string> Paths(const std::string& backup, const std::string& password) {
        RunResult ls = Run({"ls", backup, "--json"}, password);
        EXPECT_EQ(ls.status, 0) << ls.err;
        std::vector<std::string> paths;
        for (const json& e : json::parse(ls.out)) paths.push_back(e["path"]);
        return paths;
    }
};

using Export = DamagedWriteTest;

// Every damaged file is named in one run, and nothing is written; with --skip-damaged the rest is
// written, sound, and the status says that something was left out.
TEST_F(Export, NamesEveryDamagedFileAndWritesOnlyWhenToldToSkip) {
    for (bool encrypted : {false, true}) {
        SCOPED_TRACE(encrypted ? "encrypted" : "plain");
        fs::remove_all(work_ / "source");
        BuiltBackup built = BuildDamaged(encrypted);
        const std::string password = encrypted ? "password" : "";
        for (const char* dest : {"copy", "copy.zip"}) {
            const std::string out = (work_ / dest).string();
            fs::remove_all(out);
            RunResult refused = Run({"export", built.directory.string(), out}, password);
            EXPECT_EQ(refused.status, 4) << refused.err;
            EXPECT_EQ(CountOf(refused.err, "quiver: damaged: "), 2u) << refused.err;
            EXPECT_TRUE(Contains(refused.err, "Library/Preferences/block.bin")) << refused.err;
            EXPECT_TRUE(Contains(refused.err, "--skip-damaged")) << refused.err;
            EXPECT_FALSE(fs::exists(out));
            RunResult r = Run({"export", built.directory.string(), out, "--skip-damaged"}, password);
            EXPECT_EQ(r.status, 1) << r.err;
            EXPECT_EQ(CountOf(r.err, "quiver: damaged: "), 2u) << r.err;
            EXPECT_TRUE(Contains(r.err, "without the 2 damaged files")) << r.err;
            ASSERT_TRUE(fs::exists(out));
            std::vector<std::string> paths = Paths(out, password);
            EXPECT_EQ(paths.size(), built.items.size() - 2);
            EXPECT_EQ(std::count(paths.begin(), paths.end(), "Library/Preferences/one.txt"), 0);
            EXPECT_EQ(std::count(paths.begin(), paths.end(), "Library/Preferences/block.bin"), 0);
            EXPECT_EQ(std::count(paths.begin(), paths.end(), "Library/Preferences/block-and-one.bin"), 1);
            RunResult verify = Run({"verify", out}, password);
            EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
        }
    }
    // A sound backup written with the option ends as any export does.
    BuiltBackup sound = BuildBackup(work_ / "sound", {.items = SampleItems()});
    EXPECT_EQ(Run({"export", sound.directory.string(), (work_ / "sound-copy").string(), "--skip-damaged"}).status, 0);
}

// A destination that cannot be written is named with the system's reason.
TEST_F(Export, AWriteErrorNamesThePathAndTheReason) {
    BuiltBackup built = BuildBackup(work_ / "source", {.items = SampleItems()});
    WriteWholeFile(work_ / "a-file", {'x'});
    for (const char* dest : {"a-file/copy", "a-file/copy.zip"}) {
        RunResult r = Run({"export", built.directory.string(), (work_ / dest).string()});
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_TRUE(Contains(r.err, (work_ / "a-file").string())) << r.err;
        EXPECT_TRUE(Contains(r.err, "Not a directory") || Contains(r.err, "does not exist")) << r.err;
    }
}

}  // namespace
