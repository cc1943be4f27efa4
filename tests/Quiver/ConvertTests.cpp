// Conversions: a new password in place, decrypting and encrypting into new backups, the round trips
// between them on every generation the builder writes, and Manifest.mbdb backups moved to Manifest.db.
// Each result is also read by the independent reader, so that a conversion the library alone can read
// back is caught.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <signal.h>
#include <sys/resource.h>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVConvert.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "support/BackupBuilder.hpp"
#include "support/IndependentReader.hpp"
#include "support/TemporaryPath.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
using namespace QuiverTest;
namespace fs = std::filesystem;

namespace {

const fs::path kRealData = QUIVER_REALDATA;
constexpr QVPasswordParameters kFast{1, 1};

class ConvertTest : public ScratchBackupTest {
protected:
    BuiltBackup build(const std::string& name, const std::string& version, bool encrypted) {
        return BuildBackup(root / name, {.items = SampleItems(), .manifestVersion = version, .encrypted = encrypted});
    }

    static bool decrypt(const Backup& backup, const fs::path& destination, QVConversionOptions options = {},
                        std::vector<QVConversionProblem>* problems = nullptr, CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        const bool ok = QVBackupContainerExportDecrypted(
            backup, CF::String(destination.string()).get(), options,
            [&](const QVConversionProblem& p) {
                if (problems) problems->push_back(p);
            },
            nullptr, &error);
        CF::Error e = CF::Error::Adopt(error);
        if (failure) *failure = e;
        return ok;
    }

    static bool encrypt(const Backup& backup, const fs::path& destination, const char* password,
                        QVConversionOptions options = {}, CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        const bool ok = QVBackupContainerExportEncrypted(backup, CF::String(destination.string()).get(),
                                                         CF::String(password).get(), kFast, options, nullptr, nullptr,
                                                         &error);
        CF::Error e = CF::Error::Adopt(error);
        if (failure) *failure = e;
        return ok;
    }

    static bool withManifestDB(const Backup& backup, const fs::path& destination, QVConversionOptions options = {},
                               std::vector<QVConversionProblem>* problems = nullptr, CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        std::vector<double> fractions;
        const bool ok = QVBackupContainerExportWithManifestDB(
            backup, CF::String(destination.string()).get(), kFast, options,
            [&](const QVConversionProblem& p) {
                if (problems) problems->push_back(p);
            },
            [&](double fraction) { fractions.push_back(fraction); }, &error);
        CF::Error e = CF::Error::Adopt(error);
        if (failure) *failure = e;
        if (ok) {
            EXPECT_FALSE(fractions.empty());
            EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end())) << "the progress went back";
        }
        return ok;
    }

    static bool passwd(const fs::path& directory, const char* old, const char* fresh, CF::Error* failure = nullptr) {
        CFErrorRef error = nullptr;
        const bool ok = QVBackupChangePassword(CF::String(directory.string()).get(), CF::String(old).get(),
                                               CF::String(fresh).get(), kFast, &error);
        CF::Error e = CF::Error::Adopt(error);
        if (failure) *failure = e;
        return ok;
    }

    // Every file's plaintext by domain and path, as the independent reader finds it.
    static std::map<std::string, std::vector<uint8_t>> plaintexts(const IndependentBackup& backup) {
        std::map<std::string, std::vector<uint8_t>> files;
        for (const IndependentEntry& e : backup.entries)
            if (e.kind == IndependentEntry::Kind::File) files[e.domain + " " + e.relativePath] = e.plaintext;
        return files;
    }

    static std::map<std::string, std::vector<uint8_t>> plaintexts(const BuiltBackup& built) {
        std::map<std::string, std::vector<uint8_t>> files;
        for (const BuiltItem& item : built.items)
            if (item.kind == ItemKind::File) files[item.domain + " " + item.relativePath] = item.content;
        return files;
    }

    // Entry for entry: kind, mode, times, class, target and, for files, size and plaintext; with
    // sameRecords also everything else the record holds (owner, inode, the other two times, digest,
    // wrapped key, extended attributes).
    static void expectSameEntries(const Backup& a, const Backup& b, bool sameRecords = false) {
        const std::vector<Entry> entries = QVManifestGetEntries(a->manifest);
        ASSERT_EQ(entries.size(), QVManifestGetEntries(b->manifest).size());
        for (const Entry& e : entries) {
            Entry other = QVBackupContainerGetEntryForPath(b, QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e));
            ASSERT_TRUE(other) << to_string(e);
            EXPECT_EQ(other->mode, e->mode);
            EXPECT_EQ(QVManifestEntryIsFile(other), QVManifestEntryIsFile(e));
            EXPECT_EQ(QVManifestEntryIsDirectory(other), QVManifestEntryIsDirectory(e));
            EXPECT_EQ(other->lastModified, e->lastModified);
            EXPECT_EQ(other->protectionClass, e->protectionClass);
            EXPECT_EQ(other->target(), e->target());
            if (sameRecords) {
                EXPECT_EQ(other->birth, e->birth);
                EXPECT_EQ(other->lastStatusChange, e->lastStatusChange);
                EXPECT_EQ(other->userID, e->userID);
                EXPECT_EQ(other->groupID, e->groupID);
                EXPECT_EQ(other->inode, e->inode);
                EXPECT_TRUE(std::ranges::equal(other->digest(), e->digest())) << e->path();
                EXPECT_TRUE(std::ranges::equal(other->encryptionKey(), e->encryptionKey())) << e->path();
                EXPECT_EQ(other->properties, e->properties) << e->path();
            }
            if (!QVManifestEntryIsFile(e)) continue;
            EXPECT_EQ(other->size, e->size) << e->path();
            CFErrorRef error = nullptr;
            auto fa = QVBackupContainerCopyFileForPath(a, QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e), &error);
            auto fb = QVBackupContainerCopyFileForPath(b, QVManifestEntryGetDomain(e), QVManifestEntryGetPath(e), &error);
            ASSERT_TRUE(fa && fb) << CF::Error::Adopt(error).Text();
            EXPECT_EQ(ReadFileObject(fa), ReadFileObject(fb)) << e->path();
        }
    }
};

