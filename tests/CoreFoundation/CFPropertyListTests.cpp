// Property-list reading and writing: round trips in both formats, lists written by another tool, and
// hostile binary input that must fail cleanly.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

struct Releaser {
    void operator()(CFTypeRef r) const {
        if (r) CFRelease(r);
    }
};
template <typename T>
using Owned = std::unique_ptr<std::remove_pointer_t<T>, Releaser>;

Owned<CFDataRef> dataOf(const std::vector<uint8_t>& bytes) {
    return Owned<CFDataRef>(CFDataCreate(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size())));
}

std::vector<uint8_t> readFile(const std::string& name) {
    std::ifstream in(std::string(QUIVER_TEST_DATA) + "/plist/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

Owned<CFStringRef> str(const char* s) { return Owned<CFStringRef>(CFStringCreateWithCString(nullptr, s, kCFStringEncodingUTF8)); }

CFTypeRef lookup(CFDictionaryRef d, const char* key) { return CFDictionaryGetValue(d, str(key).get()); }

int64_t intOf(CFTypeRef n) {
    int64_t v = 0;
    EXPECT_EQ(CFGetTypeID(n), CFNumberGetTypeID());
    CFNumberGetValue(static_cast<CFNumberRef>(n), kCFNumberSInt64Type, &v);
    return v;
}

std::string textOf(CFTypeRef s) {
    EXPECT_EQ(CFGetTypeID(s), CFStringGetTypeID());
    const char* p = CFStringGetCStringPtr(static_cast<CFStringRef>(s), kCFStringEncodingUTF8);
    return p ? p : "";
}

// A sample holding every type that both formats carry.
Owned<CFDictionaryRef> makeSample() {
    CFMutableDictionaryRef d =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    int64_t big = -1234567890123LL;
    double ratio = 2.5;
    Owned<CFNumberRef> n1(CFNumberCreate(nullptr, kCFNumberSInt64Type, &big));
    Owned<CFNumberRef> n2(CFNumberCreate(nullptr, kCFNumberFloat64Type, &ratio));
    Owned<CFDateRef> date(CFDateCreate(nullptr, 600000000.0));  // XML keeps whole seconds only
    const UInt8 raw[] = {0, 1, 2, 255};
    Owned<CFDataRef> data(CFDataCreate(nullptr, raw, sizeof raw));
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    CFArrayAppendValue(array, str("Ünïcødé 😀").get());
    CFArrayAppendValue(array, kCFBooleanFalse);
    CFDictionarySetValue(d, str("Integer").get(), n1.get());
    CFDictionarySetValue(d, str("Real").get(), n2.get());
    CFDictionarySetValue(d, str("Date").get(), date.get());
    CFDictionarySetValue(d, str("Data").get(), data.get());
    CFDictionarySetValue(d, str("Array").get(), array);
    CFDictionarySetValue(d, str("True").get(), kCFBooleanTrue);
    CFRelease(array);
    return Owned<CFDictionaryRef>(d);
}

}  // namespace

class CFPropertyListRoundTrip : public ::testing::TestWithParam<CFPropertyListFormat> {};

TEST_P(CFPropertyListRoundTrip, WrittenListReadsBackEqual) {
    auto sample = makeSample();
    CFErrorRef error = nullptr;
    Owned<CFDataRef> bytes(CFPropertyListCreateData(nullptr, sample.get(), GetParam(), 0, &error));
    ASSERT_TRUE(bytes) << "write failed";
    CFPropertyListFormat format = 0;
    Owned<CFPropertyListRef> back(CFPropertyListCreateWithData(nullptr, bytes.get(), 0, &format, &error));
    ASSERT_TRUE(back);
    EXPECT_EQ(format, GetParam());
    EXPECT_TRUE(CFEqual(back.get(), sample.get()));
    auto d = static_cast<CFDictionaryRef>(back.get());
    EXPECT_TRUE(CFNumberIsFloatType(static_cast<CFNumberRef>(lookup(d, "Real"))));
    EXPECT_EQ(intOf(lookup(d, "Integer")), -1234567890123LL);
}

TEST_P(CFPropertyListRoundTrip, MutabilityOptionGivesMutableContainers) {
    auto sample = makeSample();
    Owned<CFDataRef> bytes(CFPropertyListCreateData(nullptr, sample.get(), GetParam(), 0, nullptr));
    ASSERT_TRUE(bytes);
    Owned<CFPropertyListRef> back(
        CFPropertyListCreateWithData(nullptr, bytes.get(), kCFPropertyListMutableContainers, nullptr, nullptr));
    ASSERT_TRUE(back);
    auto d = (CFMutableDictionaryRef)back.get();
    CFDictionarySetValue(d, str("Added").get(), kCFBooleanTrue);  // would abort on an immutable dictionary
    EXPECT_EQ(CFDictionaryGetCount(d), 7);
}

INSTANTIATE_TEST_SUITE_P(BothFormats, CFPropertyListRoundTrip,
                         ::testing::Values(kCFPropertyListXMLFormat_v1_0, kCFPropertyListBinaryFormat_v1_0));

TEST(CFPropertyListWrite, BinaryDatesKeepFractionsOfASecond) {
    Owned<CFDateRef> date(CFDateCreate(nullptr, 600000000.25));
    Owned<CFDataRef> bytes(CFPropertyListCreateData(nullptr, date.get(), kCFPropertyListBinaryFormat_v1_0, 0, nullptr));
    ASSERT_TRUE(bytes);
    Owned<CFPropertyListRef> back(CFPropertyListCreateWithData(nullptr, bytes.get(), 0, nullptr, nullptr));
    ASSERT_TRUE(back);
    EXPECT_DOUBLE_EQ(CFDateGetAbsoluteTime(static_cast<CFDateRef>(back.get())), 600000000.25);
}

TEST(CFPropertyListWrite, RefusesWhatPropertyListsCannotHold) {
    CFMutableDictionaryRef d =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    int32_t one = 1;
    Owned<CFNumberRef> key(CFNumberCreate(nullptr, kCFNumberSInt32Type, &one));
    CFDictionarySetValue(d, key.get(), kCFBooleanTrue);
    CFErrorRef error = nullptr;
    EXPECT_EQ(CFPropertyListCreateData(nullptr, d, kCFPropertyListBinaryFormat_v1_0, 0, &error), nullptr);
    ASSERT_NE(error, nullptr);
    CFRelease(error);
    CFRelease(d);

    // UIDs exist only in the binary format.
    Owned<CFKeyedArchiverUIDRef> uid(_CFKeyedArchiverUIDCreate(nullptr, 3));
    EXPECT_EQ(CFPropertyListCreateData(nullptr, uid.get(), kCFPropertyListXMLFormat_v1_0, 0, nullptr), nullptr);
    Owned<CFDataRef> bin(CFPropertyListCreateData(nullptr, uid.get(), kCFPropertyListBinaryFormat_v1_0, 0, nullptr));
    EXPECT_TRUE(bin);
}

TEST(CFPropertyListForeign, ReadsBinaryAndXmlWrittenByPython) {
    for (const char* name : {"python-simple.bplist", "python-simple.xml"}) {
        SCOPED_TRACE(name);
        auto bytes = readFile(name);
        ASSERT_FALSE(bytes.empty());
        CFErrorRef error = nullptr;
        Owned<CFPropertyListRef> plist(CFPropertyListCreateWithData(nullptr, dataOf(bytes).get(), 0, nullptr, &error));
        ASSERT_TRUE(plist);
        auto d = static_cast<CFDictionaryRef>(plist.get());
        EXPECT_EQ(textOf(lookup(d, "Name")), "Quiver");
        EXPECT_EQ(intOf(lookup(d, "Count")), 42);
        EXPECT_EQ(intOf(lookup(d, "Negative")), -7);
        EXPECT_EQ(intOf(lookup(d, "Big")), int64_t{1} << 40);
        EXPECT_EQ(lookup(d, "Flag"), kCFBooleanTrue);
        EXPECT_EQ(lookup(d, "Off"), kCFBooleanFalse);
        auto data = static_cast<CFDataRef>(lookup(d, "Bytes"));
        ASSERT_EQ(CFDataGetLength(data), 4);
        EXPECT_EQ(CFDataGetBytePtr(data)[3], 0xff);
        // 2020-05-17 12:30:15 UTC as seconds since 2001.
        EXPECT_DOUBLE_EQ(CFDateGetAbsoluteTime(static_cast<CFDateRef>(lookup(d, "When"))), 611411415.0);
        auto list = static_cast<CFArrayRef>(lookup(d, "List"));
        ASSERT_EQ(CFArrayGetCount(list), 4);
        EXPECT_EQ(textOf(CFArrayGetValueAtIndex(list, 1)), "ü");
        EXPECT_EQ(CFStringGetLength(static_cast<CFStringRef>(CFArrayGetValueAtIndex(list, 2))), 2);
        auto nested = static_cast<CFDictionaryRef>(lookup(d, "Nested"));
        EXPECT_EQ(CFDictionaryGetCount(nested), 2);
    }
}

TEST(CFPropertyListForeign, ReadsKeyedArchiveUIDs) {
    Owned<CFPropertyListRef> plist(
        CFPropertyListCreateWithData(nullptr, dataOf(readFile("python-archive.bplist")).get(), 0, nullptr, nullptr));
    ASSERT_TRUE(plist);
    auto d = static_cast<CFDictionaryRef>(plist.get());
    auto top = static_cast<CFDictionaryRef>(lookup(d, "$top"));
    CFTypeRef root = lookup(top, "root");
    ASSERT_EQ(CFGetTypeID(root), _CFKeyedArchiverUIDGetTypeID());
    EXPECT_EQ(_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(root)), 1u);
    auto objects = static_cast<CFArrayRef>(lookup(d, "$objects"));
    auto file = static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(objects, 1));
    EXPECT_EQ(_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(lookup(file, "$class"))), 4u);
    EXPECT_EQ(intOf(lookup(file, "Size")), 1234);

    // Written back in binary and read again, UIDs survive.
    Owned<CFDataRef> again(CFPropertyListCreateData(nullptr, plist.get(), kCFPropertyListBinaryFormat_v1_0, 0, nullptr));
    ASSERT_TRUE(again);
    Owned<CFPropertyListRef> back(CFPropertyListCreateWithData(nullptr, again.get(), 0, nullptr, nullptr));
    EXPECT_TRUE(back && CFEqual(back.get(), plist.get()));
}

