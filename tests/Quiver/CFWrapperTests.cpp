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

TEST(CFDataWrapper, BytesIterationAndNoCopy) {
    std::vector<uint8_t> bytes = {1, 2, 3};
    CF::Data d(bytes);
    EXPECT_EQ(d.vector(), bytes);
    EXPECT_EQ(std::vector<uint8_t>(d.begin(), d.end()), bytes);
    CF::Data view = CF::Data::NoCopy(bytes);
    EXPECT_EQ(view.data(), bytes.data());
    EXPECT_TRUE(d == view);
}

TEST(CFDictionaryWrapper, TypedGetSetAndIterationOrder) {
    CF::Dictionary d = CF::Dictionary::CreateMutable();
    d.Set("b", CF::Number(int64_t{2}));
    d.Set("a", CF::String("one"));
    EXPECT_EQ(d.Get<CF::Number>("b").Int64(), 2);
    EXPECT_FALSE(d.Get<CF::String>("b"));  // wrong type gives an empty holder
    EXPECT_FALSE(d.Get<CF::String>("missing"));
    std::vector<std::string> keys;
    for (const auto& [key, value] : d) keys.push_back(CF::Describe(key));
    EXPECT_EQ(keys, (std::vector<std::string>{"b", "a"}));
    d.Remove("b");
    EXPECT_EQ(d.size(), 1);
}

TEST(CFNumberWrapper, ConversionsReportLossDatesConvertUnixTime) {
    EXPECT_EQ(CF::Number(int64_t{1} << 40).Int32(), std::nullopt);
    EXPECT_EQ(CF::Number(2.5).Int64(), std::nullopt);
    EXPECT_EQ(CF::Number(3.0).Int64(), 3);
    EXPECT_EQ(CF::Number(int64_t{-1}).UInt64(), std::nullopt);
    EXPECT_TRUE(CF::Boolean(true).value());
    CF::Date d = CF::Date::FromUnixTime(978307200.0);
    EXPECT_DOUBLE_EQ(d.AbsoluteTime(), 0.0);
    EXPECT_EQ(d.Text(), "2001-01-01 00:00:00 +0000");
}

TEST(CFErrorWrapper, IsAnExceptionCarryingItsReference) {
    CF::Dictionary info = CF::Dictionary::CreateMutable();
    info.Set(kCFErrorLocalizedDescriptionKey, CF::String("Broken"));
    CF::Error e = CF::Error::Adopt(CFErrorCreate(nullptr, CFSTR("Test.Domain"), 7, info.get()));
    try {
        throw e;
    } catch (const std::exception& caught) {
        EXPECT_EQ(std::string(caught.what()), "Test.Domain code 7: Broken");
    }
    EXPECT_EQ(e.RetainCount(), 1);
}
