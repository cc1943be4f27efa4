// Numbers and booleans. A number keeps every integer type as a 64-bit integer and every floating type as a
// double, and remembers the canonical fixed-size type it was made from. Numbers compare by exact value
// across the two kinds (a large 64-bit integer is never rounded through a double), and equal values hash
// alike, so 1 and 1.0 find each other as dictionary keys. NaN is ordered below every other number and
// equal to itself, which keeps sorting and hashing well defined.
#include "CFConstant.hpp"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

CF_CONSTANT_OBJECT cf::Immortal<__CFBoolean> gTrue(true);
CF_CONSTANT_OBJECT cf::Immortal<__CFBoolean> gFalse(false);

const __CFNumber* number_of(CFNumberRef number, const char* function) {
    return cf::cast<__CFNumber>(number, kCFTypeIDNumber, function);
}

constexpr double kTwo63 = 9223372036854775808.0;  // 2^63, exactly representable

// The fixed-size type behind each C type name, or 0 for a value that is not a number type.
CFNumberType canonical_type(CFNumberType type) {
    switch (type) {
        case kCFNumberSInt8Type:
        case kCFNumberCharType: return kCFNumberSInt8Type;
        case kCFNumberSInt16Type:
        case kCFNumberShortType: return kCFNumberSInt16Type;
        case kCFNumberSInt32Type:
        case kCFNumberIntType: return kCFNumberSInt32Type;
        case kCFNumberSInt64Type:
        case kCFNumberLongType:
        case kCFNumberLongLongType:
        case kCFNumberCFIndexType:
        case kCFNumberNSIntegerType: return kCFNumberSInt64Type;
        case kCFNumberFloat32Type:
        case kCFNumberFloatType: return kCFNumberFloat32Type;
        case kCFNumberFloat64Type:
        case kCFNumberDoubleType:
        case kCFNumberCGFloatType: return kCFNumberFloat64Type;
        default: return 0;
    }
}

template <typename T>
T load(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
void store(void* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

// Integer in [lo, hi] from a double: truncated toward zero and clamped; exact only when nothing was lost.
bool double_to_int(double d, int64_t lo, int64_t hi, int64_t& out) {
    if (std::isnan(d)) {
        out = 0;
        return false;
    }
    double t = std::trunc(d);
    if (t < static_cast<double>(lo)) {
        out = lo;
        return false;
    }
    // hi may round up to a power of two when converted (INT64_MAX becomes 2^63), hence >=.
    if (t >= kTwo63 || static_cast<int64_t>(t) > hi) {
        out = hi;
        return false;
    }
    out = static_cast<int64_t>(t);
    return t == d;
}

// Whether the double holds exactly the integer i.
bool double_is_int(double d, int64_t i) {
    return d >= -kTwo63 && d < kTwo63 && static_cast<int64_t>(d) == i && std::trunc(d) == d;
}

template <typename T>
bool int_to_int(int64_t i, void* out) {
    store<T>(out, static_cast<T>(i));  // wraps like a C cast; reported as lossy below
    return i >= std::numeric_limits<T>::min() && i <= std::numeric_limits<T>::max();
}

template <typename T>
bool float_to_int(double d, void* out) {
    int64_t v;
    bool exact = double_to_int(d, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), v);
    store<T>(out, static_cast<T>(v));
    return exact;
}

bool to_float32(const __CFNumber* n, void* out) {
    if (!n->isFloat) {
        auto f = static_cast<float>(n->i);
        store(out, f);
        return double_is_int(static_cast<double>(f), n->i);
    }
    double d = n->d;
    if (std::isnan(d)) {
        store(out, std::numeric_limits<float>::quiet_NaN());
        return true;
    }
    // IEEE rounding: too large a magnitude becomes an infinity, which then compares unequal.
    auto f = static_cast<float>(d);
    store(out, f);
    return static_cast<double>(f) == d;
}

bool to_float64(const __CFNumber* n, void* out) {
    if (n->isFloat) {
        store(out, n->d);
        return true;
    }
    auto d = static_cast<double>(n->i);
    store(out, d);
    return double_is_int(d, n->i);
}

CFComparisonResult order(bool less, bool greater) {
    return less ? kCFCompareLessThan : greater ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

// Exact comparison of an integer with a double (NaN below everything).
CFComparisonResult compare_int_double(int64_t i, double d) {
    if (std::isnan(d)) return kCFCompareGreaterThan;
    if (d >= kTwo63) return kCFCompareLessThan;
    if (d < -kTwo63) return kCFCompareGreaterThan;
    double t = std::trunc(d);  // now fits in int64
    auto ti = static_cast<int64_t>(t);
    if (i != ti) return order(i < ti, i > ti);
    return order(d > t, d < t);  // same integer part: the fraction decides
}

CFComparisonResult compare_doubles(double a, double b) {
    bool na = std::isnan(a), nb = std::isnan(b);
    if (na || nb) return order(na && !nb, nb && !na);
    return order(a < b, a > b);
}

CFComparisonResult compare(const __CFNumber* a, const __CFNumber* b) {
    if (!a->isFloat && !b->isFloat) return order(a->i < b->i, a->i > b->i);
    if (a->isFloat && b->isFloat) return compare_doubles(a->d, b->d);
    if (!a->isFloat) return compare_int_double(a->i, b->d);
    CFComparisonResult r = compare_int_double(b->i, a->d);
    return static_cast<CFComparisonResult>(-static_cast<CFIndex>(r));
}

CFHashCode hash_int(int64_t i) {
    // A 64-bit mix so that small integers do not all fall into neighbouring buckets.
    auto x = static_cast<uint64_t>(i);
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return static_cast<CFHashCode>(x);
}

}  // namespace

const CFBooleanRef kCFBooleanTrue = &gTrue.object;
const CFBooleanRef kCFBooleanFalse = &gFalse.object;

CFTypeID CFBooleanGetTypeID(void) { return kCFTypeIDBoolean; }

Boolean CFBooleanGetValue(CFBooleanRef boolean) {
    return cf::cast<__CFBoolean>(boolean, kCFTypeIDBoolean, "CFBooleanGetValue")->value;
}

bool __CFNumber::equal(const __CFObject* other) const {
    return compare(this, static_cast<const __CFNumber*>(other)) == kCFCompareEqualTo;
}

CFHashCode __CFNumber::hash() const {
    if (!isFloat) return hash_int(i);
    if (std::isnan(d)) return 0x7ff8000000000000ULL;
    // Integral doubles hash as the integer they equal (this also folds -0.0 into 0).
    if (std::trunc(d) == d && d >= -kTwo63 && d < kTwo63) return hash_int(static_cast<int64_t>(d));
    return cf::hash_bytes(&d, sizeof d);
}

std::string __CFNumber::describe() const {
    if (!isFloat) return std::to_string(i);
    if (std::isnan(d)) return "nan";
    if (std::isinf(d)) return d > 0 ? "+infinity" : "-infinity";
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, d);  // shortest text that reads back exactly
    return std::string(buffer, result.ptr);
}

