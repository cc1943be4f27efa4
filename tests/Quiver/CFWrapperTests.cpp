// The CF:: value classes: one reference per holder, and the conversions that the library leans on.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Quiver/CF/CF.hpp"

TEST(CFHolder, CopiesRetainMovesTransferDestructionReleasesAndCastChecksTheType) {
    CFStringRef raw = CFStringCreateWithCString(nullptr, "held", kCFStringEncodingUTF8);
    CFRetain(raw);  // keep our own reference to watch the count
    {
        CF::String a = CF::String::Adopt(raw);
        EXPECT_EQ(CFGetRetainCount(raw), 2);
        CF::String b = a;
        EXPECT_EQ(CFGetRetainCount(raw), 3);
        CF::String c = std::move(b);
        EXPECT_EQ(CFGetRetainCount(raw), 3);
        EXPECT_FALSE(b);
        c = a;  // self-equivalent assignment keeps the count
        EXPECT_EQ(CFGetRetainCount(raw), 3);
        c = CF::String("other");
        EXPECT_EQ(CFGetRetainCount(raw), 2);
    }
    EXPECT_EQ(CFGetRetainCount(raw), 1);
    CF::String retained = CF::String::Retain(raw);
    EXPECT_EQ(CFGetRetainCount(raw), 2);
    CFStringRef detached = retained.Detach();
    EXPECT_EQ(CFGetRetainCount(raw), 2);
    CFRelease(detached);
    CFRelease(raw);
    CF::String s("text");
    EXPECT_TRUE(CF::Cast<CF::String>(s.get()));
    EXPECT_FALSE(CF::Cast<CF::Data>(s.get()));
    EXPECT_FALSE(CF::Cast<CF::String>(nullptr));
}

TEST(CFStringWrapper, Utf8RoundTripUtf16IterationSplitAppendAndOrdering) {
    CF::String s("aé😀");
    EXPECT_EQ(s.utf8(), "aé😀");
    EXPECT_EQ(s.length(), 4);  // the emoji takes two UTF-16 units
    std::vector<UniChar> units(s.begin(), s.end());
    ASSERT_EQ(units.size(), 4u);
    EXPECT_EQ(units[1], 0x00e9);
    EXPECT_EQ(units[2], 0xd83d);
    EXPECT_FALSE(CF::String(std::string_view("\xff\xfe")));  // not UTF-8
    auto parts = CF::String("a/b//c").Split("/");
    ASSERT_EQ(parts.size(), 4u);
    EXPECT_EQ(parts[2].utf8(), "");
    CF::String m = CF::String("x").MutableCopy();
    m.Append("yz");
    EXPECT_EQ(m.utf8(), "xyz");
    std::vector<CF::String> v = {CF::String("b"), CF::String("B"), CF::String("a")};
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v[0].utf8(), "B");  // literal order: upper case first
    EXPECT_EQ(CF::String::Format("%d-%@", 7, CFSTR("x")).utf8(), "7-x");
}
