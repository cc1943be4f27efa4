// Strings: UTF-16 indexing over UTF-8 storage, strict decoding, encodings, ordering, search, mutation,
// splitting and joining, formatting, constant strings.
#include "CFTestRef.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
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
    return Ref<CFStringRef>(
        CFStringCreateWithBytes(nullptr, b.data(), static_cast<CFIndex>(b.size()), encoding, external));
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

std::string format(CFStringRef fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string result = take(CFStringCreateWithFormatAndArguments(nullptr, nullptr, fmt, args));
    va_end(args);
    return result;
}

std::vector<std::string> texts(CFArrayRef array) {
    std::vector<std::string> out;
    for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
        out.push_back(text(static_cast<CFStringRef>(CFArrayGetValueAtIndex(array, i))));
    }
    return out;
}

// ----- Unicode storage and indexing

TEST(CFStringUnicode, LengthsAndIndexesCountUTF16Units) {
    auto s = str("a\xF0\x9F\x98\x80\xC3\xA9z");  // a, U+1F600, é, z
    ASSERT_TRUE(s);
    EXPECT_EQ(CFStringGetLength(s), 5);
    EXPECT_EQ(units(s), std::u16string(u"a\U0001F600\u00E9z"));
    EXPECT_EQ(CFStringGetCharacterAtIndex(s, 2), 0xDE00);
    EXPECT_EQ(CFStringGetCharacterAtIndex(s, 3), 0x00E9);
    UniChar tail[3];
    CFStringGetCharacters(s, CFRangeMake(2, 3), tail);  // starts on the second half of the pair
    EXPECT_EQ(tail[0], 0xDE00);
    EXPECT_EQ(tail[1], 0x00E9);
    EXPECT_EQ(tail[2], u'z');
}

TEST(CFStringUnicode, IllFormedUTF8IsRejected) {
    const std::vector<std::vector<UInt8>> bad = {
        {0xC0, 0x80},              // overlong NUL
        {0xE0, 0x80, 0xAF},        // overlong '/'
        {0xF0, 0x8F, 0xBF, 0xBF},  // overlong U+FFFF
        {0xED, 0xA0, 0x80},        // a surrogate
        {0xF4, 0x90, 0x80, 0x80},  // above U+10FFFF
        {0xF5, 0x80, 0x80, 0x80},  // lead byte that cannot occur
        {0x61, 0xE2, 0x82},        // truncated at the end
        {0x80},                    // stray continuation
        {0xC3, 0x41},              // lead without continuation
    };
    for (const auto& b : bad) {
        EXPECT_FALSE(from_bytes(b, kCFStringEncodingUTF8)) << "first byte " << int(b[0]);
    }
    EXPECT_EQ(CFStringGetLength(from_bytes({0xF4, 0x8F, 0xBF, 0xBF}, kCFStringEncodingUTF8)), 2);
    EXPECT_EQ(CFStringGetLength(from_bytes({0xEF, 0xBF, 0xBF, 0xC2, 0x80}, kCFStringEncodingUTF8)), 2);
    EXPECT_FALSE(Ref<CFStringRef>(CFStringCreateWithCString(nullptr, "ok\xFF", kCFStringEncodingUTF8)));
}

TEST(CFStringUnicode, UnpairedSurrogatesBecomeReplacementCharacters) {
    auto s = from_units(u"x\xD800y\xDC00");
    EXPECT_EQ(units(s), std::u16string(u"x\uFFFDy\uFFFD"));
    EXPECT_EQ(text(s), "x\xEF\xBF\xBDy\xEF\xBF\xBD");
    // A substring that cuts a pair keeps its length; the orphaned half is replaced.
    auto emoji = str("\xF0\x9F\x98\x80!");
    Ref<CFStringRef> half(CFStringCreateWithSubstring(nullptr, emoji, CFRangeMake(1, 2)));
    EXPECT_EQ(units(half), std::u16string(u"\uFFFD!"));
}

TEST(CFStringUnicode, EqualStringsHashAlikeWhateverTheirOrigin) {
    auto fromUTF8 = str("\xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80");
    auto fromUnits = from_units(u"\u00E9t\u00E9 \U0001F600");
    Ref<CFMutableStringRef> built(CFStringCreateMutable(nullptr, 0));
    CFStringAppendCharacters(built, reinterpret_cast<const UniChar*>(u"\u00E9t"), 2);
    CFStringAppendCString(built, "\xC3\xA9 \xF0\x9F\x98\x80", kCFStringEncodingUTF8);
    EXPECT_TRUE(CFEqual(fromUTF8.get(), fromUnits.get()));
    EXPECT_TRUE(CFEqual(fromUTF8.get(), built.get()));
    EXPECT_EQ(CFHash(fromUTF8.get()), CFHash(fromUnits.get()));
    EXPECT_EQ(CFHash(fromUTF8.get()), CFHash(built.get()));
    EXPECT_FALSE(CFEqual(fromUTF8.get(), str("ete").get()));
}

