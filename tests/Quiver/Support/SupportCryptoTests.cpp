// Cryptor (AES-CBC, PKCS#7) and RFC 3394 key wrap against published vectors, split streams,
// malformed ciphertext and file round trips.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/KeyWrap.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

namespace fs = std::filesystem;
using namespace Quiver::Support;
using Op = Cryptor::Operation;
using Alg = Cryptor::Algorithm;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes Hex(const std::string& text) {
    auto bytes = hex_decode(text);
    if (!bytes) throw std::invalid_argument("bad hex in test: " + text);
    return *bytes;
}

Bytes Pseudorandom(std::size_t n, uint32_t seed) {
    std::mt19937 generator(seed);
    Bytes bytes(n);
    for (auto& b : bytes) b = static_cast<uint8_t>(generator());
    return bytes;
}

template <typename F>
std::string ThrownText(F f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

// NIST SP 800-38A, F.2: four plaintext blocks shared by every CBC example.
const Bytes kNistPlain = Hex(
    "6bc1bee22e409f96e93d7e117393172a" "ae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52ef" "f69f2445df4f9b17ad2b417be66c3710");
const Bytes kNistIV = Hex("000102030405060708090a0b0c0d0e0f");

struct NistCase {
    Alg algorithm;
    const char* key;
    const char* cipher;
};
const NistCase kNistCases[] = {
    {Alg::AES128, "2b7e151628aed2a6abf7158809cf4f3c",  // F.2.1
     "7649abac8119b246cee98e9b12e9197d" "5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e22229516" "3ff1caa1681fac09120eca307586e1a7"},
    {Alg::AES256, "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",  // F.2.5
     "f58c4c04d6e5f1ba779eabfb5f7bfbd6" "9cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461" "b2eb05e2c39be9fcda6c19078c6a9d1b"},
};

TEST(CryptorKnownAnswers, NistVectorsWithTheirInitialValueOrAnEmptyOneMeaningZero) {
    for (const auto& c : kNistCases) {
        Bytes key = Hex(c.key), expected = Hex(c.cipher);
        Bytes cipher = Cryptor::Encrypt(c.algorithm, key, kNistIV, kNistPlain);
        // Whole-block plaintext gains one full padding block.
        ASSERT_EQ(cipher.size(), kNistPlain.size() + 16);
        EXPECT_EQ(Bytes(cipher.begin(), cipher.begin() + 64), expected);
        EXPECT_EQ(Cryptor::Decrypt(c.algorithm, key, kNistIV, cipher), kNistPlain);
        // CBC with IV v on P1 equals CBC with a zero IV on P1 xor v, so the NIST ciphertext must come out.
        Bytes plain = kNistPlain;
        for (int i = 0; i < 16; ++i) plain[i] ^= kNistIV[i];
        EXPECT_EQ(Cryptor::Encrypt(c.algorithm, key, {}, plain), cipher);
        EXPECT_EQ(Cryptor::Encrypt(c.algorithm, key, Bytes(16, 0), plain), cipher);
        EXPECT_EQ(Cryptor::Decrypt(c.algorithm, key, {}, cipher), plain);
    }
}

class CryptorStreamTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(CryptorStreamTest, SplitStreamsMatchOneShot) {
    const std::size_t chunk = GetParam();
    const Bytes key = Pseudorandom(32, 1);
    const Bytes plain = Pseudorandom(10007, 2);  // not a whole number of blocks
    const Bytes cipher = Cryptor::Encrypt(Alg::AES256, key, {}, plain);
    ASSERT_EQ(cipher.size(), (plain.size() / 16 + 1) * 16);

    auto run = [&](Op op, const Bytes& input) {
        Cryptor cryptor(op, Alg::AES256, key);
        Bytes out, piece;
        for (std::size_t at = 0; at < input.size(); at += chunk) {
            std::size_t n = std::min(chunk, input.size() - at);
            cryptor.Update(input.data() + at, n, piece);  // reuses piece's buffer
            out.insert(out.end(), piece.begin(), piece.end());
        }
        Bytes last = cryptor.Finalize();
        out.insert(out.end(), last.begin(), last.end());
        return out;
    };
    EXPECT_EQ(run(Op::Decrypt, cipher), plain);
    EXPECT_EQ(run(Op::Encrypt, plain), cipher);
}

INSTANTIATE_TEST_SUITE_P(ChunkSizes, CryptorStreamTest, ::testing::Values(1, 15, 16, 17, 4097, 1 << 20));

// A database's pages are deciphered by one cryptor restarted for each page with the ciphertext block
// before it as the initial value: each must come out as a cryptor made afresh for it would give it,
// the key, direction and missing padding kept across restarts, a finalized stream included.
TEST(CryptorRestart, EachPageDeciphersAsUnderAFreshCryptor) {
    const Bytes key = Pseudorandom(32, 4);
    const Bytes plain = Pseudorandom(4 * 4096, 5);
    Bytes cipher = Cryptor::Encrypt(Alg::AES256, key, {}, plain);
    cipher.resize(plain.size());  // the padding block is no page
    Cryptor pages(Op::Decrypt, Alg::AES256, key);
    pages.DisablePadding();
    for (std::size_t page : {2u, 0u, 3u, 1u}) {
        const std::size_t at = page * 4096;
        Bytes iv(16, 0);
        if (at > 0) iv.assign(cipher.begin() + static_cast<std::ptrdiff_t>(at - 16), cipher.begin() + static_cast<std::ptrdiff_t>(at));
        pages.Restart(iv);
        Bytes out(4096 + 16);
        ASSERT_EQ(pages.Update(cipher.data() + at, 4096, out.data()), 4096u) << page;
        out.resize(4096);
        EXPECT_EQ(out, Bytes(plain.begin() + static_cast<std::ptrdiff_t>(at), plain.begin() + static_cast<std::ptrdiff_t>(at + 4096))) << page;
        if (page == 0) pages.Finalize();
    }
    EXPECT_THROW(pages.Restart(Bytes(8, 0)), std::runtime_error);
}

class CryptorMalformedTest : public ::testing::Test {
protected:
    // The single block that encrypts to `finalBlock` under a zero IV: decrypting it alone makes
    // finalBlock the padded last block, so its padding can be chosen exactly.
    Bytes CipherOfFinalBlock(const Bytes& finalBlock) {
        Bytes cipher = Cryptor::Encrypt(Alg::AES128, key_, {}, finalBlock);
        return Bytes(cipher.begin(), cipher.begin() + 16);
    }
    Bytes key_ = Pseudorandom(16, 3);
};

TEST_F(CryptorMalformedTest, PaddingIsCheckedWhole) {
    Bytes valid(16, 'x');
    valid[14] = valid[15] = 2;
    EXPECT_EQ(Cryptor::Decrypt(Alg::AES128, key_, {}, CipherOfFinalBlock(valid)), Bytes(14, 'x'));
    Bytes zeroPad(16, 0);                            // pad length 0
    Bytes tooLong(16, 0x11);                         // pad length above the block size
    Bytes inconsistent(16, 'x');                     // claims 5 bytes of padding, has one
    inconsistent[15] = 5;
    Bytes almost(16, 3);                             // claims 3, second-to-last differs
    almost[14] = 4;
    for (const Bytes& block : {zeroPad, tooLong, inconsistent, almost}) {
        Bytes cipher = CipherOfFinalBlock(block);
        EXPECT_EQ(ThrownText([&] { Cryptor::Decrypt(Alg::AES128, key_, {}, cipher); }), "bad padding");
    }
}

TEST_F(CryptorMalformedTest, LengthMustBeWholeBlocksAndEmptyDecryptsToNothing) {
    Bytes cipher = Cryptor::Encrypt(Alg::AES128, key_, {}, Pseudorandom(40, 5));
    for (std::size_t cut : {1u, 15u, 17u}) {
        Bytes truncated(cipher.begin(), cipher.end() - static_cast<std::ptrdiff_t>(cut));
        EXPECT_EQ(ThrownText([&] { Cryptor::Decrypt(Alg::AES128, key_, {}, truncated); }),
                  "ciphertext length is not a multiple of the block size");
    }
    Cryptor streaming(Op::Decrypt, Alg::AES128, key_);
    streaming.Update(cipher.data(), 33);
    EXPECT_EQ(ThrownText([&] { streaming.Finalize(); }), "ciphertext length is not a multiple of the block size");
    EXPECT_TRUE(Cryptor::Decrypt(Alg::AES128, key_, {}, Bytes{}).empty());
    EXPECT_EQ(Cryptor::Encrypt(Alg::AES128, key_, {}, Bytes{}).size(), 16u);  // one padding block
}

class CryptorFileTest : public QuiverTest::ScratchDirectoryTest {
protected:
    uint64_t CryptFile(Op op, Alg alg, const Bytes& key, const fs::path& from, const fs::path& to) {
        readable_file source(from);
        writable_file destination(to);
        uint64_t written = Cryptor::Crypt(op, alg, key, {}, source, destination);
        destination.close();
        return written;
    }
};

TEST_F(CryptorFileTest, FileRoundTripAcrossSeveralChunksAndTruncatedCipherFileThrows) {
    const Bytes plain = Pseudorandom((3 << 20) + 5, 6);
    writable_file(root / "plain").write(plain);
    for (Alg alg : {Alg::AES128, Alg::AES256}) {
        Bytes key = Pseudorandom(alg == Alg::AES128 ? 16 : 32, 7);
        uint64_t cipherSize = CryptFile(Op::Encrypt, alg, key, root / "plain", root / "cipher");
        EXPECT_EQ(cipherSize, (plain.size() / 16 + 1) * 16);
        Bytes cipher = readable_file(root / "cipher").read_whole_file(8 << 20);
        EXPECT_EQ(cipher, Cryptor::Encrypt(alg, key, {}, plain));
        EXPECT_EQ(CryptFile(Op::Decrypt, alg, key, root / "cipher", root / "back"), plain.size());
        EXPECT_EQ(readable_file(root / "back").read_whole_file(8 << 20), plain);
        cipher.resize(cipher.size() - 3);
        writable_file(root / "cut").write(cipher);
        EXPECT_THROW(CryptFile(Op::Decrypt, alg, key, root / "cut", root / "out"), std::runtime_error);
    }
}

// RFC 3394 section 4 test vectors.
TEST(KeyWrapVectors, Rfc3394Section4) {
    struct Case {
        const char *kek, *key, *wrapped;
    } cases[] = {
        {"000102030405060708090A0B0C0D0E0F", "00112233445566778899AABBCCDDEEFF",  // 4.1
         "1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5"},
        {"000102030405060708090A0B0C0D0E0F1011121314151617", "00112233445566778899AABBCCDDEEFF",  // 4.2
         "96778B25AE6CA435F92B5B97C050AED2468AB8A17AD84E5D"},
        {"000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F",  // 4.6
         "00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F",
         "28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD21"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RFC3394Wrap(Hex(c.kek), Hex(c.key)), Hex(c.wrapped));
        EXPECT_EQ(RFC3394Unwrap(Hex(c.kek), Hex(c.wrapped)), Hex(c.key));
    }
}

TEST(KeyWrapIntegrity, WrongKekDamagedBlobOrOtherInitialValueFailsTheCheck) {
    Bytes kek = Pseudorandom(32, 11), key = Pseudorandom(32, 12), iv = Pseudorandom(8, 16);
    Bytes wrapped = RFC3394Wrap(kek, key);
    ASSERT_EQ(wrapped.size(), 40u);
    Bytes withIV = RFC3394Wrap(kek, key, iv);
    EXPECT_NE(withIV, wrapped);
    EXPECT_EQ(RFC3394Unwrap(kek, withIV, iv), key);
    EXPECT_EQ(ThrownText([&] { RFC3394Unwrap(kek, withIV); }), "integrity check failed");
    EXPECT_EQ(ThrownText([&] { RFC3394Unwrap(Pseudorandom(32, 13), wrapped); }), "integrity check failed");
    wrapped[20] ^= 1;
    EXPECT_EQ(ThrownText([&] { RFC3394Unwrap(kek, wrapped); }), "integrity check failed");
}

}  // namespace
