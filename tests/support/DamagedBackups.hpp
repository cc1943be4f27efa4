// Backups with one fault each, the kind that a failed copy, a full disk or a hostile sender leaves:
// manifests cut short, emptied, overwritten or altered after decryption; metadata missing or not a
// property list; key bags and manifest keys cut or garbled; stored files missing or of the wrong
// length; a stored file that no entry names, file IDs duplicated or wrong, a parent directory missing;
// a zip cut short. Each starts from a sound backup of the builder and changes one thing.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace QuiverTest {

struct DamagedBackup {
    std::string name;            // what is wrong, as a test name: letters and digits only
    std::filesystem::path path;  // a backup directory, or a zip file
    std::string password;        // empty for a plain backup
    // A file of the backup for the commands that take one: the damaged one when the fault is in a
    // stored file, else a file of 100,000 bytes.
    std::string domain;
    std::string relativePath;
    std::string named;  // what an error message must name: the damaged file, or what is wrong in it
    // True when only reading that file's contents can show the fault: the manifest and metadata are
    // sound, so listing the backup succeeds.
    bool storedFileFault = false;
    // True when the files read whole and only the manifest's structure is wrong (an orphan stored file,
    // file IDs, missing parents): every command but verify works as on a sound backup.
    bool structuralFault = false;
    // True when a metadata file is no property list: the backup reads as if it were missing, so
    // listing and reading work, but no copy is written and verify reports it.
    bool metadataFault = false;
    // What verification reports for a fault that loading does not already refuse ("digest-mismatch"...).
    std::string kind;
};

// Writes every damaged backup below root (created when missing). Call UseTestTemporaryPath() first.
std::vector<DamagedBackup> BuildDamagedBackups(const std::filesystem::path& root);

}  // namespace QuiverTest
