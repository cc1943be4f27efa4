// Walking, checking, unlocking and writing key bags; see KeyBag.hpp.
#include "Quiver/MB/KeyBag.hpp"

#include <algorithm>
#include <exception>
#include <optional>
#include <string_view>

#include <fmt/format.h>
#include <openssl/crypto.h>

#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/Support/ByteReader.hpp"
#include "Quiver/Support/KeyWrap.hpp"
#include "Quiver/Support/Random.hpp"

namespace MB {

namespace {

constexpr uint32_t kWrapWithKEK = 2;     // RFC 3394 under the key derived from the password
constexpr uint32_t kWrapWithDevice = 1;  // encrypted with a key that never leaves the device
constexpr std::size_t kItemHeader = 8;   // tag and length

[[noreturn]] void ThrowInvalid(std::string_view reason) {
    throw Quiver::Error(QVErrorInvalidKeyBag, {}, reason);
}

uint32_t DecodeUInt32(const std::vector<uint8_t>& b) {
    return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | uint32_t{b[3]};
}

void AppendUInt32(std::vector<uint8_t>& out, uint32_t value) {
    out.push_back(static_cast<uint8_t>(value >> 24));
    out.push_back(static_cast<uint8_t>(value >> 16));
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

std::vector<uint8_t> EncodeUInt32(uint32_t value) {
    std::vector<uint8_t> out;
    AppendUInt32(out, value);
    return out;
}

template <std::size_t N>
std::vector<uint8_t> Bytes(const std::array<uint8_t, N>& a) {
    return {a.begin(), a.end()};
}

// A class-key block, read and size-checked.
struct ClassRecord {
    std::array<uint8_t, 16> uuid{};
    uint32_t protectionClass = 0;
    uint32_t wrap = 0;
    uint32_t keyType = 0;
    std::array<uint8_t, 40> wrappedKey{};
};

// A class wrapped with the password (bit 2) is unwrapped with the key derived from it, whether or not
// the device bit is also set: a backup key bag is never bound to the device. The caller leaves classes
// with the device bit alone out.
KeyBag::UnlockedKey UnlockClassKey(const ClassRecord& record, const std::array<uint8_t, 32>& kek) {
    std::vector<uint8_t> key(record.wrappedKey.begin(), record.wrappedKey.end());
    if (record.wrap & kWrapWithKEK) {
        try {
            key = Quiver::Support::RFC3394Unwrap(kek, key);
        } catch (const std::exception& e) {
            throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("RFC3394Unwrap failed: {}", e.what()));
        }
    }
    if (key.size() != 32) {
        OPENSSL_cleanse(key.data(), key.size());
        ThrowInvalid("Unwrapped bad key length");
    }
    KeyBag::UnlockedKey unlocked;
    unlocked.uuid = record.uuid;
    unlocked.keyType = record.keyType;
    std::copy(key.begin(), key.end(), unlocked.key.begin());
    OPENSSL_cleanse(key.data(), key.size());
    return unlocked;
}

bool DeviceOnly(uint32_t wrap) { return (wrap & kWrapWithDevice) && !(wrap & kWrapWithKEK); }

std::array<uint8_t, 16> RandomUUID() {
    std::vector<uint8_t> bytes = Quiver::Support::RandomBytes(16);
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    std::array<uint8_t, 16> uuid{};
    std::copy(bytes.begin(), bytes.end(), uuid.begin());
    return uuid;
}

template <std::size_t N>
std::array<uint8_t, N> RandomArray() {
    std::vector<uint8_t> bytes = Quiver::Support::RandomBytes(N);
    std::array<uint8_t, N> out{};
    std::copy(bytes.begin(), bytes.end(), out.begin());
    OPENSSL_cleanse(bytes.data(), bytes.size());
    return out;
}

std::vector<uint8_t> Wrap(const std::array<uint8_t, 32>& kek, std::span<const uint8_t> key) {
    try {
        return Quiver::Support::RFC3394Wrap(kek, key);
    } catch (const std::exception& e) {
        throw Quiver::Error(QVErrorCryptoOperation, {}, fmt::format("RFC3394Wrap failed: {}", e.what()));
    }
}

}  // namespace

// The items of one block, from its "UUID" item up to the next; they point into the key bag's items.
struct KeyBag::Block {
    std::array<uint8_t, 16> uuid{};
    std::vector<const Item*> items;

    const Item* Find(std::string_view tag) const {
        for (const Item* item : items) {
            if (item->first == tag) return item;
        }
        return nullptr;
    }

