// CF::Number and CF::Boolean held by value.
#pragma once

#include <cstdint>
#include <optional>

#include "Quiver/CF/Object.hpp"

namespace CF {

class QV_EXPORT Number : public Object<Number, CFNumberRef> {
public:
    Number() = default;
    explicit Number(int64_t value);
    explicit Number(int32_t value);
    explicit Number(double value);
    static CFTypeID TypeID() { return CFNumberGetTypeID(); }

    bool IsFloat() const { return ref_ && CFNumberIsFloatType(ref_); }
    // The value converted; nullopt for an empty holder or a value that does not fit exactly.
    std::optional<int64_t> Int64() const;
    std::optional<int32_t> Int32() const;
    std::optional<uint64_t> UInt64() const;
    std::optional<double> Double() const;
    // The value converted, or `fallback` when it does not fit.
    int64_t Int64Or(int64_t fallback) const { return Int64().value_or(fallback); }
};

class QV_EXPORT Boolean : public Object<Boolean, CFBooleanRef> {
public:
    Boolean() = default;
    explicit Boolean(bool value) { ref_ = value ? kCFBooleanTrue : kCFBooleanFalse; }
    static CFTypeID TypeID() { return CFBooleanGetTypeID(); }
    bool value() const { return ref_ && CFBooleanGetValue(ref_); }
};

}  // namespace CF