namespace {

// Builds binary property lists object by object, so that tests can make shapes no writer would.
struct BinaryBuilder {
    std::vector<std::vector<uint8_t>> objects;
    size_t add(std::vector<uint8_t> obj) {
        objects.push_back(std::move(obj));
        return objects.size() - 1;
    }
    // An array of 1-byte references (object count must stay below 256).
    static std::vector<uint8_t> array(const std::vector<uint8_t>& refs) {
        std::vector<uint8_t> o;
        if (refs.size() < 15) {
            o.push_back(static_cast<uint8_t>(0xA0 | refs.size()));
        } else {
            o = {0xAF, 0x10, static_cast<uint8_t>(refs.size())};
        }
        o.insert(o.end(), refs.begin(), refs.end());
        return o;
    }
    std::vector<uint8_t> build(size_t top, uint8_t countOverride = 0) const {
        std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
        std::vector<uint16_t> offsets;
        for (const auto& o : objects) {
            offsets.push_back(static_cast<uint16_t>(out.size()));
            out.insert(out.end(), o.begin(), o.end());
        }
        size_t table = out.size();
        for (uint16_t off : offsets) {
            out.push_back(static_cast<uint8_t>(off >> 8));
            out.push_back(static_cast<uint8_t>(off));
        }
        std::vector<uint8_t> trailer(32, 0);
        trailer[6] = 2;  // offset size
        trailer[7] = 1;  // reference size
        trailer[15] = countOverride ? countOverride : static_cast<uint8_t>(objects.size());
        trailer[23] = static_cast<uint8_t>(top);
        trailer[30] = static_cast<uint8_t>(table >> 8);
        trailer[31] = static_cast<uint8_t>(table);
        out.insert(out.end(), trailer.begin(), trailer.end());
        return out;
    }
};

void expectRejected(const std::vector<uint8_t>& bytes) {
    CFErrorRef error = nullptr;
    CFPropertyListRef plist = CFPropertyListCreateWithData(nullptr, dataOf(bytes).get(), 0, nullptr, &error);
    EXPECT_EQ(plist, nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CFErrorGetCode(error), kCFPropertyListReadCorruptError);
    CFRelease(error);
    if (plist) CFRelease(plist);
}

}  // namespace

