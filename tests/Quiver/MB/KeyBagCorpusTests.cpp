// The key bag fuzz target's seeds are key bags made by the creator with iteration counts small enough
// to pass the fuzz target's cap unchanged. This test checks that every seed still opens and unlocks
// with the fuzz target's password, and writes a fresh set when QUIVER_WRITE_KEYBAG_CORPUS names a
// directory (e.g. fuzz/corpus/keybag after a format change).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/Support/File.hpp"
#include "tests/Quiver/MB/KeyBagTestSupport.hpp"

namespace fs = std::filesystem;
using MB::KeyBag;

namespace {

const std::string kFuzzPassword = "fuzz";  // as in fuzz/keybag.cpp
const fs::path kCorpus = fs::path(QUIVER_TEST_DATA) / ".." / ".." / "fuzz" / "corpus" / "keybag";

struct Seed {
    const char* name;
    std::vector<uint32_t> classes;
    MB::KeyBagParameters parameters;
};

const Seed kSeeds[] = {
    {"v3-backup-eleven-classes", {11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1}, {3, 1, 1, 1, 1}},
    {"v5-backup-four-classes", {4, 3, 2, 1}, {5, 1, 2, 3, 1}},
    {"v3-system-one-class", {4}, {3, 0, 4, 4, 0}},
    {"v5-escrow-two-classes", {2, 0x01020304}, {5, 2, 1, 2, 1}},
    {"v3-ota-one-class", {1}, {3, 3, 3, 1, 1}},
    // Before iOS 10.2: one derivation pass, no DPWT, DPIC or DPSL.
    {"v3-backup-one-pass", {11, 10, 4, 3}, {3, 1, 2, 0, 0, false}},
};

TEST(KeyBagSeedCorpus, EverySeedOpensAndUnlocks) {
    if (const char* out = std::getenv("QUIVER_WRITE_KEYBAG_CORPUS")) {
        fs::create_directories(out);
        for (const Seed& seed : kSeeds) {
            CF::Data blob = KeyBag::Create(kFuzzPassword, seed.classes, seed.parameters).CopyData();
            Quiver::Support::writable_file file(fs::path(out) / seed.name);
            file.write(blob.bytes());
            file.close();
        }
    }
    ASSERT_TRUE(fs::is_directory(kCorpus)) << kCorpus;
    std::size_t seen = 0;
    for (const Seed& seed : kSeeds) {
        const fs::path path = kCorpus / seed.name;
        ASSERT_TRUE(fs::exists(path)) << path;
        Quiver::Support::readable_file file(path);
        KeyBagTest::ExactData bytes(file.read_whole_file(1 << 16));
        KeyBag bag(bytes.data(), kFuzzPassword);
        EXPECT_EQ(bag.GetVersion(), seed.parameters.version) << seed.name;
        EXPECT_EQ(static_cast<uint32_t>(bag.GetType()), seed.parameters.type) << seed.name;
        EXPECT_EQ(bag.GetUnlockedKeys().size(), seed.classes.size()) << seed.name;
        // Counts above the fuzz target's cap would make it derive a different key.
        EXPECT_LE(bag.GetManifestInfo().dpic, 4u) << seed.name;
        EXPECT_LE(bag.GetManifestInfo().iter, 4u) << seed.name;
        ++seen;
    }
    EXPECT_EQ(seen, std::size(kSeeds));
}

}  // namespace
