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

TEST_F(ArrayTest, RetainsWhatItHoldsAndReleasesOnRemoval) {
    CFIndex base = CFGetRetainCount(value);
    CFArrayAppendValue(array, value.get());
    CFArrayInsertValueAtIndex(array, 0, value.get());
    EXPECT_EQ(CFGetRetainCount(value), base + 2);
    CFArrayRemoveValueAtIndex(array, 1);
    EXPECT_EQ(CFGetRetainCount(value), base + 1);
    CFArrayRemoveAllValues(array);
    EXPECT_EQ(CFGetRetainCount(value), base);
    EXPECT_EQ(CFArrayGetCount(array), 0);
}

TEST_F(ArrayTest, DestructionAndCopiesBalanceRetains) {
    CFIndex base = CFGetRetainCount(value);
    CFArrayAppendValue(array, value.get());
    {
        Ref<CFArrayRef> copy(CFArrayCreateCopy(nullptr, array));
        Ref<CFMutableArrayRef> mutableCopy(CFArrayCreateMutableCopy(nullptr, 0, array));
        EXPECT_EQ(CFGetRetainCount(value), base + 3);
        EXPECT_TRUE(CFEqual(copy.get(), array.get()));
    }
    EXPECT_EQ(CFGetRetainCount(value), base + 1);
}

TEST_F(ArrayTest, SettingAValueReleasesTheOldOneAndSurvivesSettingItself) {
    Ref<CFNumberRef> other = num(7LL);
    CFArrayAppendValue(array, value.get());
    CFIndex base = CFGetRetainCount(value);
    CFArraySetValueAtIndex(array, 0, other.get());
    EXPECT_EQ(CFGetRetainCount(value), base - 1);
    CFIndex otherCount = CFGetRetainCount(other);
    CFArraySetValueAtIndex(array, 0, other.get());
    EXPECT_EQ(CFGetRetainCount(other), otherCount);
    EXPECT_EQ(CFArrayGetValueAtIndex(array, 0), other.get());
    CFArraySetValueAtIndex(array, 1, value.get());  // one past the end appends
    EXPECT_EQ(CFArrayGetCount(array), 2);
}

TEST_F(ArrayTest, TypeCallbacksCompareByValueRawPointersByIdentity) {
    Ref<CFStringRef> a = str("same"), b = str("same");
    ASSERT_NE(a.get(), b.get());
    CFArrayAppendValue(array, a.get());
    EXPECT_TRUE(CFArrayContainsValue(array, CFRangeMake(0, 1), b.get()));

    Ref<CFMutableArrayRef> raw(CFArrayCreateMutable(nullptr, 0, nullptr));
    CFIndex base = CFGetRetainCount(a);
    CFArrayAppendValue(raw, a.get());
    EXPECT_EQ(CFGetRetainCount(a), base);
    EXPECT_FALSE(CFArrayContainsValue(raw, CFRangeMake(0, 1), b.get()));
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(raw, CFRangeMake(0, 1), a.get()), 0);
}

TEST_F(ArrayTest, AppendingItselfDoublesTheContents) {
    CFArrayAppendValue(array, value.get());
    Ref<CFNumberRef> two = num(2LL);
    CFArrayAppendValue(array, two.get());
    CFArrayAppendArray(array, array, CFRangeMake(0, 2));
    ASSERT_EQ(CFArrayGetCount(array), 4);
    EXPECT_EQ(CFArrayGetValueAtIndex(array, 2), value.get());
    EXPECT_EQ(CFArrayGetValueAtIndex(array, 3), two.get());
    EXPECT_EQ(CFArrayGetCountOfValue(array, CFRangeMake(0, 4), value.get()), 2);
}

TEST_F(ArrayTest, EqualityIsElementWise) {
    Ref<CFMutableArrayRef> other{new_array()};
    Ref<CFNumberRef> sameValue = num(42.0);
    CFArrayAppendValue(array, value.get());
    CFArrayAppendValue(other, sameValue.get());
    EXPECT_TRUE(CFEqual(array.get(), other.get()));
    CFArrayAppendValue(other, sameValue.get());
    EXPECT_FALSE(CFEqual(array.get(), other.get()));
}

struct Item {
    int key;
    int order;
};