TEST(CFStringUnicode, CStringPointerOnlyForCompatibleEncodings) {
    auto ascii = str("plain");
    auto accented = str("caf\xC3\xA9");
    EXPECT_STREQ(CFStringGetCStringPtr(ascii, kCFStringEncodingASCII), "plain");
    EXPECT_STREQ(CFStringGetCStringPtr(accented, kCFStringEncodingUTF8), "caf\xC3\xA9");
    EXPECT_EQ(CFStringGetCStringPtr(accented, kCFStringEncodingASCII), nullptr);
    EXPECT_EQ(CFStringGetCStringPtr(accented, kCFStringEncodingISOLatin1), nullptr);
}

TEST(CFStringUnicode, DescriptionIsTheTextAndCFShowPrintsIt) {
    auto s = str("na\xC3\xAFve");
    EXPECT_EQ(take(CFCopyDescription(s)), "na\xC3\xAFve");
    testing::internal::CaptureStderr();
    CFShow(s);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "na\xC3\xAFve\n");
}

// ----- Constant strings

TEST(CFStringConstant, SameTextGivesTheSameObject) {
    CFStringRef a = CFSTR("com.example.constant");
    std::string sameText = "com.example.constant";  // different storage, same characters
    EXPECT_EQ(__CFStringMakeConstantString(sameText.c_str()), a);
    EXPECT_NE(CFSTR("com.example.other"), a);
    EXPECT_EQ(text(a), "com.example.constant");
}

TEST(CFStringConstant, IsImmortal) {
    CFStringRef s = CFSTR("immortal constant");
    CFIndex before = CFGetRetainCount(s);
    CFRetain(s);
    EXPECT_EQ(CFGetRetainCount(s), before);
    for (int i = 0; i < 10; ++i) CFRelease(s);  // would free (and then fault below) if it counted
    EXPECT_EQ(CFGetRetainCount(s), before);
    EXPECT_EQ(CFStringGetLength(s), 17);
    EXPECT_EQ(text(s), "immortal constant");
}

TEST(CFStringConstant, ConcurrentFirstUseMakesOneObject) {
    std::vector<CFStringRef> seen(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = CFSTR("made by many threads at once"); });
    }
    for (auto& t : threads) t.join();
    for (CFStringRef s : seen) EXPECT_EQ(s, seen[0]);
}

// ----- Encodings

struct RoundTrip {
    CFStringEncoding encoding;
    const char* utf8;
};

class CFStringEncodingRoundTrip : public ::testing::TestWithParam<RoundTrip> {};

TEST_P(CFStringEncodingRoundTrip, BytesComeBackAsTheSameString) {
    auto original = str(GetParam().utf8);
    ASSERT_TRUE(original);
    for (bool external : {false, true}) {
        std::vector<UInt8> b = encode(original, GetParam().encoding, external);
        ASSERT_FALSE(b.empty());
        auto back = from_bytes(b, GetParam().encoding, external);
        ASSERT_TRUE(back);
        EXPECT_EQ(text(back), GetParam().utf8);
    }
}

INSTANTIATE_TEST_SUITE_P(
    CFStringEncodings, CFStringEncodingRoundTrip,
    ::testing::Values(RoundTrip{kCFStringEncodingUTF8, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingUTF16, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingUTF16BE, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingUTF16LE, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingUTF32, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingUTF32BE, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingUTF32LE, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingISOLatin1, "caf\xC3\xA9 \xC3\xBF\xC2\xA0"},
                      RoundTrip{kCFStringEncodingWindowsLatin1, "\xE2\x82\xAC \xE2\x80\x98q\xE2\x80\x99 \xC5\xB8"},
                      RoundTrip{kCFStringEncodingMacRoman, "caf\xC3\xA9 \xE2\x88\x9E \xCF\x80 \xEF\xA3\xBF"},
                      RoundTrip{kCFStringEncodingNonLossyASCII, "a\\b \xC3\xA9 \xF0\x9F\x98\x80"},
                      RoundTrip{kCFStringEncodingASCII, "plain ascii ~"}));

