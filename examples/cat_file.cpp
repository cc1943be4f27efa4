// Writes one file of a backup, deciphered and checked, to standard output.
//
//   cat_file BACKUP DOMAIN PATH     (an encrypted backup's password comes from QUIVER_PASSWORD)
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include <quiver/quiver.hpp>

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: cat_file BACKUP DOMAIN PATH\n";
        return 2;
    }
    std::optional<std::string> password;
    if (const char* given = std::getenv("QUIVER_PASSWORD")) password = given;
    // Failures come as quiver::Error, reported below; the library's own log would only repeat them.
    quiver::setLogLevel(0);
    try {
        quiver::Backup backup = quiver::Backup::open(argv[1], password);
        std::optional<quiver::Entry> entry = backup.find(argv[2], argv[3]);
        if (!entry || !entry->isFile()) {
            std::cerr << "cat_file: no file " << argv[2] << " " << argv[3] << " in the backup\n";
            return 1;
        }
        // The content arrives in chunks, checked against the manifest on the way; a damaged file
        // throws before any of it is written.
        backup.read(*entry, std::cout);
    } catch (const quiver::Error& e) {
        std::cerr << "cat_file: " << e.what() << "\n";
        return e.isPasswordProblem() ? 3 : e.isBadBackup() ? 4 : 1;
    }
    return 0;
}