    const std::vector<uint8_t>& Field(std::string_view tag, std::size_t size) const {
        const Item* item = Find(tag);
        if (!item) ThrowInvalid(fmt::format("Missing {} field", tag));
        if (item->second.size() != size) ThrowInvalid(fmt::format("Invalid {} field", tag));
        return item->second;
    }

    uint32_t Number(std::string_view tag) const { return DecodeUInt32(Field(tag, 4)); }

    template <std::size_t N>
    std::array<uint8_t, N> Array(std::string_view tag) const {
        const std::vector<uint8_t>& value = Field(tag, N);
        std::array<uint8_t, N> out{};
        std::copy(value.begin(), value.end(), out.begin());
        return out;
    }
};

namespace {

// Devices derive with 10,000,000 rounds of the first pass and 10,000 of the second. A blob asks for
// what it likes, and at four billion rounds a pass takes minutes; ten times the devices' count is
// the most anyone waits for.
constexpr uint32_t kMostRounds = 100'000'000;

constexpr uint32_t kOldestVersion = 1;
constexpr uint32_t kNewestVersion = 5;

std::array<uint8_t, 32> BoundedDerivation(const std::vector<uint8_t>& password, const KeyBag::ManifestInfo& info) {
    for (auto [tag, rounds] : {std::pair{"DPIC", info.firstPass ? info.dpic : 0}, std::pair{"ITER", info.iter}}) {
        if (rounds > kMostRounds)
            throw Quiver::Error(QVErrorInvalidKeyBag, {},
                                fmt::format("{} asks for {} rounds of derivation; devices use at most {}", tag, rounds,
                                            kMostRounds / 10));
    }
    return ManifestEncryption::GenerateKEKFromPassword(password, info);
}

}  // namespace

KeyBag::KeyBag(const CF::Data& raw, const std::string& password) : KeyBag(raw, password, &BoundedDerivation) {}

KeyBag::KeyBag(const CF::Data& raw, const std::string& password, const KEKDerivation& derive) : password_(password) {
    // Every read goes through the bounds-checked reader: no length taken from the blob can reach past it.
    const Quiver::Support::byte_reader reader(raw.bytes());
    uint64_t offset = 0;
    // Fewer bytes than an item header at the end are slack, not an item.
    while (reader.contains(offset, kItemHeader)) {
        const std::span<const uint8_t> tag = reader.slice(offset, 4).value();
        const uint64_t length = reader.be(offset + 4, 4).value();
        const std::optional<std::span<const uint8_t>> value = reader.slice(offset + kItemHeader, length);
        if (!value) ThrowInvalid("Incomplete header");
        raw_.emplace_back(std::string(tag.begin(), tag.end()), std::vector<uint8_t>(value->begin(), value->end()));
        offset += kItemHeader + length;
    }
    parseFromRaw(derive);
}

KeyBag::~KeyBag() {
    OPENSSL_cleanse(password_.data(), password_.size());
    for (auto& [protectionClass, key] : unlockedKeys_) OPENSSL_cleanse(key.key.data(), key.key.size());
}

void KeyBag::parseFromRaw(const KEKDerivation& derive) {
    if (type_ != static_cast<Type>(0xFFFFFFFFu)) {
        throw Quiver::Error(QVErrorInvalidArgument, {}, fmt::format("{}: Already called", __PRETTY_FUNCTION__));
    }
    if (raw_.size() < 2) ThrowInvalid("Incomplete header");

    const Item& vers = raw_[0];
    if (vers.first != "VERS") ThrowInvalid("Missing VERS field");
    if (vers.second.size() != 4) ThrowInvalid("Invalid VERS field");
    const uint32_t version = DecodeUInt32(vers.second);
    // Version 1 is the key bag of iOS 4, 3 and 5 those of later devices; the layout has not changed.
    if (version < kOldestVersion || version > kNewestVersion)
        ThrowInvalid(fmt::format("Unknown version '{}'", version));

    const Item& type = raw_[1];
    if (type.first != "TYPE") ThrowInvalid("Missing TYPE field");
    if (type.second.size() != 4) ThrowInvalid("Invalid TYPE field");
    const uint32_t typeValue = DecodeUInt32(type.second);
    if (typeValue > 3) ThrowInvalid(fmt::format("Unknown type '{}'", typeValue));

    std::vector<Block> blocks;
    auto position = raw_.cbegin() + 2;
    if (position != raw_.cend()) {
        if (position->first != "UUID") ThrowInvalid("Missing UUID field");
        if (position->second.size() != 16) ThrowInvalid("Invalid UUID field");
        std::array<uint8_t, 16> uuid{};
        std::copy(position->second.begin(), position->second.end(), uuid.begin());
        parseNextBlock(uuid, position, blocks);
    }
    if (blocks.empty()) ThrowInvalid("Expected one ManifestKey block");

    const Block& first = blocks.front();
    ManifestInfo info;
    info.uuid = first.uuid;
    info.hmck = first.Array<40>("HMCK");
    info.wrap = first.Number("WRAP");
    info.salt = first.Array<20>("SALT");
    info.iter = first.Number("ITER");
    // Key bags before iOS 10.2 have neither DPIC nor DPSL (nor DPWT): one derivation pass. One of the
    // two without the other is damage.
    info.firstPass = first.Find("DPIC") || first.Find("DPSL");
    if (info.firstPass) {
        info.dpic = first.Number("DPIC");
        info.dpsl = first.Array<20>("DPSL");
    }
    if (first.Find("DPWT")) info.dpwt = first.Number("DPWT");

    std::vector<ClassRecord> records;
    for (auto block = blocks.cbegin() + 1; block != blocks.cend(); ++block) {
        ClassRecord record;
        record.uuid = block->uuid;
        record.protectionClass = block->Number("CLAS");
        record.wrap = block->Number("WRAP");
        record.keyType = block->Find("KTYP") ? block->Number("KTYP") : 0;  // iOS 4 key bags have none
        record.wrappedKey = block->Array<40>("WPKY");
        // Each class has one key; a second would silently replace the first.
        for (const ClassRecord& earlier : records) {
            if (earlier.protectionClass == record.protectionClass) ThrowInvalid("Invalid CLAS field");
        }
        records.push_back(record);
    }

    // Only the integrity check of a password-wrapped class tells a right password from a wrong one;
    // without one there is nothing to check it against, and the derivation would be wasted.
    if (std::none_of(records.begin(), records.end(), [](const ClassRecord& r) { return (r.wrap & kWrapWithKEK) != 0; }))
        ThrowInvalid("No class key is wrapped with the password");

    version_ = version;
    type_ = static_cast<Type>(typeValue);
    manifestInfo_ = info;

    const std::vector<uint8_t> passwordBytes(password_.begin(), password_.end());
    std::array<uint8_t, 32> kek = derive(passwordBytes, manifestInfo_);
    try {
        for (const ClassRecord& record : records) {
            if (DeviceOnly(record.wrap)) {
                lockedClasses_.push_back(record.protectionClass);
                continue;
            }
            try {
                unlockedKeys_.emplace(record.protectionClass, UnlockClassKey(record, kek));
            } catch (const CF::Error& e) {
                throw Quiver::Error(QVErrorUnlockFailed, e,
                                    fmt::format("Failed to unlock a key (class {})", record.protectionClass),
                                    Quiver::ErrorContext::File("Manifest.plist", "password"));
            } catch (const std::exception& e) {
                throw Quiver::Error(QVErrorUnlockFailed, {},
                                    fmt::format("Failed to unlock a key (class {}): {}", record.protectionClass,
                                                e.what()),
                                    Quiver::ErrorContext::File("Manifest.plist", "password"));
            }
        }
    } catch (...) {
        OPENSSL_cleanse(kek.data(), kek.size());
        throw;
    }
    OPENSSL_cleanse(kek.data(), kek.size());
}

bool KeyBag::IsLockedClass(uint32_t protectionClass) const {
    return std::find(lockedClasses_.begin(), lockedClasses_.end(), protectionClass) != lockedClasses_.end();
}

// Collects blocks until the items run out. `position` is at the "UUID" item that opens the block.
// Iterative rather than one call per block, so a blob of a million tiny blocks cannot exhaust the stack.
void KeyBag::parseNextBlock(std::array<uint8_t, 16> uuid, std::vector<Item>::const_iterator& position,
                            std::vector<Block>& blocks) {
    for (;;) {
        Block block;
        block.uuid = uuid;
        block.items.push_back(&*position);
        for (++position; position != raw_.cend() && position->first != "UUID"; ++position) {
            // Two values for one field leave no way to tell which was meant.
            if (block.Find(position->first)) ThrowInvalid(fmt::format("Invalid {} field", position->first));
            block.items.push_back(&*position);
        }
        blocks.push_back(std::move(block));
        if (position == raw_.cend()) return;
        if (position->second.size() != 16) ThrowInvalid("Invalid UUID field");
        std::copy(position->second.begin(), position->second.end(), uuid.begin());
    }
}

CF::Data KeyBag::CopyData() const {
    std::vector<uint8_t> blob;
    for (const auto& [tag, value] : raw_) {
        blob.insert(blob.end(), tag.begin(), tag.end());
        AppendUInt32(blob, static_cast<uint32_t>(value.size()));
        blob.insert(blob.end(), value.begin(), value.end());
    }
    CF::Data data(blob);
    OPENSSL_cleanse(blob.data(), blob.size());
    return data;
}

KeyBag KeyBag::Create(const std::string& password, const std::vector<std::pair<uint32_t, UnlockedKey>>& keys,
                      const Parameters& parameters) {
    for (auto it = keys.begin(); it != keys.end(); ++it) {
        for (auto other = keys.begin(); other != it; ++other) {
            if (other->first == it->first) {
                throw Quiver::Error(QVErrorInvalidArgument, {},
                                    fmt::format("Two keys for protection class {}", it->first));
            }
        }
    }

    ManifestInfo info;
    info.uuid = RandomUUID();
    info.wrap = 0;
    info.salt = RandomArray<20>();
    info.iter = parameters.iterations;
    info.firstPass = parameters.firstPass;
    if (info.firstPass) {
        info.dpwt = parameters.dpwt;
        info.dpic = parameters.dpIterations;
        info.dpsl = RandomArray<20>();
    }
    const std::vector<uint8_t> passwordBytes(password.begin(), password.end());
    std::array<uint8_t, 32> kek = ManifestEncryption::GenerateKEKFromPassword(passwordBytes, info);

    std::vector<uint8_t> blob;
    auto append = [&blob](std::string_view tag, const std::vector<uint8_t>& value) {
        blob.insert(blob.end(), tag.begin(), tag.end());
        AppendUInt32(blob, static_cast<uint32_t>(value.size()));
        blob.insert(blob.end(), value.begin(), value.end());
    };
    std::array<uint8_t, 32> hmacKey = RandomArray<32>();
    const std::vector<uint8_t> hmck = Wrap(kek, hmacKey);
    OPENSSL_cleanse(hmacKey.data(), hmacKey.size());

    append("VERS", EncodeUInt32(parameters.version));
    append("TYPE", EncodeUInt32(parameters.type));
    append("UUID", Bytes(info.uuid));
    append("HMCK", hmck);
    append("WRAP", EncodeUInt32(info.wrap));
    append("SALT", Bytes(info.salt));
    append("ITER", EncodeUInt32(info.iter));
    if (info.firstPass) {
        append("DPWT", EncodeUInt32(info.dpwt));
        append("DPIC", EncodeUInt32(info.dpic));
        append("DPSL", Bytes(info.dpsl));
    }
    const std::vector<uint32_t>& marked = parameters.deviceMarkedClasses;
    for (const auto& [protectionClass, key] : keys) {
        const bool deviceMarked = std::find(marked.begin(), marked.end(), protectionClass) != marked.end();
        append("UUID", Bytes(key.uuid));
        append("CLAS", EncodeUInt32(protectionClass));
        append("WRAP", EncodeUInt32(deviceMarked ? kWrapWithKEK | kWrapWithDevice : kWrapWithKEK));
        append("KTYP", EncodeUInt32(key.keyType));
        append("WPKY", Wrap(kek, key.key));
    }

    // Parsing what was written checks it; the key just derived stands in for a second derivation.
    try {
        KeyBag created(CF::Data(blob), password,
                       [&kek](const std::vector<uint8_t>&, const ManifestInfo&) { return kek; });
        OPENSSL_cleanse(kek.data(), kek.size());
        return created;
    } catch (...) {
        OPENSSL_cleanse(kek.data(), kek.size());
        throw;
    }
}

KeyBag KeyBag::Create(const std::string& password, const std::unordered_map<uint32_t, UnlockedKey>& keys,
                      const Parameters& parameters) {
    std::vector<std::pair<uint32_t, UnlockedKey>> ordered(keys.begin(), keys.end());
    std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    KeyBag created = Create(password, ordered, parameters);
    for (auto& [protectionClass, key] : ordered) OPENSSL_cleanse(key.key.data(), key.key.size());
    return created;
}

KeyBag KeyBag::Create(const std::string& password, std::span<const uint32_t> classes, const Parameters& parameters) {
    std::vector<std::pair<uint32_t, UnlockedKey>> keys;
    for (uint32_t protectionClass : classes) {
        UnlockedKey key;
        key.uuid = RandomUUID();
        key.keyType = 0;
        key.key = RandomArray<32>();
        keys.emplace_back(protectionClass, key);
    }
    KeyBag created = Create(password, keys, parameters);
    for (auto& [protectionClass, key] : keys) OPENSSL_cleanse(key.key.data(), key.key.size());
    return created;
}

}  // namespace MB
