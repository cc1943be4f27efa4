// The keys of an encrypted backup; see ManifestEncryption.hpp.
#include "Quiver/MB/ManifestEncryption.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>
#include <openssl/crypto.h>

#include "Quiver/MB/PBKDF2.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/Support/KeyWrap.hpp"
#include "Quiver/Support/Random.hpp"

namespace fs = std::filesystem;

namespace MB {

using Quiver::log_level;
using Quiver::log_fmt;
using Quiver::Support::Cryptor;

namespace {

// The key bag is checked before it is opened, so that a damaged Manifest.plist is reported at once
// rather than after the password derivation. Devices before iOS 10.2 wrote no "ManifestKey": their
// manifest is not enciphered.
KeyBag OpenKeyBag(const void* self, const CF::Dictionary& manifest, const std::string& password) {
    CF::Data keyBag = manifest.Get<CF::Data>("BackupKeyBag");
    if (!keyBag) throw Quiver::Error(QVErrorInvalidMetadata, {}, "BackupKeyBag is missing");
    CFTypeRef manifestKey = manifest.Get("ManifestKey");
    if (manifestKey && CFGetTypeID(manifestKey) != CFDataGetTypeID())
        throw Quiver::Error(QVErrorInvalidMetadata, {}, "ManifestKey is not data");
    log_fmt(log_level::debug, "(MB::ManifestEncryption {}) BackupKeyBag: {} bytes, ManifestKey: {} bytes", self,
            keyBag.size(), manifestKey ? CFDataGetLength(static_cast<CFDataRef>(manifestKey)) : 0);
    KeyBag opened(keyBag, password);
    log_fmt(log_level::debug, "(MB::ManifestEncryption {}) KeyBag opened", self);
    return opened;
}

void CryptFile(Cryptor::Operation operation, Cryptor::Algorithm algorithm, std::span<const uint8_t> key,
               const fs::path& source, const fs::path& destination) {
    bool created = false;
    try {
        std::error_code ec;
        // Opening the destination would empty the source before a byte of it was read.
        if (fs::equivalent(source, destination, ec)) {
            throw std::runtime_error(fmt::format("'{}' is both source and destination", source.string()));
        }
        Quiver::Support::readable_file in(source);
        Quiver::Support::writable_file out(destination);
        created = true;
        Cryptor::Crypt(operation, algorithm, key, {}, in, out);
        out.close();
    } catch (const std::exception& e) {
        // Half a file must not pass for a whole one.
        if (created) {
            std::error_code ignored;
            fs::remove(destination, ignored);
        }
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("Failed to decrypt/encrypt: {}", e.what()));
    }
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

ManifestEncryption::ManifestEncryption(const CF::Dictionary& manifest, const std::string& password)
    : ManifestEncryption(OpenKeyBag(this, manifest, password), manifest.Get<CF::Data>("ManifestKey")) {}

ManifestEncryption::ManifestEncryption(KeyBag keyBag, const CF::Data& manifestKey) : keyBag_(std::move(keyBag)) {
    if (!manifestKey) return;  // a manifest stored as it is
    try {
        manifestKey_ = UnlockKey(manifestKey);
    } catch (const CF::Error& e) {
        throw Quiver::Error(QVErrorUnlockFailed, e, "Failed to unlock manifest key",
                            Quiver::ErrorContext::File("Manifest.plist", "manifest-key"));
    }
    log_fmt(log_level::debug, "(MB::ManifestEncryption {}) Manifest unlocked", static_cast<const void*>(this));
}

ManifestEncryption::ManifestEncryption(KeyBag keyBag, const std::array<uint8_t, 32>& manifestKey)
    : keyBag_(std::move(keyBag)), manifestKey_(manifestKey) {}

ManifestEncryption ManifestEncryption::Create(KeyBag keyBag, uint32_t manifestKeyClass) {
    if (!keyBag.FindUnlockedKey(manifestKeyClass)) {
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("Missing key class {}", manifestKeyClass));
    }
    std::vector<uint8_t> random = Quiver::Support::RandomBytes(32);
    std::array<uint8_t, 32> key{};
    std::copy(random.begin(), random.end(), key.begin());
    OPENSSL_cleanse(random.data(), random.size());
    ManifestEncryption created(std::move(keyBag), key);
    OPENSSL_cleanse(key.data(), key.size());
    return created;
}

ManifestEncryption::~ManifestEncryption() {
    if (manifestKey_) OPENSSL_cleanse(manifestKey_->data(), manifestKey_->size());
}

std::array<uint8_t, 32> ManifestEncryption::GetManifestKey() const {
    if (!manifestKey_)
        throw Quiver::Error(QVErrorInvalidArgument, {}, "This backup has no manifest key: its manifest is not enciphered");
    return *manifestKey_;
}

std::array<uint8_t, 32> ManifestEncryption::UnlockKey(const CF::Data& blob) const {
    if (blob.size() != kWrappedKeySize) throw Quiver::Error(QVErrorUnlockFailed, {}, "Key blob is wrong size");
    std::span<const uint8_t> bytes = blob.bytes();
    const uint32_t protectionClass = uint32_t{bytes[0]} | (uint32_t{bytes[1]} << 8) | (uint32_t{bytes[2]} << 16) |
                                     (uint32_t{bytes[3]} << 24);
    std::span<const uint8_t> wrapped = bytes.subspan(4);
    log_fmt(log_level::debug, "(MB::ManifestEncryption {}) Unwrapping with clas {}", static_cast<const void*>(this),
            protectionClass);
    const KeyBag::UnlockedKey* classKey = keyBag_.FindUnlockedKey(protectionClass);
    if (!classKey) {
        if (keyBag_.IsLockedClass(protectionClass))
            throw Quiver::Error(QVErrorUnlockFailed, {},
                                fmt::format("Class {} is wrapped with the device's own key, which a backup does not "
                                            "hold",
                                            protectionClass));
        throw Quiver::Error(QVErrorUnlockFailed, {}, fmt::format("Missing key class {}", protectionClass));
    }
    std::vector<uint8_t> unwrapped;
    try {
        unwrapped = Quiver::Support::RFC3394Unwrap(classKey->key, wrapped);
    } catch (const std::exception& e) {
        throw Quiver::Error(QVErrorUnlockFailed, {}, fmt::format("RFC3394Unwrap failed: {}", e.what()));
    }
    if (unwrapped.size() != 32) {
        OPENSSL_cleanse(unwrapped.data(), unwrapped.size());
        throw Quiver::Error(QVErrorUnlockFailed, {}, "Unwrapped key is wrong length");
    }
    std::array<uint8_t, 32> key{};
    std::copy(unwrapped.begin(), unwrapped.end(), key.begin());
    OPENSSL_cleanse(unwrapped.data(), unwrapped.size());
    log_fmt(log_level::debug, "(MB::ManifestEncryption {}) Key unlocked", static_cast<const void*>(this));
    return key;
}

CF::Data ManifestEncryption::LockKey(uint32_t protectionClass, const std::array<uint8_t, 32>& key) const {
    log_fmt(log_level::debug, "(MB::ManifestEncryption {}) Wrapping with clas {}", static_cast<const void*>(this),
            protectionClass);
    const KeyBag::UnlockedKey* classKey = keyBag_.FindUnlockedKey(protectionClass);
    if (!classKey) {
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("Missing key class {}", protectionClass));
    }
    std::vector<uint8_t> wrapped;
    try {
        wrapped = Quiver::Support::RFC3394Wrap(classKey->key, key);
    } catch (const std::exception& e) {
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("RFC3394Wrap failed: {}", e.what()));
    }
    std::vector<uint8_t> blob = {static_cast<uint8_t>(protectionClass), static_cast<uint8_t>(protectionClass >> 8),
                                 static_cast<uint8_t>(protectionClass >> 16),
                                 static_cast<uint8_t>(protectionClass >> 24)};
    blob.insert(blob.end(), wrapped.begin(), wrapped.end());
    if (blob.size() != kWrappedKeySize) throw Quiver::Error(QVErrorCryptoOperation, {}, "Blob is wrong size");
    log_fmt(log_level::debug, "(MB::ManifestEncryption {}) Key locked", static_cast<const void*>(this));
    return CF::Data(blob);
}

