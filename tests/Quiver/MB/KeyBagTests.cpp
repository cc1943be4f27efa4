// Key bags: what the creator writes opens with its password and with no other, and damaged or hostile
// blobs (short, truncated, lengths past the end, fields missing, doubled or of the wrong size, keys
// that cannot be unwrapped) fail with their own error and never read outside the blob.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/MB/PBKDF2.hpp"
#include "tests/Quiver/MB/KeyBagTestSupport.hpp"

using namespace KeyBagTest;
using MB::KeyBag;

namespace {

const std::string kPassword = "correct horse";
const MB::KeyBagParameters kFast{.version = 3, .type = 1, .iterations = 2, .dpIterations = 3, .dpwt = 1};

class KeyBagTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        keys_.clear();
        for (uint32_t c : {11u, 10u, 9u, 5u, 4u, 3u, 2u, 1u}) {
            KeyBag::UnlockedKey key;
            for (std::size_t i = 0; i < key.key.size(); ++i) key.key[i] = static_cast<uint8_t>(c * 31 + i);
            for (std::size_t i = 0; i < key.uuid.size(); ++i) key.uuid[i] = static_cast<uint8_t>(c + i);
            key.keyType = c % 2;
            keys_.emplace_back(c, key);
        }
        bag_.emplace(KeyBag::Create(kPassword, keys_, kFast));
    }
    static void TearDownTestSuite() { bag_.reset(); }

    static const KeyBag& Bag() { return *bag_; }
    static Items Raw() { return bag_->GetRaw(); }
    static std::unordered_map<uint32_t, KeyBag::UnlockedKey> ExpectedKeys() { return {keys_.begin(), keys_.end()}; }

    static KeyBag Open(const Items& items, const std::string& password = kPassword) {
        return Open(Blob(items), password);
    }
    static KeyBag Open(const Bytes& blob, const std::string& password = kPassword) {
        ExactData exact(blob);
        return KeyBag(exact.data(), password);
    }
    static CF::Error Failure(const Items& items) { return Thrown([&] { Open(items); }); }
    static CF::Error Failure(const Bytes& blob) { return Thrown([&] { Open(blob); }); }

    static inline std::optional<KeyBag> bag_;
    static inline std::vector<std::pair<uint32_t, KeyBag::UnlockedKey>> keys_;
};

// ---- what the creator writes

TEST_F(KeyBagTest, CreatedKeyBagOpensWithItsPasswordAndYieldsEveryClassKey) {
    KeyBag opened(Bag().CopyData(), kPassword);
    EXPECT_EQ(opened.GetVersion(), 3u);
    EXPECT_EQ(opened.GetType(), KeyBag::Type::Backup);
    EXPECT_EQ(opened.GetUnlockedKeys(), ExpectedKeys());
    EXPECT_EQ(Bag().GetUnlockedKeys(), ExpectedKeys());
}

TEST_F(KeyBagTest, CreatedItemsFollowTheDeviceLayout) {
    std::vector<std::string> tags;
    for (const auto& item : Raw()) tags.push_back(item.first);
    std::vector<std::string> expected = {"VERS", "TYPE", "UUID", "HMCK", "WRAP", "SALT", "ITER", "DPWT", "DPIC", "DPSL"};
    for (std::size_t i = 0; i < keys_.size(); ++i) {
        for (const char* tag : {"UUID", "CLAS", "WRAP", "KTYP", "WPKY"}) expected.push_back(tag);
    }
    EXPECT_EQ(tags, expected);
    // Classes in the order given, each wrapped with the password-derived key only.
    Items raw = Raw();
    for (std::size_t i = 0; i < keys_.size(); ++i) {
        EXPECT_EQ(raw[IndexOf(raw, "CLAS", static_cast<int>(i))].second, U32(keys_[i].first));
        EXPECT_EQ(raw[IndexOf(raw, "WRAP", static_cast<int>(i + 1))].second, U32(2));
    }
    const KeyBag::ManifestInfo& info = Bag().GetManifestInfo();
    EXPECT_EQ(info.iter, 2u);
    EXPECT_EQ(info.dpic, 3u);
    EXPECT_EQ(info.dpwt, 1u);
    EXPECT_EQ(info.wrap, 0u);
}

