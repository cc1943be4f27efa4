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

std::string format(CFStringRef fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string result = take(CFStringCreateWithFormatAndArguments(nullptr, nullptr, fmt, args));
    va_end(args);
    return result;
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

TEST(CFStringConstant, SameTextGivesOneImmortalObjectEvenAcrossThreads) {
    CFStringRef a = CFSTR("com.example.constant");
    EXPECT_EQ(__CFStringMakeConstantString(std::string("com.example.constant").c_str()), a);  // other storage
    EXPECT_NE(CFSTR("com.example.other"), a);
    CFIndex before = CFGetRetainCount(a);
    CFRetain(a);
    for (int i = 0; i < 10; ++i) CFRelease(a);  // would free (and then fault below) if it counted
    EXPECT_EQ(CFGetRetainCount(a), before);
    EXPECT_EQ(text(a), "com.example.constant");
    // Concurrent first use makes one object.
    std::vector<CFStringRef> seen(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = CFSTR("made by many threads at once"); });
    for (auto& t : threads) t.join();
    for (CFStringRef s : seen) EXPECT_EQ(s, seen[0]);
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

TEST(CFStringEncoding, ProducesTheExpectedBytesAndHonoursByteOrderMarks) {
    auto s = str("A\xF0\x9F\x98\x80");  // A, U+1F600
    EXPECT_EQ(encode(s, kCFStringEncodingUTF16BE), (std::vector<UInt8>{0x00, 0x41, 0xD8, 0x3D, 0xDE, 0x00}));
    EXPECT_EQ(encode(s, kCFStringEncodingUTF16LE), (std::vector<UInt8>{0x41, 0x00, 0x3D, 0xD8, 0x00, 0xDE}));
    EXPECT_EQ(encode(s, kCFStringEncodingUTF32BE), (std::vector<UInt8>{0, 0, 0, 0x41, 0, 0x01, 0xF6, 0x00}));
    // External UTF-16 carries a byte-order mark in the host's order (little-endian here).
    EXPECT_EQ(encode(str("A"), kCFStringEncodingUTF16, true), (std::vector<UInt8>{0xFF, 0xFE, 0x41, 0x00}));
    EXPECT_EQ(encode(str("\xE2\x82\xAC"), kCFStringEncodingWindowsLatin1), (std::vector<UInt8>{0x80}));
    EXPECT_EQ(encode(str("\xC3\xA9"), kCFStringEncodingMacRoman), (std::vector<UInt8>{0x8E}));
    std::vector<UInt8> escaped = encode(str("\\\xC3\xA9\xF0\x9F\x98\x80"), kCFStringEncodingNonLossyASCII);
    EXPECT_EQ(std::string(escaped.begin(), escaped.end()), "\\\\\\351\\ud83d\\ude00");
    for (const std::vector<UInt8>& b : {std::vector<UInt8>{0xFE, 0xFF, 0x00, 0x41}, {0xFF, 0xFE, 0x41, 0x00}, {0x41, 0x00}})
        EXPECT_EQ(text(from_bytes(b, kCFStringEncodingUTF16)), "A");  // no mark: host order
    EXPECT_EQ(text(from_bytes({0x00, 0x00, 0xFE, 0xFF, 0x00, 0x00, 0x00, 0x42}, kCFStringEncodingUTF32)), "B");
    // An explicit order keeps a leading U+FEFF as a character.
    EXPECT_EQ(CFStringGetLength(from_bytes({0xFE, 0xFF, 0x00, 0x41}, kCFStringEncodingUTF16BE)), 2);
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

TEST(CFStringEncoding, BuffersTakeWholeCharactersAndNoCopyBuffersAreFreedRightly) {
    auto s = str("\xC3\xA9\xF0\x9F\x98\x80x");  // é (2 bytes), U+1F600 (4 bytes), x
    UInt8 buffer[16];
    for (auto [room, chars, bytes] : {std::tuple<CFIndex, CFIndex, CFIndex>{5, 1, 2}, {6, 3, 6}, {0, 4, 7}}) {
        CFIndex used = 0;  // room 0: no buffer, just measure
        EXPECT_EQ(CFStringGetBytes(s, CFRangeMake(0, 4), kCFStringEncodingUTF8, 0, false, room ? buffer : nullptr, room, &used), chars);
        EXPECT_EQ(used, bytes) << room;
    }
    char exact[8];  // seven bytes and the terminator
    EXPECT_FALSE(CFStringGetCString(s, exact, 7, kCFStringEncodingUTF8));
    EXPECT_TRUE(CFStringGetCString(s, exact, 8, kCFStringEncodingUTF8));
    EXPECT_STREQ(exact, "\xC3\xA9\xF0\x9F\x98\x80x");
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF8), 30);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF16), 20);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 2, kCFStringEncodingUTF8), kCFNotFound);  // overflow
    // External representations and no-copy buffers.
    Ref<CFDataRef> data(CFStringCreateExternalRepresentation(nullptr, str("\xF0\x9F\x98\x80 ok"), kCFStringEncodingUTF16, 0));
    ASSERT_TRUE(data);
    EXPECT_EQ(CFDataGetLength(data), 2 + 2 * 5);
    EXPECT_EQ(take(CFStringCreateFromExternalRepresentation(nullptr, data, kCFStringEncodingUTF16)), "\xF0\x9F\x98\x80 ok");
    char* heap = static_cast<char*>(std::malloc(6));
    std::memcpy(heap, "heap!", 6);
    // LeakSanitizer reports the buffer if it is not freed; freeing the stack one would crash.
    Ref<CFStringRef> a(CFStringCreateWithCStringNoCopy(nullptr, heap, kCFStringEncodingUTF8, kCFAllocatorMalloc));
    char onStack[] = "stack";
    Ref<CFStringRef> b(CFStringCreateWithCStringNoCopy(nullptr, onStack, kCFStringEncodingUTF8, kCFAllocatorNull));
    EXPECT_EQ(text(a), "heap!");
    EXPECT_EQ(text(b), "stack");
}

