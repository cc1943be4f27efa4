// Manifest entries: names and file IDs, the creators' fixed attributes, copies, the lazy file fetch,
// attribute cloning and per-file keys.
#include <gtest/gtest.h>

#include <array>
#include <regex>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVManifestEntry.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/Hash.hpp"
#include "support/TemporaryPath.hpp"

using namespace Quiver;

namespace {

std::string text(CFStringRef s) { return CF::String::Retain(s).utf8(); }

CF::String str(const char* s) { return CF::String(s); }

class ManifestEntryTest : public ::testing::Test {
protected:
    void SetUp() override { QuiverTest::UseTestTemporaryPath(); }

    static std::shared_ptr<QVFileClass> fileOf(const std::string& content) {
        return QVFileCreateFromData(std::vector<uint8_t>(content.begin(), content.end()), nullptr);
    }

    // One key bag for the whole suite: derivation with small counts is still the slow part.
    static const MB::ManifestEncryption& encryption() {
        static const MB::ManifestEncryption* e = [] {
            MB::KeyBagParameters parameters;
            parameters.iterations = 10;
            parameters.dpIterations = 10;
            const uint32_t classes[] = {1, 2, 3, 4};
            return new MB::ManifestEncryption(
                MB::ManifestEncryption::Create(MB::KeyBag::Create("secret", classes, parameters)));
        }();
        return *e;
    }
};

}  // namespace

TEST_F(ManifestEntryTest, FileIDIsTheLowercaseSha1OfDomainHyphenPathDeviceFilenameTheLastComponent) {
    CF::String id = CF::String::Adopt(QVManifestEntryCopyFileIDForPath(CFSTR("HomeDomain"), CFSTR("Library/a.db")));
    std::string expected = "HomeDomain-Library/a.db";
    EXPECT_EQ(id.utf8(), Support::hex_encode(Support::Sha1({reinterpret_cast<const uint8_t*>(expected.data()), expected.size()})));
    EXPECT_TRUE(std::regex_match(id.utf8(), std::regex("[0-9a-f]{40}")));
    auto entry = QVManifestEntryCreateForDirectory(CFSTR("HomeDomain"), CFSTR("Library/a.db"));
    EXPECT_EQ(text(QVManifestEntryGetFileID(entry)), id.utf8());
    EXPECT_EQ(text(QVManifestEntryGetDomainPathPair(entry)), expected);
    // An empty path still names the domain.
    EXPECT_EQ(CF::String::Adopt(QVManifestEntryCopyFileIDForPath(CFSTR("HomeDomain"), CFSTR(""))).utf8().size(), 40u);
    for (auto [path, name] : {std::pair<const char*, const char*>{"a/b/c.txt", "c.txt"}, {"plain", "plain"}, {"dir/", ""}, {"", ""}})
        EXPECT_EQ(text(QVManifestEntryGetDeviceFilename(QVManifestEntryCreateForDirectory(CFSTR("D"), str(path).get()))), name);
}

TEST_F(ManifestEntryTest, CreatorsSetTheirFixedAttributesAndFilesNeedACachedContent) {
    auto dir = QVManifestEntryCreateForDirectory(CFSTR("D"), CFSTR("x"));
    EXPECT_EQ(QVManifestEntryGetFileMode(dir), 0x41ED);
    EXPECT_EQ(QVManifestEntryGetFileType(dir), 2);
    EXPECT_EQ(QVManifestEntryGetProtectionClass(dir), EntryProtectionClassNotSet);
    EXPECT_TRUE(QVManifestEntryIsDirectory(dir));
    EXPECT_EQ(QVManifestEntryGetFileSize(dir), 0u);

    auto link = QVManifestEntryCreateForSymlink(CFSTR("D"), CFSTR("l"), CFSTR("../target"));
    EXPECT_EQ(QVManifestEntryGetFileMode(link), 0xA1ED);
    EXPECT_EQ(QVManifestEntryGetFileType(link), 4);
    EXPECT_EQ(text(QVManifestEntryGetTarget(link)), "../target");
    EXPECT_TRUE(QVManifestEntryIsSymlink(link));

    auto content = fileOf("hello");
    CFErrorRef error = nullptr;
    auto file = QVManifestEntryCreateForFile(content, CFSTR("D"), CFSTR("f.txt"), nullptr, &error);
    ASSERT_TRUE(file);
    EXPECT_EQ(QVManifestEntryGetFileMode(file), 0x81A4);
    EXPECT_EQ(QVManifestEntryGetFileType(file), 1);
    EXPECT_EQ(QVManifestEntryGetProtectionClass(file), EntryProtectionClassNone);
    EXPECT_EQ(QVManifestEntryGetFileSize(file), 5u);
    EXPECT_EQ(CF::Data::Retain(QVManifestEntryGetDataHash(file)).vector(), QVFileGetHash(content));
    EXPECT_EQ(CFDataGetLength(QVManifestEntryGetEncryptionData(file)), 0);
    uint32_t uid = 0, gid = 0;
    CFDateRef modified = nullptr;
    QVManifestEntryCopyFilesystemAttributes(file, nullptr, &uid, &gid, nullptr, &modified, nullptr);
    EXPECT_EQ(uid, 501u);
    EXPECT_EQ(gid, 501u);
    ASSERT_NE(modified, nullptr);
    EXPECT_EQ(CFGetRetainCount(modified), 1);  // a new date for the caller
    CFRelease(modified);
    EXPECT_TRUE(file->external);
    // A file object whose bytes are not where it says cannot become an entry's content.
    auto phantom = std::make_shared<QVFileClass>();
    phantom->localPath = CF::String("/nonexistent/quiver/file");
    phantom->digest = {1, 2, 3};
    error = nullptr;
    EXPECT_FALSE(QVManifestEntryCreateForFile(phantom, CFSTR("D"), CFSTR("f"), nullptr, &error));
    CF::Error e = CF::Error::Adopt(error);
    EXPECT_EQ(e.Code(), QVErrorCachedFileAccess);
    EXPECT_EQ(e.Reason(), "No valid cache reference available for created file (010203)");
}

