// Key bags and derivation vectors from real devices and from password-recovery tools, kept outside the
// repository (QUIVER_REALDATA); the tests skip when that folder is absent. The expected values are
// read from its kdf-vectors.md at run time.
//
// Key bags written since iOS 10.2 derive in two passes (DPSL/DPIC, then SALT/ITER); their classes with
// WRAP 3 are also wrapped with the device's own key, so a backup key bag with such classes is refused
// after the password check has passed. Older key bags lack the first pass's fields and are refused
// before any derivation.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/MB/PBKDF2.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/KeyWrap.hpp"
#include "tests/Quiver/MB/KeyBagTestSupport.hpp"

namespace fs = std::filesystem;
using namespace KeyBagTest;
using MB::KeyBag;
using MB::ManifestEncryption;

namespace {

Bytes Hex(const std::string& text) {
    auto bytes = Quiver::Support::hex_decode(text);
    if (!bytes) throw std::invalid_argument("bad hex in vectors: " + text);
    return *bytes;
}

template <std::size_t N>
std::array<uint8_t, N> HexArray(const std::string& text) {
    Bytes bytes = Hex(text);
    if (bytes.size() != N) throw std::invalid_argument("wrong length in vectors: " + text);
    std::array<uint8_t, N> out{};
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return out;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::string part;
    std::istringstream in(text);
    while (std::getline(in, part, separator)) parts.push_back(part);
    if (!text.empty() && text.back() == separator) parts.push_back("");
    return parts;
}

class RealKeyBagTest : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = QUIVER_REALDATA;
        if (!fs::exists(root_ / "kdf-vectors.md")) GTEST_SKIP() << "no real data at " << root_;
        std::ifstream in(root_ / "kdf-vectors.md");
        for (std::string line; std::getline(in, line);) lines_.push_back(line);
    }

    // A binary or XML property list holding a dictionary.
    CF::Dictionary ReadPlist(const fs::path& path) {
        Bytes bytes = Quiver::Support::readable_file(path).read_whole_file(1 << 22);
        CF::Data data(bytes);
        CFPropertyListRef plist = CFPropertyListCreateWithData(nullptr, data.get(), 0, nullptr, nullptr);
        CF::Dictionary dictionary = CF::Cast<CF::Dictionary>(plist);
        if (plist) CFRelease(plist);
        return dictionary;
    }

    // The expected values of one key bag of the folder, from its section of kdf-vectors.md.
    struct Section {
        std::string password;
        std::array<uint8_t, 32> kek{};
        std::map<uint32_t, std::array<uint8_t, 32>> classKeys;
        Bytes manifestKeyBlob;
        std::optional<std::array<uint8_t, 32>> manifestKey;
    };
    std::optional<Section> FindSection(const std::string& file) {
        const std::regex header("^### `" + std::regex_replace(file, std::regex(R"([.])"), R"(\.)") +
                                "` — password `([^`]*)`");
        const std::regex kek(R"(^- KEK = .* = ([0-9a-f]{64})$)");
        const std::regex classRow(R"(^\| (\d+) \| \d+ \| \d+ \| [0-9a-f]{80} \| ([0-9a-f]{64}) \|$)");
        const std::regex manifest(R"(^- ManifestKey = ([0-9a-f]{88}) .* = ([0-9a-f]{64})$)");
        std::optional<Section> section;
        for (const std::string& line : lines_) {
            std::smatch m;
            if (!section) {
                if (std::regex_search(line, m, header)) section.emplace().password = m[1];
                continue;
            }
            if (line.rfind("### ", 0) == 0 || line.rfind("## ", 0) == 0) break;
            if (std::regex_match(line, m, kek)) section->kek = HexArray<32>(m[1]);
            if (std::regex_match(line, m, classRow)) section->classKeys[std::stoul(m[1])] = HexArray<32>(m[2]);
            if (std::regex_match(line, m, manifest)) {
                section->manifestKeyBlob = Hex(m[1]);
                section->manifestKey = HexArray<32>(m[2]);
            }
        }
        return section;
    }

    // The items of a trusted blob, and the blob again; for rewriting real key bags in tests.
    static Items Walk(const CF::Data& blob) {
        Items items;
        std::size_t at = 0;
        const std::span<const uint8_t> b = blob.bytes();
        while (b.size() - at >= 8) {
            const uint32_t length = (uint32_t{b[at + 4]} << 24) | (uint32_t{b[at + 5]} << 16) |
                                    (uint32_t{b[at + 6]} << 8) | b[at + 7];
            if (length > b.size() - at - 8) throw std::invalid_argument("test key bag is damaged");
            items.emplace_back(std::string(b.begin() + at, b.begin() + at + 4),
                               Bytes(b.begin() + at + 8, b.begin() + at + 8 + length));
            at += 8 + length;
        }
        return items;
    }

    // Opens a real iOS 10.2+ key bag: the derivation must give the published key-encryption key and
    // the first class (WRAP 3) must fail only for want of the device key. With the device flag taken
    // off, every class unwraps to its published key and the manifest key to its published value.
    void CheckTwoPassKeyBag(const std::string& file) {
        std::optional<Section> expected = FindSection(file);
        ASSERT_TRUE(expected) << file;
        ASSERT_FALSE(expected->classKeys.empty());
        CF::Dictionary manifest = ReadPlist(root_ / file);
        CF::Data keyBag = manifest.Get<CF::Data>("BackupKeyBag");
        ASSERT_TRUE(keyBag) << file;

        std::array<uint8_t, 32> kek{};
        CF::Error e = Thrown([&] {
            KeyBag(keyBag, expected->password, [&](const std::vector<uint8_t>& password, const KeyBag::ManifestInfo& info) {
                EXPECT_EQ(info.dpic, 10'000'000u);
                kek = ManifestEncryption::GenerateKEKFromPassword(password, info);
                return kek;
            });
        });
        EXPECT_EQ(kek, expected->kek) << file;
        ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)")) << file;
        EXPECT_EQ(e.Underlying().Reason(), "Cannot decode without deviceKey");

        Items items = Walk(keyBag);
        for (std::size_t i = 1; i < items.size(); ++i) {
            if (items[i].first == "WRAP" && items[i - 1].first == "CLAS") items[i].second = U32(2);
        }
        auto sameKEK = [&](const std::vector<uint8_t>&, const KeyBag::ManifestInfo&) { return kek; };
        KeyBag opened(CF::Data(Blob(items)), expected->password, sameKEK);
        EXPECT_EQ(opened.GetUnlockedKeys().size(), expected->classKeys.size());
        for (const auto& [c, key] : expected->classKeys) {
            ASSERT_TRUE(opened.FindUnlockedKey(c)) << file << " class " << c;
            EXPECT_EQ(opened.FindUnlockedKey(c)->key, key) << file << " class " << c;
        }

        ASSERT_TRUE(expected->manifestKey);
        CF::Data manifestKey = manifest.Get<CF::Data>("ManifestKey");
        ASSERT_TRUE(manifestKey);
        EXPECT_EQ(manifestKey.vector(), expected->manifestKeyBlob);
        ManifestEncryption encryption(opened, manifestKey);
        EXPECT_EQ(encryption.GetManifestKey(), *expected->manifestKey) << file;
        // Wrapping again under the same class gives the very blob the device wrote.
        EXPECT_EQ(encryption.LockKey(manifestKey.bytes()[0], encryption.GetManifestKey()).vector(), manifestKey.vector());
    }

    fs::path root_;
    std::vector<std::string> lines_;
};

