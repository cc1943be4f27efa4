// Manifest.mbdb reading: any bytes must give a manifest or an empty handle, never a crash, a hang or a
// read past the input. Whatever reads is written back, and that image must read back to the same
// entries in domain-path order (the order the writer uses).
#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>
#include <vector>

#include "Quiver/QVLog.hpp"
#include "Quiver/QVManifestMBDB.hpp"

using namespace Quiver;

namespace {

bool sameEntry(const Entry& a, const Entry& b) {
    auto fields = [](const Entry& e) {
        return std::make_tuple(std::string(e->domainText), std::string(e->path()), e->fileID(),
                               std::string(e->target()), std::string(e->text(QVManifestEntryClass::kDigest)),
                               std::string(e->text(QVManifestEntryClass::kEncryptionKey)), e->mode, e->inode,
                               e->userID, e->groupID, e->size, e->protectionClass, e->birth, e->lastModified,
                               e->lastStatusChange, CF::Dictionary::Retain(QVManifestEntryGetProperties(e)));
    };
    return fields(a) == fields(b);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        Logger().set_level(spdlog::level::off);  // every bad input logs an error
        return true;
    }();
    (void)quiet;

    CF::Data input = CF::Data::NoCopy({data, size});
    Manifest manifest = QVManifestCreateFromManifestData(input.get(), QVManifestDataVersion24, nullptr, nullptr);
    if (!manifest) return 0;

    CF::Data image = CF::Data::Adopt(
        QVManifestCreateManifestDataRepresentation(manifest, QVManifestDataVersion24, nullptr));
    if (!image) std::abort();  // everything that reads has a record form
    Manifest back = QVManifestCreateFromManifestData(image.get(), QVManifestDataVersion24, nullptr, nullptr);
    if (!back || back->entries.size() != manifest->entries.size()) std::abort();

    std::vector<Entry> sorted = manifest->entries;
    std::stable_sort(sorted.begin(), sorted.end(), [](const Entry& a, const Entry& b) {
        return CFStringCompare(QVManifestEntryGetDomainPathPair(a), QVManifestEntryGetDomainPathPair(b), 0) == kCFCompareLessThan;
    });
    for (size_t i = 0; i < sorted.size(); ++i) {
        if (!sameEntry(sorted[i], back->entries[i])) std::abort();
    }
    return 0;
}
