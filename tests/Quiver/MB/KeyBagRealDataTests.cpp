// Key bags and derivation vectors from real devices and password-recovery tools, kept outside the repository
// (QUIVER_REALDATA, skipped when absent), checked against the values in its kdf-vectors.md. Key bags since
// iOS 10.2 derive in two passes (DPSL/DPIC, then SALT/ITER) and also wrap WRAP 3 classes with the device's
// own key, so they are refused after the password check; older ones are refused before any derivation.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
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

    // A real iOS 10.2+ key bag derives its published KEK and fails only for want of the device key; with the
    // device flag taken off, every class and the manifest key unwrap to the keys of its section.
    void CheckTwoPassKeyBag(const std::string& file) {
        SCOPED_TRACE(file);
        const std::string heading = "### `" + file + "` — password `";
        const std::regex keyLine(R"(^- (KEK|ManifestKey) = .* = ([0-9a-f]{64})$)");
        const std::regex classRow(R"(^\| (\d+) \| \d+ \| \d+ \| [0-9a-f]{80} \| ([0-9a-f]{64}) \|$)");
        auto start = std::find_if(lines_.begin(), lines_.end(), [&](auto& l) { return l.rfind(heading, 0) == 0; });
        ASSERT_NE(start, lines_.end());
        const std::string password = start->substr(heading.size(), start->find('`', heading.size()) - heading.size());
        Key expectedKEK{}, expectedManifestKey{};
        std::map<uint32_t, Key> classKeys;
        for (auto line = start + 1; line != lines_.end() && line->rfind("##", 0) != 0; ++line) {
            std::smatch m;
            if (std::regex_match(*line, m, keyLine)) (m[1] == "KEK" ? expectedKEK : expectedManifestKey) = Hex<32>(m[2]);
            if (std::regex_match(*line, m, classRow)) classKeys[std::stoul(m[1])] = Hex<32>(m[2]);
        }
        ASSERT_FALSE(classKeys.empty());
        CF::Dictionary manifest = QuiverTest::ReadPropertyList(root_ / file);
        CF::Data keyBag = manifest.Get<CF::Data>("BackupKeyBag"), manifestKey = manifest.Get<CF::Data>("ManifestKey");
        ASSERT_TRUE(keyBag && manifestKey);

        Key kek{};
        CF::Error e = Thrown([&] { KeyBag(keyBag, password, [&](const std::vector<uint8_t>& pw, const KeyBag::ManifestInfo& info) {
            return kek = ManifestEncryption::GenerateKEKFromPassword(pw, info);
        }); });
        EXPECT_EQ(kek, expectedKEK);
        ASSERT_TRUE(IsError(e, QVErrorUnlockFailed, "Failed to unlock a key (class 11)"));
        EXPECT_EQ(e.Underlying().Reason(), "Cannot decode without deviceKey");

        // Each class's "CLAS" item is followed by its "WRAP" item: set every WRAP to 2 (password only).
        Bytes blob = keyBag.vector();
        const Bytes clas = {'C', 'L', 'A', 'S', 0, 0, 0, 4};
        for (auto at = blob.begin(); (at = std::search(at, blob.end(), clas.begin(), clas.end())) != blob.end(); at += 12) {
            ASSERT_TRUE(blob.end() - at >= 24 && std::equal(at + 12, at + 16, "WRAP"));
            std::copy_n(U32(2).begin(), 4, at + 20);
        }
        KeyBag opened(CF::Data(blob), password, [&](const std::vector<uint8_t>&, const KeyBag::ManifestInfo&) { return kek; });
        std::map<uint32_t, Key> openedKeys;
        for (const auto& [c, key] : opened.GetUnlockedKeys()) openedKeys[c] = key.key;
        EXPECT_EQ(openedKeys, classKeys);
        ManifestEncryption encryption(opened, manifestKey);
        EXPECT_EQ(encryption.GetManifestKey(), expectedManifestKey);
        // Wrapping again under the same class gives the very blob the device wrote.
        EXPECT_EQ(encryption.LockKey(manifestKey.bytes()[0], encryption.GetManifestKey()).vector(), manifestKey.vector());
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

TEST_F(RealKeyBagTest, TwoPassKeyBagsDeriveTheirKeys) {
    CheckTwoPassKeyBag("john-samples-manifests/Manifest-10-test123.plist");    // from a device
    CheckTwoPassKeyBag("pyiosbackup-synthetic/sqlite-backup/Manifest.plist");  // synthetic, zero keys
}

TEST_F(RealKeyBagTest, KeyBagsWithoutTheFirstPassAreRefusedBeforeDeriving) {
    auto refuse = [](const std::vector<uint8_t>&, const KeyBag::ManifestInfo&) -> Key { ADD_FAILURE() << "derived"; return {}; };
    for (const char* file : {"john-samples-manifests/Manifest-9-123456.plist", "john-samples-manifests/Manifest-9-test123.plist",
                             "hv20-encrypted-mbdb/backup/Manifest.plist", "pyiosbackup-synthetic/mbdb-backup/Manifest.plist"}) {
        CF::Data keyBag = QuiverTest::ReadPropertyList(root_ / file).Get<CF::Data>("BackupKeyBag");
        EXPECT_TRUE(IsError(Thrown([&] { KeyBag(keyBag, "x", refuse); }), QVErrorInvalidKeyBag, "Missing DPWT field")) << file;
    }
}

}  // namespace