TEST_F(KeyBagTest, WrongPasswordFailsAtTheFirstClassKey) {
    for (const std::string wrong : {"correct horse ", "Correct horse", ""}) {
        CF::Error e = Thrown([&] { KeyBag(Bag().CopyData(), wrong); });
        ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)")) << wrong;
        CF::Error cause = e.Underlying();
        EXPECT_EQ(cause.Reason().rfind("RFC3394Unwrap failed: ", 0), 0u) << cause.Text();
    }
}

TEST_F(KeyBagTest, EachCreationDrawsNewSaltsUUIDsAndKeys) {
    const uint32_t classes[] = {4, 3};
    KeyBag a = KeyBag::Create(kPassword, classes, kFast);
    KeyBag b = KeyBag::Create(kPassword, classes, kFast);
    EXPECT_NE(a.GetManifestInfo().salt, b.GetManifestInfo().salt);
    EXPECT_NE(a.GetManifestInfo().dpsl, b.GetManifestInfo().dpsl);
    EXPECT_NE(a.GetManifestInfo().uuid, b.GetManifestInfo().uuid);
    EXPECT_NE(a.GetUnlockedKeys().at(4).key, b.GetUnlockedKeys().at(4).key);
    EXPECT_NE(a.GetUnlockedKeys().at(4).key, a.GetUnlockedKeys().at(3).key);
    EXPECT_EQ(a.GetUnlockedKeys().at(4).uuid[6] >> 4, 4);  // random UUIDs are version 4
}

TEST_F(KeyBagTest, ChangingThePasswordKeepsTheClassKeys) {
    KeyBag changed = KeyBag::Create("new password", Bag().GetUnlockedKeys(), kFast);
    KeyBag opened(changed.CopyData(), "new password");
    EXPECT_EQ(opened.GetUnlockedKeys(), ExpectedKeys());
    EXPECT_TRUE(IsError(Thrown([&] { KeyBag(changed.CopyData(), kPassword); }), QVErrorUnlockFailed,
                        "Failed to unlock a key (class 11)"));
    // Devices list classes from the highest down.
    EXPECT_EQ(changed.GetRaw()[IndexOf(changed.GetRaw(), "CLAS")].second, U32(11));
}

TEST_F(KeyBagTest, CreationParametersReachTheBlobAndTheDerivation) {
    const uint32_t classes[] = {1};
    KeyBag bag = KeyBag::Create("", classes, {.version = 5, .type = 2, .iterations = 4, .dpIterations = 6, .dpwt = 0});
    KeyBag::ManifestInfo seen;
    KeyBag opened(bag.CopyData(), "", [&](const std::vector<uint8_t>& password, const KeyBag::ManifestInfo& info) {
        seen = info;
        return MB::ManifestEncryption::GenerateKEKFromPassword(password, info);
    });
    EXPECT_EQ(opened.GetVersion(), 5u);
    EXPECT_EQ(opened.GetType(), KeyBag::Type::Escrow);
    EXPECT_EQ(seen.iter, 4u);
    EXPECT_EQ(seen.dpic, 6u);
    EXPECT_EQ(seen.dpwt, 0u);
    EXPECT_EQ(seen.salt, bag.GetManifestInfo().salt);
    EXPECT_EQ(seen.dpsl, bag.GetManifestInfo().dpsl);
    EXPECT_EQ(seen.hmck, bag.GetManifestInfo().hmck);
    EXPECT_EQ(opened.GetUnlockedKeys(), bag.GetUnlockedKeys());
}

