// The keyed archiver's layout and uniquing, the unarchiver over both stores (CoreFoundation values and
// binary bytes read in place), and the binary reader's refusal of malformed lists.
#include <gtest/gtest.h>

#include <string>

#include "Quiver/Support/BinaryPlistReader.hpp"
#include "Quiver/Support/KeyedArchiver.hpp"
#include "Quiver/Support/PlistValues.hpp"

using namespace Quiver::Support;
using namespace plist_values;
namespace ax = Quiver::Support::archiver_exceptions;

namespace {

// Runs f(unarchiver, root UID) over the archive as CoreFoundation values and as binary bytes.
template <class F>
void ForBothStores(const CF::Dictionary& archive, F&& f) {
    cf_plist_store store;
    const auto cfTop = check_archive(store, archive.get());
    keyed_unarchiver cfUnarchiver(store, cfTop.objects);
    f(cfUnarchiver, cfTop.root);
    SCOPED_TRACE("binary bytes");
    const Bytes bytes = Serialize(archive.get());
    auto reader = binary_plist_reader::open(bytes);
    ASSERT_TRUE(reader);
    const auto top = check_archive(*reader, reader->top());
    binary_keyed_unarchiver u(*reader, top.objects);
    f(u, top.root);
}

// An archive whose root is object 1 of `objects` ("$null" first).
CF::Dictionary ArchiveOf(const CF::Array& objects) {
    return Dict({{"$archiver", "NSKeyedArchiver"}, {"$version", 100000}, {"$top", Dict({{"root", UID(1)}})}, {"$objects", objects}});
}

template <class E, class F>
std::string Thrown(F&& f) {
    try { f(); } catch (const E& e) { return e.what(); } return "(nothing thrown)";
}

TEST(KeyedUnarchiver, ArchivedValuesComeBackInBothStoresAndUIDsInBothSpellings) {
    CF::Dictionary nested = Dict({{"data", Bytes{1, 2, 3}}, {"list", Arr({"x", int64_t{-4}, CF::Boolean(true)})},
                                  {"when", CF::Date(12345.5)}, {"inner", Dict({{"k", "v"}})}});
    keyed_archiver archiver;
    archiver.encode_object(keyed_archiver::root_key, &archiver, {"Holder"},
                           [&](keyed_archiver& a) { a.encode_dictionary("value", nested.get()); });
    ForBothStores(archiver.finishEncoding(), [&](auto& u, uint32_t root) {
        u.decode_object(root, [&](auto& u, auto) {
            EXPECT_EQ(u.class_name(), "Holder");
            auto value = u.decode_dictionary("value");
            ASSERT_TRUE(value);
            EXPECT_TRUE(*value == nested) << CF::Describe(value->get());
            EXPECT_FALSE(u.decode_dictionary("absent"));
        });
    });
    cf_plist_store store;  // UIDs as themselves and in the XML spelling {"CF$UID": n}
    EXPECT_EQ(detail::extract_uid(store, UID(5).get()), 5u);
    EXPECT_EQ(detail::extract_uid(store, Dict({{"CF$UID", 5}}).get()), 5u);
    EXPECT_EQ(detail::extract_uid(store, Dict({{"CF$UID", -1}}).get()), std::nullopt);
    EXPECT_EQ(detail::extract_uid(store, Dict({{"CF$UID", 5}, {"x", 1}}).get()), std::nullopt);
    EXPECT_EQ(detail::extract_uid(store, CF::Number(int64_t{5}).get()), std::nullopt);
}

TEST(KeyedUnarchiver, CyclesDepthRangeUnknownClassesAndWrongTypesAreRefused) {
    // 1 refers to itself through an array; 2 starts a chain of 200 nested arrays; 3 names object 999;
    // 205 is an object of an unknown class with a string where a number belongs and data where a string does.
    CF::Array objects = Arr({"$null", Dict({{"NS.objects", Arr({UID(1)})}}), Dict({{"NS.objects", Arr({UID(4)})}}),
                             Dict({{"NS.objects", Arr({UID(999)})}})});
    for (uint32_t i = 4; i < 204; ++i) objects.Append(Dict({{"NS.objects", Arr({UID(i + 1)})}}));
    objects.Append(CF::String("end"));
    objects.Append(Dict({{"$class", UID(206)}, {"n", "text"}, {"s", UID(207)}}));
    objects.Append(Dict({{"$classname", "NSWidget"}, {"$classes", Arr({"NSWidget"})}}));
    objects.Append(CF::Data(Bytes{9}));
    ForBothStores(ArchiveOf(objects), [](auto& u, uint32_t) {
        EXPECT_EQ(Thrown<ax::decode_cycle>([&] { u.decode_value(1); }), "A cycle was detected when decoding the archive");
        EXPECT_EQ(Thrown<ax::nesting_too_deep>([&] { u.decode_value(2); }), "Archive nests its objects too deeply");
        EXPECT_EQ(Thrown<ax::uid_out_of_range>([&] { u.decode_value(3); }), "Archive refers to object 999 but holds only 208 objects");
        // The stack unwinds with the exceptions: a fresh decode is not taken for a cycle.
        EXPECT_EQ(CF::Describe(u.decode_value(204).get()), "end");
        EXPECT_EQ(Thrown<ax::cant_decode_as_value>([&] { u.decode_value(205); }), "Cant decode type 'NSWidget' as value");
        u.decode_object(205, [](auto& u, auto) {
            EXPECT_EQ(Thrown<ax::cant_decode_as_value>([&] { u.decode_integer("n"); }), "Cant decode type 'string' as 64-bit integer");
            EXPECT_EQ(Thrown<ax::cant_decode_as_value>([&] { u.decode_string("s"); }), "Cant decode type 'data' as string");
        });
    });
}

// A binary list from raw object bytes; references are one byte, offsets two.
Bytes BinaryList(const std::vector<Bytes>& objects, uint64_t top = 0) {
    Bytes out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<size_t> offsets;
    for (const Bytes& o : objects) {
        offsets.push_back(out.size());
        out.insert(out.end(), o.begin(), o.end());
    }
    const uint64_t table = out.size();
    auto put = [&](uint64_t v, int n) { while (n--) out.push_back(static_cast<uint8_t>(v >> (8 * n))); };
    for (size_t off : offsets) put(off, 2);
    out.insert(out.end(), {0, 0, 0, 0, 0, 0, 2, 1});  // trailer: offset and reference sizes, then three counts
    put(objects.size(), 8), put(top, 8), put(table, 8);
    return out;
}

TEST(BinaryPlistReader, ReadsValuesInPlaceAndChecksRelationsWhenRead) {
    const Bytes list = BinaryList({
        {0xA4, 1, 2, 3, 0},                                           // array of 1, 2, 3 and itself
        {0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 1},    // 2^63 + 1 in 16 bytes
        {0x62, 0, 0xDC, 0, 'x'},                                      // UTF-16 "Üx"
        {0x4F, 0x10, 20, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20},
        {0xA1, 9}, {0xD1, 6, 6}, {0x10, 1},                           // refers to object 9 of 9; key is an integer
        {0x84, 1, 0, 0, 0, 2},                                        // UID wider than 32 bits
        {0x52, 0xFF, 0xFE},                                           // not UTF-8
    });
    auto r = binary_plist_reader::open(list);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->count(0), 4u);
    EXPECT_EQ(r->element(0, 3), 0u);  // a list may contain itself; nothing follows it
    EXPECT_EQ(r->integer(1), static_cast<int64_t>(0x8000000000000001ULL));
    EXPECT_EQ(r->string(2).utf8(), "\xC3\x9Cx");
    EXPECT_EQ(r->data_bytes(3).size(), 20u);
    EXPECT_THROW(r->integer(2), std::logic_error);
    EXPECT_THROW(r->element(4, 0), plist_format_error);
    EXPECT_THROW(r->open_dictionary(5).find("x"), plist_format_error);
    EXPECT_THROW(r->uid(7), plist_format_error);
    EXPECT_THROW(r->string(8), plist_format_error);
}

TEST(BinaryPlistReader, MalformedListsAreRefusedWhole) {
    const std::string malformed = "Malformed binary property list: ";
    const std::pair<Bytes, std::string> cases[] = {
        {Bytes{'b', 'p', 'l', 'i', 's', 't', '0', '0'}, "too short"},
        {BinaryList({{0x08}}, 1), "bad object count"},
        {BinaryList({{0x4F, 0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}), malformed + "object runs past the object area"},
        {BinaryList({{0x53, 'a', 'b'}}), ""},  // reaches into the table
        {BinaryList({{0x70}}), malformed + "unknown marker"},
        {[] { Bytes b = BinaryList({{0x08}}); b[b.size() - 33] = 10; return b; }(), malformed + "object offset outside the object area"},
    };
    for (const auto& [bytes, expected] : cases) {
        std::string why;
        EXPECT_FALSE(binary_plist_reader::open(bytes, &why)) << expected;
        if (!expected.empty()) { EXPECT_EQ(why, expected); }
    }
}

}  // namespace
