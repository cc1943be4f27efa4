// The tool ended by SIGKILL, which no handler sees, in the middle of its work on an encrypted backup:
// nothing it leaves in its temporary folder holds plaintext (a file's contents, or the manifest with
// its names), and an export leaves no destination that passes for a backup.
#include <signal.h>

#include <chrono>
#include <functional>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "support/BackupBuilder.hpp"
#include "support/TemporaryPath.hpp"
#include "tool/ToolRunner.hpp"

namespace fs = std::filesystem;
using namespace QuiverTest;
using namespace QuiverToolTest;

namespace {

// In a file's plaintext, and in the manifest's (as a path): neither may rest in the temporary folder.
constexpr std::string_view kMarker = "plaintext-marker-7f3a9c";

class InterruptionTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        UseTestTemporaryPath();
        std::string pattern = (fs::temp_directory_path() / "quiver-kill-XXXXXX").string();
        ASSERT_TRUE(mkdtemp(pattern.data()));
        root_ = pattern;
        // A large file, so that reading it is still under way when the tool is killed, and enough
        // entries that the manifest takes a while to write.
        std::string content;
        while (content.size() < (24u << 20)) content += std::string(kMarker) + " line of private text\n";
        std::vector<BackupItem> items = {BackupItem::File("HomeDomain", "Library/" + std::string(kMarker) + ".txt", content)};
        for (int i = 0; i < 3000; ++i)
            items.push_back(BackupItem::File("HomeDomain", fmt::format("Library/{}/{}.txt", kMarker, i), std::string(kMarker)));
        built_ = new BuiltBackup(BuildBackup(root_ / "backup", {.items = std::move(items), .encrypted = true}));
        zip_ = ZipOfBackup(*built_, "password");
    }
    static void TearDownTestSuite() {
        delete built_;
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    void SetUp() override {
        fs::remove_all(root_ / "tmp");
        fs::remove_all(root_ / "out");
        fs::create_directories(root_ / "tmp");
        fs::create_directories(root_ / "out");
    }

    static Environment Env() { return {{"TMPDIR", (root_ / "tmp").string()}, {"QUIVER_PASSWORD", "password"}}; }

    // Every file below the temporary folder that holds the marker or is a plain SQLite database.
    static std::vector<std::string> PlaintextAtRest() {
        std::vector<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(root_ / "tmp")) {
            if (!entry.is_regular_file()) continue;
            const std::vector<uint8_t> bytes = ReadWholeFile(entry.path());
            const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            if (text.find(kMarker) != std::string_view::npos || text.starts_with(std::string_view("SQLite format 3\0", 16)))
                found.push_back(entry.path().string());
        }
        return found;
    }

    // Waits until ready() holds (or the tool has had its time), then kills the tool.
    static void KillWhen(RunningTool& tool, const std::function<bool()>& ready) {
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!ready() && std::chrono::steady_clock::now() < give_up)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        tool.Signal(SIGKILL);
        tool.Wait();
    }

    static fs::path root_;
    static BuiltBackup* built_;
    static fs::path zip_;
};

fs::path InterruptionTest::root_;
BuiltBackup* InterruptionTest::built_ = nullptr;
fs::path InterruptionTest::zip_;

bool Exists(const fs::path& p) {
    std::error_code ec;
    return fs::exists(p, ec);
}

// The first entry of `folder` whose name starts with `prefix`, or an empty path.
fs::path Starting(const fs::path& folder, const std::string& prefix) {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder, ec))
        if (entry.path().filename().string().starts_with(prefix)) return entry.path();
    return {};
}

}  // namespace

TEST_F(InterruptionTest, CatKilledMidOutputLeavesNoPlaintext) {
    for (const fs::path& backup : {built_->directory, zip_}) {
        SCOPED_TRACE(backup);
        // The output fills the unread pipe: the tool is held mid-file when it dies.
        RunningTool tool({"cat", backup.string(), "HomeDomain", "Library/" + std::string(kMarker) + ".txt"}, Env());
        ASSERT_TRUE(tool.WaitForOutput());
        tool.Signal(SIGKILL);
        EXPECT_TRUE(tool.Wait().signaled);
        EXPECT_EQ(PlaintextAtRest(), std::vector<std::string>{});
    }
}

// Killed as the export starts, as it writes the stored files, and as it writes the manifest (the
// moment the plaintext manifest exists): no plaintext in the temporary folder, and the destination
// never appears, only the hidden name it is written under.
TEST_F(InterruptionTest, ExportKilledMidWayLeavesNoPlaintextAndNoDestination) {
    const fs::path out = root_ / "out";
    const std::vector<std::pair<std::string, std::function<bool()>>> moments = {
        {"started", [&] { return !Starting(out, ".exported.").empty(); }},
        {"stored files", [&] { return !Starting(out, ".exported.").empty() && !fs::is_empty(Starting(out, ".exported.")); }},
        {"manifest", [&] {
             const fs::path partial = Starting(out, ".exported.");
             return !partial.empty() && Exists(partial / "Manifest.db");
         }}};
    for (const auto& [moment, ready] : moments) {
        SCOPED_TRACE(moment);
        RunningTool tool({"export", built_->directory.string(), (out / "exported").string()}, Env());
        KillWhen(tool, ready);
        EXPECT_EQ(PlaintextAtRest(), std::vector<std::string>{});
        if (Exists(out / "exported")) {
            // Only a finished export takes the destination's name.
            EXPECT_TRUE(Exists(out / "exported" / "Status.plist"));
        }
        fs::remove_all(out);
        fs::create_directories(out);
    }
}