class EachGeneration : public ConvertTest, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Generations, EachGeneration, ::testing::Values("2.4", "3.0", "3.3"),
                         [](const auto& info) { return std::string(info.param[0] == '2' ? "Mbdb24" : info.param[2] == '0' ? "Db30" : "Db33"); });

// ---- A new password ----

TEST_P(EachGeneration, NewPasswordRewritesOnlyManifestPlistAndKeepsTheClassKeys) {
    const BuiltBackup built = build("b", GetParam(), true);
    const auto before = SnapshotTree(built.directory);
    CF::Error failure;
    ASSERT_TRUE(passwd(built.directory, "password", "n3w password", &failure)) << failure.Text();
    auto after = SnapshotTree(built.directory);
    ASSERT_EQ(before.size(), after.size()) << "a file was left beside Manifest.plist";
    for (const auto& [path, facts] : before) {
        if (path == "Manifest.plist" || path.empty()) continue;  // the folder's time changes with the rename
        EXPECT_EQ(after[path], facts) << path;
    }
    EXPECT_NE(after["Manifest.plist"], before.at("Manifest.plist"));

    EXPECT_FALSE(OpenBackup(built.directory, "password", &failure));
    EXPECT_EQ(ErrorContextValue(failure, kQVErrorCheckKey), "password");
    ASSERT_TRUE(OpenBackup(built.directory, "n3w password", &failure)) << failure.Text();
    EXPECT_EQ(plaintexts(ReadBackupIndependently(built.directory, "n3w password")), plaintexts(built));

    // The same class keys under the new password, derived in as many passes as before.
    const CF::Dictionary manifest = ReadPropertyList(built.directory / "Manifest.plist");
    const MB::KeyBag fresh(manifest.Get<CF::Data>("BackupKeyBag"), "n3w password");
    EXPECT_EQ(fresh.GetUnlockedKeys(), built.encryption->GetKeyBag().GetUnlockedKeys());
    EXPECT_EQ(fresh.GetManifestInfo().firstPass, std::string(GetParam()) >= "3.2");
    EXPECT_EQ(fresh.GetVersion(), built.encryption->GetKeyBag().GetVersion());
}

