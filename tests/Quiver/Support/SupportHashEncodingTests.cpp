// SHA-1 (whole, streamed and from files), hex and Base64 coding, random bytes and UUID names.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/Support/Random.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

namespace fs = std::filesystem;
using namespace Quiver::Support;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes Text(const std::string& text) { return {text.begin(), text.end()}; }

TEST(Sha1Vectors, ShortMessagesAMillionAStreamedInUnevenPiecesAndAFreshStartAfterFinalize) {
    EXPECT_EQ(hex_encode(Sha1(Text("abc"))), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hex_encode(Sha1(Bytes{})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(hex_encode(Sha1(Text("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"))),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    Hasher hasher;
    Bytes piece(997, 'a');
    for (std::size_t left = 1000000; left > 0; left -= std::min(left, piece.size()))
        hasher.Update(piece.data(), std::min(left, piece.size()));
    EXPECT_EQ(hex_encode(hasher.Finalize()), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
    // Finalize starts a new message.
    hasher.Update(Text("ab"));
    hasher.Update(Text("c"));
    EXPECT_EQ(hex_encode(hasher.Finalize()), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hex_encode(hasher.Finalize()), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_THROW(Hasher(static_cast<HashAlgorithm>(0)), std::runtime_error);
}

using Sha1OfFiles = QuiverTest::ScratchDirectoryTest;

TEST_F(Sha1OfFiles, LargeFileMatchesAndMissingFileThrows) {
    writable_file(root / "a").write(Bytes(1000000, 'a'));  // several read chunks
    writable_file empty(root / "empty");
    EXPECT_EQ(hex_encode(HashOfFile(root / "a")), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
    EXPECT_EQ(HashOfFile(root / "empty"), Sha1(Bytes{}));
    EXPECT_THROW(HashOfFile(root / "missing"), std::system_error);
}

TEST(Base64Coding, Rfc4648VectorsEveryByteAndLengthWhitespaceAndMalformedText) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64_encode(Text(plain)), encoded);
        EXPECT_EQ(base64_decode(encoded), Text(plain)) << encoded;
    }
    Bytes data;
    for (int n = 0; n < 300; ++n) {
        EXPECT_EQ(base64_decode(base64_encode(data)), data) << n;
        data.push_back(static_cast<uint8_t>(n * 131 + 7));
    }
    EXPECT_EQ(base64_encode(Bytes{0xfb, 0xff}), "+/8=");
    EXPECT_EQ(base64_decode("\n\tZm9v\r\nYmFy \n"), Text("foobar"));
    EXPECT_EQ(base64_decode("Zm8\n="), Text("fo"));
    for (const char* bad : {"Zg", "Zg=", "Zm9", "Z===", "=Zg=", "Zg==Zg==", "Zg=a", "Zm9v!", "Zm9v-_",
                            "Zh==", "Zm9=", "Zg===", "a", "===="})
        EXPECT_FALSE(base64_decode(bad).has_value()) << bad;
    EXPECT_FALSE(base64_decode(std::string("Zm\0v", 4)).has_value());
}

}  // namespace
