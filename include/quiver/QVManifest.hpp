// The in-memory manifest of one backup, behind an opaque handle: the list of its entries, two totals,
// and lookups by file ID, by domain and by path. Queries build indexes, so even reads change the
// object: one manifest is used from one thread at a time.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <quiver/Api.hpp>
#include <quiver/QVManifestEntry.hpp>

// The manifest format version: 24 for "2.4" (Manifest.mbdb), 30 to 33 for "3.0" to "3.3" (Manifest.db).
enum QVManifestDataVersion : int32_t {
    QVManifestDataVersionUnset = 0,
    QVManifestDataVersion24 = 24,
    QVManifestDataVersion30 = 30,
    QVManifestDataVersion31 = 31,
    QVManifestDataVersion32 = 32,
    QVManifestDataVersion33 = 33,
};

using QVProgressFunction = std::function<void(int64_t done, int64_t total, double fraction)>;

class QVManifestClass;

namespace Quiver {

using Manifest = std::shared_ptr<QVManifestClass>;

QV_EXPORT Manifest QVManifestCreateEmpty();
QV_EXPORT Manifest QVManifestCreateCopy(const Manifest& manifest, const QVGetFileFunction& getFile);
QV_EXPORT std::vector<Entry> QVManifestGetEntries(const Manifest& manifest);
QV_EXPORT Entry QVManifestGetEntryForFileID(const Manifest& manifest, CFStringRef fileID);
QV_EXPORT Entry QVManifestGetEntryMatchingPath(const Manifest& manifest, CFStringRef domain, CFStringRef path);
QV_EXPORT std::vector<Entry> QVManifestCopyEntriesInDomain(const Manifest& manifest, CFStringRef domain);
// The entry at path and every entry below it, matched by whole "/"-separated components; the whole
// domain for an empty path.
QV_EXPORT std::vector<Entry> QVManifestCopyEntriesAtPath(const Manifest& manifest, CFStringRef domain, CFStringRef path);
// The domains, sorted; the caller releases the array.
QV_EXPORT CFArrayRef QVManifestCopyDomainsList(const Manifest& manifest);
// File IDs of the entries that are neither directories nor symlinks; owned by the manifest.
QV_EXPORT CFArrayRef QVManifestGetFileIDs(const Manifest& manifest);
QV_EXPORT int64_t QVManifestGetTotalFileCount(const Manifest& manifest);
QV_EXPORT int64_t QVManifestGetTotalFileSize(const Manifest& manifest);
// Replaces the entry list whole, drops the indexes and recomputes the totals.
QV_EXPORT void QVManifestUpdateEntries(const Manifest& manifest, std::vector<Entry> entries);
// Edits that keep the indexes already built instead of dropping them: adding costs the entries added,
// removing one scan of the entry list, so that a thousand edits of a manifest of a million entries take
// a blink rather than a thousand rebuilds.
QV_EXPORT void QVManifestAddEntries(const Manifest& manifest, const std::vector<Entry>& added);
QV_EXPORT void QVManifestRemoveEntries(const Manifest& manifest, const std::vector<Entry>& removed);

QV_EXPORT std::string to_string(const Manifest& manifest);

}  // namespace Quiver
