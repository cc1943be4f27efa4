// Manifest encryption: opening from a Manifest.plist dictionary and a password, wrapped keys in both
// directions, and files and strings enciphered and deciphered.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/File.hpp"
#include "tests/Quiver/MB/KeyBagTestSupport.hpp"

namespace fs = std::filesystem;
using namespace KeyBagTest;
using MB::KeyBag;
using MB::ManifestEncryption;

namespace {

const std::string kPassword = "open sesame";
const MB::KeyBagParameters kFast{.version = 5, .type = 1, .iterations = 1, .dpIterations = 2, .dpwt = 1};
const uint32_t kClasses[] = {11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0x01020304};

Bytes Pseudorandom(std::size_t n, uint32_t seed) {
    std::mt19937 generator(seed);
    Bytes bytes(n);
    for (auto& b : bytes) b = static_cast<uint8_t>(generator());
    return bytes;
}

template <std::size_t N>
std::array<uint8_t, N> KeyOf(uint32_t seed) {
    Bytes b = Pseudorandom(N, seed);
    std::array<uint8_t, N> key{};
    std::copy(b.begin(), b.end(), key.begin());
    return key;
}

// AES-CBC with a zero initial value through EVP directly, as an independent reference.
Bytes ReferenceEncrypt(const Bytes& plain, std::span<const uint8_t> key) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    const uint8_t iv[16] = {};
    EVP_EncryptInit_ex(ctx, key.size() == 16 ? EVP_aes_128_cbc() : EVP_aes_256_cbc(), nullptr, key.data(), iv);
    Bytes out(plain.size() + 16);
    int n = 0, m = 0;
    EVP_EncryptUpdate(ctx, out.data(), &n, plain.data(), static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(ctx, out.data() + n, &m);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<std::size_t>(n + m));
    return out;
}

class ManifestEncryptionTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        encryption_.emplace(ManifestEncryption::Create(KeyBag::Create(kPassword, kClasses, kFast), 3));
        manifestKeyBlob_ = encryption_->LockKey(3, encryption_->GetManifestKey());
    }
    static void TearDownTestSuite() {
        encryption_.reset();
        manifestKeyBlob_ = CF::Data();
    }

    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "quiver-mb-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }

    static const ManifestEncryption& Encryption() { return *encryption_; }

    static CF::Dictionary Manifest(std::optional<CF::Data> keyBag, std::optional<CF::Data> manifestKey) {
        CF::Dictionary manifest = CF::Dictionary::CreateMutable();
        if (keyBag) manifest.Set("BackupKeyBag", *keyBag);
        if (manifestKey) manifest.Set("ManifestKey", *manifestKey);
        manifest.Set("IsEncrypted", kCFBooleanTrue);
        return manifest;
    }
    static CF::Dictionary GoodManifest() {
        return Manifest(Encryption().GetKeyBag().CopyData(), manifestKeyBlob_);
    }

    fs::path Write(const std::string& name, const Bytes& bytes) {
        fs::path path = dir_ / name;
        Quiver::Support::writable_file file(path);
        file.write(bytes);
        file.close();
        return path;
    }
    static Bytes Read(const fs::path& path) { return Quiver::Support::readable_file(path).read_whole_file(1 << 24); }

    static inline std::optional<ManifestEncryption> encryption_;
    static inline CF::Data manifestKeyBlob_;
    fs::path dir_;
};

// ---- construction

TEST_F(ManifestEncryptionTest, OpensWithThePasswordOnly) {
    ManifestEncryption opened(GoodManifest(), kPassword);
    EXPECT_EQ(opened.GetManifestKey(), Encryption().GetManifestKey());
    EXPECT_EQ(opened.GetKeyBag().GetUnlockedKeys(), Encryption().GetKeyBag().GetUnlockedKeys());
    EXPECT_EQ(ManifestEncryption(Encryption().GetKeyBag(), manifestKeyBlob_).GetManifestKey(),
              Encryption().GetManifestKey());
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption(GoodManifest(), "open sesame!"); }), QVErrorUnlockFailed,
                        "Failed to unlock a key (class 11)"));
}

