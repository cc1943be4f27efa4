#include "Quiver/CF/Number.hpp"

namespace CF {

Number::Number(int64_t value) { ref_ = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value); }
Number::Number(int32_t value) { ref_ = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &value); }
Number::Number(double value) { ref_ = CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &value); }

std::optional<int64_t> Number::Int64() const {
    int64_t v = 0;
    if (!ref_ || !CFNumberGetValue(ref_, kCFNumberSInt64Type, &v)) return std::nullopt;
    return v;
}

std::optional<int32_t> Number::Int32() const {
    int32_t v = 0;
    if (!ref_ || !CFNumberGetValue(ref_, kCFNumberSInt32Type, &v)) return std::nullopt;
    return v;
}

std::optional<uint64_t> Number::UInt64() const {
    // Property lists carry unsigned 64-bit values as signed ones; a negative value does not fit.
    auto v = Int64();
    if (v && *v >= 0) return static_cast<uint64_t>(*v);
    return std::nullopt;
}

std::optional<double> Number::Double() const {
    double v = 0;
    if (!ref_ || !CFNumberGetValue(ref_, kCFNumberFloat64Type, &v)) return std::nullopt;
    return v;
}

}  // namespace CF
