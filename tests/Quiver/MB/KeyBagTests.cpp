// Key bags: what the creator writes opens with its password and with no other, and damaged or hostile
// blobs (short, truncated, lengths past the end, fields missing, doubled or of the wrong size, keys
// that cannot be unwrapped) fail with their own error and never read outside the blob.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "tests/Quiver/MB/KeyBagTestSupport.hpp"

using namespace KeyBagTest;
using MB::KeyBag;

namespace {

const std::string kPassword = "correct horse";
const MB::KeyBagParameters kFast{.version = 3, .type = 1, .iterations = 2, .dpIterations = 3, .dpwt = 1};
const uint32_t kClasses[] = {11, 10, 9, 5, 4, 3, 2, 1};

class KeyBagTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { bag_.emplace(KeyBag::Create(kPassword, kClasses, kFast)); }
    static void TearDownTestSuite() { bag_.reset(); }

    static const KeyBag& Bag() { return *bag_; }
    static Items Raw() { return bag_->GetRaw(); }
    static KeyBag Open(const Bytes& blob, const std::string& password = kPassword) {
        return KeyBag(ExactData(blob).data(), password);
    }
    static CF::Error Failure(const Bytes& blob) { return Thrown([&] { Open(blob); }); }
    static CF::Error Failure(const Items& items) { return Failure(Blob(items)); }

    static inline std::optional<KeyBag> bag_;
};

TEST_F(KeyBagTest, CreatedKeyBagOpensWithItsPasswordOnly) {
    KeyBag opened = Open(Bag().CopyData().vector());
    EXPECT_EQ(opened.GetVersion(), 3u);
    EXPECT_EQ(opened.GetType(), KeyBag::Type::Backup);
    EXPECT_EQ(opened.GetUnlockedKeys(), Bag().GetUnlockedKeys());
    EXPECT_EQ(opened.GetUnlockedKeys().size(), std::size(kClasses));

    for (const std::string wrong : {"correct horse ", "Correct horse", ""}) {
        CF::Error e = Thrown([&] { Open(Bag().CopyData().vector(), wrong); });
        ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)")) << wrong;
        EXPECT_EQ(e.Underlying().Reason().rfind("RFC3394Unwrap failed: ", 0), 0u) << e.Text();
    }
    KeyBag changed = KeyBag::Create("new password", Bag().GetUnlockedKeys(), kFast);
    EXPECT_EQ(Open(changed.CopyData().vector(), "new password").GetUnlockedKeys(), Bag().GetUnlockedKeys());
    EXPECT_EQ(Thrown([&] { Open(changed.CopyData().vector(), kPassword); }).Code(), QVErrorUnlockFailed);
}

std::function<void(Items&)> Set(const char* tag, int n, Bytes value) {
    return [=](Items& items) { items[IndexOf(items, tag, n)].second = value; };
}
std::function<void(Items&)> Erase(const char* tag, int n) {
    return [=](Items& items) { items.erase(items.begin() + static_cast<std::ptrdiff_t>(IndexOf(items, tag, n))); };
}