// A Manifest.plist that cannot be written whole (here a file-size limit) leaves the old one in place
// and nothing beside it: the backup still opens with the old password.
TEST_F(ConvertTest, NewPasswordThatCannotBeWrittenLeavesTheOldManifestPlist) {
    const BuiltBackup built = build("b", "3.3", true);
    const auto before = SnapshotTree(built.directory);
    const auto size = static_cast<rlim_t>(fs::file_size(built.directory / "Manifest.plist"));
    auto changeWithLimit = [&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{size / 2, size / 2};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::_Exit(10);
        CF::Error failure;
        if (passwd(built.directory, "password", "new", &failure)) std::_Exit(11);
        if (ErrorContextValue(failure, kQVErrorBackupFileKey) != "Manifest.plist") std::_Exit(12);
        std::_Exit(0);
    };
    EXPECT_EXIT(changeWithLimit(), ::testing::ExitedWithCode(0), "");
    auto after = SnapshotTree(built.directory);
    after.erase("");  // the folder's time records the temporary file that came and went
    auto expected = before;
    expected.erase("");
    EXPECT_EQ(after, expected);
    EXPECT_TRUE(OpenBackup(built.directory, "password"));
}

// ---- Decrypting ----

TEST_P(EachGeneration, DecryptedBackupIsPlainAsADeviceWritesIt) {
    const BuiltBackup built = build("b", GetParam(), true);
    Backup source = OpenBackup(built.directory, "password");
    ASSERT_TRUE(source);
    const fs::path out = root / "plain";
    CF::Error failure;
    ASSERT_TRUE(decrypt(source, out, {}, nullptr, &failure)) << failure.Text();

    const IndependentBackup plain = ReadBackupIndependently(out, "");
    EXPECT_FALSE(plain.encrypted);
    EXPECT_FALSE(plain.manifestEnciphered);
    EXPECT_EQ(plain.manifestName, built.manifestName);
    EXPECT_EQ(plaintexts(plain), plaintexts(built));
    for (const IndependentEntry& e : plain.entries) {
        if (e.kind != IndependentEntry::Kind::File) continue;
        EXPECT_EQ(e.size, e.plaintext.size()) << e.relativePath;
        // Digests, where recorded, are now of the plaintext that is stored.
        if (!e.digest.empty()) {
            EXPECT_TRUE(e.digestMatches) << e.relativePath;
        }
        EXPECT_EQ(e.protectionClass, built.Item(e.domain, e.relativePath).protectionClass);
    }
    const CF::Dictionary manifest = ReadPropertyList(out / "Manifest.plist");
    EXPECT_EQ(manifest.Get("IsEncrypted"), kCFBooleanFalse);
    EXPECT_FALSE(manifest.Contains("BackupKeyBag"));
    EXPECT_FALSE(manifest.Contains("ManifestKey"));
    EXPECT_EQ(ReadPropertyList(out / "Status.plist").Get<CF::String>("Version").utf8(), GetParam());

    Backup reopened = OpenBackup(out, nullptr, &failure);
    ASSERT_TRUE(reopened) << failure.Text();
    EXPECT_FALSE(QVBackupContainerIsEncrypted(reopened));
    for (const Entry& e : QVManifestGetEntries(reopened->manifest)) EXPECT_TRUE(e->encryptionKey().empty());
    expectSameEntries(source, reopened);
}

