// Strings: UTF-16 indexing over UTF-8 storage, strict decoding, encodings, ordering, search, mutation,
// splitting and joining, formatting, constant strings.
#include "CFTestRef.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

using namespace cftest;

namespace {

std::u16string units(CFStringRef s) {
    std::u16string out(static_cast<size_t>(CFStringGetLength(s)), u'\0');
    CFStringGetCharacters(s, CFRangeMake(0, CFStringGetLength(s)), reinterpret_cast<UniChar*>(out.data()));
    return out;
}

Ref<CFStringRef> from_bytes(const std::vector<UInt8>& b, CFStringEncoding encoding, bool external = false) {
    return Ref<CFStringRef>(CFStringCreateWithBytes(nullptr, b.data(), static_cast<CFIndex>(b.size()), encoding, external));
}

Ref<CFStringRef> from_units(const std::u16string& u) {
    return Ref<CFStringRef>(
        CFStringCreateWithCharacters(nullptr, reinterpret_cast<const UniChar*>(u.data()), static_cast<CFIndex>(u.size())));
}

// The whole string in an encoding, or nothing when a character cannot be converted.
std::vector<UInt8> encode(CFStringRef s, CFStringEncoding encoding, bool external = false, UInt8 loss = 0) {
    CFRange all = CFRangeMake(0, CFStringGetLength(s));
    CFIndex size = 0;
    if (CFStringGetBytes(s, all, encoding, loss, external, nullptr, 0, &size) != all.length) return {};
    std::vector<UInt8> out(static_cast<size_t>(size));
    EXPECT_EQ(CFStringGetBytes(s, all, encoding, loss, external, out.data(), size, &size), all.length);
    return out;
}

TEST(CFStringUnicode, IndexesCountUTF16UnitsDecodingIsStrictEqualTextHashesAlike) {
    auto s = str("a\xF0\x9F\x98\x80\xC3\xA9z");  // a, U+1F600, é, z
    ASSERT_TRUE(s);
    EXPECT_EQ(CFStringGetLength(s), 5);
    EXPECT_EQ(units(s), std::u16string(u"a\U0001F600\u00E9z"));
    EXPECT_EQ(CFStringGetCharacterAtIndex(s, 3), 0x00E9);
    UniChar tail[3];
    CFStringGetCharacters(s, CFRangeMake(2, 3), tail);  // starts on the second half of the pair
    EXPECT_EQ(std::u16string(tail, tail + 3), std::u16string(u"\xDE00\u00E9z"));
    // Unpaired surrogates become U+FFFD; a substring that cuts a pair keeps its length.
    auto lone = from_units(u"x\xD800y\xDC00");
    EXPECT_EQ(units(lone), std::u16string(u"x\uFFFDy\uFFFD"));
    EXPECT_EQ(text(lone), "x\xEF\xBF\xBDy\xEF\xBF\xBD");
    Ref<CFStringRef> half(CFStringCreateWithSubstring(nullptr, s, CFRangeMake(2, 2)));
    EXPECT_EQ(units(half), std::u16string(u"\uFFFD\u00E9"));
    // Overlong forms, a surrogate, above U+10FFFF, impossible lead, truncated, stray and missing continuations.
    const std::vector<std::vector<UInt8>> bad = {{0xC0, 0x80}, {0xE0, 0x80, 0xAF}, {0xF0, 0x8F, 0xBF, 0xBF},
                                                 {0xED, 0xA0, 0x80}, {0xF4, 0x90, 0x80, 0x80}, {0xF5, 0x80, 0x80, 0x80},
                                                 {0x61, 0xE2, 0x82}, {0x80}, {0xC3, 0x41}};
    for (const auto& b : bad) EXPECT_FALSE(from_bytes(b, kCFStringEncodingUTF8)) << "first byte " << int(b[0]);
    EXPECT_EQ(CFStringGetLength(from_bytes({0xF4, 0x8F, 0xBF, 0xBF}, kCFStringEncodingUTF8)), 2);
    EXPECT_EQ(CFStringGetLength(from_bytes({0xEF, 0xBF, 0xBF, 0xC2, 0x80}, kCFStringEncodingUTF8)), 2);
    EXPECT_FALSE(Ref<CFStringRef>(CFStringCreateWithCString(nullptr, "ok\xFF", kCFStringEncodingUTF8)));
    // Equal text is equal and hashes alike, whatever its origin.
    auto fromUTF8 = str("\xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80");
    auto fromUnits = from_units(u"\u00E9t\u00E9 \U0001F600");
    Ref<CFMutableStringRef> built(CFStringCreateMutable(nullptr, 0));
    CFStringAppendCharacters(built, reinterpret_cast<const UniChar*>(u"\u00E9t"), 2);
    CFStringAppendCString(built, "\xC3\xA9 \xF0\x9F\x98\x80", kCFStringEncodingUTF8);
    for (CFStringRef other : {fromUnits.get(), static_cast<CFStringRef>(built.get())}) {
        EXPECT_TRUE(CFEqual(fromUTF8.get(), other));
        EXPECT_EQ(CFHash(fromUTF8.get()), CFHash(other));
    }
    // A C string pointer only for encodings the text fits.
    EXPECT_STREQ(CFStringGetCStringPtr(str("plain"), kCFStringEncodingASCII), "plain");
    EXPECT_STREQ(CFStringGetCStringPtr(fromUTF8, kCFStringEncodingUTF8), "\xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80");
    EXPECT_EQ(CFStringGetCStringPtr(fromUTF8, kCFStringEncodingASCII), nullptr);
    EXPECT_EQ(CFStringGetCStringPtr(str("caf\xC3\xA9"), kCFStringEncodingISOLatin1), nullptr);
    EXPECT_EQ(take(CFCopyDescription(fromUTF8)), text(fromUTF8));
    testing::internal::CaptureStderr();
    CFShow(fromUTF8);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), text(fromUTF8) + "\n");
}