TEST_F(ManifestEncryptionTest, MissingValuesAreReportedBeforeTheKeyBagIsRead) {
    // An unreadable key bag would give QVErrorInvalidKeyBag had it been read first.
    const CF::Data garbage(Bytes{1, 2, 3});
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption(Manifest(garbage, std::nullopt), kPassword); }),
                        QVErrorInvalidMetadata, "ManifestKey is missing"));
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption(Manifest(std::nullopt, std::nullopt), kPassword); }),
                        QVErrorInvalidMetadata, "BackupKeyBag is missing"));
    CF::Dictionary wrongType = Manifest(std::nullopt, manifestKeyBlob_).MutableCopy();
    wrongType.Set("BackupKeyBag", CF::String("not data"));
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption(wrongType, kPassword); }), QVErrorInvalidMetadata,
                        "BackupKeyBag is missing"));
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption(Manifest(garbage, manifestKeyBlob_), kPassword); }),
                        QVErrorInvalidKeyBag, "Incomplete header"));
}

TEST_F(ManifestEncryptionTest, ManifestKeyThatDoesNotUnwrapFailsConstruction) {
    Bytes otherClass = manifestKeyBlob_.vector();
    otherClass[0] = 12;  // a class the key bag lacks
    Bytes shortened = manifestKeyBlob_.vector();
    shortened.pop_back();
    for (const auto& [blob, cause] : {std::pair{otherClass, "Missing key class 12"},
                                      std::pair{shortened, "Key blob is wrong size"}}) {
        CF::Error e = Thrown(
            [&] { ManifestEncryption(Manifest(Encryption().GetKeyBag().CopyData(), CF::Data(blob)), kPassword); });
        ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock manifest key"));
        EXPECT_TRUE(IsError(e.Underlying(), QVErrorUnlockFailed, cause));
    }
}

// ---- wrapped keys

TEST_F(ManifestEncryptionTest, UnlockGivesBackWhatLockWrappedForEveryClass) {
    for (uint32_t c : kClasses) {
        const auto key = KeyOf<32>(c);
        CF::Data blob = Encryption().LockKey(c, key);
        ASSERT_EQ(blob.size(), 44u);
        // The class comes first, little-endian.
        EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 4),
                  (Bytes{static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c >> 16),
                         static_cast<uint8_t>(c >> 24)}));
        EXPECT_EQ(Encryption().UnlockKey(blob), key) << c;
    }
}

TEST_F(ManifestEncryptionTest, OnlyTheSameClassOfTheSameKeyBagUnlocks) {
    Bytes blob = Encryption().LockKey(4, KeyOf<32>(1)).vector();
    blob[0] = 3;  // relabelled as another class
    CF::Error e = Thrown([&] { Encryption().UnlockKey(CF::Data(blob)); });
    EXPECT_TRUE(IsError(e, QVErrorUnlockFailed, "RFC3394Unwrap failed: integrity check failed"));

    ManifestEncryption other = ManifestEncryption::Create(KeyBag::Create(kPassword, kClasses, kFast), 3);
    e = Thrown([&] { other.UnlockKey(Encryption().LockKey(4, KeyOf<32>(1))); });
    EXPECT_TRUE(IsError(e, QVErrorUnlockFailed, "RFC3394Unwrap failed: integrity check failed"));
}

TEST_F(ManifestEncryptionTest, UnlockRefusesBlobsOfTheWrongSize) {
    Bytes blob = Encryption().LockKey(4, KeyOf<32>(2)).vector();
    for (std::size_t size : {0, 4, 40, 43, 45, 48}) {
        Bytes resized = blob;
        resized.resize(size, 0);
        EXPECT_TRUE(IsError(Thrown([&] { Encryption().UnlockKey(CF::Data(resized)); }), QVErrorUnlockFailed,
                            "Key blob is wrong size"))
            << size;
    }
}

TEST_F(ManifestEncryptionTest, ClassesTheKeyBagLacksAreNamed) {
    Bytes blob = Encryption().LockKey(4, KeyOf<32>(3)).vector();
    blob[0] = 12;
    EXPECT_TRUE(IsError(Thrown([&] { Encryption().UnlockKey(CF::Data(blob)); }), QVErrorUnlockFailed,
                        "Missing key class 12"));
    EXPECT_TRUE(IsError(Thrown([&] { Encryption().LockKey(99, KeyOf<32>(3)); }), QVErrorCryptoOperation,
                        "Missing key class 99"));
    const uint32_t classes[] = {1, 2};
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption::Create(KeyBag::Create("x", classes, kFast), 4); }),
                        QVErrorCryptoOperation, "Missing key class 4"));
}

