// Comparing, searching and case mapping of strings.
//
// Results follow UTF-16 code unit order, as callers sorting paths expect from CoreFoundation. Strings
// hold UTF-8, whose byte order is code point order; the two orders disagree only between a character
// above U+FFFF (a lead surrogate, D800..DBFF, in UTF-16) and one in U+E000..U+FFFF, so the literal
// comparison works on the bytes and corrects that one case where the strings first differ.
//
// Case-insensitive operations use simple, locale-independent case folding: exact for ASCII, and
// covering the bicameral scripts whose letters map one to one (Latin, Greek, Cyrillic, Armenian,
// Georgian, Coptic, Glagolitic, Deseret and others; not Cherokee). A folded character always keeps its
// number of UTF-16 units, so ranges found in folded text are ranges of the original.
#include "CFStringInternal.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

namespace cf::str {
namespace {

// Upper-case ranges and what they map to in lower case. step 2 means every other character from lo
// (the lower-case partner follows each). oneWay entries are not reversed by to_upper.
struct CaseRange {
    char32_t lo, hi;
    int32_t delta;
    uint8_t step;
    bool oneWay;
};

constexpr CaseRange kLower[] = {
    {0x41, 0x5A, 32, 1, false},       {0xC0, 0xD6, 32, 1, false},        {0xD8, 0xDE, 32, 1, false},
    {0x100, 0x12F, 1, 2, false},      {0x130, 0x130, 0x69 - 0x130, 1, true},
    {0x132, 0x137, 1, 2, false},      {0x139, 0x148, 1, 2, false},       {0x14A, 0x177, 1, 2, false},
    {0x178, 0x178, 0xFF - 0x178, 1, false},                              {0x179, 0x17E, 1, 2, false},
    {0x181, 0x181, 0x253 - 0x181, 1, false},                             {0x182, 0x185, 1, 2, false},
    {0x186, 0x186, 0x254 - 0x186, 1, false},                             {0x187, 0x187, 1, 1, false},
    {0x189, 0x18A, 0x256 - 0x189, 1, false},                             {0x18B, 0x18B, 1, 1, false},
    {0x18E, 0x18E, 0x1DD - 0x18E, 1, false},                             {0x18F, 0x18F, 0x259 - 0x18F, 1, false},
    {0x190, 0x190, 0x25B - 0x190, 1, false},                             {0x191, 0x191, 1, 1, false},
    {0x193, 0x193, 0x260 - 0x193, 1, false},                             {0x194, 0x194, 0x263 - 0x194, 1, false},
    {0x196, 0x196, 0x269 - 0x196, 1, false},                             {0x197, 0x197, 0x268 - 0x197, 1, false},
    {0x198, 0x198, 1, 1, false},      {0x19C, 0x19C, 0x26F - 0x19C, 1, false},
    {0x19D, 0x19D, 0x272 - 0x19D, 1, false},                             {0x19F, 0x19F, 0x275 - 0x19F, 1, false},
    {0x1A0, 0x1A5, 1, 2, false},      {0x1A6, 0x1A6, 0x280 - 0x1A6, 1, false},
    {0x1A7, 0x1A7, 1, 1, false},      {0x1A9, 0x1A9, 0x283 - 0x1A9, 1, false},
    {0x1AC, 0x1AC, 1, 1, false},      {0x1AE, 0x1AE, 0x288 - 0x1AE, 1, false},
    {0x1AF, 0x1AF, 1, 1, false},      {0x1B1, 0x1B2, 0x28A - 0x1B1, 1, false},
    {0x1B3, 0x1B5, 1, 2, false},      {0x1B7, 0x1B7, 0x292 - 0x1B7, 1, false},
    {0x1B8, 0x1B8, 1, 1, false},      {0x1BC, 0x1BC, 1, 1, false},
    {0x1C4, 0x1C4, 2, 1, false},      {0x1C5, 0x1C5, 1, 1, true},        {0x1C7, 0x1C7, 2, 1, false},
    {0x1C8, 0x1C8, 1, 1, true},       {0x1CA, 0x1CA, 2, 1, false},       {0x1CB, 0x1CB, 1, 1, true},
    {0x1CD, 0x1DC, 1, 2, false},      {0x1DE, 0x1EF, 1, 2, false},       {0x1F1, 0x1F1, 2, 1, false},
    {0x1F2, 0x1F2, 1, 1, true},       {0x1F4, 0x1F4, 1, 1, false},
    {0x1F6, 0x1F6, 0x195 - 0x1F6, 1, false},                             {0x1F7, 0x1F7, 0x1BF - 0x1F7, 1, false},
    {0x1F8, 0x21F, 1, 2, false},      {0x220, 0x220, 0x19E - 0x220, 1, false},
    {0x222, 0x233, 1, 2, false},      {0x23A, 0x23A, 0x2C65 - 0x23A, 1, false},
    {0x23B, 0x23B, 1, 1, false},      {0x23D, 0x23D, 0x19A - 0x23D, 1, false},
    {0x23E, 0x23E, 0x2C66 - 0x23E, 1, false},                            {0x241, 0x241, 1, 1, false},
    {0x243, 0x243, 0x180 - 0x243, 1, false},                             {0x244, 0x244, 0x289 - 0x244, 1, false},
    {0x245, 0x245, 0x28C - 0x245, 1, false},                             {0x246, 0x24F, 1, 2, false},
    {0x370, 0x373, 1, 2, false},      {0x376, 0x376, 1, 1, false},       {0x37F, 0x37F, 0x3F3 - 0x37F, 1, false},
    {0x386, 0x386, 0x3AC - 0x386, 1, false},                             {0x388, 0x38A, 37, 1, false},
    {0x38C, 0x38C, 64, 1, false},     {0x38E, 0x38F, 63, 1, false},      {0x391, 0x3A1, 32, 1, false},
    {0x3A3, 0x3AB, 32, 1, false},     {0x3CF, 0x3CF, 8, 1, false},       {0x3D8, 0x3EF, 1, 2, false},
    {0x3F4, 0x3F4, 0x3B8 - 0x3F4, 1, true},                              {0x3F7, 0x3F7, 1, 1, false},
    {0x3F9, 0x3F9, 0x3F2 - 0x3F9, 1, false},                             {0x3FA, 0x3FA, 1, 1, false},
    {0x3FD, 0x3FF, 0x37B - 0x3FD, 1, false},                             {0x400, 0x40F, 80, 1, false},
    {0x410, 0x42F, 32, 1, false},     {0x460, 0x481, 1, 2, false},       {0x48A, 0x4BF, 1, 2, false},
    {0x4C0, 0x4C0, 15, 1, false},     {0x4C1, 0x4CE, 1, 2, false},       {0x4D0, 0x52F, 1, 2, false},
    {0x531, 0x556, 48, 1, false},     {0x10A0, 0x10C5, 7264, 1, false},  {0x10C7, 0x10C7, 7264, 1, false},
    {0x10CD, 0x10CD, 7264, 1, false}, {0x1C90, 0x1CBA, -3008, 1, false}, {0x1CBD, 0x1CBF, -3008, 1, false},
    {0x1E00, 0x1E95, 1, 2, false},    {0x1E9E, 0x1E9E, 0xDF - 0x1E9E, 1, true},
    {0x1EA0, 0x1EFF, 1, 2, false},    {0x1F08, 0x1F0F, -8, 1, false},    {0x1F18, 0x1F1D, -8, 1, false},
    {0x1F28, 0x1F2F, -8, 1, false},   {0x1F38, 0x1F3F, -8, 1, false},    {0x1F48, 0x1F4D, -8, 1, false},
    {0x1F59, 0x1F5F, -8, 2, false},   {0x1F68, 0x1F6F, -8, 1, false},    {0x1FB8, 0x1FB9, -8, 1, false},
    {0x1FBA, 0x1FBB, -74, 1, false},  {0x1FC8, 0x1FCB, -86, 1, false},   {0x1FD8, 0x1FD9, -8, 1, false},
    {0x1FDA, 0x1FDB, -100, 1, false}, {0x1FE8, 0x1FE9, -8, 1, false},    {0x1FEA, 0x1FEB, -112, 1, false},
    {0x1FEC, 0x1FEC, -7, 1, false},   {0x1FF8, 0x1FF9, -128, 1, false},  {0x1FFA, 0x1FFB, -126, 1, false},
    {0x2126, 0x2126, 0x3C9 - 0x2126, 1, true},                           {0x212A, 0x212A, 0x6B - 0x212A, 1, true},
    {0x212B, 0x212B, 0xE5 - 0x212B, 1, true},                            {0x2132, 0x2132, 0x214E - 0x2132, 1, false},
    {0x2160, 0x216F, 16, 1, false},   {0x2183, 0x2183, 1, 1, false},     {0x24B6, 0x24CF, 26, 1, false},
    {0x2C00, 0x2C2F, 48, 1, false},   {0x2C60, 0x2C60, 1, 1, false},     {0x2C62, 0x2C62, 0x26B - 0x2C62, 1, false},
    {0x2C63, 0x2C63, 0x1D7D - 0x2C63, 1, false},                         {0x2C64, 0x2C64, 0x27D - 0x2C64, 1, false},
    {0x2C67, 0x2C6B, 1, 2, false},    {0x2C6D, 0x2C6D, 0x251 - 0x2C6D, 1, false},
    {0x2C6E, 0x2C6E, 0x271 - 0x2C6E, 1, false},                          {0x2C6F, 0x2C6F, 0x250 - 0x2C6F, 1, false},
    {0x2C70, 0x2C70, 0x252 - 0x2C70, 1, false},                          {0x2C72, 0x2C72, 1, 1, false},
    {0x2C75, 0x2C75, 1, 1, false},    {0x2C7E, 0x2C7F, 0x23F - 0x2C7E, 1, false},
    {0x2C80, 0x2CE3, 1, 2, false},    {0x2CEB, 0x2CED, 1, 2, false},     {0x2CF2, 0x2CF2, 1, 1, false},
    {0xA640, 0xA66D, 1, 2, false},    {0xA680, 0xA69B, 1, 2, false},     {0xA722, 0xA72F, 1, 2, false},
    {0xA732, 0xA76F, 1, 2, false},    {0xA779, 0xA77B, 1, 2, false},     {0xA77D, 0xA77D, 0x1D79 - 0xA77D, 1, false},
    {0xA77E, 0xA786, 1, 2, false},    {0xA78B, 0xA78B, 1, 1, false},     {0xA78D, 0xA78D, 0x265 - 0xA78D, 1, false},
    {0xA790, 0xA792, 1, 2, false},    {0xA796, 0xA7A8, 1, 2, false},     {0xA7AA, 0xA7AA, 0x266 - 0xA7AA, 1, false},
    {0xA7AB, 0xA7AB, 0x25C - 0xA7AB, 1, false},                          {0xA7AC, 0xA7AC, 0x261 - 0xA7AC, 1, false},
    {0xA7AD, 0xA7AD, 0x26C - 0xA7AD, 1, false},                          {0xA7AE, 0xA7AE, 0x26A - 0xA7AE, 1, false},
    {0xA7B0, 0xA7B0, 0x29E - 0xA7B0, 1, false},                          {0xA7B1, 0xA7B1, 0x287 - 0xA7B1, 1, false},
    {0xA7B2, 0xA7B2, 0x29D - 0xA7B2, 1, false},                          {0xA7B3, 0xA7B3, 0xAB53 - 0xA7B3, 1, false},
    {0xA7B4, 0xA7C2, 1, 2, false},    {0xA7C4, 0xA7C4, 0xA794 - 0xA7C4, 1, false},
    {0xA7C5, 0xA7C5, 0x282 - 0xA7C5, 1, false},                          {0xA7C6, 0xA7C6, 0x1D8E - 0xA7C6, 1, false},
    {0xA7C7, 0xA7C9, 1, 2, false},    {0xA7D0, 0xA7D0, 1, 1, false},     {0xA7D6, 0xA7D8, 1, 2, false},
    {0xA7F5, 0xA7F5, 1, 1, false},    {0xFF21, 0xFF3A, 32, 1, false},    {0x10400, 0x10427, 40, 1, false},
    {0x104B0, 0x104D3, 40, 1, false}, {0x10570, 0x1057A, 39, 1, false},  {0x1057C, 0x1058A, 39, 1, false},
    {0x1058C, 0x10592, 39, 1, false}, {0x10594, 0x10595, 39, 1, false},  {0x10C80, 0x10CB2, 64, 1, false},
    {0x118A0, 0x118BF, 32, 1, false}, {0x16E40, 0x16E5F, 32, 1, false},  {0x1E900, 0x1E921, 34, 1, false},
};

constexpr bool sorted_and_disjoint() {
    for (size_t i = 1; i < sizeof(kLower) / sizeof(kLower[0]); ++i) {
        if (kLower[i].lo <= kLower[i - 1].hi || kLower[i].lo > kLower[i].hi) return false;
    }
    return true;
}
static_assert(sorted_and_disjoint(), "the case table is searched by bisection");

bool in_range(const CaseRange& r, char32_t cp) {
    return cp >= r.lo && cp <= r.hi && (r.step == 1 || (cp - r.lo) % 2 == 0);
}

// Lower-case characters whose upper case is not the reverse of a table entry.
char32_t special_upper(char32_t cp) {
    switch (cp) {
        case 0xB5: return 0x39C;
        case 0x131: return 0x49;
        case 0x17F: return 0x53;
        case 0x1C5: return 0x1C4;
        case 0x1C8: return 0x1C7;
        case 0x1CB: return 0x1CA;
        case 0x1F2: return 0x1F1;
        case 0x3C2: return 0x3A3;
        case 0x3D0: return 0x392;
        case 0x3D1: return 0x398;
        case 0x3D5: return 0x3A6;
        case 0x3D6: return 0x3A0;
        case 0x3F0: return 0x39A;
        case 0x3F1: return 0x3A1;
        case 0x3F5: return 0x395;
        case 0x1E9B: return 0x1E60;
        default: return 0;
    }
}

inline unsigned ascii_lower(unsigned c) { return c - 'A' < 26u ? c + 32 : c; }

}  // namespace

char32_t to_lower(char32_t cp) {
    if (cp < 0x80) return ascii_lower(cp);
    const CaseRange* end = std::end(kLower);
    const CaseRange* r = std::upper_bound(std::begin(kLower), end, cp,
                                          [](char32_t c, const CaseRange& e) { return c < e.lo; });
    if (r == std::begin(kLower)) return cp;
    --r;
    return in_range(*r, cp) ? static_cast<char32_t>(static_cast<int32_t>(cp) + r->delta) : cp;
}

char32_t to_upper(char32_t cp) {
    if (cp < 0x80) return cp - 'a' < 26u ? cp - 32 : cp;
    if (char32_t special = special_upper(cp)) return special;
    for (const CaseRange& r : kLower) {
        if (r.oneWay) continue;
        char32_t upper = static_cast<char32_t>(static_cast<int32_t>(cp) - r.delta);
        if (in_range(r, upper)) return upper;
    }
    return cp;
}

char32_t fold_case(char32_t cp) {
    if (cp < 0x80) return ascii_lower(cp);
    switch (cp) {
        case 0xB5: return 0x3BC;
        case 0x17F: return 0x73;
        case 0x3C2: return 0x3C3;
        case 0x3D0: return 0x3B2;
        case 0x3D1: return 0x3B8;
        case 0x3D5: return 0x3C6;
        case 0x3D6: return 0x3C0;
        case 0x3F0: return 0x3BA;
        case 0x3F1: return 0x3C1;
        case 0x3F5: return 0x3B5;
        case 0x1E9B: return 0x1E61;
        case 0x345:
        case 0x1FBE: return 0x3B9;
        case 0x130: return cp;  // dotted capital I has no simple folding
        default: return to_lower(cp);
    }
}

void fold_units(std::u16string& u) {
    for (size_t i = 0; i < u.size(); ++i) {
        char32_t c = u[i];
        if (c < 0x80) {
            u[i] = static_cast<char16_t>(ascii_lower(c));
        } else if (c >= 0xD800 && c <= 0xDBFF && i + 1 < u.size() && u[i + 1] >= 0xDC00 && u[i + 1] <= 0xDFFF) {
            char32_t f = fold_case(0x10000 + ((c - 0xD800) << 10) + (u[i + 1] - 0xDC00));
            if (f >= 0x10000) {
                f -= 0x10000;
                u[i] = static_cast<char16_t>(0xD800 + (f >> 10));
                u[i + 1] = static_cast<char16_t>(0xDC00 + (f & 0x3FF));
            }
            ++i;
        } else if (c < 0xD800 || c > 0xDFFF) {
            char32_t f = fold_case(c);
            if (f < 0x10000) u[i] = static_cast<char16_t>(f);
        }
    }
}

}  // namespace cf::str

