// Manifest.mbdb: the binary manifest of backups of manifest version 2.4. The image is the header
// "mbdb" and two format bytes, then one record per entry up to the end of the data, with no count and
// no index. Readers take the bytes as given by the container and never touch the file system; a
// damaged image is logged and yields an empty manifest handle, never a partial manifest.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>

#include <quiver/Api.hpp>
#include <quiver/QVManifest.hpp>
#include <quiver/QVManifestEntry.hpp>

namespace Quiver {

// Reads a whole Manifest.mbdb image. `version` must be QVManifestDataVersion24. Progress is reported
// once per record as (record offset, image length, fraction); `progress` may be empty. Failures are
// logged at error level and give an empty handle.
QV_EXPORT Manifest QVManifestCreateFromManifestData(CFDataRef data, QVManifestDataVersion version,
                                                    const QVGetFileFunction& getFile,
                                                    const QVProgressFunction& progress);

// Writes the manifest's entries, sorted by domain-path pair, as a whole image (+1 reference), or
// returns NULL with an error when the version is not 2.4 or an entry has no record form.
QV_EXPORT CFDataRef QVManifestCreateManifestDataRepresentation(const Manifest& manifest,
                                                              QVManifestDataVersion version, CFErrorRef* error);

// Reads the record that starts at `offset`. *nextOffset (when not null) becomes the offset just after
// the record, or 0 when the record ends exactly at the end of the data or cannot be read. An unreadable
// record gives an empty handle; a protection-class code above 4 throws std::invalid_argument.
QV_EXPORT Entry QVManifestEntryCreateFromManifestData(CFDataRef data, int64_t offset, int64_t* nextOffset,
                                                      QVGetFileFunction getFileFunc);

// One record (+1 reference), or NULL when the entry has no record form: more than 255 properties, or a
// property that does not map a string to data.
QV_EXPORT CFDataRef QVManifestEntryCreateManifestDataRepresentation(const Entry& entry);

}  // namespace Quiver