TEST_F(KeyBagTest, CreatorRefusesTwoKeysOfOneClass) {
    std::vector<std::pair<uint32_t, KeyBag::UnlockedKey>> keys = {{3, {}}, {4, {}}, {3, {}}};
    EXPECT_EQ(Thrown([&] { KeyBag::Create(kPassword, keys, kFast); }).Code(), QVErrorInvalidArgument);
}

TEST_F(KeyBagTest, CopiesAndMovesKeepEverything) {
    KeyBag copy = Bag();
    EXPECT_EQ(copy.GetRaw(), Bag().GetRaw());
    EXPECT_EQ(copy.GetUnlockedKeys(), ExpectedKeys());
    KeyBag moved = std::move(copy);
    EXPECT_EQ(moved.GetRaw(), Bag().GetRaw());
    EXPECT_EQ(moved.GetUnlockedKeys(), ExpectedKeys());
    EXPECT_EQ(moved.GetType(), KeyBag::Type::Backup);
}

// ---- header

TEST_F(KeyBagTest, BlobsShorterThanTwoItemHeadersAreIncomplete) {
    Bytes blob = Blob(Raw());
    for (std::size_t n = 0; n < 16; ++n) {
        EXPECT_TRUE(IsError(Failure(Bytes(blob.begin(), blob.begin() + n)), QVErrorInvalidKeyBag, "Incomplete header"))
            << n;
    }
}

TEST_F(KeyBagTest, VersionItemMustComeFirstWithVersionThreeOrFive) {
    Items items = Raw();
    std::swap(items[0], items[1]);
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Missing VERS field"));

    items = Raw();
    items[0].second = {0, 3};
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Invalid VERS field"));

    for (uint32_t version : {0u, 1u, 2u, 4u, 6u, 0xFFFFFFFFu}) {
        items[0].second = U32(version);
        EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Unknown version '" + std::to_string(version) + "'"));
    }
    for (uint32_t version : {3u, 5u}) {
        items[0].second = U32(version);
        EXPECT_EQ(Open(items).GetVersion(), version);
    }
}

TEST_F(KeyBagTest, TypeItemMustComeSecondWithAKnownType) {
    Items items = Raw();
    items[1].first = "TYPF";
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Missing TYPE field"));

    items = Raw();
    items[1].second = {0, 0, 0, 0, 1};
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Invalid TYPE field"));

    items[1].second = U32(4);
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Unknown type '4'"));
    for (uint32_t type = 0; type < 4; ++type) {
        items[1].second = U32(type);
        EXPECT_EQ(Open(items).GetType(), static_cast<KeyBag::Type>(type));
    }
}

TEST_F(KeyBagTest, HeaderAloneHasNoManifestBlock) {
    const Items raw = Raw();
    Items items(raw.begin(), raw.begin() + 2);
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Expected one ManifestKey block"));
}

TEST_F(KeyBagTest, EveryBlockMustOpenWithASixteenByteUUID) {
    Items items = Raw();
    std::swap(items[2], items[3]);  // HMCK before UUID
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Missing UUID field"));

    items = Raw();
    items[2].second.pop_back();
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Invalid UUID field"));

    items = Raw();
    items[IndexOf(items, "UUID", 3)].second.push_back(0);
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Invalid UUID field"));
}

// ---- fields

TEST_F(KeyBagTest, EveryFieldOfTheManifestBlockIsRequired) {
    for (const char* tag : {"HMCK", "WRAP", "SALT", "ITER", "DPWT", "DPIC", "DPSL"}) {
        Items items = Raw();
        items.erase(items.begin() + static_cast<std::ptrdiff_t>(IndexOf(items, tag)));
        EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, std::string("Missing ") + tag + " field"));
    }
}