TEST(CFStringEncoding, ProducesTheExpectedBytes) {
    auto s = str("A\xF0\x9F\x98\x80");  // A, U+1F600
    EXPECT_EQ(encode(s, kCFStringEncodingUTF16BE), (std::vector<UInt8>{0x00, 0x41, 0xD8, 0x3D, 0xDE, 0x00}));
    EXPECT_EQ(encode(s, kCFStringEncodingUTF16LE), (std::vector<UInt8>{0x41, 0x00, 0x3D, 0xD8, 0x00, 0xDE}));
    EXPECT_EQ(encode(s, kCFStringEncodingUTF32BE),
              (std::vector<UInt8>{0, 0, 0, 0x41, 0, 0x01, 0xF6, 0x00}));
    // External UTF-16 carries a byte-order mark in the host's order (little-endian here).
    EXPECT_EQ(encode(str("A"), kCFStringEncodingUTF16, true), (std::vector<UInt8>{0xFF, 0xFE, 0x41, 0x00}));
    EXPECT_EQ(encode(str("\xE2\x82\xAC"), kCFStringEncodingWindowsLatin1), (std::vector<UInt8>{0x80}));
    EXPECT_EQ(encode(str("\xC3\xA9"), kCFStringEncodingMacRoman), (std::vector<UInt8>{0x8E}));
    std::vector<UInt8> escaped = encode(str("\\\xC3\xA9\xF0\x9F\x98\x80"), kCFStringEncodingNonLossyASCII);
    EXPECT_EQ(std::string(escaped.begin(), escaped.end()), "\\\\\\351\\ud83d\\ude00");
}

TEST(CFStringEncoding, ByteOrderMarkDecidesUTF16Order) {
    EXPECT_EQ(text(from_bytes({0xFE, 0xFF, 0x00, 0x41}, kCFStringEncodingUTF16)), "A");
    EXPECT_EQ(text(from_bytes({0xFF, 0xFE, 0x41, 0x00}, kCFStringEncodingUTF16)), "A");
    EXPECT_EQ(text(from_bytes({0x41, 0x00}, kCFStringEncodingUTF16)), "A");  // no mark: host order
    EXPECT_EQ(text(from_bytes({0x00, 0x00, 0xFE, 0xFF, 0x00, 0x00, 0x00, 0x42}, kCFStringEncodingUTF32)), "B");
    // An explicit order keeps a leading U+FEFF as a character.
    EXPECT_EQ(CFStringGetLength(from_bytes({0xFE, 0xFF, 0x00, 0x41}, kCFStringEncodingUTF16BE)), 2);
}

TEST(CFStringEncoding, BytesInvalidInTheEncodingAreRejected) {
    EXPECT_FALSE(from_bytes({0x41, 0x00, 0x42}, kCFStringEncodingUTF16LE));              // odd length
    EXPECT_FALSE(from_bytes({0x00, 0x00, 0x11, 0x00}, kCFStringEncodingUTF32LE));        // above U+10FFFF
    EXPECT_FALSE(from_bytes({0x00, 0xD8, 0x00, 0x00}, kCFStringEncodingUTF32LE));        // a surrogate
    EXPECT_FALSE(from_bytes({0x41, 0x80}, kCFStringEncodingASCII));
    EXPECT_FALSE(from_bytes({'\\', 'u', '1', '2'}, kCFStringEncodingNonLossyASCII));     // truncated escape
    EXPECT_FALSE(from_bytes({'\\', 'q'}, kCFStringEncodingNonLossyASCII));
    EXPECT_FALSE(from_bytes({0x41}, kCFStringEncodingNextStepLatin));                    // not available
    EXPECT_FALSE(CFStringIsEncodingAvailable(kCFStringEncodingNextStepLatin));
}

TEST(CFStringEncoding, UnrepresentableCharactersUseTheLossByteOrStop) {
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
}

TEST(CFStringEncoding, SmallBuffersTakeWholeCharactersOnly) {
    auto s = str("\xC3\xA9\xF0\x9F\x98\x80x");  // é (2 bytes), U+1F600 (4 bytes), x
    UInt8 buffer[16];
    CFIndex used = 0;
    EXPECT_EQ(CFStringGetBytes(s, CFRangeMake(0, 4), kCFStringEncodingUTF8, 0, false, buffer, 5, &used), 1);
    EXPECT_EQ(used, 2);
    EXPECT_EQ(CFStringGetBytes(s, CFRangeMake(0, 4), kCFStringEncodingUTF8, 0, false, buffer, 6, &used), 3);
    EXPECT_EQ(used, 6);
    EXPECT_EQ(CFStringGetBytes(s, CFRangeMake(0, 4), kCFStringEncodingUTF8, 0, false, nullptr, 0, &used), 4);
    EXPECT_EQ(used, 7);

    char exact[8];  // seven bytes and the terminator
    EXPECT_FALSE(CFStringGetCString(s, exact, 7, kCFStringEncodingUTF8));
    EXPECT_TRUE(CFStringGetCString(s, exact, 8, kCFStringEncodingUTF8));
    EXPECT_STREQ(exact, "\xC3\xA9\xF0\x9F\x98\x80x");
}

