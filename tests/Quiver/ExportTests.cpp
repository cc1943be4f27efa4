// Export to a directory and to a zip file, and the zip source: round trips in all four combinations
// of plain or encrypted and directory or zip, an independent reader of an exported encrypted backup,
// and damaged zip files.
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <plist/plist.h>
#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <filesystem>

#include <minizip/zip.h>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "support/BackupBuilder.hpp"
#include "support/TemporaryPath.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

class ExportTest : public ScratchDirectoryTest {
protected:
    void SetUp() override {
        ScratchDirectoryTest::SetUp();
        UseTestTemporaryPath();
    }

    Backup open(const fs::path& p, const char* password, bool zip, CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        CF::String pw = password ? CF::String(password) : CF::String();
        Backup b = zip ? QVBackupContainerCreateFromZipFile(CF::String(p.string()).get(), pw.get(), nullptr, &error)
                       : QVBackupContainerCreateFromDirectory(CF::String(p.string()).get(), pw.get(), nullptr, &error);
        CF::Error e = CF::Error::Adopt(error);
        if (failure) *failure = e;
        return b;
    }

    static void expectSameContents(const Backup& a, const Backup& b) {
        auto entries = QVManifestGetEntries(a->manifest);
        ASSERT_EQ(entries.size(), QVManifestGetEntries(b->manifest).size());
        for (const Entry& e : entries) {
            Entry other = QVManifestGetEntryForFileID(b->manifest, QVManifestEntryGetFileID(e));
            ASSERT_TRUE(other);
            EXPECT_EQ(other->mode, e->mode);
            EXPECT_EQ(other->size, e->size);
            EXPECT_TRUE(other->target == e->target);
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

TEST_F(ExportTest, RoundTripsThroughDirectoriesAndZipsPlainAndEncrypted) {
    for (bool encrypted : {false, true}) {
        SCOPED_TRACE(encrypted ? "encrypted" : "plain");
        BackupDescription description;
        description.items = SampleItems();
        description.encrypted = encrypted;
        std::string tag = encrypted ? "e" : "p";
        BuiltBackup built = BuildBackup(root / ("source" + tag), description);
        const char* password = encrypted ? "password" : nullptr;
        Backup source = open(built.directory, password, false);
        ASSERT_TRUE(source);
        // An edit, so that exports carry a file that the source never stored.
        const std::vector<uint8_t> added = {'a', 'd', 'd', 'e', 'd'};
        ASSERT_TRUE(QVBackupContainerStoreFileForPath(source, CFSTR("HomeDomain"), CFSTR("Documents/added.txt"),
                                                      QVFileCreateFromData(added, nullptr), nullptr));

        fs::path dir = root / ("dir" + tag), zip = root / ("backup" + tag + ".zip");
        std::vector<double> fractions;
        ASSERT_EQ(QVBackupContainerExportToDirectory(source, CF::String(dir.string()).get(),
                                                     [&](double f) { fractions.push_back(f); }),
                  1);
        EXPECT_FALSE(fractions.empty());
        ASSERT_EQ(QVBackupContainerExportToZip(source, CF::String(zip.string()).get(), nullptr), 1);
        EXPECT_TRUE(fs::is_regular_file(dir / "Manifest.db"));
        EXPECT_TRUE(fs::is_regular_file(dir / "Status.plist"));

        for (bool fromZip : {false, true}) {
            SCOPED_TRACE(fromZip ? "from zip" : "from directory");
            CF::Error failure;
            Backup back = open(fromZip ? zip : dir, password, fromZip, &failure);
            ASSERT_TRUE(back) << failure.Text();
            EXPECT_EQ(QVBackupContainerIsEncrypted(back), encrypted ? 1 : 0);
            expectSameContents(source, back);
            auto file = QVBackupContainerCopyFileForPath(back, CFSTR("HomeDomain"), CFSTR("Documents/added.txt"), nullptr);
            ASSERT_TRUE(file);
            EXPECT_EQ(ReadFileObject(file), added);
            // And once more from what was read: zip to directory and zip to zip.
            fs::path again = root / ("again" + tag + (fromZip ? "z" : "d"));
            ASSERT_EQ(QVBackupContainerExportToZip(back, CF::String(again.string() + ".zip").get(), nullptr), 1);
            Backup third = open(again.string() + ".zip", password, true);
            ASSERT_TRUE(third);
            expectSameContents(back, third);
        }
    }
}

TEST_F(ExportTest, ExistingDestinationsAreNeverWrittenIntoAndFilesThatCannotBeLoadedAreReported) {
    BuiltBackup built = BuildBackup(root / "src", BackupDescription{.items = SampleItems()});
    Backup source = open(built.directory, nullptr, false);
    ASSERT_TRUE(source);
    fs::create_directories(root / "taken");
    EXPECT_EQ(QVBackupContainerExportToDirectory(source, CF::String((root / "taken").string()).get(), nullptr), 0);
    EXPECT_TRUE(fs::is_empty(root / "taken"));
    WriteWholeFile(root / "taken.zip", {'x'});
    EXPECT_EQ(QVBackupContainerExportToZip(source, CF::String((root / "taken.zip").string()).get(), nullptr), 0);
    EXPECT_EQ(fs::file_size(root / "taken.zip"), 1u);
    // A stored file gone after opening: the export fails, but the rest is written.
    auto victim = std::find_if(built.items.rbegin(), built.items.rend(), [](auto& i) { return i.kind == ItemKind::File; });
    fs::remove(built.directory / victim->localFilename);
    fs::path out = root / "out";
    EXPECT_EQ(QVBackupContainerExportToDirectory(source, CF::String(out.string()).get(), nullptr), 0);
    EXPECT_FALSE(fs::exists(out / victim->localFilename));
    EXPECT_TRUE(fs::exists(out / "Manifest.db"));
}

TEST_F(ExportTest, DamagedZipsFailWithTheirErrors) {
    BuiltBackup built = BuildBackup(root / "src", BackupDescription{.items = SampleItems()});
    Backup source = open(built.directory, nullptr, false);
    fs::path zip = root / "b.zip";
    ASSERT_EQ(QVBackupContainerExportToZip(source, CF::String(zip.string()).get(), nullptr), 1);
    auto bytes = ReadWholeFile(zip);

    CF::Error failure;
    WriteWholeFile(root / "truncated.zip", std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
    EXPECT_FALSE(open(root / "truncated.zip", nullptr, true, &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_FALSE(open(root / "missing.zip", nullptr, true, &failure));
    EXPECT_EQ(failure.Reason(), "Failed to open zip file (" + (root / "missing.zip").string() + ")");

    // Flip one byte inside every member's data in turn: each load or read fails cleanly or, where the
    // byte was in a part that is not checked, succeeds; never a crash.
    for (size_t at = 64; at < bytes.size(); at += bytes.size() / 40) {
        auto damaged = bytes;
        damaged[at] ^= 0x55;
        fs::path p = root / "damaged.zip";
        fs::remove(p);
        WriteWholeFile(p, damaged);
        Backup b = open(p, nullptr, true);
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
    EXPECT_FALSE(open(zip, nullptr, true, &failure));
    EXPECT_EQ(failure.Reason(), "Unsupported version '9.9' specified");  // the members read fine
    auto bytes = ReadWholeFile(zip);
    std::string text(bytes.begin(), bytes.end());
    bytes[text.find("9.9")] = '8';  // inside the first member's data
    fs::remove(zip);
    WriteWholeFile(zip, bytes);
    EXPECT_FALSE(open(zip, nullptr, true, &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_EQ(failure.Reason(), "Failed to load backup metadata file (Manifest.plist)");
    EXPECT_EQ(failure.Underlying().Reason(), "Failed to extract file data");
}

TEST_F(ExportTest, ZipWithoutInfoPlistFailsWhereADirectoryWouldLoad) {
    // A missing member is not "file not found" in a zip, so the optional Info.plist is required there.
    fs::path zip = root / "noinfo.zip";
    writeZip(zip, {"Manifest.plist", "Status.plist"}, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>", Z_DEFLATED);
    CF::Error failure;
    EXPECT_FALSE(open(zip, nullptr, true, &failure));
    EXPECT_EQ(failure.Reason(), "Failed to load backup metadata file (Info.plist)");
    EXPECT_EQ(failure.Underlying().Reason(), "Could not locate file record in zip");
}

namespace {

// ---- An independent reader, from the format alone: OpenSSL for the ciphers and the derivation,
// libplist for the property lists, SQLite for the database. ----

std::vector<uint8_t> dataOf(plist_t node) {
    char* bytes = nullptr;
    uint64_t length = 0;
    plist_get_data_val(node, &bytes, &length);
    std::vector<uint8_t> out(bytes, bytes + length);
    free(bytes);
    return out;
}

std::map<std::string, std::vector<uint8_t>> tlv(const std::vector<uint8_t>& blob, std::vector<std::map<std::string, std::vector<uint8_t>>>& classes) {
    std::map<std::string, std::vector<uint8_t>> header;
    std::map<std::string, std::vector<uint8_t>>* current = &header;
    int uuids = 0;
    for (size_t pos = 0; pos + 8 <= blob.size();) {
        std::string tag(blob.begin() + static_cast<long>(pos), blob.begin() + static_cast<long>(pos) + 4);
        uint32_t length = (uint32_t{blob[pos + 4]} << 24) | (uint32_t{blob[pos + 5]} << 16) | (uint32_t{blob[pos + 6]} << 8) | blob[pos + 7];
        std::vector<uint8_t> value(blob.begin() + static_cast<long>(pos) + 8, blob.begin() + static_cast<long>(pos + 8 + length));
        if (tag == "UUID" && ++uuids > 1) {
            classes.emplace_back();
            current = &classes.back();
        }
        (*current)[tag] = value;
        pos += 8 + length;
    }
    return header;
}

uint32_t be32(const std::vector<uint8_t>& v) { return (uint32_t{v[0]} << 24) | (uint32_t{v[1]} << 16) | (uint32_t{v[2]} << 8) | v[3]; }

std::vector<uint8_t> unwrap(const std::vector<uint8_t>& kek, const uint8_t* wrapped, size_t length) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_CIPHER_CTX_set_flags(ctx, EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    std::vector<uint8_t> out(length);
    int n = 0;
    bool ok = EVP_DecryptInit_ex(ctx, EVP_aes_256_wrap(), nullptr, kek.data(), nullptr) == 1 &&
              EVP_DecryptUpdate(ctx, out.data(), &n, wrapped, static_cast<int>(length)) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok) return {};
    out.resize(static_cast<size_t>(n));
    return out;
}

std::vector<uint8_t> decrypt(const std::vector<uint8_t>& key, const std::vector<uint8_t>& data) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    uint8_t iv[16] = {};
    std::vector<uint8_t> out(data.size() + 16);
    int n = 0, m = 0;
    bool ok = EVP_DecryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key.data(), iv) == 1 &&
              EVP_DecryptUpdate(ctx, out.data(), &n, data.data(), static_cast<int>(data.size())) == 1 &&
              EVP_DecryptFinal_ex(ctx, out.data() + n, &m) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok) return {};
    out.resize(static_cast<size_t>(n + m));
    return out;
}

}  // namespace

TEST_F(ExportTest, IndependentReaderDecryptsAnExportedEncryptedBackup) {
    BackupDescription description{.items = SampleItems(), .encrypted = true};
    BuiltBackup built = BuildBackup(root / "src", description);
    Backup source = open(built.directory, "password", false);
    ASSERT_TRUE(source);
    const std::vector<uint8_t> added = {'n', 'e', 'w', ' ', 'f', 'i', 'l', 'e'};
    ASSERT_TRUE(QVBackupContainerStoreFileForPath(source, CFSTR("MediaDomain"), CFSTR("Media/new.bin"),
                                                  QVFileCreateFromData(added, nullptr), nullptr));
    fs::path out = root / "out";
    ASSERT_EQ(QVBackupContainerExportToDirectory(source, CF::String(out.string()).get(), nullptr), 1);

    // Manifest.plist: key bag and manifest key.
    auto plistBytes = ReadWholeFile(out / "Manifest.plist");
    plist_t manifest = nullptr;
    plist_from_memory(reinterpret_cast<const char*>(plistBytes.data()), static_cast<uint32_t>(plistBytes.size()), &manifest);
    ASSERT_NE(manifest, nullptr);
    auto keybag = dataOf(plist_dict_get_item(manifest, "BackupKeyBag"));
    auto manifestKey = dataOf(plist_dict_get_item(manifest, "ManifestKey"));
    plist_free(manifest);

    std::vector<std::map<std::string, std::vector<uint8_t>>> classes;
    auto header = tlv(keybag, classes);
    std::vector<uint8_t> stage(32), kek(32);
    const std::string password = "password";
    ASSERT_EQ(PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), header["DPSL"].data(),
                                static_cast<int>(header["DPSL"].size()), static_cast<int>(be32(header["DPIC"])),
                                EVP_sha256(), 32, stage.data()), 1);
    ASSERT_EQ(PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(stage.data()), 32, header["SALT"].data(),
                                static_cast<int>(header["SALT"].size()), static_cast<int>(be32(header["ITER"])),
                                EVP_sha1(), 32, kek.data()), 1);
    std::map<uint32_t, std::vector<uint8_t>> classKeys;
    for (auto& c : classes) {
        auto key = unwrap(kek, c["WPKY"].data(), c["WPKY"].size());
        ASSERT_EQ(key.size(), 32u);
        classKeys[be32(c["CLAS"])] = key;
    }
    auto unwrapBlob = [&](const std::vector<uint8_t>& blob) {
        uint32_t cls = blob[0] | (uint32_t{blob[1]} << 8) | (uint32_t{blob[2]} << 16) | (uint32_t{blob[3]} << 24);
        return unwrap(classKeys.at(cls), blob.data() + 4, blob.size() - 4);
    };
    auto dbKey = unwrapBlob(manifestKey);
    ASSERT_EQ(dbKey.size(), 32u);
    auto plainDB = decrypt(dbKey, ReadWholeFile(out / "Manifest.db"));
    ASSERT_FALSE(plainDB.empty());
    WriteWholeFile(root / "plain.db", plainDB);

    // Each file row: the MBFile's EncryptionKey unwraps to the key of the stored file.
    SQLite::Database db((root / "plain.db").string(), SQLite::OPEN_READONLY);
    SQLite::Statement rows(db, "SELECT fileID, relativePath, file FROM Files WHERE flags = 1");
    int files = 0;
    bool sawAdded = false;
    while (rows.executeStep()) {
        const std::string id = rows.getColumn(0).getString(), relative = rows.getColumn(1).getString();
        const SQLite::Column blob = rows.getColumn(2);
        plist_t archive = nullptr;
        plist_from_bin(static_cast<const char*>(blob.getBlob()), static_cast<uint32_t>(blob.getBytes()), &archive);
        ASSERT_NE(archive, nullptr);
        plist_t objects = plist_dict_get_item(archive, "$objects");
        uint64_t rootIndex = 0;
        plist_get_uid_val(plist_dict_get_item(plist_dict_get_item(archive, "$top"), "root"), &rootIndex);
        plist_t record = plist_array_get_item(objects, static_cast<uint32_t>(rootIndex));
        uint64_t keyIndex = 0;
        plist_get_uid_val(plist_dict_get_item(record, "EncryptionKey"), &keyIndex);
        plist_t keyObject = plist_array_get_item(objects, static_cast<uint32_t>(keyIndex));
        if (plist_get_node_type(keyObject) == PLIST_DICT) keyObject = plist_dict_get_item(keyObject, "NS.data");
        auto wrapped = dataOf(keyObject);
        plist_free(archive);
        auto fileKey = unwrapBlob(wrapped);
        ASSERT_EQ(fileKey.size(), 32u) << relative;
        auto stored = ReadWholeFile(out / id.substr(0, 2) / id);
        auto plain = decrypt(fileKey, stored);
        if (relative == "Media/new.bin") {
            EXPECT_EQ(plain, added);
            sawAdded = true;
        } else if (!stored.empty()) {
            EXPECT_FALSE(plain.empty() && stored.size() > 16) << relative;
        }
        ++files;
    }
    EXPECT_TRUE(sawAdded);
    EXPECT_GT(files, 3);
}