TEST_F(ConvertTest, DamagedFilesStopTheDecryptionUnlessLeftOut) {
    const BuiltBackup built = build("b", "3.3", true);
    const BuiltItem& gone = built.Item("AppDomain-com.example.notes", "Documents/large.db");
    const BuiltItem& cut = built.Item("HomeDomain", "Library/Preferences/block-and-one.bin");
    fs::remove(built.directory / gone.localFilename);
    std::vector<uint8_t> stored = ReadWholeFile(built.directory / cut.localFilename);
    stored.resize(stored.size() - 16);
    WriteWholeFile(built.directory / cut.localFilename, stored);
    Backup source = OpenBackup(built.directory, "password");
    ASSERT_TRUE(source);

    std::vector<QVConversionProblem> problems;
    CF::Error failure;
    EXPECT_FALSE(decrypt(source, root / "plain", {}, &problems, &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_FALSE(fs::exists(root / "plain"));
    EXPECT_EQ(std::distance(fs::directory_iterator(root), fs::directory_iterator()), 1) << "something was left behind";
    ASSERT_EQ(problems.size(), 2u);
    std::map<std::string, std::string> named;
    for (const auto& p : problems) named[p.path] = p.fileID;
    EXPECT_EQ(named["Documents/large.db"], gone.fileID);
    EXPECT_EQ(named["Library/Preferences/block-and-one.bin"], cut.fileID);

    problems.clear();
    ASSERT_TRUE(decrypt(source, root / "plain", {false, true}, &problems, &failure)) << failure.Text();
    EXPECT_EQ(problems.size(), 2u);
    auto expected = plaintexts(built);
    expected.erase("AppDomain-com.example.notes Documents/large.db");
    expected.erase("HomeDomain Library/Preferences/block-and-one.bin");
    EXPECT_EQ(plaintexts(ReadBackupIndependently(root / "plain", "")), expected);
}

// ---- Encrypting, and the round trips ----

TEST_P(EachGeneration, EncryptedBackupIsOfTheNewestGenerationAndDecryptsBackToThePlainOne) {
    const BuiltBackup built = build("b", GetParam(), false);
    Backup plain = OpenBackup(built.directory, nullptr);
    ASSERT_TRUE(plain);
    CF::Error failure;
    ASSERT_TRUE(encrypt(plain, root / "enc", "secret", {}, &failure)) << failure.Text();

    const IndependentBackup independent = ReadBackupIndependently(root / "enc", "secret");
    EXPECT_TRUE(independent.encrypted);
    EXPECT_TRUE(independent.manifestEnciphered);
    EXPECT_EQ(independent.manifestName, "Manifest.db");
    EXPECT_EQ(plaintexts(independent), plaintexts(built));
    for (const IndependentEntry& e : independent.entries) {
        if (e.kind != IndependentEntry::Kind::File) continue;
        EXPECT_EQ(e.protectionClass, built.Item(e.domain, e.relativePath).protectionClass) << e.relativePath;
    }
    EXPECT_EQ(ReadPropertyList(root / "enc" / "Status.plist").Get<CF::String>("Version").utf8(), "3.3");
    EXPECT_THROW(ReadBackupIndependently(root / "enc", "password"), std::runtime_error);

    // Each file under a key of its own: no two wrapped keys alike.
    Backup encrypted = OpenBackup(root / "enc", "secret", &failure);
    ASSERT_TRUE(encrypted) << failure.Text();
    const MB::KeyBag& keyBag = encrypted->manifestEncryption->GetKeyBag();
    EXPECT_TRUE(keyBag.GetManifestInfo().firstPass);
    std::set<std::vector<uint8_t>> keys;
    size_t files = 0;
    for (const Entry& e : QVManifestGetEntries(encrypted->manifest)) {
        if (!QVManifestEntryIsFile(e)) continue;
        ++files;
        keys.emplace(e->encryptionKey().begin(), e->encryptionKey().end());
    }
    EXPECT_EQ(keys.size(), files);

    ASSERT_TRUE(decrypt(encrypted, root / "back", {}, nullptr, &failure)) << failure.Text();
    Backup back = OpenBackup(root / "back", nullptr, &failure);
    ASSERT_TRUE(back) << failure.Text();
    expectSameEntries(plain, back);
    EXPECT_EQ(plaintexts(ReadBackupIndependently(root / "back", "")), plaintexts(built));
}

TEST_F(ConvertTest, EncryptThenNewPasswordThenDecryptKeepsThePlaintext) {
    const BuiltBackup built = build("b", "3.3", false);
    Backup plain = OpenBackup(built.directory, nullptr);
    ASSERT_TRUE(plain);
    CF::Error failure;
    ASSERT_TRUE(encrypt(plain, root / "enc.zip", "first", {true, false}, &failure)) << failure.Text();
    Backup zipped = OpenBackup(root / "enc.zip", "first", &failure);
    ASSERT_TRUE(zipped) << failure.Text();
    ASSERT_TRUE(QVBackupContainerExportToDirectory(zipped, CF::String((root / "enc").string()).get(), nullptr));
    zipped.reset();

    ASSERT_TRUE(passwd(root / "enc", "first", "second", &failure)) << failure.Text();
    Backup encrypted = OpenBackup(root / "enc", "second", &failure);
    ASSERT_TRUE(encrypted) << failure.Text();
    ASSERT_TRUE(decrypt(encrypted, root / "back", {}, nullptr, &failure)) << failure.Text();
    Backup back = OpenBackup(root / "back", nullptr, &failure);
    ASSERT_TRUE(back) << failure.Text();
    expectSameEntries(plain, back);
}

// ---- Moving a Manifest.mbdb backup to Manifest.db ----

class EachEncryption : public ConvertTest, public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Kinds, EachEncryption, ::testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "Encrypted" : "Plain"); });

