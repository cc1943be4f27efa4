// CF::Error holds one CFErrorRef and is also the exception type in which failures travel inside the
// library. An empty CF::Error means "no error".
#pragma once

#include <exception>
#include <string>

#include <fmt/format.h>

#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/CF/Number.hpp"
#include "Quiver/CF/Object.hpp"
#include "Quiver/CF/String.hpp"

namespace CF {

class QV_EXPORT Error : public Object<Error, CFErrorRef>, public std::exception {
public:
    Error() = default;
    static CFTypeID TypeID() { return CFErrorGetTypeID(); }

    String Domain() const;
    CFIndex Code() const { return ref_ ? CFErrorGetCode(ref_) : 0; }
    Dictionary UserInfo() const;
    // The localized description ("" when empty).
    std::string Description() const;
    // The failure reason ("" when there is none).
    std::string Reason() const;
    Error Underlying() const;
    bool IsFriendly() const;
    bool Matches(CFStringRef domain, CFIndex code) const {
        return ref_ && CFErrorDomainAndCodeMatch(ref_, domain, code);
    }

    // "Domain code N: description (reason)", followed by "; caused by: ..." for each underlying error.
    std::string Text() const;
    const char* what() const noexcept override;

private:
    mutable std::string what_;
};

}  // namespace CF

template <>
struct fmt::formatter<CF::Error> : fmt::formatter<std::string_view> {
    auto format(const CF::Error& e, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(e.Text(), ctx);
    }
};