TEST_F(ManifestEntryTest, GeneratedKeyEnciphersTheContentAndUnlocksAgain) {
    const std::string plain = "the content of a new file in an encrypted backup";
    auto entry = QVManifestEntryCreateForFile(fileOf(plain), CFSTR("D"), CFSTR("new"), nullptr, nullptr);
    CFErrorRef error = nullptr;
    ASSERT_TRUE(QVManifestEntryGenerateFileKey(entry, encryption(), &error));
    EXPECT_EQ(CFDataGetLength(QVManifestEntryGetEncryptionData(entry)), 44);
    EXPECT_EQ(QVManifestEntryGetProtectionClass(entry), EntryProtectionClassNone);

    // The entry keeps its plain content; the wrapped key unlocks to the key that enciphers a copy.
    auto generated = entry->unlockedKey();
    entry->unlockedKey().reset();
    auto key = QVManifestEntryUnlockFileKey(entry, encryption(), &error);
    ASSERT_TRUE(key);
    EXPECT_EQ(key, generated);
    auto copy = QVFileCreateCopy(QVManifestEntryGetFile(entry, nullptr));
    _QVFileSetEncryptionKey(copy, *key);
    std::vector<uint8_t> stored;
    QVFileGetData(copy, 0, [&](const std::vector<uint8_t>& chunk) {
        stored.insert(stored.end(), chunk.begin(), chunk.end());
        return true;
    });
    auto back = Support::Cryptor::Decrypt(Support::Cryptor::Algorithm::AES256, *key, {}, stored);
    EXPECT_EQ(std::string(back.begin(), back.end()), plain);

    // A second generation is refused and changes nothing.
    const std::vector<uint8_t> before(entry->encryptionKey().begin(), entry->encryptionKey().end());
    EXPECT_FALSE(QVManifestEntryGenerateFileKey(entry, encryption(), &error));
    CF::Error e = CF::Error::Adopt(error);
    EXPECT_EQ(e.Reason(), "Impossible to generate a file key for an entry that already has one (protection class None)");
    EXPECT_EQ(std::vector<uint8_t>(entry->encryptionKey().begin(), entry->encryptionKey().end()), before);
}

TEST_F(ManifestEntryTest, UnlockReportsABadWrappedKeyAndGenerationNeedsARegularFile) {
    auto entry = QVManifestEntryCreateForDirectory(CFSTR("D"), CFSTR("f"));
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVManifestEntryUnlockFileKey(entry, encryption(), &error));
    EXPECT_EQ(error, nullptr);  // no key, no error
    EXPECT_FALSE(QVManifestEntryGenerateFileKey(entry, encryption(), &error));
    EXPECT_EQ(CF::Error::Adopt(error).Reason(),
              "Impossible to generate a file key for an entry that doesn't represent a file");
    std::vector<uint8_t> junk(44, 0x11);
    junk[0] = 4;
    junk[1] = junk[2] = junk[3] = 0;
    entry->SetTexts({{QVManifestEntryClass::kEncryptionKey, {reinterpret_cast<const char*>(junk.data()), junk.size()}}});
    error = nullptr;
    EXPECT_FALSE(QVManifestEntryUnlockFileKey(entry, encryption(), &error));
    CF::Error e = CF::Error::Adopt(error);
    EXPECT_EQ(e.Code(), QVErrorUnlockFailed);
    EXPECT_EQ(e.Reason(), "Failed to unlock file key for entry");
    EXPECT_TRUE(e.Underlying());
}
