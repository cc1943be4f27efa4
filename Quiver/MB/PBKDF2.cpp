// PBKDF2 over OpenSSL's low-level SHA block functions; see PBKDF2.hpp.
//
// OpenSSL 3 marks SHA1_Transform and its kin deprecated in favour of EVP, but EVP has no way to run one
// compression from a saved state, which is the whole point here; the transforms still dispatch to the
// CPU's SHA extensions when it has them.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "Quiver/MB/PBKDF2.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/sha.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace MB {

namespace {

struct Sha1 {
    using Context = SHA_CTX;
    using Word = uint32_t;
    static constexpr std::size_t kBlock = SHA_CBLOCK;
    static constexpr std::size_t kDigest = SHA_DIGEST_LENGTH;
    static constexpr std::size_t kWords = 5;
    static constexpr std::size_t kLengthField = 8;
    static void Init(Context& c) { SHA1_Init(&c); }
    static void Update(Context& c, const uint8_t* p, std::size_t n) { SHA1_Update(&c, p, n); }
    static void Final(Context& c, uint8_t* out) { SHA1_Final(out, &c); }
    static void Transform(Context& c, const uint8_t* block) { SHA1_Transform(&c, block); }
    static constexpr bool kWholeVectors = false;  // 20 bytes, in five separate fields
    static void SetState(Context& c, const Word* w) {
        c.h0 = w[0];
        c.h1 = w[1];
        c.h2 = w[2];
        c.h3 = w[3];
        c.h4 = w[4];
    }
    static void GetState(const Context& c, Word* w) {
        w[0] = c.h0;
        w[1] = c.h1;
        w[2] = c.h2;
        w[3] = c.h3;
        w[4] = c.h4;
    }
};

struct Sha256 {
    using Context = SHA256_CTX;
    using Word = uint32_t;
    static constexpr std::size_t kBlock = SHA256_CBLOCK;
    static constexpr std::size_t kDigest = SHA256_DIGEST_LENGTH;
    static constexpr std::size_t kWords = 8;
    static constexpr std::size_t kLengthField = 8;
    static void Init(Context& c) { SHA256_Init(&c); }
    static void Update(Context& c, const uint8_t* p, std::size_t n) { SHA256_Update(&c, p, n); }
    static void Final(Context& c, uint8_t* out) { SHA256_Final(out, &c); }
    static void Transform(Context& c, const uint8_t* block) { SHA256_Transform(&c, block); }
    static constexpr bool kWholeVectors = true;
    static void* StateBytes(Context& c) { return c.h; }
    static void SetState(Context& c, const Word* w) { std::copy_n(w, kWords, c.h); }
    static void GetState(const Context& c, Word* w) { std::copy_n(c.h, kWords, w); }
};

struct Sha512 {
    using Context = SHA512_CTX;
    using Word = uint64_t;
    static constexpr std::size_t kBlock = SHA512_CBLOCK;
    static constexpr std::size_t kDigest = SHA512_DIGEST_LENGTH;
    static constexpr std::size_t kWords = 8;
    static constexpr std::size_t kLengthField = 16;
    static void Init(Context& c) { SHA512_Init(&c); }
    static void Update(Context& c, const uint8_t* p, std::size_t n) { SHA512_Update(&c, p, n); }
    static void Final(Context& c, uint8_t* out) { SHA512_Final(out, &c); }
    static void Transform(Context& c, const uint8_t* block) { SHA512_Transform(&c, block); }
    static constexpr bool kWholeVectors = true;
    static void* StateBytes(Context& c) { return c.h; }
    static void SetState(Context& c, const Word* w) { std::copy_n(w, kWords, c.h); }
    static void GetState(const Context& c, Word* w) { std::copy_n(c.h, kWords, w); }
};

inline void StoreBigEndian(uint8_t* out, uint32_t w) {
    w = __builtin_bswap32(w);
    std::memcpy(out, &w, sizeof w);
}
inline void StoreBigEndian(uint8_t* out, uint64_t w) {
    w = __builtin_bswap64(w);
    std::memcpy(out, &w, sizeof w);
}
inline void LoadBigEndian(const uint8_t* in, uint32_t& w) {
    std::memcpy(&w, in, sizeof w);
    w = __builtin_bswap32(w);
}
inline void LoadBigEndian(const uint8_t* in, uint64_t& w) {
    std::memcpy(&w, in, sizeof w);
    w = __builtin_bswap64(w);
}

template <typename H>
void StoreWords(uint8_t* out, const typename H::Word* words) {
    for (std::size_t k = 0; k < H::kWords; ++k) StoreBigEndian(out + k * sizeof(typename H::Word), words[k]);
}

// Rounds 2 to `iterations` of one output block: U = HMAC(U) from the saved pad states, sum ^= U.
template <typename H>
void ScalarRounds(typename H::Context& scratch, const typename H::Word* innerState,
                  const typename H::Word* outerState, uint8_t* block, typename H::Word* sum, uint32_t iterations) {
    typename H::Word words[H::kWords];
    for (uint32_t j = 1; j < iterations; ++j) {
        H::SetState(scratch, innerState);
        H::Transform(scratch, block);
        H::GetState(scratch, words);
        StoreWords<H>(block, words);
        H::SetState(scratch, outerState);
        H::Transform(scratch, block);
        H::GetState(scratch, words);
        StoreWords<H>(block, words);
        for (std::size_t k = 0; k < H::kWords; ++k) sum[k] ^= words[k];
    }
    OPENSSL_cleanse(words, sizeof words);
}

#if defined(__SSE2__)
// Byte order of each 32-bit lane reversed: swap the halves, then the bytes of each half.
inline __m128i ByteSwap32(__m128i x) {
    x = _mm_or_si128(_mm_slli_epi32(x, 16), _mm_srli_epi32(x, 16));
    return _mm_or_si128(_mm_slli_epi16(x, 8), _mm_srli_epi16(x, 8));
}
inline __m128i ByteSwap(__m128i x, uint32_t) { return ByteSwap32(x); }
inline __m128i ByteSwap(__m128i x, uint64_t) { return _mm_shuffle_epi32(ByteSwap32(x), 0xB1); }

// The same, moving the state and the block 16 bytes at a time. The transforms read both 16 bytes at a
// time, and a read that finds its bytes in several narrower pending writes waits for them to reach the
// cache: done with word-sized writes, those stalls cost a fifth of the whole derivation.
template <typename H>
void VectorRounds(typename H::Context& scratch, const typename H::Word* innerState,
                  const typename H::Word* outerState, uint8_t* block, typename H::Word* sum, uint32_t iterations) {
    constexpr std::size_t kLanes = H::kDigest / 16;
    static_assert(kLanes * 16 == H::kDigest);
    __m128i inner[kLanes], outer[kLanes], total[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) {
        inner[l] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(innerState) + l);
        outer[l] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(outerState) + l);
        total[l] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sum) + l);
    }
    __m128i* state = static_cast<__m128i*>(H::StateBytes(scratch));
    __m128i* message = reinterpret_cast<__m128i*>(block);
    const typename H::Word lane{};
    for (uint32_t j = 1; j < iterations; ++j) {
        for (std::size_t l = 0; l < kLanes; ++l) _mm_storeu_si128(state + l, inner[l]);
        H::Transform(scratch, block);
        for (std::size_t l = 0; l < kLanes; ++l) _mm_storeu_si128(message + l, ByteSwap(_mm_loadu_si128(state + l), lane));
        for (std::size_t l = 0; l < kLanes; ++l) _mm_storeu_si128(state + l, outer[l]);
        H::Transform(scratch, block);
        for (std::size_t l = 0; l < kLanes; ++l) {
            const __m128i u = _mm_loadu_si128(state + l);
            total[l] = _mm_xor_si128(total[l], u);
            _mm_storeu_si128(message + l, ByteSwap(u, lane));
        }
    }
    for (std::size_t l = 0; l < kLanes; ++l) _mm_storeu_si128(reinterpret_cast<__m128i*>(sum) + l, total[l]);
}
#endif

