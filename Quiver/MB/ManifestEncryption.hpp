// MB::ManifestEncryption: the keys of one encrypted backup.
//
// Built from the backup's Manifest.plist and its password, it opens the key bag (the slow part: the
// password derivation) and unwraps the manifest key, so that a wrong password is reported here and
// never later. Afterwards it wraps and unwraps per-file keys under the class keys ("LockKey" and
// "UnlockKey") and enciphers and deciphers whole files and strings. It is immutable once built and may
// be used from any number of threads.
//
// A wrapped key, as "ManifestKey" and each entry's encryption key hold it, is 44 bytes: the protection
// class as 4 bytes little-endian, then the 32-byte key wrapped per RFC 3394 under that class's key.
// Devices before iOS 10.2 wrote no "ManifestKey" and left the manifest as it is; each file's wrapped
// key stands in its manifest record in every generation.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/MB/KeyBag.hpp"

namespace MB {

class QV_EXPORT ManifestEncryption {
public:
    static constexpr std::size_t kWrappedKeySize = 44;

    // From the Manifest.plist dictionary ("BackupKeyBag", "ManifestKey" when present) and the password
    // (UTF-8). Throws QVErrorInvalidMetadata when the key bag is missing, the key bag's errors (a wrong
    // password among them), and QVErrorUnlockFailed when the manifest key does not unwrap.
    ManifestEncryption(const CF::Dictionary& manifest, const std::string& password);
    // From a key bag already opened and the wrapped manifest key (null: none); the same errors.
    ManifestEncryption(KeyBag keyBag, const CF::Data& manifestKey);

    // For a new encrypted backup: a fresh random manifest key. Its wrapped form for Manifest.plist is
    // LockKey(manifestKeyClass, GetManifestKey()); manifestKeyClass must be a class of the key bag.
    static ManifestEncryption Create(KeyBag keyBag, uint32_t manifestKeyClass = 4);

    ManifestEncryption(const ManifestEncryption&) = default;
    ManifestEncryption(ManifestEncryption&&) noexcept = default;
    ManifestEncryption& operator=(const ManifestEncryption&) = default;
    ManifestEncryption& operator=(ManifestEncryption&&) noexcept = default;
    ~ManifestEncryption();

    const KeyBag& GetKeyBag() const { return keyBag_; }
    // Whether the manifest is enciphered; GetManifestKey throws QVErrorInvalidArgument when it is not.
    bool HasManifestKey() const { return manifestKey_.has_value(); }
    std::array<uint8_t, 32> GetManifestKey() const;

    // The key inside a 44-byte wrapped key. Throws QVErrorUnlockFailed ("Key blob is wrong size",
    // "Missing key class N", "RFC3394Unwrap failed: ...").
    std::array<uint8_t, 32> UnlockKey(const CF::Data& blob) const;
    // The 44-byte wrapped form of key under class protectionClass. Throws QVErrorCryptoOperation
    // ("Missing key class N", ...).
    CF::Data LockKey(uint32_t protectionClass, const std::array<uint8_t, 32>& key) const;

    // AES-CBC with a zero initial value and PKCS#7 padding, AES-128 for 16-byte keys and AES-256 for
    // 32-byte keys, from a whole file to a new one. Any failure throws QVErrorCryptoOperation and leaves
    // no destination file behind.
    static void DecryptFile(const std::filesystem::path& source, const std::filesystem::path& destination,
                            const std::array<uint8_t, 16>& key);
    static void DecryptFile(const std::filesystem::path& source, const std::filesystem::path& destination,
                            const std::array<uint8_t, 32>& key);
    static void EncryptFile(const std::filesystem::path& source, const std::filesystem::path& destination,
                            const std::array<uint8_t, 16>& key);
    static void EncryptFile(const std::filesystem::path& source, const std::filesystem::path& destination,
                            const std::array<uint8_t, 32>& key);

    // An enciphered Manifest.db deciphered into out (at least the file's size), so that its plaintext
    // never rests on disk; returns the plaintext's length. Devices have written it both with and
    // without a padding block; whole pages tell which. Failures throw QVErrorCryptoOperation.
    static size_t DecryptDatabase(const std::filesystem::path& source, std::span<uint8_t> out,
                                  const std::array<uint8_t, 32>& key);

    // Base64 text of AES-128 ciphertext to plain bytes, and back. Throws QVErrorCryptoOperation.
    static std::vector<uint8_t> DecryptString(const std::string& text, const std::array<uint8_t, 16>& key);
    static std::string EncryptString(std::span<const uint8_t> plain, const std::array<uint8_t, 16>& key);

    // The key-encryption key of a key bag: PBKDF2-HMAC-SHA256 over the password with DPSL and DPIC, then
    // PBKDF2-HMAC-SHA1 over that result with SALT and ITER; without the first pass (info.firstPass
    // false) the second runs over the password itself. Slow on purpose; never fails.
    static std::array<uint8_t, 32> GenerateKEKFromPassword(const std::vector<uint8_t>& password,
                                                           const KeyBag::ManifestInfo& info);
    // The first 16 bytes of SHA-1(password || salt).
    static std::array<uint8_t, 16> GenerateDataKeyFromPassword(const std::vector<uint8_t>& password,
                                                               const std::array<uint8_t, 20>& salt);

private:
    ManifestEncryption(KeyBag keyBag, const std::array<uint8_t, 32>& manifestKey);

    KeyBag keyBag_;
    std::optional<std::array<uint8_t, 32>> manifestKey_;
};

}  // namespace MB
