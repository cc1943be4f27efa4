// The file manager: where the library keeps the bytes of the file objects it owns, and how many live
// file objects use each cached content. It has no object of its own: free functions over process-wide
// state, guarded by the library's one lock. It never deletes cache files; clearing the storage
// directory is the embedding application's concern.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "Quiver/Export.hpp"

class QVFileClass;

namespace Quiver::FileManager {

QV_EXPORT extern const uint64_t kDefaultMaxMemorySize;  // 4 MiB

// "QVFileManager" below the temporary storage path, created on first use. Throws CF::Error
// (QVErrorInvalidArgument) while the temporary path is unset or the directory cannot be made.
QV_EXPORT std::filesystem::path GetStorageDirectory();
// A fresh UUID-named path in the storage directory; nothing is created.
QV_EXPORT std::filesystem::path GetStorageLocationForFile();
// "__<identifier>" in the storage directory.
QV_EXPORT std::filesystem::path GetStorageLocationForTempIdentifier(CFStringRef identifier);

// A new cached file object for the regular file at path, registered under digest; empty with
// QVErrorFileNotInCache for anything else.
QV_EXPORT std::shared_ptr<QVFileClass> CopyCachedFileReference(const std::filesystem::path& path,
                                                              const std::vector<uint8_t>& digest, CFErrorRef* error);

QV_EXPORT void RegisterReferenceForFile(std::shared_ptr<QVFileClass> file);
QV_EXPORT void DeregisterReferenceForFile(const QVFileClass& file);
QV_EXPORT void DeregisterReferenceForFile(const std::shared_ptr<QVFileClass>& file);
// Registered objects for a digest (0 when none): for tests and diagnostics.
QV_EXPORT uint32_t GetReferenceCount(const std::vector<uint8_t>& digest);

QV_EXPORT uint64_t GetMaxMemorySize();
QV_EXPORT void SetMaxMemorySize(uint64_t size);

}  // namespace Quiver::FileManager
