// CF::Date and CF::UUID held by value.
#pragma once

#include <string>

#include "Quiver/CF/Object.hpp"
#include "Quiver/CF/String.hpp"

namespace CF {

class QV_EXPORT Date : public Object<Date, CFDateRef> {
public:
    Date() = default;
    explicit Date(CFAbsoluteTime at) { ref_ = CFDateCreate(kCFAllocatorDefault, at); }
    static CFTypeID TypeID() { return CFDateGetTypeID(); }
    static Date Now() { return Date(CFAbsoluteTimeGetCurrent()); }
    static Date FromUnixTime(double seconds) { return Date(seconds - kCFAbsoluteTimeIntervalSince1970); }

    CFAbsoluteTime AbsoluteTime() const { return ref_ ? CFDateGetAbsoluteTime(ref_) : 0.0; }
    double UnixTime() const { return AbsoluteTime() + kCFAbsoluteTimeIntervalSince1970; }
    // "2001-01-01 00:00:00 +0000"; "" for an empty holder.
    std::string Text() const { return ref_ ? Describe(ref_) : std::string(); }
};

class QV_EXPORT UUID : public Object<UUID, CFUUIDRef> {
public:
    UUID() = default;
    static CFTypeID TypeID() { return CFUUIDGetTypeID(); }
    static UUID Create() { return Adopt(CFUUIDCreate(kCFAllocatorDefault)); }
    // The upper-case 36-character form.
    String ToString() const { return ref_ ? String::Adopt(CFUUIDCreateString(kCFAllocatorDefault, ref_)) : String(); }
};

}  // namespace CF