using namespace cf;

namespace {

// Order of two differing code points by their UTF-16 form.
int compare_code_points(char32_t a, char32_t b) {
    if (a == b) return 0;
    bool supplementaryA = a >= 0x10000, supplementaryB = b >= 0x10000;
    if (supplementaryA != supplementaryB) {
        // The lead surrogate of the supplementary one sorts above U+0000..U+D7FF and below U+E000..U+FFFF.
        char32_t bmp = supplementaryA ? b : a;
        int supplementaryOrder = bmp < 0xD800 ? 1 : -1;
        return supplementaryA ? supplementaryOrder : -supplementaryOrder;
    }
    return a < b ? -1 : 1;
}

int compare_utf8(std::string_view a, std::string_view b) {
    size_t n = std::min(a.size(), b.size());
    size_t i = static_cast<size_t>(std::mismatch(a.begin(), a.begin() + static_cast<ptrdiff_t>(n), b.begin()).first -
                                   a.begin());
    if (i == n) return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
    // Both strings agree up to i, so they start a character at the same place before it.
    while (i > 0 && (static_cast<unsigned char>(a[i]) & 0xC0) == 0x80) --i;
    const auto* pa = reinterpret_cast<const unsigned char*>(a.data()) + i;
    const auto* pb = reinterpret_cast<const unsigned char*>(b.data()) + i;
    return compare_code_points(str::next_code_point(pa), str::next_code_point(pb));
}

template <typename C>
bool is_digit(C c) {
    return c >= '0' && c <= '9';
}

// Unit-by-unit comparison; with numeric, runs of ASCII digits compare by value. With asciiFold, ASCII
// letters compare without case (for ASCII strings, which then need no folded copy).
template <typename C>
int compare_sequences(const C* a, size_t na, const C* b, size_t nb, bool numeric, bool asciiFold) {
    size_t i = 0, j = 0;
    while (i < na && j < nb) {
        if (numeric && is_digit(a[i]) && is_digit(b[j])) {
            size_t endA = i, endB = j;
            while (endA < na && is_digit(a[endA])) ++endA;
            while (endB < nb && is_digit(b[endB])) ++endB;
            while (i + 1 < endA && a[i] == '0') ++i;  // leading zeros do not change the value
            while (j + 1 < endB && b[j] == '0') ++j;
            if (endA - i != endB - j) return endA - i < endB - j ? -1 : 1;
            for (; i < endA; ++i, ++j) {
                if (a[i] != b[j]) return a[i] < b[j] ? -1 : 1;
            }
            j = endB;
            continue;
        }
        unsigned x = static_cast<unsigned>(a[i]), y = static_cast<unsigned>(b[j]);
        if (asciiFold) {
            x = x - 'A' < 26u ? x + 32 : x;
            y = y - 'A' < 26u ? y + 32 : y;
        }
        if (x != y) return x < y ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < na) return 1;
    if (j < nb) return -1;
    return 0;
}

// The part of s in range as bytes, when it is ASCII or cuts no surrogate pair; false otherwise.
bool utf8_slice(const __CFString* s, CFRange range, std::string_view& out) {
    bool splitsStart = false, splitsEnd = false;
    size_t begin = str::byte_offset(s, range.location, splitsStart);
    size_t end = str::byte_offset(s, range.location + range.length, splitsEnd);
    if (splitsStart || splitsEnd) return false;
    out = std::string_view(s->utf8).substr(begin, end - begin);
    return true;
}

CFComparisonResult compare(const __CFString* a, CFRange range, const __CFString* b, CFStringCompareFlags flags) {
    bool caseless = flags & kCFCompareCaseInsensitive;
    bool numeric = flags & kCFCompareNumerically;
    int order = 0;
    std::string_view slice;
    bool sliced = utf8_slice(a, range, slice);
    if (sliced && !caseless && !numeric) {
        order = compare_utf8(slice, b->utf8);
    } else if (sliced && a->ascii && b->ascii) {
        order = compare_sequences(slice.data(), slice.size(), b->utf8.data(), b->utf8.size(), numeric, caseless);
    } else {
        std::u16string ua = str::units(a, range);
        std::u16string ub = b->utf16();
        if (caseless) {
            str::fold_units(ua);
            str::fold_units(ub);
        }
        order = compare_sequences(ua.data(), ua.size(), ub.data(), ub.size(), numeric, false);
    }
    return order < 0 ? kCFCompareLessThan : order > 0 ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

template <typename C>
bool units_equal(const C* h, const C* p, size_t m, bool asciiFold) {
    if (!asciiFold) return std::equal(p, p + m, h);
    for (size_t k = 0; k < m; ++k) {
        unsigned x = static_cast<unsigned>(h[k]), y = static_cast<unsigned>(p[k]);
        if (x - 'A' < 26u) x += 32;
        if (y - 'A' < 26u) y += 32;
        if (x != y) return false;
    }
    return true;
}

// Every match of p in h, in the order a forward or backward scan meets them, not overlapping;
// anchored allows only a match at the start (or, backwards, the end); firstOnly stops after one.
template <typename C>
std::vector<size_t> matches(std::basic_string_view<C> h, std::basic_string_view<C> p, bool asciiFold, bool backwards,
                            bool anchored, bool firstOnly) {
    std::vector<size_t> found;
    size_t n = h.size(), m = p.size();
    if (m == 0 || m > n) return found;
    if (anchored) {
        size_t at = backwards ? n - m : 0;
        if (units_equal(h.data() + at, p.data(), m, asciiFold)) found.push_back(at);
        return found;
    }
    if (!backwards) {
        size_t at = 0;
        while (at + m <= n) {
            size_t hit = std::basic_string_view<C>::npos;
            if (asciiFold) {
                for (size_t i = at; i + m <= n; ++i) {
                    if (units_equal(h.data() + i, p.data(), m, true)) {
                        hit = i;
                        break;
                    }
                }
            } else {
                hit = h.find(p, at);
            }
            if (hit == std::basic_string_view<C>::npos) break;
            found.push_back(hit);
            if (firstOnly) break;
            at = hit + m;
        }
    } else {
        size_t limit = n - m;  // the last start position still allowed
        while (true) {
            size_t hit = std::basic_string_view<C>::npos;
            if (asciiFold) {
                for (size_t i = limit + 1; i-- > 0;) {
                    if (units_equal(h.data() + i, p.data(), m, true)) {
                        hit = i;
                        break;
                    }
                }
            } else {
                hit = h.rfind(p, limit);
            }
            if (hit == std::basic_string_view<C>::npos) break;
            found.push_back(hit);
            if (firstOnly || hit < m) break;
            limit = hit - m;
        }
    }
    return found;
}

// Matches of needle within range of s, as UTF-16 positions relative to the range.
std::vector<size_t> find_all(const __CFString* s, const __CFString* needle, CFRange range, CFStringCompareFlags flags,
                             bool firstOnly) {
    bool caseless = flags & kCFCompareCaseInsensitive;
    bool backwards = flags & kCFCompareBackwards;
    bool anchored = flags & kCFCompareAnchored;
    if (needle->length16 == 0 || needle->length16 > range.length) return {};
    if (s->ascii && needle->ascii) {
        std::string_view h = std::string_view(s->utf8).substr(static_cast<size_t>(range.location),
                                                               static_cast<size_t>(range.length));
        return matches<char>(h, needle->utf8, caseless, backwards, anchored, firstOnly);
    }
    std::u16string h = str::units(s, range);
    std::u16string p = needle->utf16();
    if (caseless) {
        str::fold_units(h);
        str::fold_units(p);
    }
    return matches<char16_t>(h, p, false, backwards, anchored, firstOnly);
}

const __CFString* get(CFStringRef ref, const char* function) { return str::get(ref, function); }

}  // namespace

CFComparisonResult CFStringCompare(CFStringRef theString1, CFStringRef theString2, CFStringCompareFlags compareOptions) {
    const __CFString* a = get(theString1, "CFStringCompare");
    const __CFString* b = get(theString2, "CFStringCompare");
    if (!(compareOptions & (kCFCompareCaseInsensitive | kCFCompareNumerically))) {
        if (a->ascii && b->ascii) {
            int order = a->utf8.compare(b->utf8);
            return order < 0 ? kCFCompareLessThan : order > 0 ? kCFCompareGreaterThan : kCFCompareEqualTo;
        }
        int order = compare_utf8(a->utf8, b->utf8);
        return order < 0 ? kCFCompareLessThan : order > 0 ? kCFCompareGreaterThan : kCFCompareEqualTo;
    }
    return compare(a, CFRangeMake(0, a->length16), b, compareOptions);
}

CFComparisonResult CFStringCompareWithOptions(CFStringRef theString1, CFStringRef theString2, CFRange rangeToCompare,
                                              CFStringCompareFlags compareOptions) {
    const __CFString* a = get(theString1, "CFStringCompareWithOptions");
    const __CFString* b = get(theString2, "CFStringCompareWithOptions");
    str::check_range(a, rangeToCompare, "CFStringCompareWithOptions");
    return compare(a, rangeToCompare, b, compareOptions);
}

Boolean CFStringHasPrefix(CFStringRef theString, CFStringRef prefix) {
    const __CFString* s = get(theString, "CFStringHasPrefix");
    const __CFString* p = get(prefix, "CFStringHasPrefix");
    // Byte comparison is exact: a prefix of well-formed UTF-8 ends on a character boundary.
    return !p->utf8.empty() && std::string_view(s->utf8).starts_with(p->utf8);
}

Boolean CFStringHasSuffix(CFStringRef theString, CFStringRef suffix) {
    const __CFString* s = get(theString, "CFStringHasSuffix");
    const __CFString* p = get(suffix, "CFStringHasSuffix");
    return !p->utf8.empty() && std::string_view(s->utf8).ends_with(p->utf8);
}

Boolean CFStringFindWithOptions(CFStringRef theString, CFStringRef stringToFind, CFRange rangeToSearch,
                                CFStringCompareFlags searchOptions, CFRange* result) {
    const __CFString* s = get(theString, "CFStringFindWithOptions");
    const __CFString* needle = get(stringToFind, "CFStringFindWithOptions");
    str::check_range(s, rangeToSearch, "CFStringFindWithOptions");
    std::vector<size_t> found = find_all(s, needle, rangeToSearch, searchOptions, true);
    if (found.empty()) return false;
    if (result) *result = CFRangeMake(rangeToSearch.location + static_cast<CFIndex>(found[0]), needle->length16);
    return true;
}

CFRange CFStringFind(CFStringRef theString, CFStringRef stringToFind, CFStringCompareFlags compareOptions) {
    CFRange result = CFRangeMake(kCFNotFound, 0);
    CFIndex length = CFStringGetLength(theString);
    if (!CFStringFindWithOptions(theString, stringToFind, CFRangeMake(0, length), compareOptions, &result)) {
        return CFRangeMake(kCFNotFound, 0);
    }
    return result;
}

CFIndex CFStringFindAndReplace(CFMutableStringRef theString, CFStringRef stringToFind, CFStringRef replacementString,
                               CFRange rangeToSearch, CFStringCompareFlags compareOptions) {
    __CFString* s = str::get_mutable(theString, "CFStringFindAndReplace");
    const __CFString* needle = get(stringToFind, "CFStringFindAndReplace");
    const __CFString* replacement = get(replacementString, "CFStringFindAndReplace");
    str::check_range(s, rangeToSearch, "CFStringFindAndReplace");
    std::vector<size_t> found = find_all(s, needle, rangeToSearch, compareOptions, false);
    if (found.empty()) return 0;
    std::sort(found.begin(), found.end());
    size_t m = static_cast<size_t>(needle->length16);
    size_t base = static_cast<size_t>(rangeToSearch.location);
    if (s->ascii && replacement->ascii) {
        std::string out;
        size_t at = 0;
        for (size_t hit : found) {
            out.append(s->utf8, at, base + hit - at);
            out += replacement->utf8;
            at = base + hit + m;
        }
        out.append(s->utf8, at, std::string::npos);
        s->length16 = static_cast<CFIndex>(out.size());
        s->utf8 = std::move(out);
        return static_cast<CFIndex>(found.size());
    }
    std::u16string u = s->utf16();
    std::u16string r = replacement->utf16();
    std::u16string out;
    size_t at = 0;
    for (size_t hit : found) {
        out.append(u, at, base + hit - at);
        out += r;
        at = base + hit + m;
    }
    out.append(u, at, std::u16string::npos);
    std::string text;
    str::append_utf16(text, out.data(), out.size());
    s->set(std::move(text));
    return static_cast<CFIndex>(found.size());
}

namespace {

template <typename Map>
void map_case(__CFString* s, Map map, bool upper) {
    if (s->ascii) {
        for (char& c : s->utf8) c = static_cast<char>(map(static_cast<unsigned char>(c)));
        return;
    }
    std::string out;
    out.reserve(s->utf8.size());
    const auto* p = reinterpret_cast<const unsigned char*>(s->utf8.data());
    const auto* end = p + s->utf8.size();
    while (p < end) {
        char32_t cp = str::next_code_point(p);
        if (upper && cp == 0xDF) {  // sharp s has no single upper-case letter
            out += "SS";
            continue;
        }
        str::append_utf8(out, map(cp));
    }
    s->set(std::move(out));
}

}  // namespace

void CFStringLowercase(CFMutableStringRef theString, const void*) {
    map_case(str::get_mutable(theString, "CFStringLowercase"), str::to_lower, false);
}

void CFStringUppercase(CFMutableStringRef theString, const void*) {
    map_case(str::get_mutable(theString, "CFStringUppercase"), str::to_upper, true);
}