// The layout and metadata of the newest generation, every record and stored byte as it was; an
// encrypted backup keeps its password, class keys and file keys, under a key bag of two passes and
// with its manifest enciphered.
TEST_P(EachEncryption, ManifestMbdbBackupMovesToManifestDBAndReadsTheSame) {
    const bool encrypted = GetParam();
    const char* password = encrypted ? "password" : nullptr;
    const BuiltBackup built = build("b", "2.4", encrypted);
    const auto before = SnapshotTree(built.directory);
    Backup source = OpenBackup(built.directory, password);
    ASSERT_TRUE(source);
    const fs::path out = root / "db";
    CF::Error failure;
    ASSERT_TRUE(withManifestDB(source, out, {}, nullptr, &failure)) << failure.Text();
    EXPECT_EQ(SnapshotTree(built.directory), before);

    EXPECT_TRUE(fs::is_regular_file(out / "Manifest.db"));
    EXPECT_FALSE(fs::exists(out / "Manifest.mbdb"));
    for (const BuiltItem& item : built.items) {
        if (item.kind != ItemKind::File) continue;
        EXPECT_EQ(ReadWholeFile(out / LocalFilename(item.fileID, "3.3")),
                  ReadWholeFile(built.directory / item.localFilename))
            << item.relativePath;
    }
    EXPECT_EQ(ReadPropertyList(out / "Status.plist").Get<CF::String>("Version").utf8(), "3.3");
    const CF::Dictionary manifest = ReadPropertyList(out / "Manifest.plist");
    EXPECT_EQ(manifest.Get<CF::String>("Version").utf8(), "10.0");
    EXPECT_EQ(manifest.Get("IsEncrypted"), encrypted ? kCFBooleanTrue : kCFBooleanFalse);
    EXPECT_EQ(manifest.Contains("ManifestKey"), encrypted);

    const IndependentBackup independent = ReadBackupIndependently(out, encrypted ? "password" : "");
    EXPECT_EQ(independent.manifestName, "Manifest.db");
    EXPECT_EQ(independent.encrypted, encrypted);
    EXPECT_EQ(independent.manifestEnciphered, encrypted);
    EXPECT_EQ(plaintexts(independent), plaintexts(built));
    for (const IndependentEntry& e : independent.entries) {
        if (e.kind != IndependentEntry::Kind::File) continue;
        const BuiltItem& item = built.Item(e.domain, e.relativePath);
        EXPECT_EQ(e.protectionClass, item.protectionClass) << e.relativePath;
        EXPECT_EQ(e.digest, item.digest) << e.relativePath;
        EXPECT_TRUE(e.digestMatches) << e.relativePath;
    }

    Backup upgraded = OpenBackup(out, password, &failure);
    ASSERT_TRUE(upgraded) << failure.Text();
    EXPECT_EQ(upgraded->manifestVersion, QVManifestDataVersion33);
    expectSameEntries(source, upgraded, true);
    if (!encrypted) return;
    const MB::KeyBag& keyBag = upgraded->manifestEncryption->GetKeyBag();
    EXPECT_TRUE(keyBag.GetManifestInfo().firstPass);
    EXPECT_EQ(keyBag.GetManifestInfo().dpic, kFast.iterations);
    EXPECT_EQ(keyBag.GetUnlockedKeys(), built.encryption->GetKeyBag().GetUnlockedKeys());
    EXPECT_FALSE(OpenBackup(out, "not the password", &failure));
}

