// Password key derivation: PBKDF2 against the published vectors and against OpenSSL's own PBKDF2 over
// many password, salt and output lengths; the two-pass key-encryption key and the data key.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/MB/PBKDF2.hpp"
#include "Quiver/Support/Encoding.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using Derivation = void (*)(const uint8_t*, std::size_t, const uint8_t*, std::size_t, uint32_t, uint8_t*, std::size_t);

Bytes Hex(const std::string& text) { return *Quiver::Support::hex_decode(text); }
Bytes Text(const std::string& text) { return {text.begin(), text.end()}; }

Bytes Derive(Derivation derive, const Bytes& password, const Bytes& salt, uint32_t iterations, std::size_t length) {
    Bytes out(length);
    derive(password.data(), password.size(), salt.data(), salt.size(), iterations, out.data(), out.size());
    return out;
}

Bytes OpenSSLDerive(const EVP_MD* md, const Bytes& password, const Bytes& salt, uint32_t iterations,
                    std::size_t length) {
    Bytes out(length);
    const char* text = password.empty() ? "" : reinterpret_cast<const char*>(password.data());
    EXPECT_EQ(PKCS5_PBKDF2_HMAC(text, static_cast<int>(password.size()), salt.data(), static_cast<int>(salt.size()),
                                static_cast<int>(iterations), md, static_cast<int>(length), out.data()),
              1);
    return out;
}

struct Vector { Derivation derive; Bytes password; Bytes salt; uint32_t iterations; Bytes expected; };

const std::string kNul("\0", 1);

// RFC 6070 for HMAC-SHA1; the usual SHA-256 vectors and RFC 7914's (two output blocks) for HMAC-SHA256.
TEST(PBKDF2Vectors, MatchPublishedVectors) {
    const Derivation sha1 = MB::PBKDF2_HMAC_SHA1, sha256 = MB::PBKDF2_HMAC_SHA256;
    const Vector vectors[] = {
        {sha1, Text("password"), Text("salt"), 1, Hex("0c60c80f961f0e71f3a9b524af6012062fe037a6")},
        {sha1, Text("password"), Text("salt"), 2, Hex("ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957")},
        {sha1, Text("password"), Text("salt"), 4096, Hex("4b007901b765489abead49d926f721d065a429c1")},
        {sha1, Text("password"), Text("salt"), 16777216, Hex("eefe3d61cd4da4e4e9945b3d6ba2158c2634e984")},
        {sha1, Text("passwordPASSWORDpassword"), Text("saltSALTsaltSALTsaltSALTsaltSALTsalt"), 4096,
         Hex("3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038")},
        {sha1, Text("pass" + kNul + "word"), Text("sa" + kNul + "lt"), 4096, Hex("56fa6aa75548099dcc37d7f03425e0c3")},
        {sha256, Text("password"), Text("salt"), 1, Hex("120fb6cffcf8b32c43e7225256c4f837a86548c92ccc35480805987cb70be17b")},
        {sha256, Text("password"), Text("salt"), 2, Hex("ae4d0c95af6b46d32d0adff928f06dd02a303f8ef3c251dfd6e2d85a95474c43")},
        {sha256, Text("password"), Text("salt"), 4096, Hex("c5e478d59288c841aa530db6845c4c8d962893a001ce4e11a4963873aa98134a")},
        {sha256, Text("passwordPASSWORDpassword"), Text("saltSALTsaltSALTsaltSALTsaltSALTsalt"), 4096,
         Hex("348c89dbcbd32b2f32d814b8116e84cf2b17347ebc1800181c4e2a1fb8dd53e1c635518c7dac47e9")},
        {sha256, Text("pass" + kNul + "word"), Text("sa" + kNul + "lt"), 4096, Hex("89b69d0516f829893c696226650a8687")},
        {sha256, Text("passwd"), Text("salt"), 1,
         Hex("55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
             "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783")},
        {sha256, Text("Password"), Text("NaCl"), 80000,
         Hex("4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
             "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d")},
    };
    for (const Vector& v : vectors) {
        EXPECT_EQ(Derive(v.derive, v.password, v.salt, v.iterations, v.expected.size()), v.expected)
            << (v.derive == sha1 ? "SHA-1 " : "SHA-256 ") << v.iterations;
    }
}

TEST(PasswordKeys, KEKIsSha1PassOverTheSha256PassDataKeyIsSha1OfPasswordAndSalt) {
    MB::KeyBag::ManifestInfo info;
    info.dpic = 7;
    info.iter = 5;
    info.dpsl.fill(0xA0);  // unlike the salt, so that swapping them shows
    for (std::size_t i = 0; i < info.salt.size(); ++i) info.salt[i] = static_cast<uint8_t>(i * 7);
    const Bytes dpsl(info.dpsl.begin(), info.dpsl.end()), salt(info.salt.begin(), info.salt.end());
    for (const std::string& password : {std::string(), std::string("1234"), std::string(100, 'x')}) {
        const std::array<uint8_t, 32> kek = MB::ManifestEncryption::GenerateKEKFromPassword(Text(password), info);
        const Bytes firstPass = OpenSSLDerive(EVP_sha256(), Text(password), dpsl, 7, 32);
        EXPECT_EQ(Bytes(kek.begin(), kek.end()), OpenSSLDerive(EVP_sha1(), firstPass, salt, 5, 32)) << password;
        // The data key is the start of SHA-1 over the password and the salt.
        Bytes message = Text(password);
        message.insert(message.end(), info.salt.begin(), info.salt.end());
        uint8_t digest[SHA_DIGEST_LENGTH];
        SHA1(message.data(), message.size(), digest);
        std::array<uint8_t, 16> key = MB::ManifestEncryption::GenerateDataKeyFromPassword(Text(password), info.salt);
        EXPECT_EQ(Bytes(key.begin(), key.end()), Bytes(digest, digest + 16)) << password;
    }
}

}  // namespace
