// Export to a directory and to a zip file, and the zip source: which members a zip stores, existing
// destinations, and damaged zip files. Round trips of every generation are in GenerationTests.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <utility>

#include <signal.h>
#include <sys/resource.h>

#include <minizip/unzip.h>
#include <minizip/zip.h>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "support/BackupBuilder.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

class ExportTest : public ScratchBackupTest {
protected:
    static void expectSameContents(const Backup& a, const Backup& b) {
        auto entries = QVManifestGetEntries(a->manifest);
        ASSERT_EQ(entries.size(), QVManifestGetEntries(b->manifest).size());
        for (const Entry& e : entries) {
            Entry other = QVManifestGetEntryForFileID(b->manifest, QVManifestEntryGetFileID(e));
            ASSERT_TRUE(other);
            EXPECT_EQ(other->mode, e->mode);
            EXPECT_EQ(other->size, e->size);
            EXPECT_EQ(other->target(), e->target());
            if (!QVManifestEntryIsFile(e)) continue;
            CFErrorRef error = nullptr;
            auto fa = QVBackupContainerCopyFileForPath(a, QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e), &error);
            auto fb = QVBackupContainerCopyFileForPath(b, QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e), &error);
            ASSERT_TRUE(fa && fb) << CF::Error::Adopt(error).Text();
            EXPECT_EQ(ReadFileObject(fa), ReadFileObject(fb));
        }
    }

    // A zip holding `plist` under each name, stored (method 0) or deflated.
    static void writeZip(const fs::path& zip, std::initializer_list<const char*> names, const std::string& plist, int method) {
        zipFile z = zipOpen64(zip.c_str(), APPEND_STATUS_CREATE);
        ASSERT_NE(z, nullptr);
        for (const char* name : names) {
            zip_fileinfo info{};
            ASSERT_EQ(zipOpenNewFileInZip64(z, name, &info, nullptr, 0, nullptr, 0, nullptr, method, method ? -1 : 0, 0), ZIP_OK);
            ASSERT_EQ(zipWriteInFileInZip(z, plist.data(), static_cast<unsigned>(plist.size())), ZIP_OK);
            zipCloseFileInZip(z);
        }
        zipClose(z, nullptr);
    }
};

}  // namespace

// Members that deflating cannot shrink (enciphered files, compressed media) are stored as they are;
// text is deflated. Both read back the same.
TEST_F(ExportTest, ZipStoresWhatDoesNotCompressAndDeflatesTheRest) {
    std::vector<uint8_t> noise(200000);
    uint64_t state = 1;
    for (auto& b : noise) b = static_cast<uint8_t>((state = state * 6364136223846793005ULL + 1) >> 56);
    BackupDescription description{.items = {BackupItem::File("HomeDomain", "noise.bin", noise),
                                            BackupItem::File("HomeDomain", "text.txt", std::string(200000, 'a'))}};
    BuiltBackup built = BuildBackup(root / "src", description);
    Backup source = OpenBackup(built.directory);
    ASSERT_TRUE(source);
    const fs::path zip = root / "out.zip";
    // The phases come once each, in the order in which the names are written.
    std::vector<std::string> phases;
    QVBackupContainerSetExportPhaseFunction(source, [&](const char* phase) { phases.emplace_back(phase); });
    ASSERT_EQ(QVBackupContainerExportToZip(source, CF::String(zip.string()).get(), nullptr), 1);
    EXPECT_EQ(phases, (std::vector<std::string>{"files", "manifest", "metadata"}));
    std::map<std::string, unsigned long> methods;
    unzFile z = unzOpen64(zip.c_str());
    ASSERT_NE(z, nullptr);
    for (int r = unzGoToFirstFile(z); r == UNZ_OK; r = unzGoToNextFile(z)) {
        unz_file_info64 info{};
        char name[256] = {};
        unzGetCurrentFileInfo64(z, &info, name, sizeof name, nullptr, 0, nullptr, 0);
        methods[name] = info.compression_method;
    }
    unzClose(z);
    EXPECT_EQ(methods.at(built.Item("HomeDomain", "noise.bin").localFilename), 0u);
    EXPECT_EQ(methods.at(built.Item("HomeDomain", "text.txt").localFilename), static_cast<unsigned long>(Z_DEFLATED));
    EXPECT_EQ(methods.at("Manifest.plist"), static_cast<unsigned long>(Z_DEFLATED));
    Backup back = OpenBackup(zip);
    ASSERT_TRUE(back);
    expectSameContents(source, back);
}