// A backup with Manifest.db already is written as it is; damaged files as for the other conversions.
TEST_F(ConvertTest, ManifestDBBackupIsWrittenAsItIsAndDamageStopsTheMove) {
    const BuiltBackup db = build("db", "3.0", true);
    Backup source = OpenBackup(db.directory, "password");
    ASSERT_TRUE(source);
    CF::Error failure;
    ASSERT_TRUE(withManifestDB(source, root / "same", {}, nullptr, &failure)) << failure.Text();
    EXPECT_EQ(ReadPropertyList(root / "same" / "Status.plist").Get<CF::String>("Version").utf8(), "3.0");
    EXPECT_EQ(plaintexts(ReadBackupIndependently(root / "same", "password")), plaintexts(db));

    const BuiltBackup mbdb = build("mbdb", "2.4", true);
    const BuiltItem& gone = mbdb.Item("HomeDomain", "Library/Preferences/block.bin");
    fs::remove(mbdb.directory / gone.localFilename);
    source = OpenBackup(mbdb.directory, "password");
    ASSERT_TRUE(source);
    std::vector<QVConversionProblem> problems;
    EXPECT_FALSE(withManifestDB(source, root / "out.zip", {true, false}, &problems, &failure));
    EXPECT_EQ(failure.Code(), QVErrorInvalidBackup);
    EXPECT_FALSE(fs::exists(root / "out.zip"));
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].fileID, gone.fileID);
    ASSERT_TRUE(withManifestDB(source, root / "out.zip", {true, true}, nullptr, &failure)) << failure.Text();
    Backup zipped = OpenBackup(root / "out.zip", "password", &failure);
    ASSERT_TRUE(zipped) << failure.Text();
    EXPECT_EQ(zipped->manifestVersion, QVManifestDataVersion33);
    EXPECT_FALSE(QVBackupContainerGetEntryForPath(zipped, CFSTR("HomeDomain"), CFSTR("Library/Preferences/block.bin")));
    EXPECT_EQ(QVManifestGetEntries(zipped->manifest).size(), QVManifestGetEntries(source->manifest).size() - 1);
}

// ---- Real data ----

// Each class's WRAP and KTYP as a key bag says them, in class order.
std::map<uint32_t, std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> classMarks(const MB::KeyBag& keyBag) {
    std::map<uint32_t, std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> marks;
    uint32_t current = 0;
    for (const auto& [tag, value] : keyBag.GetRaw()) {
        if (tag == "CLAS" && value.size() == 4) current = value[3];
        if (tag == "WRAP" && current) marks[current].first = value;
        if (tag == "KTYP" && current) marks[current].second = value;
    }
    return marks;
}

// Key bags that devices wrote (iOS 9, one pass) take a new password keeping every class key, its
// marks and the key bag's version.
TEST_F(ConvertTest, RealKeyBagsTakeANewPassword) {
    const fs::path real = kRealData / "john-samples-manifests";
    if (!fs::exists(real)) GTEST_SKIP() << "no real data at " << real;
    for (const auto& [name, password] : {std::pair{"Manifest-9-test123.plist", "test123"},
                                         std::pair{"Manifest-9-123456.plist", "123456"}}) {
        SCOPED_TRACE(name);
        const fs::path folder = root / name;
        fs::create_directories(folder);
        fs::copy_file(real / name, folder / "Manifest.plist");
        const MB::KeyBag old(ReadPropertyList(folder / "Manifest.plist").Get<CF::Data>("BackupKeyBag"), password);
        CF::Error failure;
        ASSERT_TRUE(passwd(folder, password, "changed", &failure)) << failure.Text();
        const MB::KeyBag fresh(ReadPropertyList(folder / "Manifest.plist").Get<CF::Data>("BackupKeyBag"), "changed");
        EXPECT_EQ(fresh.GetUnlockedKeys(), old.GetUnlockedKeys());
        EXPECT_EQ(classMarks(fresh), classMarks(old));
        EXPECT_EQ(classMarks(old).size(), old.GetUnlockedKeys().size());
        EXPECT_EQ(fresh.GetVersion(), old.GetVersion());
        EXPECT_FALSE(fresh.GetManifestInfo().firstPass);
        EXPECT_THROW(MB::KeyBag(ReadPropertyList(folder / "Manifest.plist").Get<CF::Data>("BackupKeyBag"), password),
                     CF::Error);
    }
}

// ---- The real iOS 9 backup ----

std::string sha256(const std::vector<uint8_t>& bytes) {
    std::vector<uint8_t> digest(32);
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr);
    return Support::hex_encode(digest);
}

