// Key bags and derivation vectors from real devices and password-recovery tools, kept outside the repository
// (QUIVER_REALDATA, skipped when absent), checked against the values in its kdf-vectors.md. Key bags since
// iOS 10.2 derive in two passes (DPSL/DPIC, then SALT/ITER), older ones in one; in both, the classes that
// devices mark WRAP 3 open with the password alone, and every class gives its published key.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/MB/PBKDF2.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/KeyWrap.hpp"
#include "support/BackupBuilder.hpp"
#include "tests/Quiver/MB/KeyBagTestSupport.hpp"

namespace fs = std::filesystem;
using namespace KeyBagTest;
using MB::KeyBag;
using MB::ManifestEncryption;

namespace {

using Key = std::array<uint8_t, 32>;

Bytes Hex(const std::string& text) { return Quiver::Support::hex_decode(text).value(); }
template <std::size_t N>
std::array<uint8_t, N> Hex(const std::string& text) {  // the regexes below fix the lengths
    const Bytes bytes = Hex(text);
    std::array<uint8_t, N> out{};
    std::copy_n(bytes.begin(), std::min(N, bytes.size()), out.begin());
    return out;
}

class RealKeyBagTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(root_ / "kdf-vectors.md")) GTEST_SKIP() << "no real data at " << root_;
        std::ifstream in(root_ / "kdf-vectors.md");
        for (std::string line; std::getline(in, line);) lines_.push_back(line);
    }

    // A real key bag opens with its password to the published KEK, class keys and manifest key; a wrong
    // key-encryption key fails the integrity check of the first class, as a wrong password does.
    void CheckKeyBag(const std::string& file) {
        SCOPED_TRACE(file);
        const std::string heading = "### `" + file + "` — password `";
        const std::regex keyLine(R"(^- (KEK|ManifestKey) = .* = ([0-9a-f]{64})$)");
        const std::regex classRow(R"(^\| (\d+) \| \d+ \| \d+ \| [0-9a-f]{80} \| ([0-9a-f]{64}) \|$)");
        auto start = std::find_if(lines_.begin(), lines_.end(), [&](auto& l) { return l.rfind(heading, 0) == 0; });
        ASSERT_NE(start, lines_.end());
        const std::string password = start->substr(heading.size(), start->find('`', heading.size()) - heading.size());
        Key expectedKEK{};
        std::optional<Key> expectedManifestKey;
        std::map<uint32_t, Key> classKeys;
        for (auto line = start + 1; line != lines_.end() && line->rfind("##", 0) != 0; ++line) {
            std::smatch m;
            if (std::regex_match(*line, m, keyLine)) {
                if (m[1] == "KEK") expectedKEK = Hex<32>(m[2]);
                else expectedManifestKey = Hex<32>(m[2]);
            }
            if (std::regex_match(*line, m, classRow)) classKeys[std::stoul(m[1])] = Hex<32>(m[2]);
        }
        ASSERT_FALSE(classKeys.empty());
        CF::Dictionary manifest = QuiverTest::ReadPropertyList(root_ / file);
        CF::Data keyBag = manifest.Get<CF::Data>("BackupKeyBag"), manifestKey = manifest.Get<CF::Data>("ManifestKey");
        ASSERT_TRUE(keyBag);
        EXPECT_EQ(bool(manifestKey), expectedManifestKey.has_value());

        Key kek{};
        KeyBag opened(keyBag, password, [&](const std::vector<uint8_t>& pw, const KeyBag::ManifestInfo& info) {
            // Only iOS 10.2 and later have the first pass.
            EXPECT_EQ(info.firstPass, expectedManifestKey.has_value());
            return kek = ManifestEncryption::GenerateKEKFromPassword(pw, info);
        });
        EXPECT_EQ(kek, expectedKEK);
        std::map<uint32_t, Key> openedKeys;
        for (const auto& [c, key] : opened.GetUnlockedKeys()) openedKeys[c] = key.key;
        EXPECT_EQ(openedKeys, classKeys);
        EXPECT_TRUE(opened.GetLockedClasses().empty());

        ManifestEncryption encryption(opened, manifestKey);
        EXPECT_EQ(encryption.HasManifestKey(), expectedManifestKey.has_value());
        if (expectedManifestKey) {
            EXPECT_EQ(encryption.GetManifestKey(), *expectedManifestKey);
            // Wrapping again under the same class gives the very blob the device wrote.
            EXPECT_EQ(encryption.LockKey(manifestKey.bytes()[0], encryption.GetManifestKey()).vector(), manifestKey.vector());
        }

        Key wrongKEK = kek;
        wrongKEK[0] ^= 1;
        CF::Error e = Thrown([&] { KeyBag(keyBag, password, [&](const auto&, const auto&) { return wrongKEK; }); });
        EXPECT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)"));
    }

    const fs::path root_ = QUIVER_REALDATA;
    std::vector<std::string> lines_;
};

