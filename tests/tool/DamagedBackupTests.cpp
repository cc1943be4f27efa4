// Every command of the tool on backups with one fault each, and on sound backups: a damaged backup
// ends in one clear line and status 4, never a crash, a hang or a result passed off as whole; and no
// command ever changes the backup it reads.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "support/BackupBuilder.hpp"
#include "support/DamagedBackups.hpp"
#include "support/TemporaryPath.hpp"
#include "tool/ToolRunner.hpp"

namespace fs = std::filesystem;
using namespace QuiverTest;
using namespace QuiverToolTest;

namespace {

class DamagedBackupTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        UseTestTemporaryPath();
        std::string pattern = (fs::temp_directory_path() / "quiver-damaged-XXXXXX").string();
        ASSERT_TRUE(mkdtemp(pattern.data()));
        root_ = pattern;
        backups_ = new std::vector<DamagedBackup>(BuildDamagedBackups(root_ / "backups"));
    }
    static void TearDownTestSuite() {
        delete backups_;
        fs::remove_all(root_);
    }
    void SetUp() override {
        fs::create_directories(root_ / "tmp");
        WriteWholeFile(root_ / "local.txt", {'n', 'e', 'w'});
    }
    void TearDown() override { EXPECT_TRUE(fs::is_empty(root_ / "tmp")) << "the tool left temporary files behind"; }

    static RunResult Run(const std::vector<std::string>& args, const std::string& password) {
        Environment env{{"TMPDIR", (root_ / "tmp").string()}};
        if (!password.empty()) env["QUIVER_PASSWORD"] = password;
        return RunTool(args, env);
    }

    // Every command that reads a backup, with a destination below out for those that write one.
    static std::vector<std::vector<std::string>> Commands(const DamagedBackup& b, const fs::path& out) {
        const std::string path = b.path.string();
        return {{"verify", path},
                {"verify", path, "--quick", "--json"},
                {"info", path},
                {"info", path, "--json"},
                {"ls", path, "-l"},
                {"ls", path, b.domain, "--json"},
                {"cat", path, b.domain, b.relativePath},
                {"extract", path, (out / "extracted").string()},
                {"extract", path, (out / "one").string(), b.domain, b.relativePath},
                {"export", path, (out / "exported").string()},
                {"export", path, (out / "exported.zip").string(), "--zip"},
                {"edit", path, (out / "edited").string(), "--mkdir", "HomeDomain", "Library/New"},
                {"edit", path, (out / "edited.zip").string(), "--zip", "--put", b.domain, b.relativePath,
                 (root_ / "local.txt").string(), "--rm", "HomeDomain", "Library", "--symlink", "HomeDomain",
                 "link", "Library/Preferences"},
                b.password.empty() ? std::vector<std::string>{"encrypt", path, (out / "converted").string(),
                                                              "--new-password-file", (root_ / "local.txt").string(),
                                                              "--iterations", "1", "--sha1-iterations", "1"}
                                   : std::vector<std::string>{"decrypt", path, (out / "converted").string()}};
    }

    static fs::path root_;
    static std::vector<DamagedBackup>* backups_;
};

// Lines of standard error that are warnings.
size_t WarningLines(const std::string& err) {
    size_t count = 0;
    for (size_t at = 0; at < err.size();) {
        const size_t end = std::min(err.find('\n', at), err.size());
        count += err.compare(at, 17, "quiver: warning: ") == 0 ? 1 : 0;
        at = end + 1;
    }
    return count;
}

fs::path DamagedBackupTest::root_;
std::vector<DamagedBackup>* DamagedBackupTest::backups_ = nullptr;

