#include "Quiver/QVTemporaryPath.hpp"

#include <stdexcept>

namespace Quiver {

namespace {

struct TemporaryPathState {
    CF::String path;
    std::filesystem::path filesystemPath;
};

// Function-local statics: built on first use, thread-safe, never destroyed before unload.
TemporaryPathState& State() {
    static auto* state = new TemporaryPathState();
    return *state;
}

}  // namespace

std::mutex& GlobalLock() {
    static auto* lock = new std::mutex();
    return *lock;
}

CF::String GetTemporaryPath() {
    std::lock_guard guard(GlobalLock());
    if (!State().path) throw std::runtime_error("Temporary storage path not set");
    return State().path;
}

std::filesystem::path GetTemporaryFilesystemPath() {
    std::lock_guard guard(GlobalLock());
    if (!State().path) throw std::runtime_error("Temporary storage path not set");
    return State().filesystemPath;
}

}  // namespace Quiver

bool QuiverSetTemporaryPath(CFStringRef path) {
    using namespace Quiver;
    try {
        if (!path || CFStringGetLength(path) == 0) return false;
        std::lock_guard guard(GlobalLock());
        TemporaryPathState& state = State();
        if (state.path) return CFStringCompare(state.path.get(), path, 0) == kCFCompareEqualTo;
        CF::String given = CF::String::Retain(path);
        std::filesystem::path directory(given.utf8());
        std::filesystem::create_directories(directory);
        state.filesystemPath = std::filesystem::path(given.utf8());
        state.path = CF::String::Adopt(CFStringCreateCopy(kCFAllocatorDefault, path));
        return true;
    } catch (...) {
        return false;
    }
}

CFStringRef QuiverCopyTemporaryPath(void) {
    std::lock_guard guard(Quiver::GlobalLock());
    const CF::String& path = Quiver::State().path;
    if (!path) return nullptr;
    return CFStringCreateMutableCopy(kCFAllocatorDefault, 0, path.get());
}