CFComparisonResult compare_keys(const void* a, const void* b, void*) {
    int x = static_cast<const Item*>(a)->key, y = static_cast<const Item*>(b)->key;
    return x < y ? kCFCompareLessThan : x > y ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

CFComparisonResult compare_randomly(const void*, const void*, void* context) {
    auto& rng = *static_cast<std::mt19937*>(context);
    return static_cast<CFComparisonResult>(static_cast<int>(rng() % 3) - 1);
}

TEST(ArraySort, KeepsEqualElementsInTheirOrder) {
    std::vector<Item> items;
    for (int i = 0; i < 200; ++i) items.push_back({(i * 7919) % 5, i});
    Ref<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, nullptr));
    for (auto& item : items) CFArrayAppendValue(array, &item);
    CFArraySortValues(array, CFRangeMake(0, CFArrayGetCount(array)), compare_keys, nullptr);
    for (CFIndex i = 1; i < CFArrayGetCount(array); ++i) {
        auto* prev = static_cast<const Item*>(CFArrayGetValueAtIndex(array, i - 1));
        auto* cur = static_cast<const Item*>(CFArrayGetValueAtIndex(array, i));
        ASSERT_LE(prev->key, cur->key);
        if (prev->key == cur->key) {
            ASSERT_LT(prev->order, cur->order);
        }
    }
}

TEST(ArraySort, SortsOnlyTheGivenRange) {
    std::vector<Item> items = {{9, 0}, {3, 1}, {2, 2}, {1, 3}, {0, 4}};
    Ref<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, nullptr));
    for (auto& item : items) CFArrayAppendValue(array, &item);
    CFArraySortValues(array, CFRangeMake(1, 3), compare_keys, nullptr);
    std::vector<int> keys;
    for (CFIndex i = 0; i < 5; ++i) keys.push_back(static_cast<const Item*>(CFArrayGetValueAtIndex(array, i))->key);
    EXPECT_EQ(keys, (std::vector<int>{9, 1, 2, 3, 0}));
}

TEST(ArraySort, InconsistentComparatorStillYieldsAPermutation) {
    std::vector<Item> items(100);
    for (int i = 0; i < 100; ++i) items[static_cast<size_t>(i)] = {i, i};
    Ref<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, nullptr));
    for (auto& item : items) CFArrayAppendValue(array, &item);
    std::mt19937 rng(1);
    CFArraySortValues(array, CFRangeMake(0, 100), compare_randomly, &rng);
    std::vector<bool> seen(100);
    for (CFIndex i = 0; i < 100; ++i) seen[static_cast<size_t>(static_cast<const Item*>(CFArrayGetValueAtIndex(array, i))->key)] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 100);
}

using ArrayDeathTest = ArrayTest;

TEST_F(ArrayDeathTest, OutOfRangeAccessAborts) {
    CFArrayAppendValue(array, value.get());
    EXPECT_DEATH(CFArrayGetValueAtIndex(array, 1), "out of bounds");
    EXPECT_DEATH(CFArrayGetValueAtIndex(array, -1), "out of bounds");
    const void* out[2];
    EXPECT_DEATH(CFArrayGetValues(array, CFRangeMake(0, 2), out), "out of bounds");
    Ref<CFArrayRef> frozen(CFArrayCreateCopy(nullptr, array));
    EXPECT_DEATH(CFArrayAppendValue(const_cast<CFMutableArrayRef>(frozen.get()), value.get()), "immutable");
}

class DictionaryTest : public ::testing::Test {
protected:
    Ref<CFMutableDictionaryRef> dict{new_dict()};

    std::vector<std::string> keys() const {
        std::vector<const void*> k(static_cast<size_t>(CFDictionaryGetCount(dict)));
        CFDictionaryGetKeysAndValues(dict, k.data(), nullptr);
        std::vector<std::string> out;
        for (const void* key : k) out.push_back(text(static_cast<CFStringRef>(key)));
        return out;
    }
    void set(const char* key, CFTypeRef value) { CFDictionarySetValue(dict, str(key).get(), value); }
};

