// Looking inside a backup with the tool: `stat` of one entry, `find` by name, kind, size and date,
// `domains` with the apps that have data, the JSON lines of `ls` and the CSV of `csv`. Grouped by
// command; every backup is made by the test fixtures.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>

#include "Quiver/QVManifestCSV.hpp"
#include "support/BackupBuilder.hpp"
#include "tool/ToolRunner.hpp"

namespace fs = std::filesystem;
using nlohmann::json;
using namespace QuiverTest;
using namespace QuiverToolTest;

namespace {

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string text;
    for (uint8_t b : bytes) text += fmt::format("{:02x}", b);
    return text;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The "DOMAIN/PATH" of each object of a JSON listing, in order.
std::vector<std::string> Names(const json& listing) {
    std::vector<std::string> names;
    for (const json& e : listing) names.push_back(e["domain"].get<std::string>() + "/" + e["path"].get<std::string>());
    return names;
}

std::vector<uint8_t> BinaryPlist(const CF::Dictionary& dict) {
    CF::Data data = CF::Data::Adopt(CFPropertyListCreateData(nullptr, dict.get(), kCFPropertyListBinaryFormat_v1_0, 0, nullptr));
    return data.vector();
}

// A strict RFC 4180 reader: a field is quoted or holds no quote, a quote inside a quoted field is
// doubled, and records end in CR LF (the last one may not). Fails the test on anything else.
std::vector<std::vector<std::string>> ReadCsv(const std::string& text) {
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> row;
    size_t i = 0;
    while (i < text.size()) {
        std::string field;
        if (text[i] == '"') {
            ++i;
            for (;;) {
                if (i >= text.size()) {
                    ADD_FAILURE() << "a quoted field runs to the end";
                    return rows;
                }
                if (text[i] == '"') {
                    if (i + 1 < text.size() && text[i + 1] == '"') {
                        field += '"';
                        i += 2;
                        continue;
                    }
                    ++i;
                    break;
                }
                field += text[i++];
            }
        } else {
            while (i < text.size() && text[i] != ',' && text[i] != '\r' && text[i] != '\n') {
                if (text[i] == '"') {
                    ADD_FAILURE() << "a quote inside an unquoted field at byte " << i;
                    return rows;
                }
                field += text[i++];
            }
        }
        row.push_back(field);
        if (i < text.size() && text[i] == ',') {
            ++i;
            continue;
        }
        if (text.compare(i, 2, "\r\n") == 0) {
            i += 2;
        } else if (i < text.size()) {
            ADD_FAILURE() << "a field is followed by byte " << int(text[i]) << " at " << i;
            return rows;
        }
        rows.push_back(std::move(row));
        row.clear();
    }
    return rows;
}

class LookingInsideTest : public ScratchToolTest {
protected:
    RunResult Run(const std::vector<std::string>& args, const std::string& password = "") const {
        return ScratchToolTest::Run(args, password, {{"TZ", "UTC"}});
    }

    json RunJson(const std::vector<std::string>& args, const std::string& password = "") const {
        RunResult r = Run(args, password);
        EXPECT_EQ(r.status, 0) << r.err;
        return r.status == 0 ? json::parse(r.out) : json();
    }

