// The tool as people use it day to day: seeing a backup without its password, finding the backups on
// a machine, the zip that zipping a backup's folder makes, and the command line's rough edges (help,
// version, unknown words, passwords typed or read from a file, output cut short by `head`, times and
// destinations). Grouped by command; every backup is made by the test fixtures.
#include <minizip/unzip.h>
#include <minizip/zip.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/BackupBuilder.hpp"
#include "tool/ToolRunner.hpp"

namespace fs = std::filesystem;
using nlohmann::json;
using namespace QuiverTest;
using namespace QuiverToolTest;

namespace {

// Packs a folder into a new zip with every member below `prefix`, as zipping the folder itself does;
// `extra` members are added as they are named.
void ZipFolder(const fs::path& folder, const fs::path& zip, const std::string& prefix,
               const std::vector<std::pair<std::string, std::string>>& extra = {}) {
    zipFile z = zipOpen64(zip.c_str(), APPEND_STATUS_CREATE);
    ASSERT_NE(z, nullptr);
    auto add = [&](const std::string& name, const std::string& bytes) {
        zip_fileinfo info{};
        ASSERT_EQ(zipOpenNewFileInZip64(z, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED, 6, 1), ZIP_OK);
        ASSERT_EQ(zipWriteInFileInZip(z, bytes.data(), static_cast<unsigned>(bytes.size())), ZIP_OK);
        ASSERT_EQ(zipCloseFileInZip(z), ZIP_OK);
    };
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file()) add(prefix + fs::relative(entry.path(), folder).string(), Bytes(ReadWholeFile(entry.path())));
    for (const auto& [name, bytes] : extra) add(name, bytes);
    ASSERT_EQ(zipClose(z, nullptr), ZIP_OK);
}

class EverydayTest : public ScratchToolTest {
protected:
    // Without items of its own, a backup holds SampleItems().
    BuiltBackup Build(const fs::path& where, BackupDescription description) {
        if (description.items.empty()) description.items = SampleItems();
        return BuildBackup(where, description);
    }
};

// ---- info ----

using Info = EverydayTest;

// The metadata files stand unenciphered beside the manifest: info shows them without the password,
// and only the counts wait for it.
TEST_F(Info, AnEncryptedBackupShowsItsMetadataWithoutThePassword) {
    struct Case {
        const char* version;
        bool twoPasses;
        const char* manifestFile;
    };
    for (const Case& c : {Case{"3.3", true, "Manifest.db"}, Case{"2.4", false, "Manifest.mbdb"}}) {
        SCOPED_TRACE(c.version);
        BuiltBackup built = Build(work_ / c.version, {.items = SampleItems(), .manifestVersion = c.version, .encrypted = true,
                                                      .keyBag = {.iterations = 7, .dpIterations = 3, .firstPass = true}});
        const std::string dir = built.directory.string();
        RunResult r = Run({"info", dir, "--json"});
        ASSERT_EQ(r.status, 0) << r.err;
        json info = json::parse(r.out);
        ExpectFields(info, {{"deviceName", "Test Device"}, {"productType", "Device9,3"}, {"productVersion", "14.3"},
                            {"encrypted", true}, {"manifestEnciphered", c.twoPasses}, {"version", c.version},
                            {"manifestFile", c.manifestFile}, {"date", "2021-01-01T00:00:00Z"}, {"complete", true},
                            {"manifestRead", false}, {"files", nullptr}, {"directories", nullptr}, {"symlinks", nullptr},
                            {"totalSize", nullptr}, {"domains", nullptr}});
        EXPECT_TRUE(info["backupID"].is_string());
        ExpectFields(info["keyBag"], {{"iterations", 7}, {"passes", c.twoPasses ? 2 : 1}, {"classes", 11},
                                      {"dpIterations", c.twoPasses ? json(3) : json(nullptr)}});

        RunResult text = Run({"info", dir});
        ASSERT_EQ(text.status, 0) << text.err;
        EXPECT_TRUE(Contains(text.out, "Device name:      Test Device")) << text.out;
        EXPECT_TRUE(Contains(text.out, "Contents:         not read")) << text.out;
        EXPECT_FALSE(Contains(text.out, "Files:")) << text.out;

        RunResult unlocked = Run({"info", dir, "--json"}, "password");
        ASSERT_EQ(unlocked.status, 0) << unlocked.err;
        EXPECT_EQ(json::parse(unlocked.out)["files"], 5);
        EXPECT_EQ(json::parse(unlocked.out)["totalSize"], 0 + 1 + 16 + 17 + 100000);
        EXPECT_EQ(Run({"info", dir}, "wrong").status, 3);  // a password given is still checked
    }
}

