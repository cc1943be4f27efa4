// Property-list reading and writing: round trips in both formats, lists written by another tool, and
// hostile binary input that must fail cleanly.
#include "CFTestRef.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace cftest;

namespace {

Ref<CFDataRef> dataOf(const std::vector<uint8_t>& bytes) {
    return Ref<CFDataRef>(CFDataCreate(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size())));
}

std::vector<uint8_t> readFile(const std::string& name) {
    std::ifstream in(std::string(QUIVER_TEST_DATA) + "/plist/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

Ref<CFPropertyListRef> parse(CFDataRef bytes, CFOptionFlags options = 0, CFPropertyListFormat* format = nullptr) {
    return Ref<CFPropertyListRef>(CFPropertyListCreateWithData(nullptr, bytes, options, format, nullptr));
}

Ref<CFDataRef> serialize(CFPropertyListRef plist, CFPropertyListFormat format, CFErrorRef* error = nullptr) {
    return Ref<CFDataRef>(CFPropertyListCreateData(nullptr, plist, format, 0, error));
}

CFTypeRef lookup(CFDictionaryRef d, const char* key) { return CFDictionaryGetValue(d, str(key).get()); }

int64_t intOf(CFTypeRef n) {
    int64_t v = 0;
    EXPECT_EQ(CFGetTypeID(n), CFNumberGetTypeID());
    CFNumberGetValue(static_cast<CFNumberRef>(n), kCFNumberSInt64Type, &v);
    return v;
}

// A sample holding every type that both formats carry.
Ref<CFMutableDictionaryRef> makeSample() {
    Ref<CFMutableDictionaryRef> d(new_dict());
    Ref<CFMutableArrayRef> array(new_array());
    CFArrayAppendValue(array, str("Ünïcødé 😀").get());
    CFArrayAppendValue(array, kCFBooleanFalse);
    const UInt8 raw[] = {0, 1, 2, 255};
    CFDictionarySetValue(d, str("Integer").get(), num(-1234567890123LL).get());
    CFDictionarySetValue(d, str("Real").get(), num(2.5).get());
    // XML keeps whole seconds only.
    CFDictionarySetValue(d, str("Date").get(), Ref<CFDateRef>(CFDateCreate(nullptr, 600000000.0)).get());
    CFDictionarySetValue(d, str("Data").get(), Ref<CFDataRef>(CFDataCreate(nullptr, raw, sizeof raw)).get());
    CFDictionarySetValue(d, str("Array").get(), array.get());
    CFDictionarySetValue(d, str("True").get(), kCFBooleanTrue);
    return d;
}

}  // namespace

class CFPropertyListRoundTrip : public ::testing::TestWithParam<CFPropertyListFormat> {};

TEST_P(CFPropertyListRoundTrip, WrittenListReadsBackEqualAndMutableOnRequest) {
    auto sample = makeSample();
    Ref<CFDataRef> bytes = serialize(sample, GetParam());
    ASSERT_TRUE(bytes) << "write failed";
    CFPropertyListFormat format = 0;
    Ref<CFPropertyListRef> back = parse(bytes, 0, &format);
    ASSERT_TRUE(back);
    EXPECT_EQ(format, GetParam());
    EXPECT_TRUE(CFEqual(back.get(), sample.get()));
    auto d = static_cast<CFDictionaryRef>(back.get());
    EXPECT_TRUE(CFNumberIsFloatType(static_cast<CFNumberRef>(lookup(d, "Real"))));
    EXPECT_EQ(intOf(lookup(d, "Integer")), -1234567890123LL);
    Ref<CFPropertyListRef> editable = parse(bytes, kCFPropertyListMutableContainers);
    ASSERT_TRUE(editable);
    auto m = (CFMutableDictionaryRef)editable.get();
    CFDictionarySetValue(m, str("Added").get(), kCFBooleanTrue);  // would abort on an immutable dictionary
    EXPECT_EQ(CFDictionaryGetCount(m), 7);
}

INSTANTIATE_TEST_SUITE_P(BothFormats, CFPropertyListRoundTrip,
                         ::testing::Values(kCFPropertyListXMLFormat_v1_0, kCFPropertyListBinaryFormat_v1_0));

TEST(CFPropertyListWrite, BinaryKeepsFractionsOfASecondAndUIDsAndRefusesWhatListsCannotHold) {
    Ref<CFDateRef> date(CFDateCreate(nullptr, 600000000.25));
    Ref<CFPropertyListRef> back = parse(serialize(date, kCFPropertyListBinaryFormat_v1_0));
    ASSERT_TRUE(back);
    EXPECT_DOUBLE_EQ(CFDateGetAbsoluteTime(static_cast<CFDateRef>(back.get())), 600000000.25);

    Ref<CFMutableDictionaryRef> d(new_dict());
    CFDictionarySetValue(d, num(1LL).get(), kCFBooleanTrue);
    CFErrorRef error = nullptr;
    EXPECT_FALSE(serialize(d, kCFPropertyListBinaryFormat_v1_0, &error));
    ASSERT_NE(error, nullptr);
    CFRelease(error);
    // UIDs exist only in the binary format.
    Ref<CFKeyedArchiverUIDRef> uid(_CFKeyedArchiverUIDCreate(nullptr, 3));
    EXPECT_FALSE(serialize(uid, kCFPropertyListXMLFormat_v1_0));
    EXPECT_TRUE(serialize(uid, kCFPropertyListBinaryFormat_v1_0));
}

TEST(CFPropertyListForeign, ReadsBinaryAndXmlWrittenByPython) {
    for (const char* name : {"python-simple.bplist", "python-simple.xml"}) {
        SCOPED_TRACE(name);
        auto bytes = readFile(name);
        ASSERT_FALSE(bytes.empty());
        Ref<CFPropertyListRef> plist = parse(dataOf(bytes));
        ASSERT_TRUE(plist);
        auto d = static_cast<CFDictionaryRef>(plist.get());
        EXPECT_EQ(text(static_cast<CFStringRef>(lookup(d, "Name"))), "Quiver");
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
        EXPECT_EQ(text(static_cast<CFStringRef>(CFArrayGetValueAtIndex(list, 1))), "ü");
        EXPECT_EQ(CFStringGetLength(static_cast<CFStringRef>(CFArrayGetValueAtIndex(list, 2))), 2);
        EXPECT_EQ(CFDictionaryGetCount(static_cast<CFDictionaryRef>(lookup(d, "Nested"))), 2);
    }
}

TEST(CFPropertyListForeign, ReadsKeyedArchiveUIDs) {
    Ref<CFPropertyListRef> plist = parse(dataOf(readFile("python-archive.bplist")));
    ASSERT_TRUE(plist);
    auto d = static_cast<CFDictionaryRef>(plist.get());
    CFTypeRef root = lookup(static_cast<CFDictionaryRef>(lookup(d, "$top")), "root");
    ASSERT_EQ(CFGetTypeID(root), _CFKeyedArchiverUIDGetTypeID());
    EXPECT_EQ(_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(root)), 1u);
    auto file = static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(static_cast<CFArrayRef>(lookup(d, "$objects")), 1));
    EXPECT_EQ(_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(lookup(file, "$class"))), 4u);
    EXPECT_EQ(intOf(lookup(file, "Size")), 1234);
    // Written back in binary and read again, UIDs survive.
    Ref<CFPropertyListRef> back = parse(serialize(plist, kCFPropertyListBinaryFormat_v1_0));
    EXPECT_TRUE(back && CFEqual(back.get(), plist.get()));
}

