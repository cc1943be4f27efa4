// The file manager from inside: how many live file objects use each cached content. It has no object of its own: free functions over process-wide
// state, guarded by the library's one lock. It never deletes cache files; clearing the storage
// directory is the embedding application's concern.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <quiver/FileManager.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

class QVFileClass;

namespace Quiver::FileManager {

// A fresh UUID-named path in the storage directory; nothing is created.
std::filesystem::path GetStorageLocationForFile();
// "__<identifier>" in the storage directory.
std::filesystem::path GetStorageLocationForTempIdentifier(CFStringRef identifier);

// A new cached file object for the regular file at path, registered under digest; empty with
// QVErrorFileNotInCache for anything else.
std::shared_ptr<QVFileClass> CopyCachedFileReference(const std::filesystem::path& path,
                                                     const std::vector<uint8_t>& digest, CFErrorRef* error);

void RegisterReferenceForFile(std::shared_ptr<QVFileClass> file);
void DeregisterReferenceForFile(const QVFileClass& file);
void DeregisterReferenceForFile(const std::shared_ptr<QVFileClass>& file);
// Registered objects for a digest (0 when none): for tests and diagnostics.
uint32_t GetReferenceCount(const std::vector<uint8_t>& digest);

}  // namespace Quiver::FileManager