TEST(CFPropertyListHostile, BuilderMakesReadableLists) {
    // Guards the builder itself, so that the rejections below are for the reason intended.
    BinaryBuilder b;
    size_t leaf = b.add({0x09});  // true
    size_t top = b.add(BinaryBuilder::array({static_cast<uint8_t>(leaf), static_cast<uint8_t>(leaf)}));
    Owned<CFPropertyListRef> plist(CFPropertyListCreateWithData(nullptr, dataOf(b.build(top)).get(), 0, nullptr, nullptr));
    ASSERT_TRUE(plist);
    EXPECT_EQ(CFArrayGetCount(static_cast<CFArrayRef>(plist.get())), 2);
}

TEST(CFPropertyListHostile, CyclesAreRejected) {
    BinaryBuilder b;
    b.add(BinaryBuilder::array({1}));
    b.add(BinaryBuilder::array({0}));
    expectRejected(b.build(0));
    BinaryBuilder self;
    self.add(BinaryBuilder::array({0}));
    expectRejected(self.build(0));
}

TEST(CFPropertyListHostile, SharedReferenceBombIsRejected) {
    // Each level refers twice to the one below: 60 levels would expand to 2^60 objects.
    BinaryBuilder b;
    b.add({0x09});
    for (uint8_t level = 1; level < 60; ++level) b.add(BinaryBuilder::array({static_cast<uint8_t>(level - 1),
                                                                             static_cast<uint8_t>(level - 1)}));
    expectRejected(b.build(59));
}