TEST(CFStringCompare, OrdersByUTF16UnitsWithCaseAndNumericOptions) {
    struct Case { const char *a, *b; CFStringCompareFlags flags; CFComparisonResult expected; };
    const CFStringCompareFlags ci = kCFCompareCaseInsensitive, numeric = kCFCompareNumerically;
    const CFComparisonResult lt = kCFCompareLessThan, eq = kCFCompareEqualTo, gt = kCFCompareGreaterThan;
    const Case cases[] = {
        // U+1F600 (D83D DE00) sorts below U+FF01 but above U+D7A3: UTF-16 order, not code points, even after
        // a shared prefix.
        {"\xF0\x9F\x98\x80", "\xEF\xBC\x81", 0, lt}, {"\xED\x9E\xA3", "\xF0\x9F\x98\x80", 0, lt},
        {"x\xF0\x90\x80\x80y", "x\xEF\xBF\xBDy", 0, lt}, {"ab", "abc", 0, lt}, {"B", "a", 0, lt},
        {"\xC3\x89", "\xC3\xA9", 0, lt}, {"Hello World", "hELLO wORLD", ci, eq}, {"a", "B", ci, lt}, {"[", "a", ci, lt},
        {"\xC3\x89T\xC3\x89 \xCE\xA9", "\xC3\xA9t\xC3\xA9 \xCF\x89", ci, eq},  // ÉTÉ Ω / été ω
        {"\xD0\x9F\xD0\xA0\xD0\x98", "\xD0\xBF\xD1\x80\xD0\xB8", ci, eq},      // ПРИ / при
        {"file9", "file10", numeric, lt}, {"v2.10", "v2.9", numeric, gt}, {"a007b", "a7b", numeric, eq},
        {"A10", "a9", numeric | ci, gt}};
    for (const Case& c : cases) EXPECT_EQ(CFStringCompare(str(c.a), str(c.b), c.flags), c.expected) << c.a << " / " << c.b;
    auto s = str("\xF0\x9F\x98\x80prefix-Value");
    EXPECT_EQ(CFStringCompareWithOptions(s, str("value"), CFRangeMake(9, 5), ci), kCFCompareEqualTo);
    EXPECT_EQ(CFStringCompareWithOptions(s, str("prefix"), CFRangeMake(2, 6), 0), kCFCompareEqualTo);
}