// The backup lacks one stored file: decrypting names it and writes nothing, and with the file left
// out every other decrypted file matches the answer key. Moved to Manifest.db it reads the same. Its
// one-pass key bag takes a new password (in a copy) and stays one-pass.
TEST_F(ConvertTest, RealIOS9BackupDecryptsToItsAnswersAndTakesANewPassword) {
    const fs::path real = kRealData / "hv20-encrypted-mbdb";
    if (!fs::exists(real / "answer_key.tsv")) GTEST_SKIP() << "no real data at " << real;
    Backup source = OpenBackup(real / "backup", "20201225");
    ASSERT_TRUE(source);
    std::vector<QVConversionProblem> problems;
    CF::Error failure;
    EXPECT_FALSE(decrypt(source, root / "plain", {}, &problems, &failure));
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_FALSE(fs::exists(root / "plain"));
    const std::string absent = problems[0].fileID;

    ASSERT_TRUE(decrypt(source, root / "plain", {false, true}, nullptr, &failure)) << failure.Text();
    source.reset();
    const IndependentBackup plain = ReadBackupIndependently(root / "plain", "");
    EXPECT_FALSE(plain.encrypted);
    std::map<std::string, std::string> decrypted;
    for (const IndependentEntry& e : plain.entries)
        if (e.kind == IndependentEntry::Kind::File) decrypted[e.fileID] = sha256(e.plaintext);
    std::ifstream answers(real / "answer_key.tsv");
    std::string line;
    std::getline(answers, line);
    int matched = 0;
    while (std::getline(answers, line)) {
        std::istringstream fields(line);
        std::vector<std::string> f(7);
        for (auto& field : f) std::getline(fields, field, '\t');
        if (f[6] == "ABSENT") {
            EXPECT_EQ(f[0], absent);
            EXPECT_FALSE(decrypted.contains(f[0]));
            continue;
        }
        EXPECT_EQ(decrypted[f[0]], f[6]) << f[1] << " " << f[2];
        matched += decrypted[f[0]] == f[6];
    }
    EXPECT_EQ(matched, 320);

    // Encrypted again, it is a backup of the newest generation that reads to the same answers.
    Backup plainSource = OpenBackup(root / "plain", nullptr, &failure);
    ASSERT_TRUE(plainSource) << failure.Text();
    ASSERT_TRUE(encrypt(plainSource, root / "enc", "again", {}, &failure)) << failure.Text();
    const IndependentBackup encrypted = ReadBackupIndependently(root / "enc", "again");
    EXPECT_TRUE(encrypted.manifestEnciphered);
    EXPECT_EQ(encrypted.manifestName, "Manifest.db");
    auto matching = [&](const IndependentBackup& backup) {  // files that read to the plaintext decrypted first
        size_t same = 0;
        for (const IndependentEntry& e : backup.entries)
            if (e.kind == IndependentEntry::Kind::File) same += decrypted.at(e.fileID) == sha256(e.plaintext);
        return same;
    };
    EXPECT_EQ(matching(encrypted), 320u);

    // Moved to Manifest.db (without the file it lacks), it reads the same under the same password, and
    // to the same answers in the independent reader.
    source = OpenBackup(real / "backup", "20201225");
    ASSERT_TRUE(source);
    ASSERT_TRUE(withManifestDB(source, root / "db", {false, true}, nullptr, &failure)) << failure.Text();
    Backup upgraded = OpenBackup(root / "db", "20201225", &failure);
    ASSERT_TRUE(upgraded) << failure.Text();
    EXPECT_TRUE(QVBackupContainerHasEncipheredManifest(upgraded));
    EXPECT_TRUE(upgraded->manifestEncryption->GetKeyBag().GetManifestInfo().firstPass);
    const Entry lacking = QVManifestGetEntryForFileID(source->manifest, CF::String(absent).get());
    QVManifestRemoveEntries(source->manifest, {lacking});
    expectSameEntries(source, upgraded, true);
    source.reset();
    upgraded.reset();
    const IndependentBackup db = ReadBackupIndependently(root / "db", "20201225");
    EXPECT_EQ(db.manifestName, "Manifest.db");
    EXPECT_TRUE(db.manifestEnciphered);
    EXPECT_EQ(matching(db), 320u);

    // A copy outside the project; the real folder is never written.
    fs::copy(real / "backup", root / "copy", fs::copy_options::recursive);
    ASSERT_TRUE(passwd(root / "copy", "20201225", "changed", &failure)) << failure.Text();
    EXPECT_FALSE(OpenBackup(root / "copy", "20201225", &failure));
    Backup changed = OpenBackup(root / "copy", "changed", &failure);
    ASSERT_TRUE(changed) << failure.Text();
    EXPECT_FALSE(changed->manifestEncryption->GetKeyBag().GetManifestInfo().firstPass);
}

}  // namespace
