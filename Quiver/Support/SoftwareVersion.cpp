#include "Quiver/Support/SoftwareVersion.hpp"

#include <charconv>

namespace Quiver::Support {

std::string software_version::text() const {
    if (!valid()) return {};
    std::string out = std::to_string(major) + "." + std::to_string(minor);
    if (patch || build) out += "." + std::to_string(patch);
    if (build) out += "." + std::to_string(build);
    return out;
}

software_version make_software_version(std::string_view text) {
    int32_t fields[4] = {0, 0, 0, 0};
    size_t count = 0;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t dot = text.find('.', pos);
        std::string_view part = text.substr(pos, dot == std::string_view::npos ? std::string_view::npos : dot - pos);
        if (part.empty() || count == 4) return {};
        int32_t value = 0;
        auto [end, ec] = std::from_chars(part.data(), part.data() + part.size(), value);
        if (ec != std::errc() || end != part.data() + part.size() || value < 0) return {};
        fields[count++] = value;
        if (dot == std::string_view::npos) break;
        pos = dot + 1;
    }
    if (count == 0) return {};
    return software_version{fields[0], fields[1], fields[2], fields[3]};
}

}  // namespace Quiver::Support
