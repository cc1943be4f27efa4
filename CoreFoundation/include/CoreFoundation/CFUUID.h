// Universally unique identifiers (random, version 4).
#pragma once

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef const struct __CFUUID *CFUUIDRef;

typedef struct {
    UInt8 byte0, byte1, byte2, byte3, byte4, byte5, byte6, byte7;
    UInt8 byte8, byte9, byte10, byte11, byte12, byte13, byte14, byte15;
} CFUUIDBytes;

CF_EXPORT CFTypeID CFUUIDGetTypeID(void);
CF_EXPORT CFUUIDRef CFUUIDCreate(CFAllocatorRef alloc);
CF_EXPORT CFUUIDRef CFUUIDCreateFromUUIDBytes(CFAllocatorRef alloc, CFUUIDBytes bytes);
// Parses the 36-character form; returns NULL when the text is not one.
CF_EXPORT CFUUIDRef CFUUIDCreateFromString(CFAllocatorRef alloc, CFStringRef uuidStr);
// The 36-character upper-case form, e.g. "68753A44-4D6F-1226-9C60-0050E4C00067".
CF_EXPORT CFStringRef CFUUIDCreateString(CFAllocatorRef alloc, CFUUIDRef uuid);
CF_EXPORT CFUUIDBytes CFUUIDGetUUIDBytes(CFUUIDRef uuid);

CF_EXTERN_C_END
