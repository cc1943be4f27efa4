// The quiver tool driven as a user runs it, on backups made by the test fixtures: plain and
// encrypted, directory and zip, Manifest.db and Manifest.mbdb. Every test runs the tool with its own
// TMPDIR and checks at the end that the tool left nothing there.
#include <signal.h>
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

class ToolTest : public ScratchToolTest {
protected:
    BuiltBackup Build(const std::string& name, std::string version, bool encrypted,
                      std::vector<BackupItem> items = SampleItems()) {
        return BuildBackup(work_ / name, {.items = std::move(items), .manifestVersion = std::move(version),
                                          .encrypted = encrypted});
    }
};

// ---- The reading commands on each kind of backup ----

// Each generation's contents are the library's (GenerationTests); here the tool's formats over a folder and a
// zip, plain and encrypted, and over Manifest.mbdb.

struct Kind {
    const char* name;
    const char* version;
    bool encrypted;
    bool zip;
};

// Test names show the kind's name (gtest would otherwise print the struct's bytes, padding included).
void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class EveryKindOfBackup : public ToolTest, public ::testing::WithParamInterface<Kind> {
protected:
    void SetUp() override {
        ToolTest::SetUp();
        built_ = Build("backup", GetParam().version, GetParam().encrypted);
        password_ = GetParam().encrypted ? "password" : "";
        path_ = GetParam().zip ? ZipOfBackup(built_, password_).string() : built_.directory.string();
    }
    BuiltBackup built_;
    std::string password_;
    std::string path_;
};

TEST_P(EveryKindOfBackup, InfoListAndCatShowWhatTheBackupHolds) {
    RunResult r = Run({"info", path_, "--json"}, password_);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");  // no progress when standard error is not a terminal
    json info = json::parse(r.out);
    ExpectFields(info, {{"encrypted", GetParam().encrypted}, {"version", GetParam().version}, {"deviceName", "Test Device"},
                        {"files", 5}, {"directories", 5}, {"symlinks", 1}, {"totalSize", 0 + 1 + 16 + 17 + 100000}});
    EXPECT_NE(Run({"info", path_}, password_).out.find("Encrypted:        "), std::string::npos);

    RunResult ls = Run({"ls", path_, "--json"}, password_);
    ASSERT_EQ(ls.status, 0) << ls.err;
    json list = json::parse(ls.out);
    ASSERT_EQ(list.size(), built_.items.size());
    for (const BuiltItem& item : built_.items) {
        auto found = std::find_if(list.begin(), list.end(), [&](const json& e) {
            return e["domain"] == item.domain && e["path"] == item.relativePath;
        });
        ASSERT_NE(found, list.end()) << item.domain << " " << item.relativePath;
        EXPECT_EQ((*found)["fileID"], item.fileID);
        const char* type = item.kind == ItemKind::File ? "file" : item.kind == ItemKind::Directory ? "dir" : "symlink";
        EXPECT_EQ((*found)["type"], type);
        if (item.kind != ItemKind::File) continue;
        EXPECT_EQ((*found)["size"], item.content.size());
        RunResult cat = Run({"cat", path_, item.domain, item.relativePath}, password_);
        ASSERT_EQ(cat.status, 0) << item.relativePath << ": " << cat.err;
        EXPECT_EQ(cat.out, Bytes(item.content)) << item.relativePath;
    }
    const json& large = *std::find_if(list.begin(), list.end(), [](const json& e) { return e["path"] == "Documents/large.db"; });
    ExpectFields(large, {{"mode", 0100600}, {"mtime", 1600000000}, {"protectionClass", 1}});
    const json& link = *std::find_if(list.begin(), list.end(), [](const json& e) { return e["type"] == "symlink"; });
    EXPECT_EQ(link["target"], "Preferences");

    RunResult domain = Run({"ls", path_, "HomeDomain", "Library/Preferences"}, password_);
    ASSERT_EQ(domain.status, 0) << domain.err;
    EXPECT_EQ(std::count(domain.out.begin(), domain.out.end(), '\n'), 5);  // the folder and its four files
    EXPECT_EQ(domain.out.find("AppDomain"), std::string::npos);
}