TEST(CFStringEncoding, ExternalRepresentationRoundTripsThroughData) {
    auto s = str("\xF0\x9F\x98\x80 ok");
    Ref<CFDataRef> data(CFStringCreateExternalRepresentation(nullptr, s, kCFStringEncodingUTF16, 0));
    ASSERT_TRUE(data);
    EXPECT_EQ(CFDataGetLength(data), 2 + 2 * 5);
    Ref<CFStringRef> back(CFStringCreateFromExternalRepresentation(nullptr, data, kCFStringEncodingUTF16));
    EXPECT_TRUE(CFEqual(back.get(), s.get()));
    EXPECT_FALSE(Ref<CFDataRef>(CFStringCreateExternalRepresentation(nullptr, s, kCFStringEncodingASCII, 0)));
}

TEST(CFStringEncoding, NoCopyCreationFreesWithTheGivenDeallocator) {
    char* heap = static_cast<char*>(std::malloc(6));
    std::memcpy(heap, "heap!", 6);
    // LeakSanitizer reports the buffer if it is not freed; freeing the stack one would crash.
    Ref<CFStringRef> a(CFStringCreateWithCStringNoCopy(nullptr, heap, kCFStringEncodingUTF8, kCFAllocatorMalloc));
    char onStack[] = "stack";
    Ref<CFStringRef> b(CFStringCreateWithCStringNoCopy(nullptr, onStack, kCFStringEncodingUTF8, kCFAllocatorNull));
    EXPECT_EQ(text(a), "heap!");
    EXPECT_EQ(text(b), "stack");
}

TEST(CFStringEncoding, MaximumSizeGuardsAgainstOverflow) {
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF8), 30);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF16), 20);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 2, kCFStringEncodingUTF8), kCFNotFound);
}

// ----- Comparison

TEST(CFStringCompare, OrdersByUTF16UnitsNotCodePoints) {
    auto emoji = str("\xF0\x9F\x98\x80");      // U+1F600: D83D DE00
    auto fullwidth = str("\xEF\xBC\x81");      // U+FF01, above the surrogates
    auto hangul = str("\xED\x9E\xA3");         // U+D7A3, below them
    EXPECT_EQ(CFStringCompare(emoji, fullwidth, 0), kCFCompareLessThan);
    EXPECT_EQ(CFStringCompare(fullwidth, emoji, 0), kCFCompareGreaterThan);
    EXPECT_EQ(CFStringCompare(hangul, emoji, 0), kCFCompareLessThan);
    // The difference may be deep inside a shared prefix of bytes.
    auto a = str("x\xEF\xBF\xBDy");  // x U+FFFD y
    auto b = str("x\xF0\x90\x80\x80y");  // x U+10000 y
    EXPECT_EQ(CFStringCompare(b, a, 0), kCFCompareLessThan);
    EXPECT_EQ(CFStringCompare(str("ab"), str("abc"), 0), kCFCompareLessThan);
    EXPECT_EQ(CFStringCompare(str("B"), str("a"), 0), kCFCompareLessThan);
}

TEST(CFStringCompare, CaseInsensitiveFoldsASCIIAndOtherScripts) {
    EXPECT_EQ(CFStringCompare(str("Hello World"), str("hELLO wORLD"), kCFCompareCaseInsensitive), kCFCompareEqualTo);
    EXPECT_EQ(CFStringCompare(str("a"), str("B"), kCFCompareCaseInsensitive), kCFCompareLessThan);
    EXPECT_EQ(CFStringCompare(str("[") , str("a"), kCFCompareCaseInsensitive), kCFCompareLessThan);
    EXPECT_EQ(CFStringCompare(str("\xC3\x89T\xC3\x89 \xCE\xA9"), str("\xC3\xA9t\xC3\xA9 \xCF\x89"),
                              kCFCompareCaseInsensitive),
              kCFCompareEqualTo);  // ÉTÉ Ω / été ω
    EXPECT_EQ(CFStringCompare(str("\xD0\x9F\xD0\xA0\xD0\x98"), str("\xD0\xBF\xD1\x80\xD0\xB8"),
                              kCFCompareCaseInsensitive),
              kCFCompareEqualTo);  // ПРИ / при
    EXPECT_EQ(CFStringCompare(str("\xC3\x89"), str("\xC3\xA9"), 0), kCFCompareLessThan);
}

