// The temporary storage path: the one directory, chosen once per process by the embedding application,
// below which the library keeps its cache files, appendable files and private copies.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <filesystem>
#include <mutex>

#include "Quiver/CF/String.hpp"
#include "Quiver/Export.hpp"

// Sets the path once: true when it is set now or was already set to the same string (compared
// case-sensitively); false for NULL or empty text, a different path when one is set, or a directory
// that cannot be created. Never throws.
extern "C" QV_EXPORT bool QuiverSetTemporaryPath(CFStringRef path);
// A mutable copy of the path that the caller releases, or NULL when none is set.
extern "C" QV_EXPORT CFStringRef QuiverCopyTemporaryPath(void);

namespace Quiver {

// The process-wide lock that guards the temporary path, the file manager's registry and its memory
// limit. It is not recursive and is never held across file I/O of the library's callers.
std::mutex& GlobalLock();

// The path as given, and as a filesystem path. Both throw std::runtime_error
// "Temporary storage path not set" while no path is set.
CF::String GetTemporaryPath();
std::filesystem::path GetTemporaryFilesystemPath();

}  // namespace Quiver