TEST_P(EveryKindOfBackup, ExtractWritesAReadableTree) {
    fs::path dest = work_ / "out";
    RunResult r = Run({"extract", path_, dest.string()}, password_);
    ASSERT_EQ(r.status, 0) << r.err;
    for (const BuiltItem& item : built_.items) {
        fs::path p = dest / item.domain / item.relativePath;
        if (item.kind == ItemKind::File) {
            EXPECT_EQ(Bytes(ReadWholeFile(p)), Bytes(item.content)) << p;
        } else if (item.kind == ItemKind::Directory) {
            EXPECT_TRUE(fs::is_directory(fs::symlink_status(p))) << p;
        } else {
            EXPECT_EQ(fs::read_symlink(p), "Preferences");
        }
    }
    struct stat st {};
    ASSERT_EQ(stat((dest / "AppDomain-com.example.notes/Documents/large.db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1600000000);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

INSTANTIATE_TEST_SUITE_P(Tool, EveryKindOfBackup,
                         ::testing::Values(Kind{"PlainDirectory", "3.3", false, false},
                                           Kind{"EncryptedVersion32", "3.2", true, false},
                                           Kind{"EncryptedZip", "3.3", true, true}, Kind{"MbdbZip", "2.4", false, true}),
                         [](const ::testing::TestParamInfo<Kind>& info) { return std::string(info.param.name); });

// ---- Passwords and exit statuses ----

using PasswordAndStatus = ToolTest;

TEST_F(PasswordAndStatus, PasswordMissingOrWrongEndsWithStatusThree) {
    BuiltBackup built = Build("enc", "3.3", true);
    RunResult missing = Run({"ls", built.directory.string()});
    EXPECT_EQ(missing.status, 3);
    EXPECT_NE(missing.err.find("no password was given"), std::string::npos) << missing.err;
    RunResult wrong = Run({"info", built.directory.string()}, "not-the-password");
    EXPECT_EQ(wrong.status, 3);
    EXPECT_NE(wrong.err.find("incorrect"), std::string::npos) << wrong.err;
    EXPECT_EQ(std::count(wrong.err.begin(), wrong.err.end(), '\n'), 1);  // one line, no dump
}

TEST_F(PasswordAndStatus, UsageErrorsAndMissingItems) {
    EXPECT_EQ(Run({}).status, 2);
    EXPECT_EQ(Run({"cat", "only-a-backup"}).status, 2);
    EXPECT_EQ(Run({"--help"}).status, 0);
    BuiltBackup built = Build("plain", "3.3", false);
    EXPECT_EQ(Run({"cat", built.directory.string(), "HomeDomain", "no/such/file"}).status, 1);
    EXPECT_EQ(Run({"cat", built.directory.string(), "HomeDomain", "Library"}).status, 1);
    EXPECT_EQ(Run({"ls", built.directory.string(), "NoSuchDomain"}).status, 1);
    EXPECT_EQ(Run({"info", (work_ / "does-not-exist").string()}).status, 1);
    EXPECT_EQ(Run({"export", built.directory.string(), built.directory.string()}).status, 1);
}

// Devices record a size before they copy the file, so a file that changed during the backup keeps
// its old size; with no digest to decide, the file is read with a warning rather than refused.
TEST_F(ToolTest, ASizeThatDisagreesWithoutADigestIsAWarning) {
    BuiltBackup built = BuildBackup(work_ / "nodigest", {.items = SampleItems(), .recordDigests = false});
    const BuiltItem& large = built.Item("AppDomain-com.example.notes", "Documents/large.db");
    fs::resize_file(built.directory / large.localFilename, 4096);
    RunResult r = Run({"cat", built.directory.string(), large.domain, large.relativePath});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.size(), 4096u);
    EXPECT_NE(r.err.find("warning: AppDomain-com.example.notes Documents/large.db holds 4096 bytes where its manifest "
                         "records 100000"), std::string::npos) << r.err;
}

// Forensic tools copy only part of a backup: a manifest without Status.plist or Manifest.plist reads,
// with a warning that names what is missing, and is never written out as if it were whole.
TEST_F(ToolTest, PartialCopiesReadWithAWarningAndAreNotWrittenOut) {
    BuiltBackup built = Build("partial", "3.3", false);
    fs::remove(built.directory / "Status.plist");
    fs::remove(built.directory / "Manifest.plist");
    const std::string dir = built.directory.string();
    RunResult info = Run({"info", dir});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("Missing:          Manifest.plist, Status.plist (a partial copy"), std::string::npos) << info.out;
    EXPECT_NE(info.err.find("warning: " + dir + ": there is no Status.plist"), std::string::npos) << info.err;
    const BuiltItem& large = built.Item("AppDomain-com.example.notes", "Documents/large.db");
    EXPECT_EQ(Run({"cat", dir, large.domain, large.relativePath}).out, Bytes(large.content));
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"export", dir, (work_ / "out").string()},
          std::vector<std::string>{"edit", dir, (work_ / "out").string(), "--mkdir", "HomeDomain", "New"}}) {
        RunResult r = Run(args);
        EXPECT_EQ(r.status, 4) << args[0];
        EXPECT_NE(r.err.find("is a partial copy of a backup without Manifest.plist and Status.plist"), std::string::npos)
            << r.err;
        EXPECT_FALSE(fs::exists(work_ / "out"));
    }
}