// The real iOS 9.3.6 backup, when the real material is there: its metadata needs no password.
TEST_F(Info, ARealEncryptedBackupShowsWhichPhoneItCameFrom) {
    const fs::path folder = fs::path(QUIVER_REALDATA) / "hv20-encrypted-mbdb";
    if (!fs::is_directory(folder / "backup")) GTEST_SKIP() << "no real backups at " << folder;
    RunResult r = Run({"info", (folder / "backup").string(), "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    json info = json::parse(r.out);
    ExpectFields(info, {{"deviceName", "Santas Phone"}, {"productVersion", "9.3.6"}, {"version", "2.4"}, {"files", nullptr}});
    ExpectFields(info["keyBag"], {{"passes", 1}, {"iterations", 10000}});
    RunResult unlocked = Run({"info", (folder / "backup").string(), "--json"}, "20201225");
    ASSERT_EQ(unlocked.status, 0) << unlocked.err;
    EXPECT_GT(json::parse(unlocked.out)["files"], 300);

    RunResult list = Run({"list", folder.string(), "--json"});
    ASSERT_EQ(list.status, 0) << list.err;
    ASSERT_EQ(json::parse(list.out).size(), 1u);
    EXPECT_EQ(json::parse(list.out)[0]["path"], (folder / "backup").string());
}

// ---- list, and commands pointed at a folder of backups ----

using List = EverydayTest;

TEST_F(List, FindsTheBackupsInAFolderOrTheFolderItself) {
    const fs::path folder = work_ / "Backup";
    BuiltBackup plain = Build(folder / "00008030-AAAA", {.items = SampleItems(), .deviceName = "Plain Phone"});
    BuiltBackup encrypted = Build(folder / "00008030-BBBB", {.items = SampleItems(), .encrypted = true, .deviceName = "Locked Phone",
                                                             .productVersion = "16.1"});
    fs::create_directories(folder / "not-a-backup");
    std::ofstream(folder / "not-a-backup" / "notes.txt") << "x";
    fs::create_directories(folder / "broken");
    std::ofstream(folder / "broken" / "Manifest.plist") << "not a property list";

    RunResult r = Run({"list", folder.string(), "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    json list = json::parse(r.out);
    ASSERT_EQ(list.size(), 2u) << r.out;
    uint64_t onDisk = 0;
    for (const auto& e : fs::recursive_directory_iterator(plain.directory))
        if (e.is_regular_file()) onDisk += e.file_size();
    ExpectFields(list[0], {{"path", plain.directory.string()}, {"deviceName", "Plain Phone"}, {"encrypted", false}, {"size", onDisk}});
    ExpectFields(list[1], {{"deviceName", "Locked Phone"}, {"productVersion", "16.1"}, {"encrypted", true},
                           {"date", "2021-01-01T00:00:00Z"}});
    EXPECT_TRUE(Contains(r.err, "broken is not a readable backup")) << r.err;

    RunResult text = Run({"list", folder.string()});
    ASSERT_EQ(text.status, 0) << text.err;
    ASSERT_EQ(std::count(text.out.begin(), text.out.end(), '\n'), 2) << text.out;
    const std::string second = text.out.substr(text.out.find('\n') + 1);
    for (const char* part : {"00008030-BBBB", "Locked Phone", "iOS 16.1", "2021-01-01 00:00:00 UTC", "encrypted"})
        EXPECT_TRUE(Contains(second, part)) << part << " in " << second;

    RunResult one = Run({"list", plain.directory.string(), "--json"});
    ASSERT_EQ(one.status, 0) << one.err;
    EXPECT_EQ(json::parse(one.out).size(), 1u);
    EXPECT_EQ(Run({"list", (folder / "not-a-backup").string()}).status, 1);
}

// Pointing a command at the folder that holds backups is the commonest slip; each command names the
// backups there instead of calling a metadata file missing.
TEST_F(List, EveryCommandGivenAFolderOfBackupsListsThem) {
    const fs::path folder = work_ / "Backup";
    Build(folder / "first", {.items = SampleItems(), .deviceName = "First Phone"});
    Build(folder / "second", {.items = SampleItems(), .encrypted = true, .deviceName = "Second Phone"});
    const std::string dir = folder.string();
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"info", dir}, {"ls", dir}, {"cat", dir, "HomeDomain", "x"},
          {"extract", dir, (work_ / "out").string()}, {"export", dir, (work_ / "copy").string()}}) {
        RunResult r = Run(args);
        EXPECT_EQ(r.status, 4) << args[0];
        EXPECT_TRUE(Contains(r.err, dir + " is a folder that holds 2 backups, not a backup")) << r.err;
        EXPECT_TRUE(Contains(r.err, (folder / "first").string() + "  (First Phone, iOS 14.3")) << r.err;
        EXPECT_TRUE(Contains(r.err, (folder / "second").string() + "  (Second Phone")) << r.err;
        EXPECT_FALSE(Contains(r.err, "is missing")) << r.err;
    }
    EXPECT_FALSE(fs::exists(work_ / "copy"));
}

// ---- zip files ----

using Zip = EverydayTest;

// Zipping a backup's folder puts every member below that folder (and a file manager may add its
// "__MACOSX" folder beside it); such a zip reads like one with the backup at its root, and an export
// of it is written flat.
TEST_F(Zip, ABackupBelowOneTopLevelFolderOpens) {
    for (bool encrypted : {false, true}) {
        SCOPED_TRACE(encrypted ? "encrypted" : "plain");
        const std::string password = encrypted ? "password" : "";
        const std::string name = encrypted ? "enc" : "plain";
        BuiltBackup built = Build(work_ / name, {.items = SampleItems(), .encrypted = encrypted});
        const fs::path zip = work_ / (name + "-folder.zip");
        ZipFolder(built.directory, zip, "00008030-001A/", {{"__MACOSX/00008030-001A/._Manifest.plist", "fork"}});

        RunResult info = Run({"info", zip.string(), "--json"}, password);
        ASSERT_EQ(info.status, 0) << info.err;
        EXPECT_EQ(json::parse(info.out)["files"], 5);
        const BuiltItem& large = built.Item("AppDomain-com.example.notes", "Documents/large.db");
        RunResult cat = Run({"cat", zip.string(), large.domain, large.relativePath}, password);
        ASSERT_EQ(cat.status, 0) << cat.err;
        EXPECT_TRUE(cat.out == Bytes(large.content));

        const fs::path exported = work_ / (name + "-export.zip");
        ASSERT_EQ(Run({"export", zip.string(), exported.string(), "--zip"}, password).status, 0);
        unzFile z = unzOpen64(exported.c_str());
        ASSERT_NE(z, nullptr);
        for (const char* member : {"Manifest.plist", "Status.plist", "Info.plist"})
            EXPECT_EQ(unzLocateFile(z, member, 1), UNZ_OK) << member << " is not at the root";
        EXPECT_NE(unzLocateFile(z, "00008030-001A/Manifest.plist", 1), UNZ_OK);
        unzClose(z);
    }
}

// ---- the command line ----

using CommandLine = EverydayTest;

TEST_F(CommandLine, PasswordsThatCannotBeUsedSayWhy) {
    BuiltBackup built = Build(work_ / "enc", {.items = SampleItems(), .encrypted = true});
    RunResult folder = Run({"--password-file", work_.string(), "ls", built.directory.string()});
    EXPECT_EQ(folder.status, 3);
    EXPECT_TRUE(Contains(folder.err, "is a folder, not a file")) << folder.err;

    // Typed at a terminal: an empty password is refused as such, a right one opens the backup.
    Environment env{{"TMPDIR", (work_ / "tmp").string()}};
    RunResult empty = RunToolOnTerminal({"ls", built.directory.string()}, env, "Password for", "\n");
    EXPECT_EQ(empty.status, 3);
    EXPECT_TRUE(Contains(empty.err, "the password typed for " + built.directory.string() + " is empty")) << empty.err;
    EXPECT_FALSE(Contains(empty.err, "on a terminal")) << empty.err;

    RunResult typed = RunToolOnTerminal({"cat", built.directory.string(), "HomeDomain", "Library/Preferences/one.txt"},
                                        env, "Password for", "password\n");
    EXPECT_EQ(typed.status, 0) << typed.err;
    EXPECT_EQ(typed.out, "1");
}

// `quiver ls --json B | head -1`: the reader has what it wanted, and the tool ends quietly.
TEST_F(CommandLine, AReaderThatStopsEarlyEndsTheToolWithStatusZero) {
    std::vector<BackupItem> items;
    for (int i = 0; i < 1500; ++i) items.push_back(BackupItem::File("HomeDomain", "Library/f" + std::to_string(i), std::string_view("x")));
    BuiltBackup built = Build(work_ / "many", {.items = items});
    RunningTool tool({"ls", built.directory.string(), "--json"}, {{"TMPDIR", (work_ / "tmp").string()}});
    ASSERT_TRUE(tool.WaitForOutput());
    tool.CloseOutput();
    RunResult r = tool.Wait();
    EXPECT_FALSE(r.signaled);
    EXPECT_EQ(r.status, 0);
}

// ---- ls ----

using Ls = EverydayTest;

TEST_F(Ls, TimesSayWhereTheyAreFromAndPathsMayStartWithASlash) {
    BuiltBackup built = Build(work_ / "b", {});
    const std::string dir = built.directory.string();
    RunResult utc = Run({"ls", "-l", dir, "AppDomain-com.example.notes", "Documents/large.db"});
    ASSERT_EQ(utc.status, 0) << utc.err;
    EXPECT_TRUE(Contains(utc.out, " 2020-09-13 12:26:40 UTC  ")) << utc.out;
    RunResult local = Run({"ls", "-l", "--local", dir, "AppDomain-com.example.notes", "Documents/large.db"}, "",
                          {{"TZ", "JST-9"}});
    ASSERT_EQ(local.status, 0) << local.err;
    EXPECT_TRUE(Contains(local.out, " 2020-09-13 21:26:40 +0900  ")) << local.out;

    RunResult relative = Run({"ls", dir, "HomeDomain", "Library/Preferences"});
    RunResult absolute = Run({"ls", dir, "HomeDomain", "/Library/Preferences"});
    ASSERT_EQ(absolute.status, 0) << absolute.err;
    EXPECT_EQ(absolute.out, relative.out);
    EXPECT_EQ(std::count(absolute.out.begin(), absolute.out.end(), '\n'), 5);
}

// ---- export and edit ----

using Write = EverydayTest;

// A file put over a folder would take the folder and everything below it; that needs asking for.
TEST_F(Write, PutOverAFolderIsRefusedUnlessItsReplacementIsAskedFor) {
    BuiltBackup built = Build(work_ / "b", {});
    const fs::path local = work_ / "todo.txt", refused = work_ / "refused", replaced = work_ / "replaced";
    std::ofstream(local) << "todo";
    RunResult r = Run({"edit", built.directory.string(), refused.string(), "--put", "HomeDomain", "Library/Preferences",
                       local.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Contains(r.err, "HomeDomain Library/Preferences: it is a folder with 4 entries below it")) << r.err;
    EXPECT_TRUE(Contains(r.err, "--replace-dir")) << r.err;
    EXPECT_FALSE(fs::exists(refused));

    RunResult ok = Run({"edit", built.directory.string(), replaced.string(), "--replace-dir", "--put", "HomeDomain",
                        "Library/Preferences", local.string()});
    ASSERT_EQ(ok.status, 0) << ok.err;
    json list = json::parse(Run({"ls", replaced.string(), "HomeDomain", "Library/Preferences", "--json"}).out);
    ASSERT_EQ(list.size(), 1u) << list.dump();
    EXPECT_EQ(list[0]["type"], "file");
    EXPECT_EQ(Run({"cat", replaced.string(), "HomeDomain", "Library/Preferences"}).out, "todo");
}

}  // namespace