TEST(CFStringCompare, NumericallyComparesDigitRunsByValue) {
    EXPECT_EQ(CFStringCompare(str("file9"), str("file10"), kCFCompareNumerically), kCFCompareLessThan);
    EXPECT_EQ(CFStringCompare(str("file9"), str("file10"), 0), kCFCompareGreaterThan);
    EXPECT_EQ(CFStringCompare(str("v2.10"), str("v2.9"), kCFCompareNumerically), kCFCompareGreaterThan);
    EXPECT_EQ(CFStringCompare(str("a007b"), str("a7b"), kCFCompareNumerically), kCFCompareEqualTo);
    EXPECT_EQ(CFStringCompare(str("A10"), str("a9"), kCFCompareNumerically | kCFCompareCaseInsensitive),
              kCFCompareGreaterThan);
}

TEST(CFStringCompare, WithOptionsComparesOnlyTheRange) {
    auto s = str("\xF0\x9F\x98\x80prefix-Value");
    EXPECT_EQ(CFStringCompareWithOptions(s, str("value"), CFRangeMake(9, 5), kCFCompareCaseInsensitive),
              kCFCompareEqualTo);
    EXPECT_EQ(CFStringCompareWithOptions(s, str("prefix"), CFRangeMake(2, 6), 0), kCFCompareEqualTo);
}

// ----- Search

class CFStringFindTest : public ::testing::Test {
protected:
    // U+1F600 first, so that every location after it is one more than its character count.
    Ref<CFStringRef> s = str("\xF0\x9F\x98\x80 abc ABC abc");
    CFRange find(const char* needle, CFStringCompareFlags flags) { return CFStringFind(s, str(needle), flags); }
};

TEST_F(CFStringFindTest, ForwardBackwardAndAnchored) {
    EXPECT_EQ(find("abc", 0).location, 3);
    EXPECT_EQ(find("abc", 0).length, 3);
    EXPECT_EQ(find("abc", kCFCompareBackwards).location, 11);
    EXPECT_EQ(find("ABC", kCFCompareCaseInsensitive).location, 3);
    EXPECT_EQ(find("ABC", kCFCompareCaseInsensitive | kCFCompareBackwards).location, 11);
    EXPECT_EQ(find("abc", kCFCompareAnchored).location, kCFNotFound);
    EXPECT_EQ(find("\xF0\x9F\x98\x80", kCFCompareAnchored).location, 0);
    EXPECT_EQ(find("C abc", kCFCompareAnchored | kCFCompareBackwards).location, 9);
    EXPECT_EQ(find("xyz", 0).location, kCFNotFound);
    EXPECT_EQ(find("", 0).location, kCFNotFound);
}

TEST_F(CFStringFindTest, RangeLimitsTheSearch) {
    CFRange result;
    EXPECT_FALSE(CFStringFindWithOptions(s, str("abc"), CFRangeMake(4, 6), 0, &result));
    EXPECT_TRUE(CFStringFindWithOptions(s, str("abc"), CFRangeMake(4, 6), kCFCompareCaseInsensitive, &result));
    EXPECT_EQ(result.location, 7);
    EXPECT_TRUE(CFStringFindWithOptions(s, str("abc"), CFRangeMake(4, 10), 0, &result));
    EXPECT_EQ(result.location, 11);
}

TEST(CFStringSearch, CaseInsensitiveFindInNonASCIIText) {
    auto s = str("\xF0\x9F\x98\x80 Gr\xC3\x9C\xC3\x9F" "E");  // 😀 GrÜßE
    CFRange r = CFStringFind(s, str("gr\xC3\xBC\xC3\x9F" "e"), kCFCompareCaseInsensitive);
    EXPECT_EQ(r.location, 3);
    EXPECT_EQ(r.length, 5);
}

TEST(CFStringSearch, PrefixAndSuffix) {
    auto s = str("\xC3\xBC" "ber\xF0\x9F\x98\x80");
    EXPECT_TRUE(CFStringHasPrefix(s, str("\xC3\xBC" "b")));
    EXPECT_TRUE(CFStringHasSuffix(s, str("r\xF0\x9F\x98\x80")));
    EXPECT_FALSE(CFStringHasPrefix(s, str("ber")));
    EXPECT_FALSE(CFStringHasPrefix(s, str("")));
    EXPECT_FALSE(CFStringHasSuffix(s, str("")));
    EXPECT_FALSE(CFStringHasPrefix(str("ab"), str("abc")));
}

// ----- Mutation

class CFStringMutableTest : public ::testing::Test {
protected:
    Ref<CFMutableStringRef> m{CFStringCreateMutable(nullptr, 0)};
    void set(const char* utf8) { CFStringReplaceAll(m, str(utf8)); }
};

