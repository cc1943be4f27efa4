// Manifest encryption: opening from a Manifest.plist dictionary and a password, wrapped keys in both
// directions, and files and strings enciphered and deciphered.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "support/BackupBuilder.hpp"
#include "tests/Quiver/MB/KeyBagTestSupport.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

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
    std::array<uint8_t, N> key{};
    std::ranges::copy(Pseudorandom(N, seed), key.begin());
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

class ManifestEncryptionTest : public QuiverTest::ScratchDirectoryTest {
protected:
    static void SetUpTestSuite() {
        encryption_.emplace(ManifestEncryption::Create(KeyBag::Create(kPassword, kClasses, kFast), 3));
        manifestKeyBlob_ = encryption_->LockKey(3, encryption_->GetManifestKey());
    }
    static void TearDownTestSuite() {
        encryption_.reset();
        manifestKeyBlob_ = CF::Data();
    }

    static const ManifestEncryption& Encryption() { return *encryption_; }

    static CF::Dictionary Manifest(std::optional<CF::Data> keyBag, std::optional<CF::Data> manifestKey) {
        CF::Dictionary manifest = CF::Dictionary::CreateMutable();
        if (keyBag) manifest.Set("BackupKeyBag", *keyBag);
        if (manifestKey) manifest.Set("ManifestKey", *manifestKey);
        return manifest;
    }
    static CF::Dictionary GoodManifest() { return Manifest(Encryption().GetKeyBag().CopyData(), manifestKeyBlob_); }
    static CF::Error Failure(const CF::Dictionary& manifest) { return Thrown([&] { ManifestEncryption(manifest, kPassword); }); }

    fs::path Write(const std::string& name, const Bytes& bytes) {
        QuiverTest::WriteWholeFile(root / name, bytes);
        return root / name;
    }
    static Bytes Read(const fs::path& path) { return QuiverTest::ReadWholeFile(path); }

    static inline std::optional<ManifestEncryption> encryption_;
    static inline CF::Data manifestKeyBlob_;
};

TEST_F(ManifestEncryptionTest, OpensWithThePasswordOnlyFromACompleteManifest) {
    ManifestEncryption opened(GoodManifest(), kPassword);
    EXPECT_EQ(opened.GetManifestKey(), Encryption().GetManifestKey());
    EXPECT_EQ(opened.GetKeyBag().GetUnlockedKeys(), Encryption().GetKeyBag().GetUnlockedKeys());
    EXPECT_EQ(ManifestEncryption(Encryption().GetKeyBag(), manifestKeyBlob_).GetManifestKey(),
              Encryption().GetManifestKey());
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption(GoodManifest(), "open sesame!"); }), QVErrorUnlockFailed,
                        "Failed to unlock a key (class 11)"));
    // Before iOS 10.2 there was no manifest key: the manifest is stored as it is.
    ManifestEncryption unenciphered(Manifest(Encryption().GetKeyBag().CopyData(), std::nullopt), kPassword);
    EXPECT_FALSE(unenciphered.HasManifestKey());
    EXPECT_EQ(Thrown([&] { unenciphered.GetManifestKey(); }).Code(), QVErrorInvalidArgument);
    EXPECT_EQ(unenciphered.UnlockKey(Encryption().LockKey(3, Encryption().GetManifestKey())), Encryption().GetManifestKey());
    // Values of the wrong kind are reported before the key bag is read, which would give QVErrorInvalidKeyBag.
    const CF::Data garbage(Bytes{1, 2, 3});
    CF::Dictionary textKey = Manifest(garbage, std::nullopt).MutableCopy();
    textKey.Set("ManifestKey", CF::String("not data"));
    EXPECT_TRUE(IsError(Failure(textKey), QVErrorInvalidMetadata, "ManifestKey is not data"));
    EXPECT_TRUE(IsError(Failure(Manifest(std::nullopt, std::nullopt)), QVErrorInvalidMetadata, "BackupKeyBag is missing"));
    CF::Dictionary wrongType = Manifest(std::nullopt, manifestKeyBlob_).MutableCopy();
    wrongType.Set("BackupKeyBag", CF::String("not data"));
    EXPECT_TRUE(IsError(Failure(wrongType), QVErrorInvalidMetadata, "BackupKeyBag is missing"));
    EXPECT_TRUE(IsError(Failure(Manifest(garbage, manifestKeyBlob_)), QVErrorInvalidKeyBag, "Incomplete header"));
}

