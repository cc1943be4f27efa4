#include "Quiver/QVEntryPool.hpp"

#include <cstring>
#include <stdexcept>

namespace Quiver {

Entry EntryPool::NewEntry() {
    if (usedInBlock_ == kRecordsPerBlock) {
        blocks_.push_back(std::make_unique<QVManifestEntryClass[]>(kRecordsPerBlock));
        usedInBlock_ = 0;
    }
    QVManifestEntryClass* record = &blocks_.back()[usedInBlock_++];
    return Entry(shared_from_this(), record);
}

void EntryPool::SetTexts(QVManifestEntryClass& record,
                         const std::array<std::string_view, QVManifestEntryClass::kTextCount>& texts) {
    size_t total = 0;
    std::array<uint32_t, QVManifestEntryClass::kTextCount> lengths{};
    for (size_t i = 0; i < texts.size(); ++i) {
        if (texts[i].size() > UINT32_MAX) throw std::length_error("entry text too long");
        lengths[i] = static_cast<uint32_t>(texts[i].size());
        total += texts[i].size();
    }
    if (total > chunkSpace_) {
        const size_t size = std::max(total, kChunkSize);
        chunks_.push_back(std::make_unique_for_overwrite<char[]>(size));
        chunkNext_ = chunks_.back().get();
        chunkSpace_ = size;
    }
    char* base = chunkNext_;
    for (const std::string_view text : texts) {
        if (!text.empty()) std::memcpy(chunkNext_, text.data(), text.size());
        chunkNext_ += text.size();
    }
    chunkSpace_ -= total;
    record.AdoptTexts(base, lengths, nullptr);
}

}  // namespace Quiver