TEST_F(CFStringMutableTest, EditsCountUTF16Units) {
    set("a\xF0\x9F\x98\x80" "b\xC3\xA9");  // a 😀 b é
    CFStringInsert(m, 3, str("--"));
    EXPECT_EQ(text(m), "a\xF0\x9F\x98\x80--b\xC3\xA9");
    CFStringDelete(m, CFRangeMake(1, 2));
    EXPECT_EQ(text(m), "a--b\xC3\xA9");
    CFStringReplace(m, CFRangeMake(4, 1), str("\xE2\x82\xAC\xE2\x82\xAC"));
    EXPECT_EQ(text(m), "a--b\xE2\x82\xAC\xE2\x82\xAC");
    EXPECT_EQ(CFStringGetLength(m), 6);
    CFStringAppend(m, m);
    EXPECT_EQ(text(m), "a--b\xE2\x82\xAC\xE2\x82\xAC" "a--b\xE2\x82\xAC\xE2\x82\xAC");
    EXPECT_EQ(CFStringGetLength(m), 12);
}

TEST_F(CFStringMutableTest, BecomesASCIIAgainWhenTheLastOtherCharacterGoes) {
    set("x\xC3\xA9y");
    EXPECT_EQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), nullptr);
    CFStringDelete(m, CFRangeMake(1, 1));
    ASSERT_NE(CFStringGetCStringPtr(m, kCFStringEncodingASCII), nullptr);
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), "xy");
    EXPECT_EQ(CFStringGetCharacterAtIndex(m, 1), u'y');
}

TEST_F(CFStringMutableTest, DeletingHalfAPairLeavesAReplacementCharacter) {
    set("a\xF0\x9F\x98\x80" "b");
    CFStringDelete(m, CFRangeMake(2, 1));
    EXPECT_EQ(units(m), std::u16string(u"a\uFFFDb"));
    EXPECT_EQ(CFStringGetLength(m), 3);
}

TEST_F(CFStringMutableTest, FindAndReplaceCountsNonOverlappingMatches) {
    set("aaaa");
    EXPECT_EQ(CFStringFindAndReplace(m, str("aa"), str("b"), CFRangeMake(0, 4), 0), 2);
    EXPECT_EQ(text(m), "bb");
    set("aaa");
    EXPECT_EQ(CFStringFindAndReplace(m, str("aa"), str("-"), CFRangeMake(0, 3), kCFCompareBackwards), 1);
    EXPECT_EQ(text(m), "a-");
    set("\xC3\xA9t\xC3\xA9 ET \xC3\xA9t\xC3\xA9");
    EXPECT_EQ(CFStringFindAndReplace(m, str("\xC3\x89T\xC3\x89"), str("summer"), CFRangeMake(1, 9),
                                     kCFCompareCaseInsensitive),
              1);
    EXPECT_EQ(text(m), "\xC3\xA9t\xC3\xA9 ET summer");
    EXPECT_EQ(CFStringFindAndReplace(m, str("zz"), str("y"), CFRangeMake(0, CFStringGetLength(m)), 0), 0);
}

TEST_F(CFStringMutableTest, CaseMapping) {
    set("Stra\xC3\x9F" "e \xCE\xA9mega caf\xC3\xA9 \xC4\xB1");  // Straße Ωmega café ı
    CFStringUppercase(m, nullptr);
    EXPECT_EQ(text(m), "STRASSE \xCE\xA9MEGA CAF\xC3\x89 I");
    CFStringLowercase(m, nullptr);
    EXPECT_EQ(text(m), "strasse \xCF\x89mega caf\xC3\xA9 i");
    set("MiXeD 123");
    CFStringLowercase(m, nullptr);
    EXPECT_EQ(text(m), "mixed 123");
}

TEST_F(CFStringMutableTest, CopiesAreIndependentSnapshots) {
    set("base");
    Ref<CFStringRef> frozen(CFStringCreateCopy(nullptr, m));
    Ref<CFMutableStringRef> other(CFStringCreateMutableCopy(nullptr, 0, CFSTR("constant")));
    CFStringAppend(m, CFSTR("!"));
    CFStringAppend(other, CFSTR("!"));
    EXPECT_EQ(text(frozen), "base");
    EXPECT_EQ(text(other), "constant!");
    EXPECT_EQ(text(CFSTR("constant")), "constant");
    Ref<CFStringRef> immutable(CFStringCreateCopy(nullptr, frozen));
    EXPECT_EQ(immutable.get(), frozen.get());  // an immutable string is shared, not copied
}

