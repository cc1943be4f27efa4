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

TEST_F(ArrayTest, SelfAppendEqualityAndMembershipFollowTheCallbacks) {
    Ref<CFNumberRef> two = num(2LL);
    CFArrayAppendValue(array, value.get());
    CFArrayAppendValue(array, two.get());
    CFArrayAppendArray(array, array, CFRangeMake(0, 2));
    ASSERT_EQ(CFArrayGetCount(array), 4);
    EXPECT_EQ(CFArrayGetCountOfValue(array, CFRangeMake(0, 4), value.get()), 2);
    Ref<CFMutableArrayRef> other{new_array()};
    for (double v : {42.0, 2.0, 42.0}) CFArrayAppendValue(other, num(v).get());
    EXPECT_FALSE(CFEqual(array.get(), other.get()));
    CFArrayAppendValue(other, two.get());
    EXPECT_TRUE(CFEqual(array.get(), other.get()));  // 42 and 42.0 are equal numbers
    // Without callbacks, values are neither retained nor compared by value.
    Ref<CFStringRef> a = str("same"), b = str("same");
    Ref<CFMutableArrayRef> raw(CFArrayCreateMutable(nullptr, 0, nullptr));
    CFIndex base = CFGetRetainCount(a);
    CFArrayAppendValue(raw, a.get());
    EXPECT_EQ(CFGetRetainCount(a), base);
    EXPECT_FALSE(CFArrayContainsValue(raw, CFRangeMake(0, 1), b.get()));
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(raw, CFRangeMake(0, 1), a.get()), 0);
    CFArrayAppendValue(array, a.get());
    EXPECT_TRUE(CFArrayContainsValue(array, CFRangeMake(0, 5), b.get()));
}

struct Item {
    int key, order;
};

CFComparisonResult compare_keys(const void* a, const void* b, void*) {
    int x = static_cast<const Item*>(a)->key, y = static_cast<const Item*>(b)->key;
    return x < y ? kCFCompareLessThan : x > y ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

CFComparisonResult compare_randomly(const void*, const void*, void* context) {
    auto& rng = *static_cast<std::mt19937*>(context);
    return static_cast<CFComparisonResult>(static_cast<int>(rng() % 3) - 1);
}

Ref<CFMutableArrayRef> item_array(std::vector<Item>& items) {
    Ref<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, nullptr));
    for (auto& item : items) CFArrayAppendValue(array, &item);
    return array;
}

const Item& item_at(CFArrayRef array, CFIndex i) { return *static_cast<const Item*>(CFArrayGetValueAtIndex(array, i)); }

TEST(ArraySort, StableLimitedToTheRangeAndSafeWithABadComparator) {
    std::vector<Item> items;
    for (int i = 0; i < 200; ++i) items.push_back({(i * 7919) % 5, i});
    Ref<CFMutableArrayRef> array = item_array(items);
    CFArraySortValues(array, CFRangeMake(0, 200), compare_keys, nullptr);
    for (CFIndex i = 1; i < 200; ++i) {
        const Item &prev = item_at(array, i - 1), &cur = item_at(array, i);
        ASSERT_TRUE(prev.key < cur.key || (prev.key == cur.key && prev.order < cur.order)) << i;
    }
    std::vector<Item> few = {{9, 0}, {3, 1}, {2, 2}, {1, 3}, {0, 4}};
    Ref<CFMutableArrayRef> part = item_array(few);
    CFArraySortValues(part, CFRangeMake(1, 3), compare_keys, nullptr);
    std::vector<int> keys;
    for (CFIndex i = 0; i < 5; ++i) keys.push_back(item_at(part, i).key);
    EXPECT_EQ(keys, (std::vector<int>{9, 1, 2, 3, 0}));
    // A comparator that contradicts itself still leaves a permutation.
    std::mt19937 rng(1);
    CFArraySortValues(array, CFRangeMake(0, 200), compare_randomly, &rng);
    std::vector<bool> seen(200);
    for (CFIndex i = 0; i < 200; ++i) seen[static_cast<size_t>(item_at(array, i).order)] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 200);
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

TEST(DictionaryCallbacks, CopyStringKeysAreSnapshotsNullCallbacksUseIdentity) {
    Ref<CFMutableDictionaryRef> dict(CFDictionaryCreateMutable(nullptr, 0, &kCFCopyStringDictionaryKeyCallBacks,
                                                               &kCFTypeDictionaryValueCallBacks));
    Ref<CFMutableStringRef> key(CFStringCreateMutableCopy(nullptr, 0, CFSTR("name")));
    CFDictionarySetValue(dict, key.get(), kCFBooleanTrue);
    CFStringAppend(key, CFSTR("-changed"));
    EXPECT_EQ(CFDictionaryGetValue(dict, str("name").get()), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(dict, key.get()), nullptr);
    Ref<CFMutableDictionaryRef> raw(CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr));
    Ref<CFStringRef> a = str("k"), b = str("k");
    CFIndex base = CFGetRetainCount(a);
    CFDictionarySetValue(raw, a.get(), kCFBooleanTrue);
    EXPECT_EQ(CFGetRetainCount(a), base);
    EXPECT_EQ(CFDictionaryGetValue(raw, a.get()), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(raw, b.get()), nullptr);
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

using DescriptionTest = DictionaryTest;

TEST_F(DescriptionTest, NestedCollectionsAreIndentedQuotedAndAbridgedDeterministically) {
    EXPECT_EQ(take(CFDictionaryCopyDebugDescription(dict)), "{}");
    EXPECT_EQ(take(CFCopyDescription(Ref<CFMutableArrayRef>(new_array()))), "()");
    const UInt8 bytes[] = {0xde, 0xad, 0xbe, 0xef};
    Ref<CFMutableArrayRef> list{new_array()};
    CFArrayAppendValue(list, str("plain_word-1.0").get());
    CFArrayAppendValue(list, str("needs \"quotes\"\n").get());
    CFArrayAppendValue(list, Ref<CFDataRef>(CFDataCreate(nullptr, bytes, 4)).get());
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
    // Long data shows its ends only.
    CFDictionaryRemoveAllValues(dict);
    UInt8 counting[40];
    for (size_t i = 0; i < sizeof counting; ++i) counting[i] = static_cast<UInt8>(i);
    set("blob", Ref<CFDataRef>(CFDataCreate(nullptr, counting, 40)).get());
    EXPECT_EQ(take(CFDictionaryCopyDebugDescription(dict)),
              "{\n    blob = {length = 40, bytes = 0x0001020304050607 ... 2021222324252627};\n}");
}

}  // namespace