    // The names find lists in the sample backup at dir, given its conditions.
    std::vector<std::string> Found(const std::string& dir, std::vector<std::string> args) const {
        args.insert(args.begin(), {"find", dir});
        args.push_back("--json");
        return Names(RunJson(args));
    }
};

// ---- stat ----

using Stat = LookingInsideTest;

// Every field of a file of an encrypted backup: its own times, owner, class, the digest and key the
// record holds, where its ciphertext is stored and how long that is, and attributes decoded.
TEST_F(Stat, ShowsEveryFieldOfAnEncryptedFile) {
    std::vector<BackupItem> items = SampleItems();
    BackupItem& large = items.back();
    CF::Dictionary tags = CF::Dictionary::CreateMutable();
    tags.Set("color", CF::String("green"));
    large.extendedAttributes["com.example.plist"] = BinaryPlist(tags);
    large.extendedAttributes["com.example.text"] = {'h', 'i', 0};
    BuiltBackup built = BuildBackup(work_ / "b", {.items = items, .encrypted = true});
    const BuiltItem& item = built.Item("AppDomain-com.example.notes", "Documents/large.db");

    json stat = RunJson({"stat", built.directory.string(), "AppDomain-com.example.notes", "Documents/large.db", "--json"},
                        "password");
    ExpectFields(stat, {{"type", "file"}, {"fileID", item.fileID}, {"mode", 0100600}, {"modeText", "-rw-------"},
                        {"size", 100000}, {"birth", 1600000000}, {"mtime", 1600000000}, {"ctime", 1600000000},
                        {"protectionClass", 1}, {"digest", Hex(item.digest)}, {"hasKey", true},
                        {"storedName", item.localFilename},
                        {"storedSize", fs::file_size(built.directory / item.localFilename)},
                        {"target", nullptr}, {"storedProblem", nullptr}});
    EXPECT_EQ(stat["storedSize"].get<uint64_t>() % 16, 0u);  // the ciphertext, not the plaintext
    ExpectFields(stat["extendedAttributes"], {{"com.example.tag", {{"hex", "0102"}}},
                                              {"com.example.text", {{"text", "hi"}}},
                                              {"com.example.plist", {{"plist", {{"color", "green"}}}}}});

    json other = RunJson({"stat", built.directory.string(), "HomeDomain", "Library/Preferences/one.txt", "--json"}, "password");
    EXPECT_NE(other["inode"], 0);
    EXPECT_NE(other["inode"], stat["inode"]);
    EXPECT_EQ(other["protectionClass"], 3);

    RunResult text = Run({"stat", built.directory.string(), "AppDomain-com.example.notes", "Documents/large.db"}, "password");
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(Contains(text.out, "2020-09-13 12:26:40 UTC")) << text.out;
    EXPECT_TRUE(Contains(text.out, item.localFilename)) << text.out;
    EXPECT_TRUE(Contains(text.out, "com.example.text: \"hi\"")) << text.out;
    EXPECT_EQ(Run({"stat", built.directory.string(), "HomeDomain", "Library"}).status, 3);  // the password is needed
}

// ---- find ----

using Find = LookingInsideTest;

TEST_F(Find, PatternsDomainsTypesSizesAndDates) {
    const std::string dir = BuildBackup(work_ / "b", {.items = SampleItems()}).directory.string();
    auto names = [&](std::vector<std::string> args) { return Found(dir, std::move(args)); };
    using V = std::vector<std::string>;
    EXPECT_EQ(names({"*.bin"}), V({"HomeDomain/Library/Preferences/block-and-one.bin", "HomeDomain/Library/Preferences/block.bin"}));
    // A pattern is over "domain/path", and an entry matching any of several is listed once.
    EXPECT_EQ(names({"App*/*.db", "*/large.*"}), V({"AppDomain-com.example.notes/Documents/large.db"}));
    EXPECT_EQ(names({"*.BIN"}), V());
    EXPECT_EQ(names({"*.BIN", "-i"}).size(), 2u);
    EXPECT_EQ(names({"--type", "d", "--domain", "App*"}),
              V({"AppDomain-com.example.notes/", "AppDomain-com.example.notes/Documents"}));
    EXPECT_EQ(names({"--type", "l"}), V({"HomeDomain/Library/Prefs"}));
    EXPECT_EQ(names({"--type", "symlink", "--type", "file", "--domain", "HomeDomain", "*/Pref?"}),
              V({"HomeDomain/Library/Prefs"}));
    EXPECT_EQ(names({"--domain", "NoSuchDomain"}), V());
    // Sizes are 0, 1, 16, 17 and 100,000 bytes; bounds are inclusive and only files have a size.
    EXPECT_EQ(names({"--min-size", "16", "--max-size", "17"}),
              V({"HomeDomain/Library/Preferences/block-and-one.bin", "HomeDomain/Library/Preferences/block.bin"}));
    EXPECT_EQ(names({"--min-size", "97k"}), V({"AppDomain-com.example.notes/Documents/large.db"}));
    EXPECT_EQ(names({"--min-size", "98k"}), V());  // 98 KiB is 100,352 bytes
    EXPECT_EQ(names({"--max-size", "0"}), V({"HomeDomain/Library/Preferences/empty.plist"}));
    // The large file was modified on 2020-09-13 12:26:40 UTC, everything else at the backup's date.
    EXPECT_EQ(names({"--older", "2021-01-01"}), V({"AppDomain-com.example.notes/Documents/large.db"}));
    EXPECT_EQ(names({"--older", "2020-09-13 12:26"}), V());
    EXPECT_EQ(names({"--newer", "2020-09-13T12:26:39", "--older", "@1600000001"}),
              V({"AppDomain-com.example.notes/Documents/large.db"}));
    EXPECT_EQ(names({"--newer", "@1600000000"}).size(), 10u);
}

// ---- domains ----

using Domains = LookingInsideTest;

TEST_F(Domains, CountsEachDomainAndTheAppsWithData) {
    std::vector<BackupItem> items = SampleItems();
    items.push_back(BackupItem::Directory("AppDomainPlugin-com.example.notes.widget", ""));
    items.push_back(BackupItem::File("AppDomainPlugin-com.example.notes.widget", "Library/w.plist", std::string_view("12345")));
    items.push_back(BackupItem::Directory("AppDomain-com.example.empty", ""));
    items.push_back(BackupItem::Directory("AppDomain-com.example.empty", "Library"));
    items.push_back(BackupItem::Directory("AppDomainGroup-group.com.example", ""));
    items.push_back(BackupItem::File("AppDomainGroup-group.com.example", "shared.db", std::string_view("abc")));
    BuiltBackup built = BuildBackup(work_ / "b", {.items = items, .encrypted = true});

    json out = RunJson({"domains", built.directory.string(), "--json"}, "password");
    std::map<std::string, json> byName;
    for (const json& d : out["domains"]) byName[d["domain"]] = d;
    ASSERT_EQ(byName.size(), 5u);
    EXPECT_EQ(byName["HomeDomain"], json({{"domain", "HomeDomain"}, {"files", 4}, {"directories", 3}, {"symlinks", 1}, {"size", 34}}));
    EXPECT_EQ(byName["AppDomain-com.example.notes"]["size"], 100000);
    EXPECT_EQ(byName["AppDomain-com.example.empty"]["files"], 0);
    EXPECT_EQ(out["total"]["files"], 7);
    EXPECT_EQ(out["total"]["size"], 100000 + 34 + 5 + 3);

    // The empty app has no data and the group is no app; the widget counts with its app.
    ASSERT_EQ(out["apps"].size(), 1u) << out["apps"].dump();
    const json& notes = out["apps"][0];
    ExpectFields(notes, {{"bundleID", "com.example.notes"}, {"files", 2}, {"size", 100005},
                         {"domains", {"AppDomain-com.example.notes", "AppDomainPlugin-com.example.notes.widget"}}});

    RunResult text = Run({"domains", built.directory.string()}, "password");
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(Contains(text.out, "Apps with data: 1")) << text.out;
    EXPECT_TRUE(Contains(text.out, "5 domains, 7 files")) << text.out;
}

// ---- ls ----

using LsJsonLines = LookingInsideTest;

// Names come from the backup, and listings are written entry by entry: whatever a name holds, it parses
// back to itself from the JSON array and from the JSON lines, which hold the same objects one per line.
TEST_F(LsJsonLines, HoldTheObjectsOfTheArrayOnePerLineWhateverTheNames) {
    const std::vector<std::string> names = {"quote\"d", "back\\slash", "tab\tand\nnewline", "bell\x07", "caf\xc3\xa9 \xe2\x9c\x93",
                                            "say \"hi\"\nthere.txt"};
    std::vector<BackupItem> items;
    for (const std::string& name : names) items.push_back(BackupItem::File("HomeDomain", name, std::string_view("x")));
    BuiltBackup built = BuildBackup(work_ / "b", {.items = items});
    json array = RunJson({"ls", built.directory.string(), "--json"});
    std::vector<std::string> listed;
    for (const json& e : array) {
        listed.push_back(e["path"]);
        EXPECT_EQ(e.size(), 11u);
    }
    std::sort(listed.begin(), listed.end());
    std::vector<std::string> expected = names;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listed, expected);
    RunResult lines = Run({"ls", built.directory.string(), "--jsonl"});
    ASSERT_EQ(lines.status, 0) << lines.err;
    std::vector<std::string> each = Lines(lines.out);
    ASSERT_EQ(each.size(), array.size());
    for (size_t i = 0; i < each.size(); ++i) EXPECT_EQ(json::parse(each[i]), array[i]) << each[i];
    EXPECT_TRUE(Contains(lines.out, R"(say \"hi\"\nthere.txt)")) << lines.out;