namespace {

// Builds binary property lists object by object, so that tests can make shapes no writer would.
struct BinaryBuilder {
    std::vector<std::vector<uint8_t>> objects;
    BinaryBuilder& add(std::vector<uint8_t> obj) {
        objects.push_back(std::move(obj));
        return *this;
    }
    // An array of 1-byte references (object count must stay below 256).
    BinaryBuilder& array(const std::vector<uint8_t>& refs) {
        std::vector<uint8_t> o = {0xAF, 0x10, static_cast<uint8_t>(refs.size())};
        if (refs.size() < 15) o = {static_cast<uint8_t>(0xA0 | refs.size())};
        o.insert(o.end(), refs.begin(), refs.end());
        return add(o);
    }
    std::vector<uint8_t> build(size_t top, uint8_t countOverride = 0) const {
        std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
        std::vector<uint16_t> offsets;
        for (const auto& o : objects) {
            offsets.push_back(static_cast<uint16_t>(out.size()));
            out.insert(out.end(), o.begin(), o.end());
        }
        size_t table = out.size();
        for (uint16_t off : offsets) out.insert(out.end(), {static_cast<uint8_t>(off >> 8), static_cast<uint8_t>(off)});
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
    Ref<CFPropertyListRef> plist(CFPropertyListCreateWithData(nullptr, dataOf(bytes).get(), 0, nullptr, &error));
    EXPECT_FALSE(plist);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CFErrorGetCode(error), kCFPropertyListReadCorruptError);
    CFRelease(error);
}

}  // namespace

TEST(CFPropertyListHostile, DeepNestingGarbageTruncationAndEmptyInputFail) {
    std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < 100000; ++i) xml += "<array>";
    for (int i = 0; i < 100000; ++i) xml += "</array>";
    xml += "</plist>";
    expectRejected(std::vector<uint8_t>(xml.begin(), xml.end()));
    BinaryBuilder b;
    b.add({0xA0});
    for (int level = 1; level < 250; ++level) b.array({static_cast<uint8_t>(level - 1)});
    EXPECT_TRUE(parse(dataOf(b.build(249))));  // 250 levels are fine
    expectRejected({});
    expectRejected({'b', 'p', 'l', 'i', 's', 't', '0', '0'});
    expectRejected({'<', 'p', 'l', 'i', 's', 't', '>'});
    auto good = readFile("python-simple.bplist");
    for (size_t cut = 1; cut < good.size(); cut += 7)  // a prefix may happen to parse; it must never crash
        parse(dataOf(std::vector<uint8_t>(good.begin(), good.begin() + static_cast<long>(cut))));
    EXPECT_FALSE(parse(nullptr));
}