TEST_F(DamagedBackupTest, EveryCommandEndsWithOneClearLineAndStatusFour) {
    // One line for each command that ends otherwise, so that a failure shows the whole picture.
    std::vector<std::string> problems;
    auto expect = [&](bool ok, const std::string& what, const RunResult& r) {
        if (!ok) problems.push_back(what + " -> status " + std::to_string(r.status) + ": " + r.err.substr(0, 300));
    };
    const fs::path out = root_ / "out";
    for (const DamagedBackup& backup : *backups_) {
        const auto before = SnapshotTree(backup.path);
        for (const auto& args : Commands(backup, out)) {
            fs::remove_all(out);
            fs::create_directories(out);
            const std::string what = backup.name + ": " + args[0] + " " + (args.size() > 2 ? args[2] : args[1]);
            RunResult r = Run(args, backup.password);
            // The manifest is sound and says what the backup holds; putting a new file in place of
            // the damaged one rescues the backup.
            const bool rescues = std::find(args.begin(), args.end(), "--put") != args.end();
            const bool verify = args[0] == "verify";
            const bool reads = args[0] == "info" || args[0] == "ls" || args[0] == "cat" || args[0] == "extract";
            if ((backup.storedFileFault && (args[0] == "info" || args[0] == "ls" || rescues)) ||
                (backup.structuralFault && !verify) || (backup.metadataFault && reads)) {
                expect(r.status == 0, what, r);
                continue;
            }
            // Verification lists what it finds on standard output, one line or JSON object each, and
            // sums up in one line; a fault that loading finds ends it like any other command.
            if (verify && (backup.storedFileFault || backup.structuralFault || backup.metadataFault)) {
                // Without reading the files, a stored file of the right length whose bytes changed
                // goes unseen; one of the wrong length is a warning, or damage when it breaks the cipher.
                const bool quick = args.size() > 2;
                // Warnings of what loading made of the backup come first; the summary is one line.
                const size_t summaries = static_cast<size_t>(std::count(r.err.begin(), r.err.end(), '\n')) - WarningLines(r.err);
                const bool found = r.status == 4 && r.out.find(backup.named) != std::string::npos && summaries == 1;
                if (quick && backup.kind == "digest-mismatch") {
                    expect(found || (r.status == 0 && r.out.find("size-disagrees") != std::string::npos), what, r);
                } else {
                    expect(found && r.out.find(backup.kind) != std::string::npos, what, r);
                }
                continue;
            }
            // An extraction warns of the damaged file and sums up, an export or edit lists it before
            // saying that nothing was written; everything else says it in one line.
            const bool lists = args[0] == "extract" || args[0] == "export" || args[0] == "edit" ||
                               args[0] == "decrypt" || args[0] == "encrypt";
            const long lines = lists && backup.storedFileFault ? 2 : 1;
            bool prefixed = !r.err.empty();
            for (size_t at = 0; at < r.err.size();) {
                prefixed = prefixed && r.err.compare(at, 8, "quiver: ") == 0;
                const size_t end = r.err.find('\n', at);
                at = end == std::string::npos ? r.err.size() : end + 1;
            }
            // A metadata file read as if missing adds the warnings of loading before that line.
            const long warnings = backup.metadataFault ? static_cast<long>(WarningLines(r.err)) : 0;
            expect(r.status == 4 && prefixed && std::count(r.err.begin(), r.err.end(), '\n') == lines + warnings &&
                       r.err.find(backup.named) != std::string::npos,
                   what, r);
            expect(r.out.empty(), what + " wrote to standard output", r);
            // What would be a new backup is not left half-written; an extraction keeps what it could
            // read, but never the damaged file.
            for (const char* dest : {"exported", "exported.zip", "edited", "edited.zip", "converted"})
                expect(!fs::exists(out / dest), what + " left " + dest, r);
            for (const char* dest : {"extracted", "one"})
                expect(!fs::exists(out / dest / backup.domain / backup.relativePath), what + " left the file", r);
        }
        if (fs::exists(backup.path / "Manifest.db")) {
            RunResult csv = Run({"csv", (backup.path / "Manifest.db").string()}, "");
            const bool databaseFault = backup.name.find("Database") != std::string::npos;
            expect(csv.status == (databaseFault || !backup.password.empty() ? 4 : 0), backup.name + ": csv", csv);
        }
        expect(SnapshotTree(backup.path) == before, backup.name + ": the backup changed", {});
    }
    std::string all;
    for (const std::string& p : problems) all += p + "\n";
    EXPECT_TRUE(problems.empty()) << problems.size() << " commands went wrong:\n" << all;
}

TEST_F(DamagedBackupTest, NoCommandChangesTheBackupItReads) {
    std::vector<DamagedBackup> sound;
    for (auto [name, version, encrypted] : {std::tuple{"plain", "3.3", false}, {"encrypted", "3.3", true},
                                            {"mbdb", "2.4", false}}) {
        const BackupDescription d{.items = SampleItems(), .manifestVersion = version, .encrypted = encrypted};
        BuiltBackup built = BuildBackup(root_ / "sound" / name, d);
        sound.push_back({name, built.directory, encrypted ? d.password : "", "HomeDomain", "Library/Preferences/one.txt", "",
                         false, false, false, ""});
    }
    sound.push_back(sound.front());
    ASSERT_EQ(Run({"export", sound.back().path.string(), (root_ / "sound/plain.zip").string(), "--zip"}, "").status, 0);
    sound.back().path = root_ / "sound/plain.zip";

    for (const DamagedBackup& backup : sound) {
        const auto before = SnapshotTree(backup.path);
        for (const auto& args : Commands(backup, root_ / "out")) {
            fs::create_directories(root_ / "out");
            RunResult r = Run(args, backup.password);
            EXPECT_EQ(r.status, 0) << backup.name << ": " << args[0] << ": " << r.err;
            fs::remove_all(root_ / "out");
        }
        if (backup.name != "mbdb" && backup.password.empty() && fs::is_directory(backup.path)) {
            EXPECT_EQ(Run({"csv", (backup.path / "Manifest.db").string()}, "").status, 0);
        }
        EXPECT_EQ(SnapshotTree(backup.path), before) << backup.name << ": the tool changed the backup it read";
    }
}

}  // namespace
