#include "Quiver/FileManager.hpp"

#include <mutex>
#include <optional>
#include <unordered_map>

#include <fmt/format.h>

#include "Quiver/FileManagerInternal.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/Random.hpp"

namespace Quiver::FileManager {

const uint64_t kDefaultMaxMemorySize = 4194304;

namespace {

// 64-bit FNV-1a over the digest bytes.
struct DigestHash {
    size_t operator()(const std::vector<uint8_t>& digest) const noexcept {
        uint64_t h = 0xcbf29ce484222325ULL;
        for (uint8_t b : digest) {
            h ^= b;
            h *= 0x100000001b3ULL;
        }
        return static_cast<size_t>(h);
    }
};

struct State {
    std::unordered_map<std::vector<uint8_t>, uint32_t, DigestHash> registry;
    uint64_t maxMemorySize = kDefaultMaxMemorySize;
};

// Lives until the library is unloaded; file objects may deregister from static destructors.
State& state() {
    static auto* s = new State();
    return *s;
}

// Computed once; a failed attempt leaves it unset so the next call tries again.
std::optional<std::filesystem::path> storageDirectory;
std::mutex storageDirectoryLock;

}  // namespace

std::filesystem::path GetStorageDirectory() {
    std::lock_guard guard(storageDirectoryLock);
    if (storageDirectory) return *storageDirectory;
    try {
        std::filesystem::path directory = GetTemporaryFilesystemPath() / "QVFileManager";
        std::filesystem::create_directories(directory);
        storageDirectory = directory;
        return directory;
    } catch (const std::exception& e) {
        throw Error(QVErrorInvalidArgument, CF::Error(),
                    fmt::format("QVFileManager: Failed to initialize temp path ({})", e.what()));
    }
}

std::filesystem::path GetStorageLocationForFile() { return GetStorageDirectory() / Support::MakeUUIDString(); }

std::filesystem::path GetStorageLocationForTempIdentifier(CFStringRef identifier) {
    if (!identifier) throw Error(QVErrorInvalidArgument);
    return GetStorageDirectory() / fmt::format("__{}", CF::String::Retain(identifier).utf8());
}

std::shared_ptr<QVFileClass> CopyCachedFileReference(const std::filesystem::path& path,
                                                    const std::vector<uint8_t>& digest, CFErrorRef* error) {
    std::error_code ec;
    auto status = std::filesystem::status(path, ec);
    if (!ec && std::filesystem::is_regular_file(status)) {
        return Boundary(error, [&] {
            auto file = MakeFileReference(path, digest, true);
            RegisterReferenceForFile(file);
            return file;
        });
    }
    StoreError(error, Error(QVErrorFileNotInCache));
    return nullptr;
}

void RegisterReferenceLocked(const QVFileClass& file) { ++state().registry[file.referenceDigest]; }

void RegisterReferenceForFile(std::shared_ptr<QVFileClass> file) {
    if (!file) throw Error(QVErrorInvalidArgument);
    std::lock_guard guard(GlobalLock());
    RegisterReferenceLocked(*file);
}

void DeregisterReferenceForFile(const QVFileClass& file) {
    {
        std::lock_guard guard(GlobalLock());
        auto& registry = state().registry;
        auto it = registry.find(file.referenceDigest);
        if (it != registry.end()) {
            if (--it->second == 0) registry.erase(it);
            return;
        }
    }
    throw Error(QVErrorInvalidArgument, CF::Error(),
                fmt::format("Attempted to deregister reference for nonexistent hash '{}'",
                            Support::hex_encode(file.referenceDigest)));
}

void DeregisterReferenceForFile(const std::shared_ptr<QVFileClass>& file) {
    if (!file) throw Error(QVErrorInvalidArgument);
    DeregisterReferenceForFile(*file);
}

uint32_t GetReferenceCount(const std::vector<uint8_t>& digest) {
    std::lock_guard guard(GlobalLock());
    auto it = state().registry.find(digest);
    return it == state().registry.end() ? 0 : it->second;
}

uint64_t GetMaxMemorySize() {
    std::lock_guard guard(GlobalLock());
    return state().maxMemorySize;
}

void SetMaxMemorySize(uint64_t size) {
    std::lock_guard guard(GlobalLock());
    state().maxMemorySize = size;
}

}  // namespace Quiver::FileManager