// The digest is checked in the same pass as the read. A large file is written as it is read, its last
// megabyte held back until the digest is known: damage found at the end leaves the output short of the
// whole file, never whole, and the status 4.
TEST_F(ToolTest, DigestsAreCheckedAsFilesAreReadAndDamageNeverLeavesAWholeFile) {
    std::vector<uint8_t> big(6 << 20);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 131 + (i >> 12));
    for (bool encrypted : {false, true}) {
        SCOPED_TRACE(encrypted ? "encrypted" : "plain");
        BuiltBackup built = Build(encrypted ? "enc" : "plain", "3.3", encrypted,
                                  {BackupItem::File("HomeDomain", "Media/big.bin", big)});
        const std::string password = encrypted ? "password" : "";
        RunResult whole = Run({"cat", built.directory.string(), "HomeDomain", "Media/big.bin"}, password);
        ASSERT_EQ(whole.status, 0) << whole.err;
        EXPECT_TRUE(whole.out == Bytes(big));
        const fs::path stored = built.directory / built.Item("HomeDomain", "Media/big.bin").localFilename;
        std::vector<uint8_t> bytes = ReadWholeFile(stored);
        bytes[3 << 20] ^= 0x40;
        WriteWholeFile(stored, bytes);
        RunResult damaged = Run({"cat", built.directory.string(), "HomeDomain", "Media/big.bin"}, password);
        EXPECT_EQ(damaged.status, 4);
        EXPECT_LT(damaged.out.size(), big.size());
        EXPECT_NE(damaged.err.find("what was written of it is incomplete"), std::string::npos) << damaged.err;
    }
}

// ---- Extracting a hostile backup ----