TEST_F(CFStringMutableTest, AppendsInOtherEncodingsAndFormats) {
    CFStringAppendCString(m, "caf\xE9", kCFStringEncodingISOLatin1);
    CFStringAppendCString(m, "\xFF", kCFStringEncodingUTF8);  // invalid: nothing appended
    CFStringAppendFormat(m, nullptr, CFSTR(" %d%@"), 42, CFSTR("!"));
    EXPECT_EQ(text(m), "caf\xC3\xA9 42!");
    EXPECT_EQ(CFStringGetLength(m), 8);
}

using CFStringDeathTest = CFStringMutableTest;

TEST_F(CFStringDeathTest, MisuseTraps) {
    auto immutable = str("fixed");
    EXPECT_DEATH(CFStringAppend(const_cast<CFMutableStringRef>(immutable.get()), CFSTR("x")), "immutable");
    EXPECT_DEATH(CFStringAppend(const_cast<CFMutableStringRef>(CFSTR("const")), CFSTR("x")), "immutable");
    EXPECT_DEATH(CFStringGetCharacterAtIndex(immutable, 5), "out of bounds");
    EXPECT_DEATH(CFStringDelete(m, CFRangeMake(0, 1)), "out of bounds");
    EXPECT_DEATH(CFStringCreateWithSubstring(nullptr, immutable, CFRangeMake(3, LONG_MAX)), "out of bounds");
}

// ----- Splitting and joining

TEST(CFStringSplit, SeparatesLikeCoreFoundation) {
    auto split = [](const char* s, const char* sep) {
        Ref<CFArrayRef> parts(CFStringCreateArrayBySeparatingStrings(nullptr, str(s), str(sep)));
        return texts(parts);
    };
    using V = std::vector<std::string>;
    EXPECT_EQ(split("a,b,", ","), (V{"a", "b", ""}));
    EXPECT_EQ(split(",,", ","), (V{"", "", ""}));
    EXPECT_EQ(split("", ","), (V{""}));
    EXPECT_EQ(split("whole", ","), (V{"whole"}));
    EXPECT_EQ(split("one::two:three", "::"), (V{"one", "two:three"}));
    EXPECT_EQ(split("\xC3\xA9\xE2\x86\x92\xF0\x9F\x98\x80", "\xE2\x86\x92"), (V{"\xC3\xA9", "\xF0\x9F\x98\x80"}));
}

TEST(CFStringSplit, CombiningIsTheInverse) {
    auto original = str("usr/\xF0\x9F\x98\x80/lib//x");
    Ref<CFArrayRef> parts(CFStringCreateArrayBySeparatingStrings(nullptr, original, CFSTR("/")));
    Ref<CFStringRef> joined(CFStringCreateByCombiningStrings(nullptr, parts, CFSTR("/")));
    EXPECT_TRUE(CFEqual(joined.get(), original.get()));
    EXPECT_EQ(CFStringGetLength(joined), CFStringGetLength(original));

    Ref<CFArrayRef> empty(CFArrayCreate(nullptr, nullptr, 0, &kCFTypeArrayCallBacks));
    EXPECT_EQ(take(CFStringCreateByCombiningStrings(nullptr, empty, CFSTR(", "))), "");
    const void* one[] = {CFSTR("only")};
    Ref<CFArrayRef> single(CFArrayCreate(nullptr, one, 1, &kCFTypeArrayCallBacks));
    EXPECT_EQ(take(CFStringCreateByCombiningStrings(nullptr, single, CFSTR(", "))), "only");
}

// ----- Formatting

TEST(CFStringFormat, ObjectsThroughTheirDescriptions) {
    EXPECT_EQ(format(CFSTR("[%@] [%@]"), CFSTR("text"), static_cast<CFTypeRef>(nullptr)), "[text] [(null)]");
    EXPECT_EQ(format(CFSTR("n=%@"), num(42LL).get()), "n=42");
    EXPECT_EQ(format(CFSTR("|%6@|%-6@|"), CFSTR("ab"), CFSTR("cd")), "|    ab|cd    |");
    // Widths count characters, not bytes.
    EXPECT_EQ(format(CFSTR("|%3@|%3s|"), str("\xC3\xA9").get(), "\xC3\xA9"), "|  \xC3\xA9|  \xC3\xA9|");
}