TEST_F(RealKeyBagTest, PublishedVectorsDeriveTheirKeys) {
    // "N. `$format$*VER*WPKY*ITER*SALT*DPIC*DPSL` — password `P`" and the table row of N.
    const std::regex hashLine(
        R"(^(\d+)\. `\$[a-z_]+\$\*(\d+)\*([0-9a-f]+)\*(\d+)\*([0-9a-f]{40})\*(\d*)\*([0-9a-f]*)` — password `([^`]*)`$)");
    const std::regex row(R"(^\| (\d+) \|.*\| OK \| (?:[0-9a-f]{64}|-) \| ([0-9a-f]{64}) \| ([0-9a-f]{64}) \|$)");
    std::map<int, std::smatch> rows, hashes;
    for (const std::string& line : lines_) {
        std::smatch m;
        if (std::regex_match(line, m, row)) rows[std::stoi(m[1])] = m;
        if (std::regex_match(line, m, hashLine)) hashes[std::stoi(m[1])] = m;
    }
    int checked = 0;
    for (const auto& [n, f] : hashes) {
        ASSERT_TRUE(rows.count(n)) << n;
        const Bytes password(f[8].first, f[8].second);
        KeyBag::ManifestInfo info;
        info.iter = static_cast<uint32_t>(std::stoul(f[4]));
        info.salt = Hex<20>(f[5]);
        Key kek{};
        if (f[2] == "10") {
            info.dpic = static_cast<uint32_t>(std::stoul(f[6]));
            info.dpsl = Hex<20>(f[7]);
            if (info.dpic > 100'000) continue;  // a second each; the real key bags below cover these
            kek = ManifestEncryption::GenerateKEKFromPassword(password, info);
        } else {
            // Before iOS 10.2: the second pass alone, over the password itself.
            MB::PBKDF2_HMAC_SHA1(password.data(), password.size(), info.salt.data(), 20, info.iter, kek.data(), 32);
        }
        EXPECT_EQ(kek, Hex<32>(rows[n][2])) << n;
        EXPECT_EQ(Quiver::Support::RFC3394Unwrap(kek, Hex(f[3])), Hex(rows[n][3])) << n;
        ++checked;
    }
    EXPECT_GE(checked, 8);
}

TEST_F(RealKeyBagTest, KeyBagsOfEveryGenerationOpenToTheirPublishedKeys) {
    CheckKeyBag("john-samples-manifests/Manifest-10-test123.plist");      // iOS 10.2, two passes
    CheckKeyBag("john-samples-manifests/Manifest-9-123456.plist");        // iOS 9.3.5, one pass
    CheckKeyBag("john-samples-manifests/Manifest-9-test123.plist");       // iOS 9.3
    CheckKeyBag("hv20-encrypted-mbdb/backup/Manifest.plist");             // iOS 9.3.6
    CheckKeyBag("pyiosbackup-synthetic/sqlite-backup/Manifest.plist");  // synthetic, zero keys
    CheckKeyBag("pyiosbackup-synthetic/mbdb-backup/Manifest.plist");
}

TEST_F(RealKeyBagTest, WrongPasswordsOfOnePassKeyBagsAreIncorrectPasswords) {
    for (const char* file : {"john-samples-manifests/Manifest-9-123456.plist", "hv20-encrypted-mbdb/backup/Manifest.plist"}) {
        CF::Data keyBag = QuiverTest::ReadPropertyList(root_ / file).Get<CF::Data>("BackupKeyBag");
        for (const char* wrong : {"20201224", "123457", ""}) {
            CF::Error e = Thrown([&] { KeyBag(keyBag, wrong); });
            EXPECT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)")) << file << " " << wrong;
            EXPECT_TRUE(e.Underlying().Reason().starts_with("RFC3394Unwrap failed")) << e.Text();
        }
    }
}

}  // namespace