// What is refused and why is the library's (ExtractTests); the tool warns of each and ends with 1.
TEST_F(ToolTest, ExtractWarnsOfEachUnsafeNameAndEndsWithStatusOne) {
    fs::path outside = work_ / "outside";
    fs::create_directories(outside);
    std::vector<BackupItem> items{
        BackupItem::File("HomeDomain", "good.txt", std::string_view("kept")),
        BackupItem::File("HomeDomain", "../climbed.txt", std::string_view("x")),
        BackupItem::Symlink("HomeDomain", "link", outside.string()),
        BackupItem::File("HomeDomain", "link/through.txt", std::string_view("x")),
    };
    BuiltBackup built = Build("hostile", "3.3", false, items);
    fs::path dest = work_ / "dest" / "inner";
    RunResult r = Run({"extract", built.directory.string(), dest.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 3) << r.err;  // two warnings and the summary
    EXPECT_NE(r.err.find("2 entries with unsafe names skipped"), std::string::npos) << r.err;
    EXPECT_EQ(Bytes(ReadWholeFile(dest / "HomeDomain/good.txt")), "kept");
    EXPECT_TRUE(fs::is_empty(outside));
}

// ---- Editing ----

class EditTest : public ToolTest, public ::testing::WithParamInterface<bool> {};

TEST_P(EditTest, EditsApplyInOrderAndEncryptionIsKept) {
    const bool encrypted = GetParam();
    const std::string password = encrypted ? "password" : "";
    BuiltBackup built = Build("src", "3.3", encrypted);
    fs::path local = work_ / "new.txt";
    std::ofstream(local) << "new content";
    std::string dest = (work_ / "edited.zip").string();
    RunResult r = Run({"edit", built.directory.string(), dest, "--zip",
                       "--rm", "HomeDomain", "Library/Preferences",
                       "--put", "HomeDomain", "Library/Preferences/new.txt", local.string(),
                       "--put", "MediaDomain", "Media/Recordings/a.txt", local.string(),
                       "--rm", "MediaDomain", "Media/Recordings/a.txt",
                       "--mkdir", "MediaDomain", "Media/Empty/Deeper",
                       "--symlink", "HomeDomain", "Library/latest", "Preferences/new.txt",
                       "--put", "AppDomain-com.example.notes", "Documents/large.db", local.string()},
                      password);
    ASSERT_EQ(r.status, 0) << r.err;

    RunResult list = Run({"ls", dest, "--json"}, password);
    ASSERT_EQ(list.status, 0) << list.err;
    std::map<std::string, std::string> types;
    for (const json& e : json::parse(list.out)) types[e["domain"].get<std::string>() + ":" + e["path"].get<std::string>()] = e["type"];
    EXPECT_EQ(types.count("HomeDomain:Library/Preferences/one.txt"), 0u);  // removed before the put
    EXPECT_EQ(types["HomeDomain:Library/Preferences"], "dir");               // made again by the put
    EXPECT_EQ(types["HomeDomain:Library/Preferences/new.txt"], "file");
    EXPECT_EQ(types.count("MediaDomain:Media/Recordings/a.txt"), 0u);      // put, then removed
    EXPECT_EQ(types["MediaDomain:Media/Empty"], "dir");
    EXPECT_EQ(types["MediaDomain:Media/Empty/Deeper"], "dir");
    EXPECT_EQ(types["HomeDomain:Library/latest"], "symlink");
    EXPECT_EQ(Run({"cat", dest, "HomeDomain", "Library/Preferences/new.txt"}, password).out, "new content");
    // A replaced file keeps the attributes of the one it replaces, its class included: in an encrypted
    // backup its fresh key is wrapped under that class.
    EXPECT_EQ(Run({"cat", dest, "AppDomain-com.example.notes", "Documents/large.db"}, password).out, "new content");
    const json replaced = json::parse(Run({"ls", dest, "AppDomain-com.example.notes", "Documents/large.db", "--json"}, password).out)[0];
    EXPECT_EQ(replaced["mode"], 0100600);
    EXPECT_EQ(replaced["protectionClass"], 1);
    EXPECT_EQ(json::parse(Run({"info", dest, "--json"}, password).out)["encrypted"], encrypted);
    if (encrypted) {
        EXPECT_EQ(Run({"ls", dest}).status, 3);
    }
}

INSTANTIATE_TEST_SUITE_P(Tool, EditTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Encrypted" : "Plain"; });

TEST_F(ToolTest, AFailedEditWritesNothing) {
    BuiltBackup built = Build("src", "3.3", false);
    std::string dest = (work_ / "edited").string();
    RunResult r = Run({"edit", built.directory.string(), dest, "--rm", "HomeDomain", "no/such/path"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("nothing is there"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(dest));
    EXPECT_EQ(Run({"edit", built.directory.string(), dest, "--put", "HomeDomain", "../x", "/etc/hostname"}).status, 2);
}

// ---- Temporary storage on a signal ----

TEST_F(ToolTest, ASignalRemovesTheTemporaryFolder) {
    BuiltBackup built = Build("enc", "3.3", true);
    const std::string zip = ZipOfBackup(built, "password").string();
    Environment env{{"TMPDIR", (work_ / "tmp").string()}, {"QUIVER_PASSWORD", "password"}};
    // The 100,000 bytes fill the unread pipe, so the tool waits mid-output with its decrypted manifest
    // and the zip member in its temporary folder.
    RunningTool tool({"cat", zip, "AppDomain-com.example.notes", "Documents/large.db"}, env);
    ASSERT_TRUE(tool.WaitForOutput());
    EXPECT_FALSE(fs::is_empty(work_ / "tmp"));
    tool.Signal(SIGTERM);
    RunResult r = tool.Wait();
    EXPECT_TRUE(r.signaled);
    EXPECT_EQ(r.status, 128 + SIGTERM);
}

}  // namespace