TEST(CFStringFormat, IntegersWithLengthModifiers) {
    EXPECT_EQ(format(CFSTR("%lld %llu"), LLONG_MIN, ULLONG_MAX), "-9223372036854775808 18446744073709551615");
    EXPECT_EQ(format(CFSTR("%zu %zd %ld %td %jd"), size_t{7}, ptrdiff_t{-7}, 123456789012L, ptrdiff_t{-1}, intmax_t{5}),
              "7 -7 123456789012 -1 5");
    EXPECT_EQ(format(CFSTR("%x %X %#x %o %08.3d"), 255, 255, 255, 8, 42), "ff FF 0xff 10      042");
    EXPECT_EQ(format(CFSTR("%hhd %hu %qd"), 300, 65537, 5LL), "44 1 5");
    EXPECT_EQ(format(CFSTR("%+d|% d|%-4d|%04d"), 5, 5, 5, -5), "+5| 5|5   |-005");
}

TEST(CFStringFormat, FloatsAndStarArguments) {
    EXPECT_EQ(format(CFSTR("%.2f %e %g %5.1f"), 3.14159, 1500.0, 0.0001, 2.25), "3.14 1.500000e+03 0.0001   2.2");
    EXPECT_EQ(format(CFSTR("%Lf"), 1.5L), "1.500000");
    EXPECT_EQ(format(CFSTR("[%*d] [%*d] [%.*f]"), 4, 7, -4, 7, 1, 2.0), "[   7] [7   ] [2.0]");
    EXPECT_EQ(format(CFSTR("%a"), 1.0), "0x1p+0");
}

TEST(CFStringFormat, CStringsCharactersAndPointers) {
    const char buffer[] = {'a', 'b', 'c', 'd'};  // not terminated: the precision bounds the read
    EXPECT_EQ(format(CFSTR("%.3s|%s|%s"), buffer, "plain", static_cast<const char*>(nullptr)), "abc|plain|(null)");
    EXPECT_EQ(format(CFSTR("%s"), "caf\xE9"), "caf\xC3\xA9");  // not UTF-8: read as Latin 1
    EXPECT_EQ(format(CFSTR("%.4s"), "ab\xC3\xA9\xC3\xA9"), "ab\xC3\xA9");  // never half a character
    const UniChar wide[] = {0x263A, 'x', 0};
    EXPECT_EQ(format(CFSTR("%c%C%S"), 'A', 0x00E9, wide), "A\xC3\xA9\xE2\x98\xBAx");
    EXPECT_EQ(format(CFSTR("%lc %ls"), wint_t{0x1F600}, L"w\u00E9"), "\xF0\x9F\x98\x80 w\xC3\xA9");
    EXPECT_EQ(format(CFSTR("%p %p"), reinterpret_cast<void*>(0x1234), static_cast<void*>(nullptr)), "0x1234 0x0");
}

TEST(CFStringFormat, PercentPositionalAndMalformedConversions) {
    EXPECT_EQ(format(CFSTR("100%% sure")), "100% sure");
    EXPECT_EQ(format(CFSTR("%2$@ %1$d %2$@"), 7, CFSTR("x")), "x 7 x");
    EXPECT_EQ(format(CFSTR("%1$*2$d|"), 3, 5), "    3|");
    EXPECT_EQ(format(CFSTR("%k and %d"), 9), "%k and 9");
    EXPECT_EQ(format(CFSTR("ends with %")), "ends with %");
    EXPECT_EQ(format(CFSTR("\xC3\xA9%d\xF0\x9F\x98\x80"), 1), "\xC3\xA9" "1\xF0\x9F\x98\x80");
}

// ----- Numbers in strings

TEST(CFStringValues, IntValue) {
    EXPECT_EQ(CFStringGetIntValue(str("  -42abc")), -42);
    EXPECT_EQ(CFStringGetIntValue(str("+17")), 17);
    EXPECT_EQ(CFStringGetIntValue(str("abc")), 0);
    EXPECT_EQ(CFStringGetIntValue(str("99999999999")), INT_MAX);
    EXPECT_EQ(CFStringGetIntValue(str("-99999999999")), INT_MIN);
}

TEST(CFStringValues, DoubleValue) {
    EXPECT_DOUBLE_EQ(CFStringGetDoubleValue(str(" 3.5e2x")), 350.0);
    EXPECT_DOUBLE_EQ(CFStringGetDoubleValue(str("-.5")), -0.5);
    EXPECT_DOUBLE_EQ(CFStringGetDoubleValue(str("7.")), 7.0);
    EXPECT_DOUBLE_EQ(CFStringGetDoubleValue(str("2e")), 2.0);  // a dangling exponent is not part of it
    EXPECT_EQ(CFStringGetDoubleValue(str("x1")), 0.0);
    EXPECT_TRUE(std::isinf(CFStringGetDoubleValue(str("1e999"))));
    EXPECT_EQ(CFStringGetDoubleValue(str("1e-999")), 0.0);
}

}  // namespace
