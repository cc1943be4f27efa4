// A lookup table of entries by a key each entry carries (its file ID, or its domain and path), kept
// as one array of slots with open addressing: building it for a million entries makes no allocation
// per entry and costs about one cache miss each, where a node-based map made a string and a node for
// every entry. A slot keeps the key's hash beside the entry, so a probe compares keys only when the
// hashes agree. Removal shifts the slots behind back into place, so no tombstones pile up under edits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Quiver/QVManifestEntry.hpp"

namespace Quiver {

class EntryIndex {
public:
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }
    void clear();
    // Room for count entries without growing.
    void reserve(size_t count);

    // Adds entry under hash unless an entry for which sameKey(entry) holds is there already; false then.
    template <class SameKey>
    bool insert(uint64_t hash, const Entry& entry, SameKey&& sameKey) {
        if ((count_ + 1) * 4 > slots_.size() * 3) grow();
        size_t at = hash & mask();
        for (; slots_[at].entry; at = (at + 1) & mask())
            if (slots_[at].hash == hash && sameKey(*slots_[at].entry)) return false;
        slots_[at] = {hash, entry};
        ++count_;
        return true;
    }

    // The entry under hash for which matches(entry) holds, or null.
    template <class Matches>
    Entry find(uint64_t hash, Matches&& matches) const {
        if (slots_.empty()) return nullptr;
        for (size_t at = hash & mask(); slots_[at].entry; at = (at + 1) & mask())
            if (slots_[at].hash == hash && matches(*slots_[at].entry)) return slots_[at].entry;
        return nullptr;
    }

    // Removes this very entry object if it stands under hash.
    void erase(uint64_t hash, const QVManifestEntryClass* entry);

private:
    struct Slot {
        uint64_t hash = 0;
        Entry entry;  // null for a free slot
    };
    size_t mask() const { return slots_.size() - 1; }
    void grow();

    std::vector<Slot> slots_;  // a power of two long, at most three quarters full
    size_t count_ = 0;
};

// The hashes the manifest files its entries under. A file ID of 40 lower-case hexadecimal digits is
// hashed by its 20 bytes, any other by its text, as entries keep them.
uint64_t FileIDHash(const QVManifestEntryClass& entry);
uint64_t FileIDHash(std::string_view fileID);
uint64_t PathHash(std::string_view domain, std::string_view path);

}  // namespace Quiver