TEST_F(RealKeyBagTest, PublishedVectorsDeriveTheirKeys) {
    // "N. `$format$*VER*WPKY*ITER*SALT*DPIC*DPSL` — password `P`" and the table row of N.
    const std::regex hashLine(R"(^(\d+)\. `(\$[a-z_]+\$[^`]*)` — password `([^`]*)`$)");
    const std::regex row(R"(^\| (\d+) \|.*\| OK \| ([0-9a-f]{64}|-) \| ([0-9a-f]{64}) \| ([0-9a-f]{64}) \|$)");
    std::map<int, std::smatch> rows;
    std::map<int, std::pair<std::string, std::string>> hashes;
    for (const std::string& line : lines_) {
        std::smatch m;
        if (std::regex_match(line, m, row)) rows[std::stoi(m[1])] = m;
        if (std::regex_match(line, m, hashLine)) hashes[std::stoi(m[1])] = {m[2], m[3]};
    }
    ASSERT_FALSE(hashes.empty());
    int checked = 0;
    for (const auto& [n, hash] : hashes) {
        ASSERT_TRUE(rows.count(n)) << n;
        const std::smatch& r = rows[n];
        const std::vector<std::string> f = Split(hash.first, '*');
        ASSERT_EQ(f.size(), 7u) << hash.first;
        const Bytes password(hash.second.begin(), hash.second.end());
        const Bytes wrapped = Hex(f[2]);
        KeyBag::ManifestInfo info;
        info.iter = static_cast<uint32_t>(std::stoul(f[3]));
        info.salt = HexArray<20>(f[4]);
        std::array<uint8_t, 32> kek{};
        if (f[1] == "10") {
            info.dpic = static_cast<uint32_t>(std::stoul(f[5]));
            info.dpsl = HexArray<20>(f[6]);
            // The full-strength ones take a second each; the two real key bags below cover that.
            if (info.dpic > 100'000) continue;
            std::array<uint8_t, 32> firstPass{};
            MB::PBKDF2_HMAC_SHA256(password.data(), password.size(), info.dpsl.data(), 20, info.dpic, firstPass.data(), 32);
            EXPECT_EQ(firstPass, HexArray<32>(r[2])) << n;
            kek = ManifestEncryption::GenerateKEKFromPassword(password, info);
        } else {
            // Before iOS 10.2: the second pass alone, over the password itself.
            MB::PBKDF2_HMAC_SHA1(password.data(), password.size(), info.salt.data(), 20, info.iter, kek.data(), 32);
        }
        EXPECT_EQ(kek, HexArray<32>(r[3])) << n;
        Bytes key = Quiver::Support::RFC3394Unwrap(kek, wrapped);
        EXPECT_EQ(key, Hex(r[4])) << n;
        ++checked;
    }
    EXPECT_GE(checked, 8);
}

TEST_F(RealKeyBagTest, DeviceKeyBagFromIOS10DerivesItsKeys) {
    CheckTwoPassKeyBag("john-samples-manifests/Manifest-10-test123.plist");
}

TEST_F(RealKeyBagTest, SyntheticKeyBagWithZeroKeysDerivesItsKeys) {
    CheckTwoPassKeyBag("pyiosbackup-synthetic/sqlite-backup/Manifest.plist");
}

TEST_F(RealKeyBagTest, KeyBagsWithoutTheFirstPassAreRefusedBeforeDeriving) {
    for (const char* file : {"john-samples-manifests/Manifest-9-123456.plist",
                             "john-samples-manifests/Manifest-9-test123.plist",
                             "hv20-encrypted-mbdb/backup/Manifest.plist",
                             "pyiosbackup-synthetic/mbdb-backup/Manifest.plist"}) {
        CF::Dictionary manifest = ReadPlist(root_ / file);
        CF::Data keyBag = manifest.Get<CF::Data>("BackupKeyBag");
        ASSERT_TRUE(keyBag) << file;
        CF::Error e = Thrown([&] {
            KeyBag(keyBag, "irrelevant", [](const std::vector<uint8_t>&, const KeyBag::ManifestInfo&) {
                ADD_FAILURE() << "derived";
                return std::array<uint8_t, 32>{};
            });
        });
        EXPECT_TRUE(IsError(e, QVErrorInvalidKeyBag, "Missing DPWT field")) << file;
    }
}

}  // namespace