TEST_F(ManifestEncryptionTest, UnlockGivesBackWhatLockWrappedForEveryClassAndNothingElse) {
    for (uint32_t c : kClasses) {
        const auto key = KeyOf<32>(c);
        CF::Data blob = Encryption().LockKey(c, key);
        ASSERT_EQ(blob.size(), 44u);
        Bytes label = U32(c);  // the class comes first, little-endian
        std::reverse(label.begin(), label.end());
        EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 4), label) << c;
        EXPECT_EQ(Encryption().UnlockKey(blob), key) << c;
    }
    // Blobs relabelled, of a class the key bag lacks or of a wrong size are refused, as manifest key too.
    const Bytes blob = Encryption().LockKey(4, KeyOf<32>(1)).vector();
    auto variant = [&](std::size_t size, uint8_t label) { Bytes b = blob; b[0] = label; b.resize(size); return b; };
    std::vector<std::pair<Bytes, std::string>> refusals = {
        {variant(44, 3), "RFC3394Unwrap failed: integrity check failed"}, {variant(44, 12), "Missing key class 12"}};
    for (std::size_t size : {0, 4, 40, 43, 45, 48}) refusals.emplace_back(variant(size, 4), "Key blob is wrong size");
    for (const auto& [bytes, reason] : refusals) {
        EXPECT_TRUE(IsError(Thrown([&] { Encryption().UnlockKey(CF::Data(bytes)); }), QVErrorUnlockFailed, reason));
        CF::Error e = Failure(Manifest(Encryption().GetKeyBag().CopyData(), CF::Data(bytes)));
        ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock manifest key")) << bytes.size() << " " << reason;
        EXPECT_TRUE(IsError(e.Underlying(), QVErrorUnlockFailed, reason));
    }
    // Locking under a missing class is the caller's fault, not a damaged backup.
    EXPECT_TRUE(IsError(Thrown([&] { Encryption().LockKey(99, KeyOf<32>(3)); }), QVErrorCryptoOperation, "Missing key class 99"));
    const uint32_t classes[] = {1, 2};
    EXPECT_TRUE(IsError(Thrown([&] { ManifestEncryption::Create(KeyBag::Create("x", classes, kFast), 4); }),
                        QVErrorCryptoOperation, "Missing key class 4"));
}

TEST_F(ManifestEncryptionTest, FailuresAreCryptoErrorsAndLeaveNoDestination) {
    const auto key32 = KeyOf<32>(7);
    const fs::path out = root / "out";
    const fs::path cipher = Write("cipher", ReferenceEncrypt(Pseudorandom(100, 1), key32));
    const fs::path ragged = Write("ragged", Bytes(33, 1));
    const fs::path missing = root / "missing";
    const std::vector<std::function<void()>> failures = {
        [&] { ManifestEncryption::DecryptFile(cipher, out, KeyOf<32>(8)); },  // wrong key: bad padding
        [&] { ManifestEncryption::DecryptFile(ragged, out, key32); },        // not whole blocks
        [&] { ManifestEncryption::EncryptFile(missing, out, KeyOf<16>(1)); },
        [&] { ManifestEncryption::DecryptString("not base64!", KeyOf<16>(9)); },
        [&] { ManifestEncryption::DecryptString("AAAA", KeyOf<16>(9)); },  // not whole blocks
        [&] { ManifestEncryption::DecryptString(Quiver::Support::base64_encode(Bytes(16, 0)), KeyOf<16>(9)); },
    };
    for (std::size_t i = 0; i < failures.size(); ++i) {
        CF::Error e = Thrown(failures[i]);
        EXPECT_EQ(e.Code(), QVErrorCryptoOperation) << i;
        EXPECT_EQ(e.Reason().rfind("Failed to decrypt/encrypt: ", 0), 0u) << e.Text();
        EXPECT_FALSE(fs::exists(out));
    }
    EXPECT_NE(Thrown(failures[2]).Reason().find(missing.string()), std::string::npos);
    // Opening the destination would empty a source that is also the destination.
    EXPECT_EQ(Thrown([&] { ManifestEncryption::DecryptFile(cipher, cipher, key32); }).Code(), QVErrorCryptoOperation);
    EXPECT_EQ(Read(cipher), ReferenceEncrypt(Pseudorandom(100, 1), key32));
}

}  // namespace