TEST(CFStringSearch, ForwardBackwardAnchoredWithinARangeAndAtTheEnds) {
    // U+1F600 first, so that every location after it is one more than its character count.
    auto s = str("\xF0\x9F\x98\x80 abc ABC abc");
    const CFStringCompareFlags ci = kCFCompareCaseInsensitive, back = kCFCompareBackwards, anchored = kCFCompareAnchored;
    for (auto [needle, flags, at] : {std::tuple<const char*, CFStringCompareFlags, CFIndex>{"abc", 0, 3}, {"abc", back, 11},
                                     {"ABC", ci, 3}, {"ABC", ci | back, 11}, {"abc", anchored, kCFNotFound},
                                     {"\xF0\x9F\x98\x80", anchored, 0}, {"C abc", anchored | back, 9}, {"xyz", 0, kCFNotFound},
                                     {"", 0, kCFNotFound}})
        EXPECT_EQ(CFStringFind(s, str(needle), flags).location, at) << needle << " " << flags;
    EXPECT_EQ(CFStringFind(s, str("abc"), 0).length, 3);
    CFRange result;
    EXPECT_FALSE(CFStringFindWithOptions(s, str("abc"), CFRangeMake(4, 6), 0, &result));
    EXPECT_TRUE(CFStringFindWithOptions(s, str("abc"), CFRangeMake(4, 6), ci, &result));
    EXPECT_EQ(result.location, 7);
    EXPECT_TRUE(CFStringFindWithOptions(s, str("abc"), CFRangeMake(4, 10), 0, &result));
    EXPECT_EQ(result.location, 11);
    CFRange folded = CFStringFind(str("\xF0\x9F\x98\x80 Gr\xC3\x9C\xC3\x9F" "E"), str("gr\xC3\xBC\xC3\x9F" "e"), ci);
    EXPECT_EQ(folded.location, 3);  // 😀 GrÜßE
    EXPECT_EQ(folded.length, 5);

    auto u = str("\xC3\xBC" "ber\xF0\x9F\x98\x80");
    EXPECT_TRUE(CFStringHasPrefix(u, str("\xC3\xBC" "b")) && CFStringHasSuffix(u, str("r\xF0\x9F\x98\x80")));
    EXPECT_FALSE(CFStringHasPrefix(u, str("ber")));
    EXPECT_FALSE(CFStringHasPrefix(u, str("")) || CFStringHasSuffix(u, str("")));
    EXPECT_FALSE(CFStringHasPrefix(str("ab"), str("abc")));
}

class CFStringMutableTest : public ::testing::Test {
protected:
    Ref<CFMutableStringRef> m{CFStringCreateMutable(nullptr, 0)};
    void set(const char* utf8) { CFStringReplaceAll(m, str(utf8)); }
};

TEST_F(CFStringMutableTest, EditsCountUTF16UnitsAndCopiesAreSnapshots) {
    set("a\xF0\x9F\x98\x80" "b\xC3\xA9");  // a 😀 b é
    CFStringInsert(m, 3, str("--"));
    EXPECT_EQ(text(m), "a\xF0\x9F\x98\x80--b\xC3\xA9");
    CFStringDelete(m, CFRangeMake(1, 2));
    EXPECT_EQ(text(m), "a--b\xC3\xA9");
    CFStringReplace(m, CFRangeMake(4, 1), str("\xE2\x82\xAC\xE2\x82\xAC"));
    CFStringAppend(m, m);
    EXPECT_EQ(text(m), "a--b\xE2\x82\xAC\xE2\x82\xAC" "a--b\xE2\x82\xAC\xE2\x82\xAC");
    EXPECT_EQ(CFStringGetLength(m), 12);
    // Deleting half a pair leaves a replacement character.
    set("a\xF0\x9F\x98\x80" "b");
    CFStringDelete(m, CFRangeMake(2, 1));
    EXPECT_EQ(units(m), std::u16string(u"a\uFFFDb"));
    // It becomes ASCII again when the last other character goes.
    set("x\xC3\xA9y");
    EXPECT_EQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), nullptr);
    CFStringDelete(m, CFRangeMake(1, 1));
    EXPECT_STREQ(CFStringGetCStringPtr(m, kCFStringEncodingASCII), "xy");
    EXPECT_EQ(CFStringGetCharacterAtIndex(m, 1), u'y');
    // Copies are independent snapshots; an immutable string is shared, not copied.
    Ref<CFStringRef> frozen(CFStringCreateCopy(nullptr, m));
    Ref<CFMutableStringRef> other(CFStringCreateMutableCopy(nullptr, 0, CFSTR("constant")));
    CFStringAppend(m, CFSTR("!"));
    CFStringAppend(other, CFSTR("!"));
    EXPECT_EQ(text(frozen), "xy");
    EXPECT_EQ(text(other), "constant!");
    EXPECT_EQ(text(CFSTR("constant")), "constant");
    EXPECT_EQ(Ref<CFStringRef>(CFStringCreateCopy(nullptr, frozen)).get(), frozen.get());
}

