// Reading an enciphered Manifest.db in place. The file is AES-256 in CBC mode with a zero IV over the
// whole database, so any block deciphers from itself and the ciphertext block before it: a read-only
// SQLite file system (VFS) deciphers each page as SQLite reads it. Nothing of the plaintext is kept
// but the pages in SQLite's cache, and nothing is written anywhere, so a manifest of a gigabyte costs
// no more memory than a plain one.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>

namespace Quiver {

// A key lent to the file system for the life of the object: a database URI of the file at `path`
// with these parameters added opens it read-only through the deciphering file system. Throws CF::Error
// (QVErrorCryptoOperation) when the file is not whole cipher blocks.
class CipheredDatabase {
public:
    CipheredDatabase(const std::filesystem::path& path, const std::array<uint8_t, 32>& key);
    ~CipheredDatabase();
    CipheredDatabase(const CipheredDatabase&) = delete;
    CipheredDatabase& operator=(const CipheredDatabase&) = delete;

    const std::string& URIParameters() const { return parameters_; }

private:
    uint64_t id_;
    std::string parameters_;
};

}  // namespace Quiver