// Each damage of a created key bag fails with its own error.
TEST_F(KeyBagTest, EachDamageFailsWithItsOwnError) {
    struct Damage { std::string what; std::function<void(Items&)> apply; QVError code; std::string reason; };
    const int lastClass = static_cast<int>(std::size(kClasses)) - 1;
    std::vector<Damage> d = {
        {"VERS second", [](Items& i) { std::swap(i[0], i[1]); }, QVErrorInvalidKeyBag, "Missing VERS field"},
        {"VERS of 2 bytes", Set("VERS", 0, {0, 3}), QVErrorInvalidKeyBag, "Invalid VERS field"},
        {"version 0", Set("VERS", 0, U32(0)), QVErrorInvalidKeyBag, "Unknown version '0'"},
        {"version 6", Set("VERS", 0, U32(6)), QVErrorInvalidKeyBag, "Unknown version '6'"},
        {"version 2^32-1", Set("VERS", 0, U32(0xFFFFFFFF)), QVErrorInvalidKeyBag, "Unknown version '4294967295'"},
        {"TYPE renamed", [](Items& i) { i[1].first = "TYPF"; }, QVErrorInvalidKeyBag, "Missing TYPE field"},
        {"TYPE of 5 bytes", Set("TYPE", 0, {0, 0, 0, 0, 1}), QVErrorInvalidKeyBag, "Invalid TYPE field"},
        {"type 4", Set("TYPE", 0, U32(4)), QVErrorInvalidKeyBag, "Unknown type '4'"},
        {"header alone", [](Items& i) { i.resize(2); }, QVErrorInvalidKeyBag, "Expected one ManifestKey block"},
        {"HMCK before UUID", [](Items& i) { std::swap(i[2], i[3]); }, QVErrorInvalidKeyBag, "Missing UUID field"},
        {"UUID of 15 bytes", Set("UUID", 0, Bytes(15, 1)), QVErrorInvalidKeyBag, "Invalid UUID field"},
        {"class UUID of 17 bytes", Set("UUID", 3, Bytes(17, 1)), QVErrorInvalidKeyBag, "Invalid UUID field"},
        {"SALT twice", [](Items& i) { i.insert(i.begin() + 6, i[5]); }, QVErrorInvalidKeyBag, "Invalid SALT field"},
        {"WPKY twice", [](Items& i) { i.insert(i.begin() + 14, i[14]); }, QVErrorInvalidKeyBag, "Invalid WPKY field"},
        {"class 11 twice", Set("CLAS", 3, U32(11)), QVErrorInvalidKeyBag, "Invalid CLAS field"},
        {"WRAP 0", Set("WRAP", 2, U32(0)), QVErrorUnlockFailed, "Failed to unlock a key (class 10)"},
        {"no class the password opens", [](Items& i) { for (int n = 1; n <= lastClass + 1; ++n) i[IndexOf(i, "WRAP", n)].second = U32(1); },
         QVErrorInvalidKeyBag, "No class key is wrapped with the password"},
        {"WPKY damaged", [](Items& i) { i[IndexOf(i, "WPKY", 4)].second[7] ^= 0x10; }, QVErrorUnlockFailed,
         "Failed to unlock a key (class 4)"},
        {"header and 200000 UUIDs", [](Items& i) { i.resize(10); i.insert(i.end(), 200000, {"UUID", Bytes(16, 1)}); },
         QVErrorInvalidKeyBag, "Missing CLAS field"},
    };
    using Field = std::tuple<const char*, int, std::size_t>;  // tag, which one, a wrong size
    const Field fields[] = {{"HMCK", 0, 32}, {"WRAP", 0, 8}, {"SALT", 0, 16}, {"ITER", 0, 0}, {"DPWT", 0, 2},
                            {"DPIC", 0, 5}, {"DPSL", 0, 21}, {"CLAS", lastClass, 3}, {"WRAP", lastClass + 1, 1},
                            {"KTYP", lastClass, 6}, {"WPKY", lastClass, 39}};
    for (const auto& [tag, n, wrongSize] : fields) {
        // Older key bags have no DPWT and no key types; DPIC and DPSL go together.
        if (std::string_view(tag) != "DPWT" && std::string_view(tag) != "KTYP")
            d.push_back({std::string("no ") + tag, Erase(tag, n), QVErrorInvalidKeyBag, std::string("Missing ") + tag + " field"});
        d.push_back({std::string("short ") + tag, Set(tag, n, Bytes(wrongSize, 1)), QVErrorInvalidKeyBag,
                     std::string("Invalid ") + tag + " field"});
    }
    for (const Damage& damage : d) {
        Items items = Raw();
        damage.apply(items);
        EXPECT_TRUE(IsError(Failure(items), damage.code, damage.reason)) << damage.what;
    }
}

TEST_F(KeyBagTest, UnlockFailuresCarryTheirCause) {
    Items items = Raw();
    items[IndexOf(items, "WPKY", 2)].second[5] ^= 1;
    EXPECT_EQ(Failure(items).Underlying().Reason(), "RFC3394Unwrap failed: integrity check failed");
    items = Raw();
    items[IndexOf(items, "WRAP", 2)].second = U32(0);
    EXPECT_TRUE(IsError(Failure(items).Underlying(), QVErrorInvalidKeyBag, "Unwrapped bad key length"));
}