TEST_F(CFStringMutableTest, FindAndReplaceCaseMappingAndAppendingOtherEncodings) {
    set("aaaa");
    EXPECT_EQ(CFStringFindAndReplace(m, str("aa"), str("b"), CFRangeMake(0, 4), 0), 2);
    EXPECT_EQ(text(m), "bb");
    set("aaa");
    EXPECT_EQ(CFStringFindAndReplace(m, str("aa"), str("-"), CFRangeMake(0, 3), kCFCompareBackwards), 1);
    EXPECT_EQ(text(m), "a-");
    set("\xC3\xA9t\xC3\xA9 ET \xC3\xA9t\xC3\xA9");
    EXPECT_EQ(CFStringFindAndReplace(m, str("\xC3\x89T\xC3\x89"), str("summer"), CFRangeMake(1, 9), kCFCompareCaseInsensitive), 1);
    EXPECT_EQ(text(m), "\xC3\xA9t\xC3\xA9 ET summer");
    EXPECT_EQ(CFStringFindAndReplace(m, str("zz"), str("y"), CFRangeMake(0, CFStringGetLength(m)), 0), 0);
    // Case mapping, including characters whose mapping changes the length.
    set("Stra\xC3\x9F" "e \xCE\xA9mega caf\xC3\xA9 \xC4\xB1 123");  // Straße Ωmega café ı 123
    CFStringUppercase(m, nullptr);
    EXPECT_EQ(text(m), "STRASSE \xCE\xA9MEGA CAF\xC3\x89 I 123");
    CFStringLowercase(m, nullptr);
    EXPECT_EQ(text(m), "strasse \xCF\x89mega caf\xC3\xA9 i 123");
    set("");
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

TEST(CFStringSplit, SeparatesAndCombinesBack) {
    using V = std::vector<std::string>;
    for (auto [s, sep, parts] : {std::tuple<const char*, const char*, V>{"a,b,", ",", {"a", "b", ""}}, {",,", ",", {"", "", ""}},
                                 {"", ",", {""}}, {"whole", ",", {"whole"}}, {"one::two:three", "::", {"one", "two:three"}},
                                 {"\xC3\xA9\xE2\x86\x92\xF0\x9F\x98\x80", "\xE2\x86\x92", {"\xC3\xA9", "\xF0\x9F\x98\x80"}},
                                 {"usr/\xF0\x9F\x98\x80/lib//x", "/", {"usr", "\xF0\x9F\x98\x80", "lib", "", "x"}}}) {
        Ref<CFArrayRef> split(CFStringCreateArrayBySeparatingStrings(nullptr, str(s), str(sep)));
        V got;
        for (CFIndex i = 0; i < CFArrayGetCount(split); ++i)
            got.push_back(text(static_cast<CFStringRef>(CFArrayGetValueAtIndex(split, i))));
        EXPECT_EQ(got, parts) << s;
        EXPECT_EQ(take(CFStringCreateByCombiningStrings(nullptr, split, str(sep))), s);
    }
    Ref<CFArrayRef> empty(CFArrayCreate(nullptr, nullptr, 0, &kCFTypeArrayCallBacks));
    EXPECT_EQ(take(CFStringCreateByCombiningStrings(nullptr, empty, CFSTR(", "))), "");
}

TEST(CFStringFormat, EveryConversionKind) {
    EXPECT_EQ(format(CFSTR("[%@] [%@] n=%@"), CFSTR("text"), static_cast<CFTypeRef>(nullptr), num(42LL).get()),
              "[text] [(null)] n=42");
    // Widths count characters, not bytes.
    EXPECT_EQ(format(CFSTR("|%6@|%-6@|%3@|%3s|"), CFSTR("ab"), CFSTR("cd"), str("\xC3\xA9").get(), "\xC3\xA9"),
              "|    ab|cd    |  \xC3\xA9|  \xC3\xA9|");
    EXPECT_EQ(format(CFSTR("%lld %llu"), LLONG_MIN, ULLONG_MAX), "-9223372036854775808 18446744073709551615");
    EXPECT_EQ(format(CFSTR("%zu %zd %ld %td %jd"), size_t{7}, ptrdiff_t{-7}, 123456789012L, ptrdiff_t{-1}, intmax_t{5}),
              "7 -7 123456789012 -1 5");
    EXPECT_EQ(format(CFSTR("%x %X %#x %o %08.3d"), 255, 255, 255, 8, 42), "ff FF 0xff 10      042");
    EXPECT_EQ(format(CFSTR("%hhd %hu %qd"), 300, 65537, 5LL), "44 1 5");
    EXPECT_EQ(format(CFSTR("%+d|% d|%-4d|%04d"), 5, 5, 5, -5), "+5| 5|5   |-005");
    EXPECT_EQ(format(CFSTR("%.2f %e %g %5.1f %Lf %a"), 3.14159, 1500.0, 0.0001, 2.25, 1.5L, 1.0),
              "3.14 1.500000e+03 0.0001   2.2 1.500000 0x1p+0");
    EXPECT_EQ(format(CFSTR("[%*d] [%*d] [%.*f]"), 4, 7, -4, 7, 1, 2.0), "[   7] [7   ] [2.0]");
    const char buffer[] = {'a', 'b', 'c', 'd'};  // not terminated: the precision bounds the read
    EXPECT_EQ(format(CFSTR("%.3s|%s|%s"), buffer, "plain", static_cast<const char*>(nullptr)), "abc|plain|(null)");
    EXPECT_EQ(format(CFSTR("%s"), "caf\xE9"), "caf\xC3\xA9");  // not UTF-8: read as Latin 1
    EXPECT_EQ(format(CFSTR("%.4s"), "ab\xC3\xA9\xC3\xA9"), "ab\xC3\xA9");  // never half a character
    const UniChar wide[] = {0x263A, 'x', 0};
    EXPECT_EQ(format(CFSTR("%c%C%S"), 'A', 0x00E9, wide), "A\xC3\xA9\xE2\x98\xBAx");
    EXPECT_EQ(format(CFSTR("%lc %ls"), wint_t{0x1F600}, L"w\u00E9"), "\xF0\x9F\x98\x80 w\xC3\xA9");
    EXPECT_EQ(format(CFSTR("%p %p"), reinterpret_cast<void*>(0x1234), static_cast<void*>(nullptr)), "0x1234 0x0");
    // Percent signs, positional arguments, malformed conversions, text around them.
    EXPECT_EQ(format(CFSTR("%2$@ %1$d %2$@"), 7, CFSTR("x")), "x 7 x");
    EXPECT_EQ(format(CFSTR("%1$*2$d|"), 3, 5), "    3|");
    EXPECT_EQ(format(CFSTR("100%% sure, %k and %d, ends with %"), 9), "100% sure, %k and 9, ends with %");
    EXPECT_EQ(format(CFSTR("\xC3\xA9%d\xF0\x9F\x98\x80"), 1), "\xC3\xA9" "1\xF0\x9F\x98\x80");
}

TEST(CFStringValues, IntAndDoubleValues) {
    for (auto [text, value] : {std::pair<const char*, int>{"  -42abc", -42}, {"+17", 17}, {"abc", 0},
                               {"99999999999", INT_MAX}, {"-99999999999", INT_MIN}})
        EXPECT_EQ(CFStringGetIntValue(str(text)), value) << text;
    // A dangling exponent is not part of the number; underflow gives zero.
    for (auto [text, value] : {std::pair<const char*, double>{" 3.5e2x", 350.0}, {"-.5", -0.5}, {"7.", 7.0},
                               {"2e", 2.0}, {"x1", 0.0}, {"1e-999", 0.0}})
        EXPECT_DOUBLE_EQ(CFStringGetDoubleValue(str(text)), value) << text;
    EXPECT_TRUE(std::isinf(CFStringGetDoubleValue(str("1e999"))));
}

}  // namespace