    RunResult none = Run({"ls", built.directory.string(), "NoSuchDomain", "--jsonl"});
    EXPECT_EQ(none.status, 1);
    EXPECT_TRUE(none.out.empty());
    EXPECT_EQ(RunJson({"ls", BuildBackup(work_ / "empty", {}).directory.string(), "--json"}), json::array());
}

// ---- csv ----

using Csv = LookingInsideTest;

std::vector<BackupItem> ItemsWithAwkwardNames() {
    std::vector<BackupItem> items = SampleItems();
    items.push_back(BackupItem::File("HomeDomain", "Library/Preferences/say \"hi\", twice\r\nthen \"\"bye\"\".txt", std::string_view("x")));
    items.push_back(BackupItem::Symlink("HomeDomain", "Library/comma,link", "a \"quoted\" target"));
    return items;
}

// Values with quotes, commas and line breaks come back whole from a reader that follows the RFC,
// from every kind of source: a folder, its Manifest.db, a zip and an encrypted backup.
TEST_F(Csv, EveryRowReadsBackWholeFromEverySource) {
    BuiltBackup plain = BuildBackup(work_ / "plain", {.items = ItemsWithAwkwardNames()});
    BuiltBackup encrypted = BuildBackup(work_ / "enc", {.items = ItemsWithAwkwardNames(), .encrypted = true});
    const std::string zip = ZipOfBackup(plain).string();
    RunResult folder = Run({"csv", plain.directory.string()});
    ASSERT_EQ(folder.status, 0) << folder.err;
    EXPECT_EQ(Run({"csv", (plain.directory / "Manifest.db").string()}).out, folder.out);
    EXPECT_EQ(Run({"csv", zip}).out, folder.out);

    for (const BuiltBackup* built : {&plain, &encrypted}) {
        RunResult r = Run({"csv", built->directory.string()}, built == &encrypted ? "password" : "");
        ASSERT_EQ(r.status, 0) << r.err;
        std::vector<std::vector<std::string>> rows = ReadCsv(r.out);
        ASSERT_EQ(rows.size(), built->items.size() + 1);
        EXPECT_EQ(rows[0][0], "fileID");
        EXPECT_EQ(rows[0][17], "extendedAttributes");
        std::map<std::string, std::vector<std::string>> byID;
        for (const auto& row : rows) {
            ASSERT_EQ(row.size(), 18u);
            byID[row[0]] = row;
        }
        const BuiltItem& odd = built->Item("HomeDomain", "Library/Preferences/say \"hi\", twice\r\nthen \"\"bye\"\".txt");
        ASSERT_TRUE(byID.count(odd.fileID));
        EXPECT_EQ(byID[odd.fileID][2], odd.relativePath);
        EXPECT_EQ(byID[odd.fileID][15], "1");
        EXPECT_EQ(byID[built->Item("HomeDomain", "Library/comma,link").fileID][5], "a \"quoted\" target");
        EXPECT_EQ(byID[odd.fileID][7].empty(), built == &plain);  // only an encrypted backup's files have keys
    }
    EXPECT_EQ(Run({"csv", encrypted.directory.string()}).status, 3);
}

// The real iOS 14 manifest, when it is there: values with double quotes among its 3,721 rows.
TEST_F(Csv, TheRealManifestReadsRowByRow) {
    const fs::path database = fs::path(QUIVER_REALDATA) / "mvt-ios-backup" / "backup" / "Manifest.db";
    if (!fs::is_regular_file(database)) GTEST_SKIP() << "no real manifest at " << database;
    RunResult r = Run({"csv", database.string()});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::vector<std::string>> rows = ReadCsv(r.out);
    ASSERT_EQ(rows.size(), 3722u);
    size_t quoted = 0;
    for (const auto& row : rows) {
        ASSERT_EQ(row.size(), 18u);
        quoted += std::any_of(row.begin(), row.end(), [](const std::string& v) { return Contains(v, "\""); });
    }
    EXPECT_GT(quoted, 0u);
}

}  // namespace