TEST_F(KeyBagTest, EveryFieldOfTheManifestBlockHasItsSize) {
    struct Case {
        const char* tag;
        std::size_t wrongSize;
    };
    for (Case c : {Case{"HMCK", 32}, Case{"WRAP", 8}, Case{"SALT", 16}, Case{"ITER", 0}, Case{"DPWT", 2},
                   Case{"DPIC", 5}, Case{"DPSL", 21}}) {
        Items items = Raw();
        items[IndexOf(items, c.tag)].second.assign(c.wrongSize, 1);
        EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, std::string("Invalid ") + c.tag + " field"));
    }
}

TEST_F(KeyBagTest, EveryFieldOfAClassBlockIsRequiredWithItsSize) {
    for (const char* tag : {"CLAS", "WRAP", "KTYP", "WPKY"}) {
        // The last class block, so that a field is not mistaken for one of the block before.
        const int last = static_cast<int>(keys_.size()) - 1 + (std::string(tag) == "WRAP" ? 1 : 0);
        Items items = Raw();
        items.erase(items.begin() + static_cast<std::ptrdiff_t>(IndexOf(items, tag, last)));
        EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, std::string("Missing ") + tag + " field"));

        items = Raw();
        items[IndexOf(items, tag, last)].second.push_back(0);
        EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, std::string("Invalid ") + tag + " field"));
    }
}

TEST_F(KeyBagTest, AFieldGivenTwiceInOneBlockIsInvalid) {
    Items items = Raw();
    std::size_t salt = IndexOf(items, "SALT");
    items.insert(items.begin() + static_cast<std::ptrdiff_t>(salt) + 1, items[salt]);
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Invalid SALT field"));

    items = Raw();
    std::size_t wpky = IndexOf(items, "WPKY", 2);
    items.insert(items.begin() + static_cast<std::ptrdiff_t>(wpky), items[wpky]);
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Invalid WPKY field"));
}

TEST_F(KeyBagTest, AClassGivenTwiceIsInvalid) {
    Items items = Raw();
    items[IndexOf(items, "CLAS", 3)].second = U32(keys_[0].first);
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Invalid CLAS field"));
}

TEST_F(KeyBagTest, UnknownItemsAreKeptAndIgnored) {
    Items items = Raw();
    items.insert(items.begin() + static_cast<std::ptrdiff_t>(IndexOf(items, "DPSL")) + 1, {"SIGN", Bytes(7, 9)});
    items.push_back({"PBKY", Bytes(3, 1)});
    KeyBag opened = Open(items);
    EXPECT_EQ(opened.GetRaw(), items);
    EXPECT_EQ(opened.GetUnlockedKeys(), ExpectedKeys());
    EXPECT_EQ(opened.CopyData().vector(), Blob(items));
}

// ---- unlocking

TEST_F(KeyBagTest, DeviceWrappedKeysCannotBeOpenedFromABackup) {
    // WRAP 3: the RFC 3394 unwrap comes first and succeeds; the device key is what is missing.
    Items items = Raw();
    items[IndexOf(items, "WRAP", 3)].second = U32(3);  // the third class block: class 9
    CF::Error e = Failure(items);
    ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 9)"));
    EXPECT_EQ(e.Underlying().Reason(), "Cannot decode without deviceKey");

    // With the wrapped key damaged too, the unwrap is what fails.
    items[IndexOf(items, "WPKY", 2)].second[5] ^= 1;
    e = Failure(items);
    ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 9)"));
    EXPECT_EQ(e.Underlying().Reason().rfind("RFC3394Unwrap failed: ", 0), 0u) << e.Text();

    items = Raw();
    items[IndexOf(items, "WRAP", 1)].second = U32(1);
    e = Failure(items);
    ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)"));
    EXPECT_EQ(e.Underlying().Reason(), "Cannot decode without deviceKey");
}

TEST_F(KeyBagTest, AKeyThatIsNotWrappedHasTheWrongLength) {
    Items items = Raw();
    items[IndexOf(items, "WRAP", 2)].second = U32(0);
    CF::Error e = Failure(items);
    ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 10)"));
    EXPECT_TRUE(IsError(e.Underlying(), QVErrorInvalidKeyBag, "Unwrapped bad key length"));
}