TEST_F(DictionaryTest, ReplacingKeepsThePositionAndReleasesTheOldValue) {
    Ref<CFNumberRef> first = num(1LL), second = num(2LL);
    set("a", kCFBooleanTrue);
    set("b", first.get());
    set("c", kCFBooleanFalse);
    CFIndex base = CFGetRetainCount(first);
    set("b", second.get());
    EXPECT_EQ(CFGetRetainCount(first), base - 1);
    EXPECT_EQ(keys(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(CFDictionaryGetValue(dict, str("b").get()), second.get());

    CFDictionaryReplaceValue(dict, str("b").get(), first.get());
    EXPECT_EQ(CFDictionaryGetValue(dict, str("b").get()), first.get());
    CFDictionaryReplaceValue(dict, str("absent").get(), first.get());
    CFDictionaryAddValue(dict, str("a").get(), first.get());  // present: left alone
    EXPECT_EQ(CFDictionaryGetValue(dict, str("a").get()), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetCount(dict), 3);
}

TEST_F(DictionaryTest, RemovalKeepsOrderAndIndexAcrossManyKeys) {
    constexpr int kCount = 2000;
    for (int i = 0; i < kCount; ++i) {
        Ref<CFNumberRef> v = num(static_cast<long long>(i));
        set(("key" + std::to_string(i)).c_str(), v.get());
    }
    for (int i = 1; i < kCount; i += 3) CFDictionaryRemoveValue(dict, str("key" + std::to_string(i)).get());
    std::vector<std::string> expected;
    for (int i = 0; i < kCount; ++i) {
        std::string key = "key" + std::to_string(i);
        auto v = static_cast<CFNumberRef>(CFDictionaryGetValue(dict, str(key).get()));
        if (i % 3 == 1) {
            ASSERT_EQ(v, nullptr) << key;
            continue;
        }
        expected.push_back(key);
        ASSERT_NE(v, nullptr) << key;
        long long got = -1;
        CFNumberGetValue(v, kCFNumberLongLongType, &got);
        ASSERT_EQ(got, i);
    }
    EXPECT_EQ(keys(), expected);
    // Entries added after removals are found too, at the end.
    set("late", kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(dict, str("late").get()), kCFBooleanTrue);
    EXPECT_EQ(keys().back(), "late");
}

CFHashCode constant_hash(const void*) { return 7; }

TEST(DictionaryCollisions, EveryKeyInOneBucketStillResolves) {
    CFDictionaryKeyCallBacks colliding = kCFTypeDictionaryKeyCallBacks;
    colliding.hash = constant_hash;
    Ref<CFMutableDictionaryRef> dict(
        CFDictionaryCreateMutable(nullptr, 0, &colliding, &kCFTypeDictionaryValueCallBacks));
    for (long long i = 0; i < 50; ++i) CFDictionarySetValue(dict, num(i).get(), num(i * 10).get());
    for (long long i = 0; i < 50; i += 2) CFDictionaryRemoveValue(dict, num(i).get());
    ASSERT_EQ(CFDictionaryGetCount(dict), 25);
    for (long long i = 0; i < 50; ++i) {
        auto v = static_cast<CFNumberRef>(CFDictionaryGetValue(dict, num(i).get()));
        if (i % 2 == 0) {
            EXPECT_EQ(v, nullptr);
        } else {
            ASSERT_NE(v, nullptr);
            EXPECT_TRUE(CFEqual(v, num(i * 10).get()));
        }
    }
}

TEST_F(DictionaryTest, KeysAndValuesAreReleasedOnRemovalAndDestruction) {
    Ref<CFStringRef> key = str("key");
    Ref<CFNumberRef> value = num(5LL);
    CFIndex keyBase = CFGetRetainCount(key), valueBase = CFGetRetainCount(value);
    {
        Ref<CFMutableDictionaryRef> local{new_dict()};
        CFDictionarySetValue(local, key.get(), value.get());
        Ref<CFDictionaryRef> copy(CFDictionaryCreateCopy(nullptr, local));
        EXPECT_EQ(CFGetRetainCount(value), valueBase + 2);
        CFDictionaryRemoveValue(local, key.get());
        EXPECT_EQ(CFGetRetainCount(key), keyBase + 1);
        EXPECT_EQ(CFGetRetainCount(value), valueBase + 1);
    }
    EXPECT_EQ(CFGetRetainCount(key), keyBase);
    EXPECT_EQ(CFGetRetainCount(value), valueBase);
}

TEST_F(DictionaryTest, NullKeyOrValueIsIgnored) {
    CFDictionarySetValue(dict, nullptr, kCFBooleanTrue);
    CFDictionarySetValue(dict, str("k").get(), nullptr);
    CFDictionaryAddValue(dict, nullptr, kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetCount(dict), 0);
    EXPECT_EQ(CFDictionaryGetValue(dict, nullptr), nullptr);
    EXPECT_FALSE(CFDictionaryContainsKey(dict, nullptr));
}

TEST(DictionaryCallbacks, CopyStringKeysAreSnapshots) {
    Ref<CFMutableDictionaryRef> dict(CFDictionaryCreateMutable(nullptr, 0, &kCFCopyStringDictionaryKeyCallBacks,
                                                               &kCFTypeDictionaryValueCallBacks));
    Ref<CFMutableStringRef> key(CFStringCreateMutable(nullptr, 0));
    CFStringAppendCString(key, "name", kCFStringEncodingUTF8);
    CFDictionarySetValue(dict, key.get(), kCFBooleanTrue);
    CFStringAppendCString(key, "-changed", kCFStringEncodingUTF8);
    EXPECT_EQ(CFDictionaryGetValue(dict, str("name").get()), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(dict, key.get()), nullptr);
}

TEST(DictionaryCallbacks, NullKeyCallbacksCompareByIdentity) {
    Ref<CFMutableDictionaryRef> dict(CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr));
    Ref<CFStringRef> a = str("k"), b = str("k");
    CFIndex base = CFGetRetainCount(a);
    CFDictionarySetValue(dict, a.get(), kCFBooleanTrue);
    EXPECT_EQ(CFGetRetainCount(a), base);
    EXPECT_EQ(CFDictionaryGetValue(dict, a.get()), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(dict, b.get()), nullptr);
}

TEST_F(DictionaryTest, EqualityIgnoresOrderAndMatchesNumbersByValue) {
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
}

TEST_F(DictionaryTest, SetValuesMergesInPlace) {
    set("a", num(1LL).get());
    set("b", num(2LL).get());
    Ref<CFMutableDictionaryRef> source{new_dict()};
    CFDictionarySetValue(source, str("c").get(), num(3LL).get());
    CFDictionarySetValue(source, str("a").get(), num(10LL).get());
    CFDictionarySetValues(dict, source);
    CFDictionarySetValues(dict, dict);
    EXPECT_EQ(keys(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(CFEqual(CFDictionaryGetValue(dict, str("a").get()), num(10LL).get()));
}

class DescriptionTest : public DictionaryTest {};

TEST_F(DescriptionTest, EmptyDictionaryAndArray) {
    EXPECT_EQ(take(CFDictionaryCopyDebugDescription(dict)), "{}");
    Ref<CFMutableArrayRef> array{new_array()};
    EXPECT_EQ(take(CFCopyDescription(array)), "()");
}

TEST_F(DescriptionTest, NestedCollectionsAreIndentedAndQuotedDeterministically) {
    const UInt8 bytes[] = {0xde, 0xad, 0xbe, 0xef};
    Ref<CFDataRef> data(CFDataCreate(nullptr, bytes, 4));
    Ref<CFMutableArrayRef> list{new_array()};
    CFArrayAppendValue(list, str("plain_word-1.0").get());
    CFArrayAppendValue(list, str("needs \"quotes\"\n").get());
    CFArrayAppendValue(list, data.get());
    Ref<CFMutableDictionaryRef> inner{new_dict()};
    CFDictionarySetValue(inner, str("flag").get(), kCFBooleanFalse);
    CFDictionarySetValue(inner, str("empty").get(), Ref<CFMutableDictionaryRef>(new_dict()).get());
    set("com.apple.size", num(12LL).get());
    set("list", list.get());
    set("inner dict", inner.get());
    set("ratio", num(0.25).get());
    set("", str("").get());

    const char* expected =
        "{\n"
        "    com.apple.size = 12;\n"
        "    list = (\n"
        "        plain_word-1.0,\n"
        "        \"needs \\\"quotes\\\"\\n\",\n"
        "        {length = 4, bytes = 0xdeadbeef}\n"
        "    );\n"
        "    \"inner dict\" = {\n"
        "        flag = false;\n"
        "        empty = {};\n"
        "    };\n"
        "    ratio = 0.25;\n"
        "    \"\" = \"\";\n"
        "}";
    EXPECT_EQ(take(CFDictionaryCopyDebugDescription(dict)), expected);
    EXPECT_EQ(take(CFCopyDescription(dict)), expected);
}

TEST_F(DescriptionTest, LongDataShowsItsEndsOnly) {
    std::vector<UInt8> bytes(40);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<UInt8>(i);
    Ref<CFDataRef> data(CFDataCreate(nullptr, bytes.data(), 40));
    set("blob", data.get());
    EXPECT_EQ(take(CFDictionaryCopyDebugDescription(dict)),
              "{\n    blob = {length = 40, bytes = 0x0001020304050607 ... 2021222324252627};\n}");
}

}  // namespace
