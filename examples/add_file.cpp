// Adds a file from the disk to a backup and writes the result as a new zip file; the backup itself
// is left as it is. In an encrypted backup the new file gets a key of its own.
//
//   add_file BACKUP DOMAIN PATH SOURCE OUTPUT.zip   (a password comes from QUIVER_PASSWORD)
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include <quiver/quiver.hpp>

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: add_file BACKUP DOMAIN PATH SOURCE OUTPUT.zip\n";
        return 2;
    }
    std::optional<std::string> password;
    if (const char* given = std::getenv("QUIVER_PASSWORD")) password = given;
    // Failures come as quiver::Error, reported below; the library's own log would only repeat them.
    quiver::setLogLevel(0);
    try {
        quiver::Backup backup = quiver::Backup::open(argv[1], password);
        quiver::Entry added = backup.putFile(argv[2], argv[3], argv[4]);  // folders above it are made too
        quiver::WriteOptions options;
        options.zip = true;
        options.progress = [](double fraction) { std::cerr << "\rwriting " << int(fraction * 100) << "%" << std::flush; };
        backup.write(argv[5], options);
        std::cerr << "\radded " << added.domain() << " " << added.path() << " (" << added.size() << " bytes) in "
                  << argv[5] << "\n";
    } catch (const quiver::Error& e) {
        std::cerr << "add_file: " << e.what() << "\n";
        return e.isPasswordProblem() ? 3 : e.isBadBackup() ? 4 : 1;
    }
    return 0;
}
