// The temporary storage path from inside: the lock that guards it and the path as the library uses it.
#pragma once

#include <quiver/QVTemporaryPath.hpp>

#include <filesystem>
#include <mutex>

#include "Quiver/CF/String.hpp"

namespace Quiver {

// The process-wide lock that guards the temporary path, the file manager's registry and its memory
// limit. It is not recursive and is never held across file I/O of the library's callers.
std::mutex& GlobalLock();

// The path as given, and as a filesystem path. Both throw std::runtime_error
// "Temporary storage path not set" while no path is set.
CF::String GetTemporaryPath();
std::filesystem::path GetTemporaryFilesystemPath();

}  // namespace Quiver