TEST(CFStringEncoding, EveryEncodingRoundTripsWithAndWithoutExternalForm) {
    const char* wide = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // A é € U+1F600
    std::vector<std::pair<CFStringEncoding, const char*>> cases = {
        {kCFStringEncodingISOLatin1, "caf\xC3\xA9 \xC3\xBF\xC2\xA0"},
        {kCFStringEncodingWindowsLatin1, "\xE2\x82\xAC \xE2\x80\x98q\xE2\x80\x99 \xC5\xB8"},
        {kCFStringEncodingMacRoman, "caf\xC3\xA9 \xE2\x88\x9E \xCF\x80 \xEF\xA3\xBF"},
        {kCFStringEncodingNonLossyASCII, "a\\b \xC3\xA9 \xF0\x9F\x98\x80"},
        {kCFStringEncodingASCII, "plain ascii ~"}};
    for (CFStringEncoding e : {kCFStringEncodingUTF8, kCFStringEncodingUTF16, kCFStringEncodingUTF16BE, kCFStringEncodingUTF16LE,
                               kCFStringEncodingUTF32, kCFStringEncodingUTF32BE, kCFStringEncodingUTF32LE})
        cases.emplace_back(e, wide);
    for (auto [encoding, utf8] : cases)
        for (bool external : {false, true}) {
            std::vector<UInt8> b = encode(str(utf8), encoding, external);
            ASSERT_FALSE(b.empty()) << encoding;
            EXPECT_EQ(text(from_bytes(b, encoding, external)), utf8) << encoding << " external " << external;
        }
}

TEST(CFStringEncoding, InvalidBytesAreRejectedAndUnrepresentableCharactersUseTheLossByteOrStop) {
    // Odd-length UTF-16, UTF-32 above U+10FFFF and a surrogate, non-ASCII, bad escapes, an unavailable encoding.
    for (auto [b, e] : std::vector<std::pair<std::vector<UInt8>, CFStringEncoding>>{
             {{0x41, 0x00, 0x42}, kCFStringEncodingUTF16LE}, {{0x00, 0x00, 0x11, 0x00}, kCFStringEncodingUTF32LE},
             {{0x00, 0xD8, 0x00, 0x00}, kCFStringEncodingUTF32LE}, {{0x41, 0x80}, kCFStringEncodingASCII},
             {{'\\', 'u', '1', '2'}, kCFStringEncodingNonLossyASCII}, {{'\\', 'q'}, kCFStringEncodingNonLossyASCII},
             {{0x41}, kCFStringEncodingNextStepLatin}})
        EXPECT_FALSE(from_bytes(b, e)) << e;
    EXPECT_FALSE(CFStringIsEncodingAvailable(kCFStringEncodingNextStepLatin));
    auto s = str("a\xE2\x82\xAC" "b");  // a € b
    EXPECT_EQ(encode(s, kCFStringEncodingISOLatin1, false, '?'), (std::vector<UInt8>{'a', '?', 'b'}));
    UInt8 buffer[8];
    CFIndex used = -1;
    EXPECT_EQ(CFStringGetBytes(s, CFRangeMake(0, 3), kCFStringEncodingISOLatin1, 0, false, buffer, 8, &used), 1);
    EXPECT_EQ(used, 1);
    char cbuf[8];
    EXPECT_FALSE(CFStringGetCString(s, cbuf, sizeof cbuf, kCFStringEncodingASCII));
    EXPECT_TRUE(CFStringGetCString(s, cbuf, sizeof cbuf, kCFStringEncodingWindowsLatin1));
    EXPECT_STREQ(cbuf, "a\x80" "b");
    EXPECT_FALSE(Ref<CFDataRef>(CFStringCreateExternalRepresentation(nullptr, s, kCFStringEncodingASCII, 0)));
}

}  // namespace
