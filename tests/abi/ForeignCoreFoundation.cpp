// A program with a CoreFoundation of its own, linked against the shared library: the library's calls
// must reach its own functions, never the program's, and the program's names must not be taken by
// the library. Ends with status 0 when that holds.
#include <CoreFoundation/CoreFoundation.h>

#include <cstdio>

#include "Quiver/QVManifestEntry.hpp"

// The other CoreFoundation's functions, under the names any CoreFoundation uses.
#undef CFRelease
#undef CFRetain
namespace {
int foreignCalls = 0;
}
extern "C" __attribute__((visibility("default"))) void CFRelease(const void*) { ++foreignCalls; }
extern "C" __attribute__((visibility("default"))) const void* CFRetain(const void* object) {
    ++foreignCalls;
    return object;
}

int main() {
    // Work inside the library that makes, retains and releases objects of its own.
    for (int i = 0; i < 100; ++i) {
        CFStringRef id = Quiver::QVManifestEntryCopyFileIDForPath(CFSTR("HomeDomain"), CFSTR("Library/a.txt"));
        if (!id || CFStringGetLength(id) != 40) {
            std::fprintf(stderr, "the library's string is wrong\n");
            return 1;
        }
        QV_CFRelease(id);
    }
    if (foreignCalls != 0) {
        std::fprintf(stderr, "the library called the program's CFRelease or CFRetain %d times\n", foreignCalls);
        return 1;
    }
    return 0;
}
