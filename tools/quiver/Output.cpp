// Writing to the tool's outputs and the texts its listings are made of.
//
// Output goes through write(2) rather than stdio so that file contents are never held back in a
// buffer and a closed pipe (`quiver cat ... | head`) is seen at once: SIGPIPE is ignored, EPIPE ends
// the command quietly.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

#include "Tool.hpp"

namespace QuiverTool {

void WriteAll(int fd, const void* bytes, size_t length) {
    const auto* p = static_cast<const uint8_t*>(bytes);
    while (length > 0) {
        ssize_t n = write(fd, p, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EPIPE) throw Failure(kSuccess, "");
            throw Failure(kFailure, fmt::format("cannot write the output: {}", std::strerror(errno)));
        }
        p += n;
        length -= static_cast<size_t>(n);
    }
}

void WriteAll(int fd, std::string_view text) { WriteAll(fd, text.data(), text.size()); }

std::string ModeString(uint16_t mode) {
    std::string s(10, '-');
    switch (mode & 0170000) {
        case 0040000: s[0] = 'd'; break;
        case 0120000: s[0] = 'l'; break;
        case 0100000: s[0] = '-'; break;
        default: s[0] = '?'; break;
    }
    static const char letters[] = "rwxrwxrwx";
    for (int i = 0; i < 9; ++i)
        if (mode & (0400 >> i)) s[1 + i] = letters[i];
    if (mode & 04000) s[3] = (mode & 0100) ? 's' : 'S';
    if (mode & 02000) s[6] = (mode & 0010) ? 's' : 'S';
    if (mode & 01000) s[9] = (mode & 0001) ? 't' : 'T';
    return s;
}

std::string UtcTimeText(int64_t unixSeconds) {
    std::time_t t = static_cast<std::time_t>(unixSeconds);
    std::tm parts{};
    if (!gmtime_r(&t, &parts)) return "?";
    char text[64];
    if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0) return "?";
    return text;
}

std::string LabelledTimeText(int64_t unixSeconds, bool local) {
    if (!local) return UtcTimeText(unixSeconds) + " UTC";
    std::time_t t = static_cast<std::time_t>(unixSeconds);
    std::tm parts{};
    if (!localtime_r(&t, &parts)) return "?";
    char text[64];
    if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &parts) == 0) return "?";
    return text;
}

std::string IsoTimeText(int64_t unixSeconds) {
    std::string text = UtcTimeText(unixSeconds);
    if (text.size() == 19) text[10] = 'T';
    return text + "Z";
}

std::string SizeText(uint64_t bytes) {
    static const char* units[] = {"bytes", "KB", "MB", "GB", "TB"};
    if (bytes < 1000) return fmt::format("{} {}", bytes, bytes == 1 ? "byte" : "bytes");
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1000 && unit + 1 < std::size(units)) {
        value /= 1000;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string Printable(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7f)
            out += fmt::format("\\x{:02x}", c);
        else
            out += static_cast<char>(c);
    }
    return out;
}

}  // namespace QuiverTool