// What devices wrote before iOS 10.2, and the device marks of every generation.
TEST_F(KeyBagTest, OlderGenerationsAndDeviceMarkedClassesOpen) {
    // One pass over the password itself: no DPWT, DPIC or DPSL, and the derivation is told so.
    MB::KeyBagParameters old = kFast;
    old.firstPass = false;
    KeyBag bag = KeyBag::Create(kPassword, kClasses, old);
    for (const auto& [tag, value] : bag.GetRaw()) EXPECT_TRUE(tag != "DPWT" && tag != "DPIC" && tag != "DPSL") << tag;
    std::optional<bool> firstPass;
    KeyBag opened(bag.CopyData(), kPassword, [&](const std::vector<uint8_t>& pw, const KeyBag::ManifestInfo& info) {
        firstPass = info.firstPass;
        return MB::ManifestEncryption::GenerateKEKFromPassword(pw, info);
    });
    EXPECT_EQ(firstPass, false);
    EXPECT_EQ(opened.GetUnlockedKeys(), bag.GetUnlockedKeys());
    EXPECT_TRUE(IsError(Thrown([&] { Open(bag.CopyData().vector(), "wrong"); }), QVErrorUnlockFailed,
                        "Failed to unlock a key (class 11)"));

    // iOS 4 key bags are version 1 and have no key types.
    Items items = bag.GetRaw();
    items[0].second = U32(1);
    std::erase_if(items, [](const KeyBag::Item& item) { return item.first == "KTYP"; });
    EXPECT_EQ(Open(Blob(items)).GetUnlockedKeys().size(), std::size(kClasses));

    // WRAP 3 opens with the password alone; a class the device alone wrapped stays locked, and only
    // the files of that class fail, naming it.
    items = Raw();
    items[IndexOf(items, "WRAP", 1)].second = U32(1);  // class 11
    KeyBag partly = Open(Blob(items));
    EXPECT_EQ(partly.GetLockedClasses(), std::vector<uint32_t>{11});
    EXPECT_EQ(partly.FindUnlockedKey(11), nullptr);
    EXPECT_EQ(partly.FindUnlockedKey(10)->key, Bag().FindUnlockedKey(10)->key);
    MB::ManifestEncryption full(Bag(), CF::Data());
    MB::ManifestEncryption locked(partly, CF::Data());
    std::array<uint8_t, 32> key{};
    key.fill(7);
    EXPECT_TRUE(IsError(Thrown([&] { locked.UnlockKey(full.LockKey(11, key)); }), QVErrorUnlockFailed,
                        "Class 11 is wrapped with the device's own key, which a backup does not hold"));
    EXPECT_EQ(locked.UnlockKey(full.LockKey(10, key)), key);
}

TEST_F(KeyBagTest, TruncationsAndLengthsPastTheEndFailCleanly) {
    const Bytes blob = Blob(Raw());
    for (std::size_t n = 0; n < blob.size(); ++n) {
        try {
            KeyBag opened = Open(Bytes(blob.begin(), blob.begin() + static_cast<std::ptrdiff_t>(n)));
            // Cut between class blocks: the classes before the cut survive intact.
            EXPECT_LT(opened.GetUnlockedKeys().size(), std::size(kClasses)) << n;
            for (const auto& [c, key] : opened.GetUnlockedKeys()) EXPECT_EQ(key, *Bag().FindUnlockedKey(c)) << n;
        } catch (const CF::Error& e) {
            // Shorter than the first two items, nothing can be walked.
            EXPECT_TRUE(e.Code() == QVErrorInvalidKeyBag && (n >= 16 || e.Reason() == "Incomplete header")) << e.Text();
        }
    }
    const std::size_t lastLength = blob.size() - 40 - 4;  // the length of the last WPKY
    for (uint32_t length : {41u, 0x7FFFFFFFu, 0xFFFFFFF8u, 0xFFFFFFFFu}) {
        Bytes hostile = blob;
        const Bytes encoded = U32(length);
        std::copy(encoded.begin(), encoded.end(), hostile.begin() + static_cast<std::ptrdiff_t>(lastLength));
        EXPECT_TRUE(IsError(Failure(hostile), QVErrorInvalidKeyBag, "Incomplete header")) << length;
    }
}

}  // namespace
