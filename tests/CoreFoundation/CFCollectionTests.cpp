// Arrays and dictionaries: what they retain and release, the order they keep, the hash index behind
// dictionary lookups, and the deterministic text they describe themselves with.
#include "CFTestRef.hpp"

#include <CoreFoundation/CFExtension.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

using namespace cftest;

namespace {

class ArrayTest : public ::testing::Test {
protected:
    Ref<CFMutableArrayRef> array{new_array()};
    Ref<CFNumberRef> value = num(42LL);
};

TEST_F(ArrayTest, EditsAndCopiesBalanceRetains) {
    Ref<CFNumberRef> other = num(7LL);
    CFIndex base = CFGetRetainCount(value), otherBase = CFGetRetainCount(other);
    CFArrayAppendValue(array, value.get());
    CFArrayInsertValueAtIndex(array, 0, value.get());
    {
        Ref<CFArrayRef> copy(CFArrayCreateCopy(nullptr, array));
        Ref<CFMutableArrayRef> mutableCopy(CFArrayCreateMutableCopy(nullptr, 0, array));
        EXPECT_EQ(CFGetRetainCount(value), base + 6);
        EXPECT_TRUE(CFEqual(copy.get(), array.get()));
    }
    CFArraySetValueAtIndex(array, 1, other.get());
    EXPECT_EQ(CFGetRetainCount(value), base + 1);
    CFArraySetValueAtIndex(array, 1, other.get());  // setting what is already there must not free it
    EXPECT_EQ(CFGetRetainCount(other), otherBase + 1);
    CFArraySetValueAtIndex(array, 2, value.get());  // one past the end appends
    EXPECT_EQ(CFArrayGetCount(array), 3);
    CFArrayRemoveValueAtIndex(array, 0);
    CFArrayRemoveAllValues(array);
    EXPECT_EQ(CFGetRetainCount(value), base);
    EXPECT_EQ(CFGetRetainCount(other), otherBase);
}

std::vector<std::string> keys_of(CFDictionaryRef dict) {
    std::vector<const void*> k(static_cast<size_t>(CFDictionaryGetCount(dict)));
    CFDictionaryGetKeysAndValues(dict, k.data(), nullptr);
    std::vector<std::string> out;
    for (const void* key : k) out.push_back(text(static_cast<CFStringRef>(key)));
    return out;
}

class DictionaryTest : public ::testing::Test {
protected:
    Ref<CFMutableDictionaryRef> dict{new_dict()};
    std::vector<std::string> keys() const { return keys_of(dict); }
    void set(const char* key, CFTypeRef value) { CFDictionarySetValue(dict, str(key).get(), value); }
};

TEST_F(DictionaryTest, ReplaceAddAndRemoveKeepOrderAndBalanceRetains) {
    Ref<CFStringRef> key = str("b");
    Ref<CFNumberRef> first = num(1LL), second = num(2LL);
    CFIndex keyBase = CFGetRetainCount(key), base = CFGetRetainCount(first);
    set("a", kCFBooleanTrue);
    CFDictionarySetValue(dict, key.get(), first.get());
    set("c", kCFBooleanFalse);
    set("b", second.get());
    EXPECT_EQ(CFGetRetainCount(first), base);
    EXPECT_EQ(keys(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(CFDictionaryGetValue(dict, key.get()), second.get());
    CFDictionaryReplaceValue(dict, key.get(), first.get());
    CFDictionaryReplaceValue(dict, str("absent").get(), first.get());
    CFDictionaryAddValue(dict, str("a").get(), first.get());  // present: left alone
    EXPECT_EQ(CFDictionaryGetValue(dict, str("a").get()), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(dict, key.get()), first.get());
    EXPECT_EQ(CFDictionaryGetCount(dict), 3);
    {
        Ref<CFDictionaryRef> copy(CFDictionaryCreateCopy(nullptr, dict));
        EXPECT_EQ(CFGetRetainCount(first), base + 2);
    }
    CFDictionaryRemoveValue(dict, key.get());
    EXPECT_EQ(CFGetRetainCount(first), base);
    EXPECT_EQ(CFGetRetainCount(key), keyBase);
    // Null keys and values are ignored.
    CFDictionarySetValue(dict, nullptr, kCFBooleanTrue);
    CFDictionarySetValue(dict, str("k").get(), nullptr);
    CFDictionaryAddValue(dict, nullptr, kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetCount(dict), 2);
    EXPECT_FALSE(CFDictionaryContainsKey(dict, nullptr));
}

CFHashCode constant_hash(const void*) { return 7; }

TEST_F(DictionaryTest, RemovalKeepsOrderAndIndexEvenWhenEveryKeyCollides) {
    CFDictionaryKeyCallBacks colliding = kCFTypeDictionaryKeyCallBacks;
    colliding.hash = constant_hash;
    Ref<CFMutableDictionaryRef> oneBucket(
        CFDictionaryCreateMutable(nullptr, 0, &colliding, &kCFTypeDictionaryValueCallBacks));
    for (auto [d, count] : {std::pair<CFMutableDictionaryRef, int>{dict, 2000}, {oneBucket, 60}}) {
        auto key = [](int i) { return str("key" + std::to_string(i)); };
        for (int i = 0; i < count; ++i) CFDictionarySetValue(d, key(i).get(), num(static_cast<long long>(i)).get());
        for (int i = 1; i < count; i += 3) CFDictionaryRemoveValue(d, key(i).get());
        std::vector<std::string> expected;
        for (int i = 0; i < count; ++i) {
            auto v = static_cast<CFNumberRef>(CFDictionaryGetValue(d, key(i).get()));
            bool removed = i % 3 == 1;
            if (!removed) expected.push_back(text(key(i)));
            ASSERT_TRUE(removed ? v == nullptr : v && CFEqual(v, num(static_cast<long long>(i)).get())) << i;
        }
        EXPECT_EQ(keys_of(d), expected);
        // Entries added after removals are found too, at the end.
        CFDictionarySetValue(d, str("late").get(), kCFBooleanTrue);
        EXPECT_EQ(CFDictionaryGetValue(d, str("late").get()), kCFBooleanTrue);
        EXPECT_EQ(keys_of(d).back(), "late");
    }
}

TEST_F(DictionaryTest, EqualityIgnoresOrderNumbersMatchByValueAndSetValuesMerges) {
    Ref<CFMutableDictionaryRef> other{new_dict()};
    set("x", num(1LL).get());
    set("y", kCFBooleanTrue);
    CFDictionarySetValue(other, str("y").get(), kCFBooleanTrue);
    CFDictionarySetValue(other, str("x").get(), num(1.0).get());
    EXPECT_TRUE(CFEqual(dict.get(), other.get()));
    CFDictionarySetValue(other, str("x").get(), num(1.5).get());
    EXPECT_FALSE(CFEqual(dict.get(), other.get()));
    Ref<CFMutableDictionaryRef> byNumber{new_dict()};
    CFDictionarySetValue(byNumber, num(3LL).get(), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(byNumber, num(3.0).get()), kCFBooleanTrue);
    // Merging in place: existing keys keep their position, new ones go last.
    CFDictionarySetValue(other, str("z").get(), num(3LL).get());
    CFDictionarySetValues(dict, other);
    CFDictionarySetValues(dict, dict);
    EXPECT_EQ(keys(), (std::vector<std::string>{"x", "y", "z"}));
    EXPECT_TRUE(CFEqual(CFDictionaryGetValue(dict, str("x").get()), num(1.5).get()));
}

}  // namespace