void ManifestEncryption::DecryptFile(const fs::path& source, const fs::path& destination,
                                     const std::array<uint8_t, 16>& key) {
    CryptFile(Cryptor::Operation::Decrypt, Cryptor::Algorithm::AES128, key, source, destination);
}

void ManifestEncryption::DecryptFile(const fs::path& source, const fs::path& destination,
                                     const std::array<uint8_t, 32>& key) {
    CryptFile(Cryptor::Operation::Decrypt, Cryptor::Algorithm::AES256, key, source, destination);
}

void ManifestEncryption::EncryptFile(const fs::path& source, const fs::path& destination,
                                     const std::array<uint8_t, 16>& key) {
    CryptFile(Cryptor::Operation::Encrypt, Cryptor::Algorithm::AES128, key, source, destination);
}

void ManifestEncryption::EncryptFile(const fs::path& source, const fs::path& destination,
                                     const std::array<uint8_t, 32>& key) {
    CryptFile(Cryptor::Operation::Encrypt, Cryptor::Algorithm::AES256, key, source, destination);
}

size_t ManifestEncryption::DecryptDatabase(const fs::path& source, std::span<uint8_t> out,
                                           const std::array<uint8_t, 32>& key) {
    try {
        Quiver::Support::readable_file in(source);
        Cryptor cryptor(Cryptor::Operation::Decrypt, Cryptor::Algorithm::AES256, key, {});
        cryptor.DisablePadding();
        std::vector<uint8_t> chunk(1 << 20);
        size_t total = 0;
        while (const size_t got = in.read(chunk.data(), chunk.size())) {
            if (out.size() - total < Cryptor::OutputBound(got))
                throw std::runtime_error(fmt::format("'{}' grew while it was read", source.string()));
            total += cryptor.Update(chunk.data(), got, out.data() + total);
        }
        OPENSSL_cleanse(chunk.data(), chunk.size());
        if (out.size() - total < Cryptor::kBlockSize) throw std::runtime_error("no room for the last block");
        total += cryptor.Finalize(out.data() + total);  // throws when the length is not whole blocks
        // Database files are whole pages, so a length that is not a multiple of the smallest page means
        // a padding block follows; one that is means none was written.
        constexpr size_t kSmallestPage = 512;
        const unsigned pad = total >= Cryptor::kBlockSize ? out[total - 1] : 0;
        if (total % kSmallestPage != 0 && pad >= 1 && pad <= Cryptor::kBlockSize &&
            std::all_of(out.begin() + static_cast<std::ptrdiff_t>(total - pad), out.begin() + static_cast<std::ptrdiff_t>(total),
                        [pad](uint8_t b) { return b == pad; }))
            total -= pad;
        return total;
    } catch (const std::exception& e) {
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("Failed to decrypt/encrypt: {}", e.what()));
    }
}

