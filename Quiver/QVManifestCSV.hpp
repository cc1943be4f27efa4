// The CSV listing of a Manifest.db: one line per Files row with every field of the row and of its
// decoded MBFile record, sorted by file ID, under a fixed header.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include "Quiver/Export.hpp"

namespace Quiver {

// The whole table as one string (+1 reference), or NULL with *error set.
QV_EXPORT CFStringRef QVManifestDBCopyCSVRepresentation(CFStringRef databasePath, CFErrorRef* error);

}  // namespace Quiver
