#include "Quiver/QVEntryIndex.hpp"

#include <bit>
#include <functional>
#include <utility>

namespace Quiver {

void EntryIndex::clear() {
    slots_.clear();
    slots_.shrink_to_fit();
    count_ = 0;
}

void EntryIndex::reserve(size_t count) {
    const size_t wanted = std::bit_ceil(std::max<size_t>(16, count + count / 3 + 1));
    if (wanted <= slots_.size()) return;
    std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(wanted));
    for (Slot& slot : old) {
        if (!slot.entry) continue;
        size_t at = slot.hash & mask();
        while (slots_[at].entry) at = (at + 1) & mask();
        slots_[at] = std::move(slot);
    }
}

void EntryIndex::grow() { reserve(std::max<size_t>(16, slots_.size())); }

void EntryIndex::erase(uint64_t hash, const QVManifestEntryClass* entry) {
    if (slots_.empty()) return;
    size_t hole = hash & mask();
    while (slots_[hole].entry && !(slots_[hole].hash == hash && slots_[hole].entry.get() == entry))
        hole = (hole + 1) & mask();
    if (!slots_[hole].entry) return;
    slots_[hole] = {};
    --count_;
    // Each later slot of the run moves into the hole unless its home lies cyclically after the hole,
    // so that every entry stays reachable from its home without passing a free slot.
    for (size_t next = (hole + 1) & mask(); slots_[next].entry; next = (next + 1) & mask()) {
        const size_t home = slots_[next].hash & mask();
        if (((next - home) & mask()) < ((next - hole) & mask())) continue;
        slots_[hole] = std::move(slots_[next]);
        slots_[next] = {};
        hole = next;
    }
}

namespace {

uint64_t bytesHash(std::string_view bytes) { return std::hash<std::string_view>{}(bytes); }

}  // namespace

uint64_t FileIDHash(const QVManifestEntryClass& entry) {
    if (entry.fileIDIsHex)
        return bytesHash({reinterpret_cast<const char*>(entry.fileIDBytes.data()), entry.fileIDBytes.size()});
    return FileIDHash(entry.text(QVManifestEntryClass::kFileIDText));
}

uint64_t FileIDHash(std::string_view fileID) {
    std::array<uint8_t, 20> bytes{};
    if (FileIDBytesFromText(fileID, bytes)) return bytesHash({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    return bytesHash(fileID);
}

uint64_t PathHash(std::string_view domain, std::string_view path) {
    // Domains are few and paths many: the path's hash carries the spread, the domain's is mixed in.
    const uint64_t d = bytesHash(domain), p = bytesHash(path);
    return p ^ (d + 0x9E3779B97F4A7C15ull + (p << 6) + (p >> 2));
}

}  // namespace Quiver