TEST_F(KeyBagTest, DerivationSeesTheBlobsIterationCountsUntouched) {
    // Absurd counts are passed on as they are; a derivation that caps them (as fuzzing does) gets a
    // wrong key, and the key bag fails as for a wrong password.
    Items items = Raw();
    items[IndexOf(items, "DPIC")].second = U32(0xFFFFFFFF);
    items[IndexOf(items, "ITER")].second = U32(0xFFFFFFFE);
    uint32_t dpic = 0, iter = 0;
    CF::Error e = Thrown([&] {
        KeyBag(CF::Data(Blob(items)), kPassword, [&](const std::vector<uint8_t>& password, KeyBag::ManifestInfo info) {
            dpic = info.dpic;
            iter = info.iter;
            info.dpic = std::min(info.dpic, 4u);
            info.iter = std::min(info.iter, 4u);
            return MB::ManifestEncryption::GenerateKEKFromPassword(password, info);
        });
    });
    EXPECT_EQ(dpic, 0xFFFFFFFFu);
    EXPECT_EQ(iter, 0xFFFFFFFEu);
    EXPECT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)"));
}

// ---- the walk

TEST_F(KeyBagTest, FewerThanEightTrailingBytesAreIgnored) {
    Bytes blob = Blob(Raw());
    for (std::size_t extra = 1; extra < 8; ++extra) {
        Bytes longer = blob;
        longer.insert(longer.end(), extra, 0xEE);
        KeyBag opened = Open(longer);
        EXPECT_EQ(opened.GetUnlockedKeys(), ExpectedKeys());
        EXPECT_EQ(opened.CopyData().vector(), blob);
    }
}

TEST_F(KeyBagTest, LengthRunningPastTheEndIsIncomplete) {
    Bytes blob = Blob(Raw());
    // The last item's length, one too long.
    const std::size_t lengthAt = blob.size() - 40 - 4;
    Bytes longer = blob;
    longer[lengthAt + 3] += 1;
    EXPECT_TRUE(IsError(Failure(longer), QVErrorInvalidKeyBag, "Incomplete header"));
    for (uint32_t huge : {0x7FFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFF8u}) {
        Bytes hostile = blob;
        Bytes length = U32(huge);
        std::copy(length.begin(), length.end(), hostile.begin() + static_cast<std::ptrdiff_t>(lengthAt));
        EXPECT_TRUE(IsError(Failure(hostile), QVErrorInvalidKeyBag, "Incomplete header"));
    }
}

TEST_F(KeyBagTest, EveryTruncationFailsCleanlyOrKeepsWholeClasses) {
    const Bytes blob = Blob(Raw());
    const auto expected = ExpectedKeys();
    for (std::size_t n = 0; n < blob.size(); ++n) {
        ExactData exact(Bytes(blob.begin(), blob.begin() + static_cast<std::ptrdiff_t>(n)));
        try {
            KeyBag opened(exact.data(), kPassword);
            // Cut exactly between class blocks: the classes before the cut survive intact.
            for (const auto& [c, key] : opened.GetUnlockedKeys()) EXPECT_EQ(key, expected.at(c)) << n;
            EXPECT_LT(opened.GetUnlockedKeys().size(), expected.size()) << n;
        } catch (const CF::Error& e) {
            EXPECT_TRUE(e.Code() == QVErrorInvalidKeyBag) << n << ": " << e.Text();
        }
    }
}

TEST_F(KeyBagTest, ManyTinyBlocksDoNotExhaustTheStack) {
    Items items = Raw();
    items.resize(IndexOf(items, "DPSL") + 1);
    for (int i = 0; i < 200000; ++i) items.push_back({"UUID", Bytes(16, 1)});
    // The first of them lacks its class fields.
    EXPECT_TRUE(IsError(Failure(items), QVErrorInvalidKeyBag, "Missing CLAS field"));
}

}  // namespace
