// Lists every entry of a backup as one JSON object per line.
//
//   list_json BACKUP        (an encrypted backup's password comes from QUIVER_PASSWORD)
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include <quiver/quiver.hpp>

namespace {

// Names in a backup are the device's UTF-8; control characters and quotes still need escaping.
std::string JsonString(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

const char* KindName(quiver::EntryKind kind) {
    switch (kind) {
        case quiver::EntryKind::Directory: return "dir";
        case quiver::EntryKind::Symlink: return "symlink";
        default: return "file";
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: list_json BACKUP\n";
        return 2;
    }
    std::optional<std::string> password;
    if (const char* given = std::getenv("QUIVER_PASSWORD")) password = given;
    // Failures come as quiver::Error, reported below; the library's own log would only repeat them.
    quiver::setLogLevel(0);
    try {
        quiver::Backup backup = quiver::Backup::open(argv[1], password);
        for (const quiver::Entry& entry : backup.entries()) {
            std::cout << "{\"domain\":" << JsonString(entry.domain()) << ",\"path\":" << JsonString(entry.path())
                      << ",\"type\":\"" << KindName(entry.kind()) << "\",\"size\":" << entry.size()
                      << ",\"mode\":" << entry.mode() << ",\"modified\":" << entry.times().modified
                      << ",\"fileID\":\"" << entry.fileID() << "\"}\n";
        }
    } catch (const quiver::Error& e) {
        std::cerr << "list_json: " << e.what() << "\n";
        return e.isPasswordProblem() ? 3 : e.isBadBackup() ? 4 : 1;
    }
    return 0;
}
