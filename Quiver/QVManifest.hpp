// The in-memory manifest of one backup: the list of its entries, two totals, the flag-only records of
// a Manifest.db, and lookup indexes by file ID and by domain that are built on first use and dropped
// whenever the entry list is replaced. Queries build indexes, so even reads change the object: one
// manifest is used from one thread at a time.
#pragma once

#include <quiver/QVManifest.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/QVEntryIndex.hpp"
#include "Quiver/QVManifestEntry.hpp"

namespace Quiver {

// Maps keyed by text, looked up by a view of the text without making a string of it.
struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
template <class Value>
using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

}  // namespace Quiver

class QVManifestClass {
public:
    std::vector<Quiver::Entry> entries;
    Quiver::TextMap<std::vector<Quiver::Entry>> domainIndex;
    Quiver::EntryIndex fileIDIndex;
    // Domain and path to the entry; built on the first path lookup like the other indexes, and, like
    // them, kept up to date by the edits below once built.
    Quiver::EntryIndex pathIndex;
    // Where each entry stands in `entries`, built on the first removal so that a removal costs no scan.
    std::unordered_map<const QVManifestEntryClass*, size_t> positions;
    bool duplicateKeys = false;  // two entries share a file ID or a path: an index keeps the first
    unsigned fileIDScans = 0;    // lookups answered by scanning, before the index is worth building
    unsigned pathScans = 0;
    CF::Array fileIDList;
    QVManifestDataVersion dataVersion = QVManifestDataVersionUnset;
    CF::Dictionary flagOnlyRecords;  // fileID -> flags (CFNumber)
    int64_t totalFileSize = 0;
    int64_t totalFileCount = 0;
    QVGetFileFunction getFile;
};

namespace Quiver {

// What a manifest holds, counted by the kind its mode gives each entry; entries of no known kind count
// as files, as listings show them.
struct ManifestContents {
    uint64_t files = 0, directories = 0, symlinks = 0;
    uint64_t totalSize = 0;  // of the files, as recorded
    uint64_t domains = 0;    // distinct domains that are not empty
    bool wrappedKeys = false;  // an entry carries a wrapped key

    // Counts one entry (its domain aside).
    void Add(uint16_t mode, uint64_t size, bool wrappedKey) {
        switch (mode & 0xE000) {
            case 0x4000: ++directories; break;
            case 0xA000: ++symlinks; break;
            default: ++files, totalSize += size;
        }
        wrappedKeys = wrappedKeys || wrappedKey;
    }
};

// Counts a loaded manifest's entries.
ManifestContents CountEntries(const Manifest& manifest);

// A manifest made by a loader: the entries in order, the totals computed from them.
Manifest MakeManifest(std::vector<Entry> entries, QVManifestDataVersion version, CF::Dictionary flagOnlyRecords,
                      QVGetFileFunction getFile);

}  // namespace Quiver

template <>
struct fmt::formatter<Quiver::Manifest> : fmt::formatter<std::string_view> {
    auto format(const Quiver::Manifest& manifest, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(Quiver::to_string(manifest), ctx);
    }
};
