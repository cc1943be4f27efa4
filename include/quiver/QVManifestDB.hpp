// Manifest.db: the SQLite manifest of backups of versions 3.0 to 3.3, one row per entry with the
// entry's MBFile record as a blob. A reader opens the caller's file in place, read-only and as
// immutable; the plaintext of an enciphered database is read from memory or deciphered page by page,
// never written to a file.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <quiver/Api.hpp>
#include <quiver/QVManifest.hpp>

namespace Quiver {

// Memory that SQLite takes over when a database is read from it: the deciphered Manifest.db of an
// encrypted backup. Zeroed before it is freed, by SQLite or by this object.
class QV_EXPORT DatabaseImage {
public:
    explicit DatabaseImage(size_t capacity);  // throws std::bad_alloc
    ~DatabaseImage();
    DatabaseImage(DatabaseImage&& other) noexcept;
    DatabaseImage& operator=(DatabaseImage&&) = delete;
    DatabaseImage(const DatabaseImage&) = delete;

    uint8_t* data() { return data_; }
    size_t capacity() const { return capacity_; }
    size_t size() const { return size_; }
    void setSize(size_t size);  // at most the capacity
    uint8_t* release();

private:
    uint8_t* data_ = nullptr;
    size_t capacity_ = 0;
    size_t size_ = 0;
};

// Reads a Manifest.db into a manifest; empty with *error set on failure. One bad row fails the load.
QV_EXPORT Manifest QVManifestCreateFromManifestDatabase(CFStringRef path, QVManifestDataVersion version,
                                                        QVGetFileFunction getFile, QVProgressFunction progress,
                                                        CFErrorRef* error);
// The same from a database image in memory, which the manifest's reader takes over.
// The same from a Manifest.db enciphered under `key` (iOS 10.2 and later), deciphered page by page as
// it is read: no plaintext is written anywhere, and memory does not grow with the file.
QV_EXPORT Manifest QVManifestCreateFromEncipheredManifestDatabase(CFStringRef path, const std::array<uint8_t, 32>& key,
                                                                  QVManifestDataVersion version,
                                                                  QVGetFileFunction getFile,
                                                                  QVProgressFunction progress, CFErrorRef* error);
QV_EXPORT Manifest QVManifestCreateFromManifestDatabaseImage(DatabaseImage image, QVManifestDataVersion version,
                                                             QVGetFileFunction getFile, QVProgressFunction progress,
                                                             CFErrorRef* error);
// The bytes of a new Manifest.db holding the manifest, rows in domain-path order. Throws an
// exception derived from std::exception on failure.
QV_EXPORT std::vector<std::byte> QVManifestCreateManifestDBRepresentation(const Manifest& manifest,
                                                                          QVManifestDataVersion version);

}  // namespace Quiver
