// The temporary storage path: the one directory, chosen once per process by the embedding application,
// below which the library keeps its cache files, appendable files and private copies. Set it before
// anything that makes file objects.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <quiver/Api.hpp>

// Sets the path once: true when it is set now or was already set to the same string (compared
// case-sensitively); false for NULL or empty text, a different path when one is set, or a directory
// that cannot be created. Never throws.
extern "C" QV_EXPORT bool QuiverSetTemporaryPath(CFStringRef path);
// A mutable copy of the path that the caller releases, or NULL when none is set.
extern "C" QV_EXPORT CFStringRef QuiverCopyTemporaryPath(void);
