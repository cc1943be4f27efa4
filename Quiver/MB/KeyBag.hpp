// MB::KeyBag: the "BackupKeyBag" of an encrypted backup's Manifest.plist.
//
// The key bag is a flat run of tag-length-value items: "VERS", "TYPE", then a block describing how the
// password becomes the key-encryption key (salts and iteration counts of the two derivation passes),
// then one block per protection class holding that class's key, wrapped. A key bag object is complete
// once constructed: parsed, checked, and with every class key unwrapped, so that nothing later can fail
// because of a wrong password. The blob comes from the backup and is not trusted: it is read through one
// bounds-checked reader and every length is checked before it is used.
//
// Devices have written three generations of key bags: before iOS 10.2 the password became the
// key-encryption key in one PBKDF2-HMAC-SHA1 pass (SALT, ITER), since then a PBKDF2-HMAC-SHA256 pass
// (DPSL, DPIC) comes first; the oldest (iOS 4) lack the key type of each class. In all of them some
// classes are marked as wrapped with the device's own key as well as the password (WRAP 3). A backup
// key bag is never bound to the device: the password-derived key alone unwraps those classes. Only a
// class wrapped by the device alone stays locked; files of that class cannot be read, the rest can.
// A wrong password is told from a right one by the RFC 3394 integrity check of the password-wrapped
// classes, never by guessing.
//
// New key bags are made here as well (a new encrypted backup, a changed password): random or given
// class keys, wrapped under the key derived from the password, in the item order that devices write.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Quiver/CF/Data.hpp"
#include "Quiver/Export.hpp"

namespace MB {

// What a new key bag looks like apart from its keys. Devices write version 3 or 5, type 1 (backup),
// DPWT 1, and 10,000,000 / 10,000 iterations; tests use small counts.
struct KeyBagParameters {
    uint32_t version = 3;
    uint32_t type = 1;
    uint32_t iterations = 10'000;        // "ITER"
    uint32_t dpIterations = 10'000'000;  // "DPIC"
    uint32_t dpwt = 1;
    // False writes the key bag of devices before iOS 10.2: no DPWT, DPIC and DPSL, one derivation pass.
    bool firstPass = true;
    // Classes marked WRAP 3 (password and device key), as devices mark them; the rest are WRAP 2.
    std::vector<uint32_t> deviceMarkedClasses = {11, 10, 9, 5};
};

class QV_EXPORT KeyBag {
public:
    // The "TYPE" item, as the device writes it.
    enum class Type : uint32_t {
        System = 0,
        Backup = 1,
        Escrow = 2,
        OTA = 3,
    };

    // The first block: how the password becomes the key-encryption key.
    struct ManifestInfo {
        std::array<uint8_t, 16> uuid{};
        std::array<uint8_t, 40> hmck{};  // wrapped HMAC key; kept, not used
        uint32_t wrap = 0;
        std::array<uint8_t, 20> salt{};  // second pass (PBKDF2-HMAC-SHA1)
        uint32_t iter = 0;
        uint32_t dpwt = 0;  // kept, not used
        uint32_t dpic = 0;  // first pass (PBKDF2-HMAC-SHA256)
        std::array<uint8_t, 20> dpsl{};
        // Whether the key bag has the first pass (DPIC and DPSL); key bags before iOS 10.2 do not.
        bool firstPass = true;
    };

    struct UnlockedKey {
        std::array<uint8_t, 16> uuid{};
        uint32_t keyType = 0;  // "KTYP"
        std::array<uint8_t, 32> key{};
        friend bool operator==(const UnlockedKey&, const UnlockedKey&) = default;
    };

    using Item = std::pair<std::string, std::vector<uint8_t>>;

    // Derives the 32-byte key-encryption key from the password bytes and the first block.
    using KEKDerivation = std::function<std::array<uint8_t, 32>(const std::vector<uint8_t>& password,
                                                                const ManifestInfo& info)>;

    // Walks, parses and unlocks; throws a Quiver::Error (CF::Error) on any failure: QVErrorInvalidKeyBag
    // for a malformed blob, one that asks for more than 100,000,000 rounds of a derivation pass or one
    // without a single class that the password opens, QVErrorUnlockFailed when a password-wrapped class
    // key does not unwrap (a wrong password). Classes wrapped by the device alone stay locked.
    KeyBag(const CF::Data& raw, const std::string& password);
    // The same with another derivation. Tests and fuzzing use it to keep hostile iteration counts from
    // costing minutes; the library itself always uses the constructor above.
    KeyBag(const CF::Data& raw, const std::string& password, const KEKDerivation& derive);

    KeyBag(const KeyBag&) = default;
    KeyBag(KeyBag&&) noexcept = default;
    KeyBag& operator=(const KeyBag&) = default;
    KeyBag& operator=(KeyBag&&) noexcept = default;
    ~KeyBag();

    // The items in blob order.
    const std::vector<Item>& GetRaw() const { return raw_; }
    Type GetType() const { return type_; }
    uint32_t GetVersion() const { return version_; }
    std::unordered_map<uint32_t, UnlockedKey> GetUnlockedKeys() const { return unlockedKeys_; }
    const ManifestInfo& GetManifestInfo() const { return manifestInfo_; }
    // Classes that only the device's own key opens, in blob order; their keys are not available.
    const std::vector<uint32_t>& GetLockedClasses() const { return lockedClasses_; }
    bool IsLockedClass(uint32_t protectionClass) const;
    // The unlocked key of a class, or null; borrowed from the key bag.
    const UnlockedKey* FindUnlockedKey(uint32_t protectionClass) const {
        auto it = unlockedKeys_.find(protectionClass);
        return it == unlockedKeys_.end() ? nullptr : &it->second;
    }

    // The blob again, item for item (bytes after the last whole item are not kept).
    CF::Data CopyData() const;

    using Parameters = KeyBagParameters;

    // A new key bag for password holding the given class keys, in the given order, each wrapped under
    // the key derived from the password (fresh random salts); the result is the parsed key bag, so
    // CopyData() is its blob. The derivation runs once. Two keys of one class are refused
    // (QVErrorInvalidArgument).
    static KeyBag Create(const std::string& password, const std::vector<std::pair<uint32_t, UnlockedKey>>& keys,
                         const Parameters& parameters = {});
    // The same with the keys of another key bag (a changed password), in descending class order as
    // devices write them.
    static KeyBag Create(const std::string& password, const std::unordered_map<uint32_t, UnlockedKey>& keys,
                         const Parameters& parameters = {});
    // The same with a new random key and UUID (key type 0) for each of the classes.
    static KeyBag Create(const std::string& password, std::span<const uint32_t> classes,
                         const Parameters& parameters = {});

private:
    struct Block;

    void parseFromRaw(const KEKDerivation& derive);
    void parseNextBlock(std::array<uint8_t, 16> uuid, std::vector<Item>::const_iterator& position,
                        std::vector<Block>& blocks);

    std::string password_;
    uint32_t version_ = 0;
    Type type_ = static_cast<Type>(0xFFFFFFFFu);  // not yet parsed
    std::vector<Item> raw_;
    ManifestInfo manifestInfo_;
    std::unordered_map<uint32_t, UnlockedKey> unlockedKeys_;
    std::vector<uint32_t> lockedClasses_;
};

}  // namespace MB