TEST_F(ExportTest, ExistingDestinationsAreNeverWrittenIntoAndFilesThatCannotBeLoadedAreReported) {
    BuiltBackup built = BuildBackup(root / "src", BackupDescription{.items = SampleItems()});
    Backup source = OpenBackup(built.directory);
    ASSERT_TRUE(source);
    fs::create_directories(root / "taken");
    EXPECT_EQ(QVBackupContainerExportToDirectory(source, CF::String((root / "taken").string()).get(), nullptr), 0);
    EXPECT_TRUE(fs::is_empty(root / "taken"));
    WriteWholeFile(root / "taken.zip", {'x'});
    EXPECT_EQ(QVBackupContainerExportToZip(source, CF::String((root / "taken.zip").string()).get(), nullptr), 0);
    EXPECT_EQ(fs::file_size(root / "taken.zip"), 1u);
    // A stored file gone after opening: the export fails, names the destination and the file, and
    // leaves nothing, in either form.
    auto victim = std::find_if(built.items.rbegin(), built.items.rend(), [](auto& i) { return i.kind == ItemKind::File; });
    fs::remove(built.directory / victim->localFilename);
    // The scratch folder itself changes as names come and go; only what it holds counts.
    auto contents = [&] {
        auto tree = SnapshotTree(root);
        tree.erase("");
        return tree;
    };
    const auto before = contents();
    for (const char* name : {"out", "out.zip"}) {
        const fs::path out = root / name;
        CFErrorRef error = nullptr;
        const bool zip = fs::path(name).extension() == ".zip";
        CF::String destination(out.string());
        EXPECT_EQ(zip ? QVBackupContainerExportToZip(source, destination.get(), nullptr, &error)
                      : QVBackupContainerExportToDirectory(source, destination.get(), nullptr, &error),
                  0);
        CF::Error failure = CF::Error::Adopt(error);
        EXPECT_EQ(failure.Code(), QVErrorWritingExternalRepresentation);
        EXPECT_TRUE(failure.Reason().starts_with("The backup could not be written to " + out.string() + ": ")) << failure.Reason();
        EXPECT_NE(failure.Reason().find(victim->localFilename), std::string::npos) << failure.Reason();
        EXPECT_EQ(contents(), before) << name;
    }
}

// A disk that fills up mid-way (here a file-size limit, in a child process so that the limit ends
// with it) fails the export with the cause and the destination named, and leaves nothing behind.
TEST_F(ExportTest, AWriteThatRunsOutOfSpaceLeavesNothing) {
    std::vector<uint8_t> large(3 << 20);
    uint64_t state = 7;
    for (auto& b : large) b = static_cast<uint8_t>((state = state * 6364136223846793005ULL + 1) >> 56);
    for (bool encrypted : {false, true}) {
        BuiltBackup built = BuildBackup(root / (encrypted ? "enc" : "plain"),
                                        {.items = {BackupItem::File("HomeDomain", "large.bin", large),
                                                   BackupItem::File("HomeDomain", "small.txt", std::string("small"))},
                                         .encrypted = encrypted});
        Backup source = OpenBackup(built.directory, encrypted ? "password" : nullptr);
        ASSERT_TRUE(source);
        fs::create_directories(root / "dest");
        for (const char* name : {"out", "out.zip"}) {
            SCOPED_TRACE(std::string(name) + (encrypted ? " encrypted" : " plain"));
            const fs::path out = root / "dest" / name;
            auto exportWithLimit = [&] {
                signal(SIGXFSZ, SIG_IGN);
                const rlimit limit{1 << 20, 1 << 20};
                if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::_Exit(10);
                CFErrorRef error = nullptr;
                CF::String destination(out.string());
                const bool written = fs::path(name).extension() == ".zip"
                                         ? QVBackupContainerExportToZip(source, destination.get(), nullptr, &error)
                                         : QVBackupContainerExportToDirectory(source, destination.get(), nullptr, &error);
                if (written) std::_Exit(11);
                const CF::Error failure = CF::Error::Adopt(error);
                if (!failure.Reason().starts_with("The backup could not be written to " + out.string())) std::_Exit(12);
                if (failure.Reason().find("File too large") == std::string::npos) std::_Exit(13);
                // Which file of the backup was being written, for a program to act on.
                if (ErrorContextValue(failure, kQVErrorBackupFileKey).empty()) std::_Exit(15);
                if (!fs::is_empty(root / "dest")) std::_Exit(14);
                std::_Exit(0);
            };
            EXPECT_EXIT(exportWithLimit(), ::testing::ExitedWithCode(0), "");
            EXPECT_TRUE(fs::is_empty(root / "dest"));
        }
    }
}