TEST(CFPropertyListHostile, ReferencesAndLengthsOutOfRangeAreRejected) {
    BinaryBuilder b;
    b.add(BinaryBuilder::array({7}));  // refers past the object count
    expectRejected(b.build(0));

    BinaryBuilder longCount;
    longCount.add({0xAF, 0x13, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});  // absurd element count
    expectRejected(longCount.build(0));

    BinaryBuilder topPast;
    topPast.add({0x09});
    expectRejected(topPast.build(5));

    BinaryBuilder countPast;
    countPast.add({0x09});
    expectRejected(countPast.build(0, 200));  // more objects than the offset table holds
}

TEST(CFPropertyListHostile, DeepNestingIsRejectedInBothFormats) {
    std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < 100000; ++i) xml += "<array>";
    for (int i = 0; i < 100000; ++i) xml += "</array>";
    xml += "</plist>";
    expectRejected(std::vector<uint8_t>(xml.begin(), xml.end()));

    BinaryBuilder b;
    b.add({0xA0});
    for (int level = 1; level < 250; ++level) b.add(BinaryBuilder::array({static_cast<uint8_t>(level - 1)}));
    Owned<CFPropertyListRef> shallowEnough(
        CFPropertyListCreateWithData(nullptr, dataOf(b.build(249)).get(), 0, nullptr, nullptr));
    EXPECT_TRUE(shallowEnough);  // 250 levels are fine
}

TEST(CFPropertyListHostile, GarbageTruncationAndEmptyInputFail) {
    expectRejected({});
    expectRejected({'b', 'p', 'l', 'i', 's', 't', '0', '0'});
    expectRejected({'<', 'p', 'l', 'i', 's', 't', '>'});
    auto good = readFile("python-simple.bplist");
    for (size_t cut = 1; cut < good.size(); cut += 7) {
        std::vector<uint8_t> truncated(good.begin(), good.begin() + static_cast<long>(cut));
        CFPropertyListRef plist = CFPropertyListCreateWithData(nullptr, dataOf(truncated).get(), 0, nullptr, nullptr);
        if (plist) CFRelease(plist);  // a prefix may happen to parse; it must never crash
    }
    CFPropertyListRef none = CFPropertyListCreateWithData(nullptr, nullptr, 0, nullptr, nullptr);
    EXPECT_EQ(none, nullptr);
}