// ---- files and strings

TEST_F(ManifestEncryptionTest, FilesRoundTripWithEitherKeySize) {
    const auto key16 = KeyOf<16>(5);
    const auto key32 = KeyOf<32>(6);
    // Sizes around the block and across the streaming chunk.
    for (std::size_t size : {std::size_t{0}, std::size_t{15}, std::size_t{16}, std::size_t{(1 << 20) + 17}}) {
        const Bytes plain = Pseudorandom(size, static_cast<uint32_t>(size));
        fs::path source = Write("plain", plain);
        ManifestEncryption::EncryptFile(source, dir_ / "c16", key16);
        ManifestEncryption::EncryptFile(source, dir_ / "c32", key32);
        EXPECT_EQ(Read(dir_ / "c16"), ReferenceEncrypt(plain, key16)) << size;
        EXPECT_EQ(Read(dir_ / "c32"), ReferenceEncrypt(plain, key32)) << size;
        ManifestEncryption::DecryptFile(dir_ / "c16", dir_ / "p16", key16);
        ManifestEncryption::DecryptFile(dir_ / "c32", dir_ / "p32", key32);
        EXPECT_EQ(Read(dir_ / "p16"), plain) << size;
        EXPECT_EQ(Read(dir_ / "p32"), plain) << size;
    }
}

TEST_F(ManifestEncryptionTest, FailuresLeaveNoDestination) {
    const auto key32 = KeyOf<32>(7);
    const fs::path out = dir_ / "out";
    const fs::path cipher = Write("cipher", ReferenceEncrypt(Pseudorandom(100, 1), key32));
    const fs::path ragged = Write("ragged", Bytes(33, 1));
    const fs::path missing = dir_ / "missing";
    const std::vector<std::function<void()>> failures = {
        [&] { ManifestEncryption::DecryptFile(cipher, out, KeyOf<32>(8)); },  // wrong key: bad padding
        [&] { ManifestEncryption::DecryptFile(ragged, out, key32); },        // not whole blocks
        [&] { ManifestEncryption::EncryptFile(missing, out, KeyOf<16>(1)); },
    };
    for (const auto& failure : failures) {
        CF::Error e = Thrown(failure);
        EXPECT_EQ(e.Code(), QVErrorCryptoOperation);
        EXPECT_EQ(e.Reason().rfind("Failed to decrypt/encrypt: ", 0), 0u) << e.Text();
        EXPECT_FALSE(fs::exists(out));
    }
    EXPECT_NE(Thrown(failures[2]).Reason().find(missing.string()), std::string::npos);
    // Opening the destination would empty a source that is also the destination.
    EXPECT_EQ(Thrown([&] { ManifestEncryption::DecryptFile(cipher, cipher, key32); }).Code(), QVErrorCryptoOperation);
    EXPECT_EQ(Read(cipher), ReferenceEncrypt(Pseudorandom(100, 1), key32));
}

TEST_F(ManifestEncryptionTest, StringsRoundTripThroughBase64) {
    const auto key = KeyOf<16>(9);
    for (std::size_t size : {0, 5, 16, 100}) {
        const Bytes plain = Pseudorandom(size, 11);
        std::string text = ManifestEncryption::EncryptString(plain, key);
        EXPECT_EQ(text, Quiver::Support::base64_encode(ReferenceEncrypt(plain, key)));
        EXPECT_EQ(ManifestEncryption::DecryptString(text, key), plain);
    }
    const std::vector<std::string> texts = {"not base64!", "AAAA", Quiver::Support::base64_encode(Bytes(16, 0))};
    for (const std::string& bad : texts) {
        CF::Error e = Thrown([&] { ManifestEncryption::DecryptString(bad, key); });
        EXPECT_EQ(e.Code(), QVErrorCryptoOperation) << bad;
        EXPECT_EQ(e.Reason().rfind("Failed to decrypt/encrypt: ", 0), 0u) << e.Text();
    }
}

}  // namespace
