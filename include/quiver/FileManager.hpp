// The file manager: where the library keeps the bytes of the file objects it owns, below the temporary
// storage path, and how much of a file it will hand over in memory at once. It never deletes cache
// files; clearing the storage directory is the embedding application's concern.
#pragma once

#include <cstdint>
#include <filesystem>

#include <quiver/Api.hpp>

namespace Quiver::FileManager {

QV_EXPORT extern const uint64_t kDefaultMaxMemorySize;  // 4 MiB

// "QVFileManager" below the temporary storage path, created on first use. Throws an exception derived
// from std::exception while the temporary path is unset or the directory cannot be made.
QV_EXPORT std::filesystem::path GetStorageDirectory();

// The largest file that QVFileGetDataQuickly reads whole.
QV_EXPORT uint64_t GetMaxMemorySize();
QV_EXPORT void SetMaxMemorySize(uint64_t size);

}  // namespace Quiver::FileManager
