#include "Quiver/QVManifest.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <unordered_set>

#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"

namespace Quiver {

namespace {

constexpr unsigned kScansBeforeIndex = 2;

// The entries of a domain in the index, made empty when the domain is new to it.
std::vector<Entry>& domainEntries(QVManifestClass& manifest, std::string_view domain) {
    auto found = manifest.domainIndex.find(domain);
    if (found == manifest.domainIndex.end()) found = manifest.domainIndex.emplace(domain, std::vector<Entry>()).first;
    return found->second;
}

void buildDomainIndex(QVManifestClass& manifest) {
    if (!manifest.domainIndex.empty()) return;
    // Rows come grouped by domain: the domain of the entry before is looked up again only when it changes.
    std::string_view last;
    std::vector<Entry>* lastEntries = nullptr;
    for (const Entry& entry : manifest.entries) {
        const std::string_view domain = entry->domainText;
        if (domain.empty()) continue;
        if (!lastEntries || domain != last) {
            last = domain;
            lastEntries = &domainEntries(manifest, domain);
        }
        lastEntries->push_back(entry);
    }
}

const std::vector<Entry>* entriesInDomain(QVManifestClass& manifest, CFStringRef domain) {
    buildDomainIndex(manifest);
    auto it = manifest.domainIndex.find(CF::UTF8(domain));
    return it == manifest.domainIndex.end() ? nullptr : &it->second;
}

bool hasAnyFileID(const QVManifestEntryClass& entry) {
    return entry.fileIDIsHex || !entry.text(QVManifestEntryClass::kFileIDText).empty();
}

bool hasFileID(const QVManifestEntryClass& entry, std::string_view id) {
    if (!entry.fileIDIsHex) return entry.text(QVManifestEntryClass::kFileIDText) == id;
    if (id.size() != 40) return false;
    std::array<uint8_t, 20> bytes{};
    return FileIDBytesFromText(id, bytes) && bytes == entry.fileIDBytes;
}

// Each files the entry unless an entry with the same key is there; false then (the first one wins).
bool indexFileID(QVManifestClass& manifest, const Entry& entry) {
    const QVManifestEntryClass& added = *entry;
    return manifest.fileIDIndex.insert(FileIDHash(added), entry,
                                       [&](const QVManifestEntryClass& e) { return CompareFileIDs(e, added) == 0; });
}

bool indexPath(QVManifestClass& manifest, const Entry& entry) {
    const QVManifestEntryClass& added = *entry;
    return manifest.pathIndex.insert(PathHash(added.domainText, added.path()), entry,
                                     [&](const QVManifestEntryClass& e) {
                                         return e.path() == added.path() && e.domainText == added.domainText;
                                     });
}

void computeTotals(QVManifestClass& manifest) {
    // Sizes come from the manifest file and cannot be trusted: add them without signed overflow.
    uint64_t size = 0;
    manifest.totalFileCount = 0;
    for (const Entry& entry : manifest.entries) {
        size += QVManifestEntryGetFileSize(entry);
        if (QVManifestEntryIsFile(entry)) ++manifest.totalFileCount;
    }
    manifest.totalFileSize = static_cast<int64_t>(size);
}

}  // namespace

Manifest QVManifestCreateEmpty() {
    auto manifest = std::make_shared<QVManifestClass>();
    manifest->flagOnlyRecords = CF::Dictionary::CreateMutable();
    return manifest;
}

Manifest QVManifestCreateCopy(const Manifest& source, const QVGetFileFunction& getFile) {
    QV_ASSERT(source);
    auto manifest = std::make_shared<QVManifestClass>();
    manifest->entries.reserve(source->entries.size());
    // One getter shared by every copy.
    const auto sharedGetter = getFile ? std::make_shared<const QVGetFileFunction>(getFile) : nullptr;
    for (const Entry& entry : source->entries) manifest->entries.push_back(CopyEntrySharingGetter(entry, sharedGetter));
    manifest->flagOnlyRecords = source->flagOnlyRecords.MutableCopy();
    manifest->totalFileSize = source->totalFileSize;
    manifest->totalFileCount = source->totalFileCount;
    manifest->getFile = getFile;
    return manifest;  // data version stays 0 on purpose: a copy is not the loaded database
}

std::vector<Entry> QVManifestGetEntries(const Manifest& manifest) {
    QV_ASSERT(manifest);
    return manifest->entries;
}

Entry QVManifestGetEntryForFileID(const Manifest& manifest, CFStringRef fileID) {
    QV_ASSERT(manifest);
    const std::string wanted = CF::UTF8(fileID);
    // A few lookups cost less as scans than as an index of every entry (a tool that reads one file
    // makes one); the index is built once lookups keep coming.
    if (manifest->fileIDIndex.empty() && ++manifest->fileIDScans <= kScansBeforeIndex) {
        std::array<uint8_t, 20> bytes{};
        const bool hex = FileIDBytesFromText(wanted, bytes);
        for (const Entry& entry : manifest->entries) {
            if (entry->fileIDIsHex ? hex && entry->fileIDBytes == bytes
                                   : entry->text(QVManifestEntryClass::kFileIDText) == wanted)
                return entry;
        }
        return nullptr;
    }
    if (manifest->fileIDIndex.empty()) {
        manifest->fileIDIndex.reserve(manifest->entries.size());
        for (const Entry& entry : manifest->entries) {
            if (!hasAnyFileID(*entry)) {
                log_fmt(log_level::error, "{}: DEVELOPER BUG QVManifestEntry does not have a fileID ({})",
                        __PRETTY_FUNCTION__, entry);
                continue;
            }
            // The first entry with an ID wins.
            if (!indexFileID(*manifest, entry)) manifest->duplicateKeys = true;
        }
    }
    return manifest->fileIDIndex.find(FileIDHash(wanted), [&](const QVManifestEntryClass& e) { return hasFileID(e, wanted); });
}

Entry QVManifestGetEntryMatchingPath(const Manifest& manifest, CFStringRef domain, CFStringRef path) {
    QV_ASSERT(manifest);
    if (!path) return nullptr;
    if (manifest->pathIndex.empty() && ++manifest->pathScans <= kScansBeforeIndex) {
        const std::string wantedDomain = CF::UTF8(domain), wantedPath = CF::UTF8(path);
        for (const Entry& entry : manifest->entries)
            if (entry->path() == wantedPath && entry->domainText == wantedDomain) return entry;
        return nullptr;
    }
    if (manifest->pathIndex.empty()) {
        manifest->pathIndex.reserve(manifest->entries.size());
        for (const Entry& entry : manifest->entries)
            if (!indexPath(*manifest, entry)) manifest->duplicateKeys = true;
    }
    const std::string wantedDomain = CF::UTF8(domain), wantedPath = CF::UTF8(path);
    return manifest->pathIndex.find(PathHash(wantedDomain, wantedPath), [&](const QVManifestEntryClass& e) {
        return e.path() == wantedPath && e.domainText == wantedDomain;
    });
}

std::vector<Entry> QVManifestCopyEntriesInDomain(const Manifest& manifest, CFStringRef domain) {
    QV_ASSERT(manifest);
    const auto* inDomain = entriesInDomain(*manifest, domain);
    return inDomain ? *inDomain : std::vector<Entry>();
}

std::vector<Entry> QVManifestCopyEntriesAtPath(const Manifest& manifest, CFStringRef domain, CFStringRef path) {
    QV_ASSERT(manifest);
    const auto* inDomain = entriesInDomain(*manifest, domain);
    if (!inDomain) return {};
    if (!path || CFStringGetLength(path) == 0) return *inDomain;
    const std::string query = CF::UTF8(path);
    std::vector<Entry> result;
    for (const Entry& entry : *inDomain) {
        const std::string_view entryPath = entry->path();
        // Whole components match exactly when the path is the query itself or continues it with "/"
        // (empty components from leading, doubled or trailing slashes included).
        if (entryPath.size() < query.size() || entryPath.compare(0, query.size(), query) != 0) continue;
        if (entryPath.size() == query.size() || entryPath[query.size()] == '/') result.push_back(entry);
    }
    return result;
}

CFArrayRef QVManifestCopyDomainsList(const Manifest& manifest) {
    QV_ASSERT(manifest);
    buildDomainIndex(*manifest);
    std::vector<CF::String> domains;
    domains.reserve(manifest->domainIndex.size());
    for (const auto& [domain, entries] : manifest->domainIndex) domains.emplace_back(domain);
    std::sort(domains.begin(), domains.end(),
              [](const CF::String& a, const CF::String& b) { return CFStringCompare(a.get(), b.get(), 0) < 0; });
    CF::Array array = CF::Array::CreateMutable();
    for (const CF::String& domain : domains) array.Append(domain);
    return array.Detach();
}

CFArrayRef QVManifestGetFileIDs(const Manifest& manifest) {
    QV_ASSERT(manifest);
    if (!manifest->fileIDList || manifest->fileIDList.size() == 0) {
        CF::Array list = CF::Array::CreateMutable();
        for (const Entry& entry : manifest->entries) {
            if (QVManifestEntryIsDirectory(entry) || QVManifestEntryIsSymlink(entry)) continue;
            CFStringRef id = QVManifestEntryGetFileID(entry);
            if (id && CFStringGetLength(id) > 0) {
                list.Append(id);
            } else {
                log_fmt(log_level::error, "{}: DEVELOPER BUG QVManifestEntry does not have a fileID ({})",
                        __PRETTY_FUNCTION__, entry);
            }
        }
        manifest->fileIDList = list;
    }
    return manifest->fileIDList.get();
}

int64_t QVManifestGetTotalFileCount(const Manifest& manifest) {
    QV_ASSERT(manifest);
    return manifest->totalFileCount;
}

int64_t QVManifestGetTotalFileSize(const Manifest& manifest) {
    QV_ASSERT(manifest);
    return manifest->totalFileSize;
}

void QVManifestUpdateEntries(const Manifest& manifest, std::vector<Entry> entries) {
    QV_ASSERT(manifest);
    manifest->entries = std::move(entries);
    manifest->domainIndex.clear();
    manifest->fileIDIndex.clear();
    manifest->pathIndex.clear();
    manifest->positions.clear();
    manifest->duplicateKeys = false;
    manifest->fileIDList.Reset();
    computeTotals(*manifest);
}

void QVManifestAddEntries(const Manifest& manifest, const std::vector<Entry>& added) {
    QV_ASSERT(manifest);
    QVManifestClass& m = *manifest;
    uint64_t size = static_cast<uint64_t>(m.totalFileSize);
    for (const Entry& entry : added) {
        QV_ASSERT(entry);
        m.entries.push_back(entry);
        // Each index that exists takes the entry as a rebuild would (the first entry of a key wins).
        if (!m.domainIndex.empty()) {
            if (!entry->domainText.empty()) domainEntries(m, entry->domainText).push_back(entry);
        }
        if (!m.fileIDIndex.empty() && hasAnyFileID(*entry) && !indexFileID(m, entry)) m.duplicateKeys = true;
        if (!m.pathIndex.empty() && !indexPath(m, entry)) m.duplicateKeys = true;
        if (!m.positions.empty()) m.positions.emplace(entry.get(), m.entries.size() - 1);
        size += QVManifestEntryGetFileSize(entry);
        if (QVManifestEntryIsFile(entry)) ++m.totalFileCount;
    }
    m.totalFileSize = static_cast<int64_t>(size);
    m.fileIDList.Reset();
}

void QVManifestRemoveEntries(const Manifest& manifest, const std::vector<Entry>& removed) {
    QV_ASSERT(manifest);
    QVManifestClass& m = *manifest;
    if (removed.empty()) return;
    if (m.positions.empty() && !m.entries.empty()) {
        m.positions.reserve(m.entries.size());
        for (size_t i = 0; i < m.entries.size(); ++i) m.positions.emplace(m.entries[i].get(), i);
    }
    // The same entry object twice in the list leaves positions ambiguous: remove by scanning then.
    const bool byPosition = m.positions.size() == m.entries.size();
    uint64_t size = static_cast<uint64_t>(m.totalFileSize);
    std::unordered_set<const QVManifestEntryClass*> doomed;
    for (const Entry& entry : removed) {
        if (!entry || !doomed.insert(entry.get()).second) continue;
        if (byPosition) {
            auto at = m.positions.find(entry.get());
            if (at == m.positions.end()) continue;
            // The last entry takes the place of the removed one; the list's order carries no meaning.
            const size_t hole = at->second;
            m.positions.erase(at);
            if (hole + 1 != m.entries.size()) {
                m.entries[hole] = std::move(m.entries.back());
                m.positions[m.entries[hole].get()] = hole;
            }
            m.entries.pop_back();
        } else if (std::erase_if(m.entries, [&](const Entry& e) { return e.get() == entry.get(); }) == 0) {
            continue;
        }
        size -= QVManifestEntryGetFileSize(entry);
        if (QVManifestEntryIsFile(entry)) --m.totalFileCount;
        if (m.duplicateKeys) continue;  // the indexes are dropped below
        if (!m.fileIDIndex.empty()) m.fileIDIndex.erase(FileIDHash(*entry), entry.get());
        if (!m.pathIndex.empty()) m.pathIndex.erase(PathHash(entry->domainText, entry->path()), entry.get());
    }
    if (!byPosition) m.positions.clear();
    // With keys shared, another entry may stand behind a removed one: the lookups are built again.
    if (m.duplicateKeys) {
        m.fileIDIndex.clear();
        m.pathIndex.clear();
        m.duplicateKeys = false;
    }
    // A domain's list would cost a scan of the domain: it is built again when next asked for.
    m.domainIndex.clear();
    m.fileIDList.Reset();
    m.totalFileSize = static_cast<int64_t>(size);
}

ManifestContents CountEntries(const Manifest& manifest) {
    QV_ASSERT(manifest);
    ManifestContents contents;
    std::unordered_set<std::string_view> domains;
    for (const Entry& entry : manifest->entries) {
        contents.Add(entry->mode, entry->size, !entry->encryptionKey().empty());
        if (!entry->domainText.empty()) domains.insert(entry->domainText);
    }
    contents.domains = domains.size();
    return contents;
}

Manifest MakeManifest(std::vector<Entry> entries, QVManifestDataVersion version, CF::Dictionary flagOnlyRecords,
                      QVGetFileFunction getFile) {
    auto manifest = std::make_shared<QVManifestClass>();
    manifest->entries = std::move(entries);
    manifest->dataVersion = version;
    manifest->flagOnlyRecords = flagOnlyRecords ? std::move(flagOnlyRecords) : CF::Dictionary::CreateMutable();
    manifest->getFile = std::move(getFile);
    computeTotals(*manifest);
    return manifest;
}

std::string to_string(const Manifest& manifest) {
    return fmt::format("<QVManifestClass {}>", static_cast<const void*>(manifest.get()));
}

}  // namespace Quiver
