// Numbers compared across integers and doubles, and the Base64 conversions of CFExtension.
#include "CFTestRef.hpp"

#include <CoreFoundation/CFExtension.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

using namespace cftest;

namespace {

TEST(NumberCompare, IntegersAndDoublesCompareExactlyAtTheExtremesAndHashAlikeWhenEqual) {
    const long long max = std::numeric_limits<long long>::max();
    // (double)INT64_MAX rounds up to 2^63, which is larger than every int64.
    EXPECT_EQ(CFNumberCompare(num(max), num(static_cast<double>(max)), nullptr), kCFCompareLessThan);
    EXPECT_EQ(CFNumberCompare(num((1LL << 53) + 1), num(9007199254740992.0), nullptr), kCFCompareGreaterThan);
    EXPECT_EQ(CFNumberCompare(num(-1LL), num(-0.5), nullptr), kCFCompareLessThan);
    EXPECT_EQ(CFNumberCompare(num(0LL), num(-0.5), nullptr), kCFCompareGreaterThan);
    EXPECT_EQ(CFNumberCompare(num(std::numeric_limits<long long>::min()), num(-9223372036854775808.0), nullptr),
              kCFCompareEqualTo);
    EXPECT_FALSE(CFEqual(num(max).get(), num(static_cast<double>(max)).get()));
    // Equal values hash alike; NaN sorts first and equals itself.
    EXPECT_TRUE(CFEqual(num(1LL).get(), num(1.0).get()));
    EXPECT_EQ(CFHash(num(1LL).get()), CFHash(num(1.0).get()));
    EXPECT_EQ(CFHash(num(0LL).get()), CFHash(num(-0.0).get()));
    EXPECT_EQ(CFHash(num(-123456789LL).get()), CFHash(num(-123456789.0).get()));
    Ref<CFNumberRef> nan = num(std::nan(""));
    EXPECT_EQ(CFNumberCompare(nan, num(-HUGE_VAL), nullptr), kCFCompareLessThan);
    EXPECT_EQ(CFNumberCompare(num(0LL), nan, nullptr), kCFCompareGreaterThan);
    EXPECT_TRUE(CFEqual(nan.get(), num(std::nan("")).get()));
    EXPECT_EQ(CFHash(nan.get()), CFHash(num(-std::nan("")).get()));
}

Ref<CFDataRef> from_base64(const char* text) {
    return Ref<CFDataRef>(CFDataCreateFromBase64Representation(nullptr, str(text)));
}

TEST(Base64, TestVectorsLenientInputEveryByteValueAndMalformedInput) {
    const std::pair<const char*, const char*> vectors[] = {{"", ""},         {"f", "Zg=="},     {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},  {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    auto decode = [](const char* b64) -> std::string {
        Ref<CFDataRef> d = from_base64(b64);
        return d ? take(CFDataCopyUTF8String(d)) : "<refused>";
    };
    for (auto [raw, encoded] : vectors) {
        Ref<CFDataRef> d(CFDataCreateFromUTF8String(nullptr, raw));
        EXPECT_EQ(take(CFDataCopyBase64Representation(d)), encoded);
        EXPECT_EQ(decode(encoded), raw);
    }
    EXPECT_EQ(decode(" Zm9v\r\nYmE=\t"), "fooba");  // whitespace is skipped
    EXPECT_EQ(decode("Zm9vYg"), "foob");            // padding may be left off
    std::vector<UInt8> all(256);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<UInt8>(255 - i);
    Ref<CFDataRef> d(CFDataCreate(nullptr, all.data(), 256));
    Ref<CFStringRef> encoded(CFDataCopyBase64Representation(d));
    EXPECT_EQ(text(encoded).find_first_of("\r\n"), std::string::npos);
    Ref<CFDataRef> back(CFDataCreateFromBase64Representation(nullptr, encoded));
    ASSERT_TRUE(back);
    EXPECT_TRUE(CFEqual(d.get(), back.get()));
    for (const char* bad : {"Zm9v!", "Z", "Zm9vY", "Zg=", "Zg===", "Zg==Zg==", "=", "Zm9v=", "Zm-_", "Zm9v\xc3\xa9"})
        EXPECT_FALSE(from_base64(bad)) << bad;
    EXPECT_EQ(CFDataCreateFromBase64Representation(nullptr, nullptr), nullptr);
}

}  // namespace
