// Each generation of backup that devices wrote (Manifest.mbdb; a plain Manifest.db, also in encrypted
// backups of iOS 10.0 and 10.1; an enciphered Manifest.db with a manifest key), edited and written out
// by the library. The export must stay in its generation, since a device restores only what it would
// itself have written; the library must read both exports back; and a reader that shares no code with
// the library must agree with it file for file, digests of the stored bytes included.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/Hash.hpp"
#include "support/BackupBuilder.hpp"
#include "support/IndependentReader.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;
using Kind = IndependentEntry::Kind;
using Key = std::pair<std::string, std::string>;  // domain, relative path

struct Generation {
    const char* name;
    const char* version;
    bool encrypted;

    bool mbdb() const { return std::string(version) == "2.4"; }
    // Only iOS 10.2 and later encipher the manifest.
    bool enciphered() const { return encrypted && std::string(version) >= "3.2"; }
};

void PrintTo(const Generation& g, std::ostream* os) { *os << g.name; }

const Generation kGenerations[] = {
    {"Mbdb24Plain", "2.4", false},     {"Mbdb24Encrypted", "2.4", true}, {"Db30Plain", "3.0", false},
    {"Db30Encrypted", "3.0", true},    {"Db31Encrypted", "3.1", true},   {"Db33Plain", "3.3", false},
    {"Db33Encrypted", "3.3", true},
};

// What an item of the edited backup must be.
struct Expected {
    Kind kind;
    Bytes content;
    std::string target;
};

Bytes Pattern(std::size_t n, unsigned seed) {
    Bytes bytes(n);
    for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>((i * seed + 3) % 253);
    return bytes;
}

Bytes Text(std::string_view text) { return Bytes(text.begin(), text.end()); }

std::string FileIDOf(const Key& key) {
    const std::string pair = key.first + "-" + key.second;
    return Support::hex_encode(Support::Sha1({reinterpret_cast<const uint8_t*>(pair.data()), pair.size()}));
}

const Key kNewFile{"HomeDomain", "Library/Notes/new.txt"};
const Key kNewParent{"HomeDomain", "Library/Notes"};
const Key kReplacedClass1{"AppDomain-com.example.notes", "Documents/large.db"};
const Key kReplacedSmall{"HomeDomain", "Library/Preferences/one.txt"};  // class 3 when encrypted
const Key kRemoved{"HomeDomain", "Library/Preferences/block.bin"};
const Key kNewDirectory{"HomeDomain", "Library/Empty"};
const Key kNewSymlink{"HomeDomain", "Library/latest"};

class GenerationTest : public ScratchBackupTest, public ::testing::WithParamInterface<Generation> {
protected:
    Backup open(const fs::path& p) { return OpenBackup(p, GetParam().encrypted ? "password" : nullptr); }

    static std::map<Key, Expected> modelOf(const BuiltBackup& built) {
        std::map<Key, Expected> model;
        for (const BuiltItem& item : built.items) {
            const Kind kind = item.kind == ItemKind::File        ? Kind::File
                              : item.kind == ItemKind::Directory ? Kind::Directory
                                                                 : Kind::Symlink;
            model[{item.domain, item.relativePath}] = {kind, item.content, {}};
        }
        for (const BackupItem& item : SampleItems())
            if (item.kind == ItemKind::Symlink) model[{item.domain, item.relativePath}].target = item.target;
        return model;
    }