TEST_F(ExportTest, DamagedZipsFailWithTheirErrors) {
    BuiltBackup built = BuildBackup(root / "src", BackupDescription{.items = SampleItems()});
    Backup source = OpenBackup(built.directory);
    fs::path zip = root / "b.zip";
    ASSERT_EQ(QVBackupContainerExportToZip(source, CF::String(zip.string()).get(), nullptr), 1);
    auto bytes = ReadWholeFile(zip);

    CF::Error failure;
    WriteWholeFile(root / "truncated.zip", std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
    EXPECT_FALSE(OpenBackup(root / "truncated.zip", nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_FALSE(OpenBackup(root / "missing.zip", nullptr, &failure));
    EXPECT_EQ(failure.Reason(), "Failed to open zip file (" + (root / "missing.zip").string() + ")");

    // Flip one byte inside every member's data in turn: each load or read fails cleanly or, where the
    // byte was in a part that is not checked, succeeds; never a crash.
    for (size_t at = 64; at < bytes.size(); at += bytes.size() / 40) {
        auto damaged = bytes;
        damaged[at] ^= 0x55;
        fs::path p = root / "damaged.zip";
        fs::remove(p);
        WriteWholeFile(p, damaged);
        Backup b = OpenBackup(p, nullptr, &failure);
        if (!b) continue;
        for (const Entry& e : QVManifestGetEntries(b->manifest)) {
            if (!QVManifestEntryIsFile(e)) continue;
            CFErrorRef error = nullptr;
            auto f = QVBackupContainerCopyFileForPath(b, QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e), &error);
            if (error) CFRelease(error);
        }
    }
}

TEST_F(ExportTest, MemberFailingItsChecksumIsRefused) {
    // Members stored without compression, so that one changed byte reaches the checksum untouched.
    fs::path zip = root / "stored.zip";
    writeZip(zip, {"Manifest.plist", "Info.plist", "Status.plist"},
             "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Version</key><string>9.9</string></dict></plist>", 0);
    CF::Error failure;
    EXPECT_FALSE(OpenBackup(zip, nullptr, &failure));
    EXPECT_EQ(failure.Reason(), "Unsupported version '9.9' specified");  // the members read fine
    auto bytes = ReadWholeFile(zip);
    std::string text(bytes.begin(), bytes.end());
    bytes[text.find("9.9")] = '8';  // inside the first member's data
    fs::remove(zip);
    WriteWholeFile(zip, bytes);
    EXPECT_FALSE(OpenBackup(zip, nullptr, &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_EQ(failure.Reason(), "Failed to load backup metadata file (Manifest.plist)");
    EXPECT_EQ(failure.Underlying().Reason(), "Failed to extract file data");
}

TEST_F(ExportTest, ZipWithoutInfoPlistFailsWhereADirectoryWouldLoad) {
    // A missing member is not "file not found" in a zip, so the optional Info.plist is required there.
    fs::path zip = root / "noinfo.zip";
    writeZip(zip, {"Manifest.plist", "Status.plist"}, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>", Z_DEFLATED);
    CF::Error failure;
    EXPECT_FALSE(OpenBackup(zip, nullptr, &failure));
    EXPECT_EQ(failure.Reason(), "Failed to load backup metadata file (Info.plist)");
    EXPECT_EQ(failure.Underlying().Reason(), "Could not locate file record in zip");
}
