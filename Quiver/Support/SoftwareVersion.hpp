// Dotted software versions ("12.1", "14.3.1") as devices report them, comparable field by field.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace Quiver::Support {

struct software_version {
    // The invalid version (text that is not a version): major and minor -1, the rest zero.
    int32_t major = -1;
    int32_t minor = -1;
    int32_t patch = 0;
    int32_t build = 0;

    bool valid() const { return major >= 0; }
    // "12.1", "14.3.1"; "" for the invalid version.
    std::string text() const;
    friend auto operator<=>(const software_version&, const software_version&) = default;
};

// One to four dot-separated decimal numbers; anything else gives the invalid version.
software_version make_software_version(std::string_view text);

}  // namespace Quiver::Support