    // Every kind of edit, applied to the backup and to the model of what it must then hold.
    static void edit(const Backup& backup, std::map<Key, Expected>& model) {
        auto store = [&](const Key& key, Bytes content) {
            CFErrorRef error = nullptr;
            Entry stored = QVBackupContainerStoreFileForPath(backup, CF::String(key.first).get(),
                                                             CF::String(key.second).get(),
                                                             QVFileCreateFromData(content, nullptr), &error);
            EXPECT_TRUE(stored) << key.second << ": " << CF::Error::Adopt(error).Text();
            model[key] = {Kind::File, std::move(content), {}};
        };
        store(kNewFile, Pattern(33, 7));  // two cipher blocks and one byte
        model[kNewParent] = {Kind::Directory, {}, {}};
        store(kReplacedClass1, Pattern(40'000, 11));
        store(kReplacedSmall, Text("one, replaced"));
        EXPECT_EQ(QVBackupContainerRemovePath(backup, CF::String(kRemoved.first).get(), CF::String(kRemoved.second).get()), 1);
        model.erase(kRemoved);
        EXPECT_TRUE(QVBackupContainerCreateDirectoryAtPath(backup, CF::String(kNewDirectory.first).get(),
                                                           CF::String(kNewDirectory.second).get()));
        model[kNewDirectory] = {Kind::Directory, {}, {}};
        EXPECT_TRUE(QVBackupContainerCreateSymlinkAtPath(backup, CF::String(kNewSymlink.first).get(),
                                                         CF::String(kNewSymlink.second).get(), CFSTR("Notes/new.txt")));
        model[kNewSymlink] = {Kind::Symlink, {}, "Notes/new.txt"};
    }

    // The library's view of an export: the generation, every item and every file's plaintext.
    void expectLibraryReads(const Backup& back, const std::map<Key, Expected>& model) {
        const Generation& g = GetParam();
        EXPECT_EQ(QVBackupContainerIsEncrypted(back), g.encrypted ? 1 : 0);
        EXPECT_EQ(QVBackupContainerHasEncipheredManifest(back), g.enciphered());
        EXPECT_EQ(QVManifestGetEntries(back->manifest).size(), model.size());
        for (const auto& [key, expected] : model) {
            SCOPED_TRACE(key.first + "-" + key.second);
            CF::String domain(key.first), path(key.second);
            Entry entry = QVBackupContainerGetEntryForPath(back, domain.get(), path.get());
            ASSERT_TRUE(entry);
            switch (expected.kind) {
                case Kind::Directory: EXPECT_TRUE(QVManifestEntryIsDirectory(entry)); break;
                case Kind::Symlink:
                    EXPECT_TRUE(QVManifestEntryIsSymlink(entry));
                    EXPECT_EQ(CF::UTF8(QVManifestEntryGetTarget(entry)), expected.target);
                    break;
                default: {
                    ASSERT_TRUE(QVManifestEntryIsFile(entry));
                    CFErrorRef error = nullptr;
                    auto file = QVBackupContainerCopyFileForPath(back, domain.get(), path.get(), &error);
                    ASSERT_TRUE(file) << CF::Error::Adopt(error).Text();
                    EXPECT_EQ(ReadFileObject(file), expected.content);
                }
            }
        }
    }

    // The view of a reader that shares no code with the library, keyed by domain and path. Every
    // recorded digest must be that of the stored bytes.
    std::map<Key, IndependentEntry> expectIndependentReads(const fs::path& directory,
                                                           const std::map<Key, Expected>& model) {
        const Generation& g = GetParam();
        SCOPED_TRACE("independent reader of " + directory.filename().string());
        std::map<Key, IndependentEntry> byKey;
        IndependentBackup read;
        try {
            read = ReadBackupIndependently(directory, g.encrypted ? "password" : "");
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
            return byKey;
        }
        EXPECT_EQ(read.manifestName, g.mbdb() ? "Manifest.mbdb" : "Manifest.db");
        EXPECT_EQ(read.encrypted, g.encrypted);
        EXPECT_EQ(read.manifestEnciphered, g.enciphered());
        for (IndependentEntry& e : read.entries) {
            const Key key{e.domain, e.relativePath};
            EXPECT_TRUE(byKey.emplace(key, std::move(e)).second) << "twice: " << key.second;
        }
        EXPECT_EQ(byKey.size(), model.size());
        for (const auto& [key, expected] : model) {
            SCOPED_TRACE(key.first + "-" + key.second);
            auto found = byKey.find(key);
            if (found == byKey.end()) {
                ADD_FAILURE() << "missing";
                continue;
            }
            const IndependentEntry& e = found->second;
            EXPECT_EQ(e.fileID, FileIDOf(key));
            EXPECT_EQ(e.kind, expected.kind);
            EXPECT_EQ(e.target, expected.target);
            if (e.kind != Kind::File) continue;
            EXPECT_EQ(e.plaintext, expected.content);
            EXPECT_EQ(e.size, expected.content.size());
            if (!e.digest.empty()) {
                EXPECT_TRUE(e.digestMatches) << "the digest is not that of the stored bytes";
            }
        }
        return byKey;
    }
};

TEST_P(GenerationTest, EditedExportKeepsItsGenerationAndReadsTheSameToTheLibraryAndAnIndependentReader) {
    const Generation& g = GetParam();
    BackupDescription description{.items = SampleItems(), .manifestVersion = g.version, .encrypted = g.encrypted};
    BuiltBackup built = BuildBackup(root / "source", description);
    ASSERT_EQ(built.Item(kReplacedClass1.first, kReplacedClass1.second).protectionClass, 1u);
    ASSERT_EQ(built.Item(kReplacedSmall.first, kReplacedSmall.second).protectionClass, g.encrypted ? 3u : 4u);
    const CF::Dictionary sourcePlist = ReadPropertyList(built.directory / "Manifest.plist");
    std::map<Key, Expected> model = modelOf(built);
    expectIndependentReads(built.directory, model);  // the builder writes what devices write
    const auto untouched = SnapshotTree(built.directory);

    Backup source = open(built.directory);
    ASSERT_TRUE(source);
    {
        SCOPED_TRACE("library, source");
        expectLibraryReads(source, model);
    }
    edit(source, model);
    const fs::path dir = root / "export", zip = root / "export.zip";
    std::vector<double> fractions;
    ASSERT_EQ(QVBackupContainerExportToDirectory(source, CF::String(dir.string()).get(),
                                                 [&](double f) { fractions.push_back(f); }),
              1);
    EXPECT_FALSE(fractions.empty());
    ASSERT_EQ(QVBackupContainerExportToZip(source, CF::String(zip.string()).get(), nullptr), 1);

    // The generation, as a device would see it.
    EXPECT_EQ(ReadPropertyList(dir / "Status.plist").Get<CF::String>("Version").utf8(), g.version);
    const CF::Dictionary plist = ReadPropertyList(dir / "Manifest.plist");
    EXPECT_EQ(plist.Get<CF::Boolean>("IsEncrypted").value(), g.encrypted);
    EXPECT_EQ(static_cast<bool>(plist.Get<CF::Data>("ManifestKey")), g.enciphered());
    EXPECT_EQ(plist.Get<CF::Data>("BackupKeyBag").vector(), sourcePlist.Get<CF::Data>("BackupKeyBag").vector());
    EXPECT_EQ(fs::exists(dir / "Manifest.mbdb"), g.mbdb());
    EXPECT_EQ(fs::exists(dir / "Manifest.db"), !g.mbdb());
    if (!g.mbdb()) {
        const Bytes database = ReadWholeFile(dir / "Manifest.db");
        const std::string header = "SQLite format 3" + std::string(1, '\0');
        EXPECT_EQ(std::string(database.begin(), database.begin() + std::min<std::size_t>(16, database.size())) == header,
                  !g.enciphered());
    }

    for (bool fromZip : {false, true}) {
        SCOPED_TRACE(fromZip ? "library, zip export" : "library, directory export");
        Backup back = open(fromZip ? zip : dir);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->manifestVersion, source->manifestVersion);
        expectLibraryReads(back, model);
        if (!fromZip) continue;
        // Written out again from the zip it was read from.
        const fs::path again = root / "again.zip";
        ASSERT_EQ(QVBackupContainerExportToZip(back, CF::String(again.string()).get(), nullptr), 1);
        Backup third = open(again);
        ASSERT_TRUE(third);
        expectLibraryReads(third, model);
    }

    EXPECT_EQ(SnapshotTree(built.directory), untouched);  // reading, editing and exporting leave the source alone

    // Edited files record a digest like the rest, and a replaced file keeps its protection class.
    std::map<Key, IndependentEntry> read = expectIndependentReads(dir, model);
    for (const Key& key : {kNewFile, kReplacedClass1, kReplacedSmall}) EXPECT_TRUE(read[key].digestMatches) << key.second;
    EXPECT_EQ(read[kReplacedClass1].protectionClass, 1u);
    EXPECT_EQ(read[kReplacedSmall].protectionClass, g.encrypted ? 3u : 4u);
}

INSTANTIATE_TEST_SUITE_P(Generations, GenerationTest, ::testing::ValuesIn(kGenerations),
                         [](const ::testing::TestParamInfo<Generation>& info) { return std::string(info.param.name); });

}  // namespace