std::vector<uint8_t> ManifestEncryption::DecryptString(const std::string& text, const std::array<uint8_t, 16>& key) {
    std::optional<std::vector<uint8_t>> cipher = Quiver::Support::base64_decode(text);
    if (!cipher) throw Quiver::Error(QVErrorCryptoOperation, {}, "Failed to decrypt/encrypt: the text is not Base64");
    try {
        return Cryptor::Decrypt(Cryptor::Algorithm::AES128, key, {}, *cipher);
    } catch (const std::exception& e) {
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("Failed to decrypt/encrypt: {}", e.what()));
    }
}

std::string ManifestEncryption::EncryptString(std::span<const uint8_t> plain, const std::array<uint8_t, 16>& key) {
    try {
        return Quiver::Support::base64_encode(Cryptor::Encrypt(Cryptor::Algorithm::AES128, key, {}, plain));
    } catch (const std::exception& e) {
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("Failed to decrypt/encrypt: {}", e.what()));
    }
}

std::array<uint8_t, 32> ManifestEncryption::GenerateKEKFromPassword(const std::vector<uint8_t>& password,
                                                                    const KeyBag::ManifestInfo& info) {
    const void* self = &info;
    log_fmt(log_level::info, "(MB::ManifestEncryption {}) GenerateKEKFromPassword starting", self);

    auto start = std::chrono::steady_clock::now();
    if (!info.firstPass) {
        // Before iOS 10.2: the password itself goes through the one pass.
        std::array<uint8_t, 32> kek{};
        PBKDF2_HMAC_SHA1(password.data(), password.size(), info.salt.data(), info.salt.size(), info.iter, kek.data(),
                         kek.size());
        log_fmt(log_level::info, "(MB::ManifestEncryption {}) GenerateKEKFromPassword single pass took {:.1f}s", self,
                SecondsSince(start));
        return kek;
    }
    std::array<uint8_t, 32> firstPass{};
    PBKDF2_HMAC_SHA256(password.data(), password.size(), info.dpsl.data(), info.dpsl.size(), info.dpic,
                       firstPass.data(), firstPass.size());
    log_fmt(log_level::info, "(MB::ManifestEncryption {}) GenerateKEKFromPassword first pass took {:.1f}s", self,
            SecondsSince(start));

    start = std::chrono::steady_clock::now();
    std::array<uint8_t, 32> kek{};
    PBKDF2_HMAC_SHA1(firstPass.data(), firstPass.size(), info.salt.data(), info.salt.size(), info.iter, kek.data(),
                     kek.size());
    OPENSSL_cleanse(firstPass.data(), firstPass.size());
    log_fmt(log_level::info, "(MB::ManifestEncryption {}) GenerateKEKFromPassword second pass took {:.1f}s", self,
            SecondsSince(start));
    return kek;
}

std::array<uint8_t, 16> ManifestEncryption::GenerateDataKeyFromPassword(const std::vector<uint8_t>& password,
                                                                        const std::array<uint8_t, 20>& salt) {
    Quiver::Support::Hasher hasher(Quiver::Support::HashAlgorithm::SHA1);
    hasher.Update(password.data(), password.size());
    hasher.Update(salt.data(), salt.size());
    std::vector<uint8_t> digest = hasher.Finalize();
    std::array<uint8_t, 16> key{};
    std::copy_n(digest.begin(), key.size(), key.begin());
    OPENSSL_cleanse(digest.data(), digest.size());
    return key;
}

}  // namespace MB
