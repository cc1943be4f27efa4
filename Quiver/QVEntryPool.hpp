// Where a manifest loader keeps its entries: records in fixed blocks and their texts side by side in
// large chunks, so that a manifest of a million entries costs a few thousand allocations instead of
// tens of millions. A handle to a record shares ownership of the whole pool (an aliasing shared_ptr),
// so an entry lives as long as anyone holds it, and no handle costs an allocation.
#pragma once

#include <array>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "Quiver/MB/File.hpp"
#include "Quiver/QVManifestEntry.hpp"

namespace Quiver {

class EntryPool : public std::enable_shared_from_this<EntryPool> {
public:
    static std::shared_ptr<EntryPool> Create() { return std::shared_ptr<EntryPool>(new EntryPool()); }

    // A new default record and the handle to it.
    Entry NewEntry();
    // Copies the texts, in the entry's order, into the pool and points the record at them.
    void SetTexts(QVManifestEntryClass& record, const std::array<std::string_view, QVManifestEntryClass::kTextCount>& texts);

private:
    EntryPool() = default;

    static constexpr size_t kRecordsPerBlock = 4096;
    static constexpr size_t kChunkSize = size_t{1} << 20;
    std::vector<std::unique_ptr<QVManifestEntryClass[]>> blocks_;
    size_t usedInBlock_ = kRecordsPerBlock;
    std::vector<std::unique_ptr<char[]>> chunks_;
    size_t chunkSpace_ = 0;
    char* chunkNext_ = nullptr;
};

// A Manifest.db row's MBFile blob decoded into `scratch`, with the checks of DecodeManifestRow. False
// when it does not decode (logged).
bool DecodeManifestRecord(std::span<const uint8_t> blob, MB::FileView& scratch);

// One Manifest.db row decoded into `entry`, a record of `pool`: the MBFile blob read in place, the row's
// file ID kept as stored. False when the blob does not decode (logged). `scratch` is reused from row
// to row.
bool DecodeManifestRow(EntryPool& pool, const Entry& entry, std::string_view fileID, const CF::String& domain,
                       std::string_view relativePath, int flags, std::span<const uint8_t> blob,
                       std::shared_ptr<const QVGetFileFunction> getFileFunc, MB::FileView& scratch);

}  // namespace Quiver