CFTypeID CFNumberGetTypeID(void) { return kCFTypeIDNumber; }

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType theType, const void* valuePtr) {
    CFNumberType type = canonical_type(theType);
    if (type == 0) cf::fatal("CFNumberCreate", "invalid number type");
    if (!valuePtr) cf::fatal("CFNumberCreate", "NULL value pointer");
    auto* n = new __CFNumber();
    n->type = type;
    switch (theType) {
        case kCFNumberSInt8Type: n->i = load<int8_t>(valuePtr); break;
        case kCFNumberCharType: n->i = load<signed char>(valuePtr); break;
        case kCFNumberSInt16Type: n->i = load<int16_t>(valuePtr); break;
        case kCFNumberShortType: n->i = load<short>(valuePtr); break;
        case kCFNumberSInt32Type: n->i = load<int32_t>(valuePtr); break;
        case kCFNumberIntType: n->i = load<int>(valuePtr); break;
        case kCFNumberSInt64Type: n->i = load<int64_t>(valuePtr); break;
        case kCFNumberLongType: n->i = load<long>(valuePtr); break;
        case kCFNumberLongLongType: n->i = load<long long>(valuePtr); break;
        case kCFNumberCFIndexType:
        case kCFNumberNSIntegerType: n->i = load<CFIndex>(valuePtr); break;
        case kCFNumberFloat32Type:
        case kCFNumberFloatType: n->d = load<float>(valuePtr); break;
        default: n->d = load<double>(valuePtr); break;
    }
    n->isFloat = type == kCFNumberFloat32Type || type == kCFNumberFloat64Type;
    return n;
}

CFNumberType CFNumberGetType(CFNumberRef number) { return number_of(number, "CFNumberGetType")->type; }

CFIndex CFNumberGetByteSize(CFNumberRef number) {
    switch (number_of(number, "CFNumberGetByteSize")->type) {
        case kCFNumberSInt8Type: return 1;
        case kCFNumberSInt16Type: return 2;
        case kCFNumberSInt32Type:
        case kCFNumberFloat32Type: return 4;
        default: return 8;
    }
}

Boolean CFNumberIsFloatType(CFNumberRef number) { return number_of(number, "CFNumberIsFloatType")->isFloat; }

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr) {
    const __CFNumber* n = number_of(number, "CFNumberGetValue");
    CFNumberType type = canonical_type(theType);
    if (type == 0) cf::fatal("CFNumberGetValue", "invalid number type");
    if (!valuePtr) cf::fatal("CFNumberGetValue", "NULL value pointer");
    switch (type) {
        case kCFNumberFloat32Type: return to_float32(n, valuePtr);
        case kCFNumberFloat64Type: return to_float64(n, valuePtr);
        case kCFNumberSInt8Type: return n->isFloat ? float_to_int<int8_t>(n->d, valuePtr) : int_to_int<int8_t>(n->i, valuePtr);
        case kCFNumberSInt16Type:
            return n->isFloat ? float_to_int<int16_t>(n->d, valuePtr) : int_to_int<int16_t>(n->i, valuePtr);
        case kCFNumberSInt32Type:
            return n->isFloat ? float_to_int<int32_t>(n->d, valuePtr) : int_to_int<int32_t>(n->i, valuePtr);
        default:
            return n->isFloat ? float_to_int<int64_t>(n->d, valuePtr) : int_to_int<int64_t>(n->i, valuePtr);
    }
}

CFComparisonResult CFNumberCompare(CFNumberRef number, CFNumberRef otherNumber, void*) {
    return compare(number_of(number, "CFNumberCompare"), number_of(otherNumber, "CFNumberCompare"));
}
