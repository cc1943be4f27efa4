// A second reader of backup directories, written from the backup format alone: OpenSSL for the
// derivation, key unwrapping and AES, libplist for the property lists and keyed archives, SQLite for
// Manifest.db, and a parser of its own for Manifest.mbdb. It shares no code with the library, so a
// library that writes what only it can read (a wrong derivation, a key wrapped under the wrong class,
// a digest of the wrong bytes, a manifest enciphered where devices leave it plain) disagrees with it.
//
// It reads every generation that devices wrote: Manifest.mbdb, a plain Manifest.db, and a Manifest.db
// enciphered under "ManifestKey", with or without its trailing padding block; key bags of one
// derivation pass (no DPSL and DPIC) or two. It is a test oracle, not a product: it reads the whole
// backup into memory and stops at the first thing it does not understand.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace QuiverTest {

struct IndependentEntry {
    enum class Kind { File, Directory, Symlink, Other };
    Kind kind = Kind::Other;
    std::string domain;
    std::string relativePath;
    std::string fileID;
    std::string target;                // symlinks
    uint64_t size = 0;                 // as the manifest records it
    uint32_t protectionClass = 0;      // as the manifest records it
    std::vector<uint8_t> digest;       // as the manifest records it; may be empty
    std::vector<uint8_t> plaintext;    // files: the stored file, deciphered under its own key when encrypted
    bool digestMatches = false;        // files: SHA-1 of the stored bytes equals a recorded digest
};

struct IndependentBackup {
    std::string manifestName;  // "Manifest.mbdb" or "Manifest.db"
    bool encrypted = false;
    bool manifestEnciphered = false;  // Manifest.db deciphered under "ManifestKey"
    std::vector<IndependentEntry> entries;  // in manifest order
};

// Reads the backup in directory with password (ignored for a plain backup). Throws
// std::runtime_error saying what it could not read: a wrong password, a key that does not unwrap, a
// stored file that is missing or does not decipher, a malformed manifest.
IndependentBackup ReadBackupIndependently(const std::filesystem::path& directory, const std::string& password);

}  // namespace QuiverTest
