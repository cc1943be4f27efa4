// The CSV listing of a Manifest.db: one line per Files row with every field of the row and of its
// decoded MBFile record, sorted by file ID, under a fixed header.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <functional>
#include <string_view>

#include <quiver/Api.hpp>

namespace Quiver {

// The whole table as one string (+1 reference), or NULL with *error set.
QV_EXPORT CFStringRef QVManifestDBCopyCSVRepresentation(CFStringRef databasePath, CFErrorRef* error);
// The same listing handed to write piece by piece (header first, rows in file-ID order, no final line
// break), with memory that does not grow with the database. False when write returned false or the
// database could not be read (*error set then).
using CSVWriter = std::function<bool(std::string_view text)>;
QV_EXPORT bool QVManifestDBWriteCSVRepresentation(CFStringRef databasePath, const CSVWriter& write, CFErrorRef* error);

}  // namespace Quiver