template <typename H>
void Rounds(typename H::Context& scratch, const typename H::Word* innerState, const typename H::Word* outerState,
            uint8_t* block, typename H::Word* sum, uint32_t iterations) {
#if defined(__SSE2__)
    if constexpr (H::kWholeVectors) {
        VectorRounds<H>(scratch, innerState, outerState, block, sum, iterations);
        return;
    }
#endif
    ScalarRounds<H>(scratch, innerState, outerState, block, sum, iterations);
}

template <typename H>
void Derive(const uint8_t* password, std::size_t passwordLength, const uint8_t* salt, std::size_t saltLength,
            uint32_t iterations, uint8_t* out, std::size_t outLength) {
    using Word = typename H::Word;
    static_assert(H::kDigest == H::kWords * sizeof(Word));
    static_assert(H::kDigest + 1 + H::kLengthField <= H::kBlock);

    // The HMAC key, zero-padded to one block.
    uint8_t key[H::kBlock] = {};
    typename H::Context scratch;
    if (passwordLength > H::kBlock) {
        H::Init(scratch);
        H::Update(scratch, password, passwordLength);
        H::Final(scratch, key);
    } else if (passwordLength > 0) {
        std::memcpy(key, password, passwordLength);
    }

    // The digest states after the inner and outer pad blocks. Full contexts serve the first HMAC of each
    // output block, whose message (salt and counter) has any length; the bare states serve the rest.
    uint8_t pad[H::kBlock];
    typename H::Context innerStart, outerStart;
    for (std::size_t k = 0; k < H::kBlock; ++k) pad[k] = key[k] ^ 0x36;
    H::Init(innerStart);
    H::Update(innerStart, pad, H::kBlock);
    for (std::size_t k = 0; k < H::kBlock; ++k) pad[k] = key[k] ^ 0x5C;
    H::Init(outerStart);
    H::Update(outerStart, pad, H::kBlock);
    Word innerState[H::kWords], outerState[H::kWords];
    H::GetState(innerStart, innerState);
    H::GetState(outerStart, outerState);

    // Every later HMAC hashes one pad block and then exactly one digest, so both of its compressions
    // see the same final block: the digest, 0x80, zeros, and the bit length of block plus digest. Only
    // the digest part is ever rewritten.
    uint8_t block[H::kBlock] = {};
    block[H::kDigest] = 0x80;
    const uint64_t bitLength = (H::kBlock + H::kDigest) * 8;
    StoreBigEndian(block + H::kBlock - 8, bitLength);

    Word sum[H::kWords];
    uint8_t blockOut[H::kDigest];
    std::size_t produced = 0;
    for (uint32_t blockIndex = 1; produced < outLength; ++blockIndex) {
        // U1 = HMAC(salt || INT(i)).
        uint8_t counter[4];
        StoreBigEndian(counter, blockIndex);
        scratch = innerStart;
        if (saltLength > 0) H::Update(scratch, salt, saltLength);
        H::Update(scratch, counter, sizeof counter);
        H::Final(scratch, block);
        scratch = outerStart;
        H::Update(scratch, block, H::kDigest);
        H::Final(scratch, block);
        for (std::size_t k = 0; k < H::kWords; ++k) LoadBigEndian(block + k * sizeof(Word), sum[k]);

        // U_j = HMAC(U_{j-1}): two compressions from the saved states, the sum kept as state words.
        Rounds<H>(scratch, innerState, outerState, block, sum, iterations);

        StoreWords<H>(blockOut, sum);
        const std::size_t n = std::min(H::kDigest, outLength - produced);
        std::memcpy(out + produced, blockOut, n);
        produced += n;
    }

    // Everything here is as good as the password.
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(pad, sizeof pad);
    OPENSSL_cleanse(block, sizeof block);
    OPENSSL_cleanse(blockOut, sizeof blockOut);
    OPENSSL_cleanse(sum, sizeof sum);
    OPENSSL_cleanse(innerState, sizeof innerState);
    OPENSSL_cleanse(outerState, sizeof outerState);
    OPENSSL_cleanse(&scratch, sizeof scratch);
    OPENSSL_cleanse(&innerStart, sizeof innerStart);
    OPENSSL_cleanse(&outerStart, sizeof outerStart);
}

}  // namespace

void PBKDF2_HMAC_SHA1(const uint8_t* password, std::size_t passwordLength, const uint8_t* salt,
                      std::size_t saltLength, uint32_t iterations, uint8_t* out, std::size_t outLength) {
    Derive<Sha1>(password, passwordLength, salt, saltLength, iterations, out, outLength);
}

void PBKDF2_HMAC_SHA256(const uint8_t* password, std::size_t passwordLength, const uint8_t* salt,
                        std::size_t saltLength, uint32_t iterations, uint8_t* out, std::size_t outLength) {
    Derive<Sha256>(password, passwordLength, salt, saltLength, iterations, out, outLength);
}

void PBKDF2_HMAC_SHA512(const uint8_t* password, std::size_t passwordLength, const uint8_t* salt,
                        std::size_t saltLength, uint32_t iterations, uint8_t* out, std::size_t outLength) {
    Derive<Sha512>(password, passwordLength, salt, saltLength, iterations, out, outLength);
}

}  // namespace MB
