// Base types of the CoreFoundation subset: the polymorphic object model, allocators and ranges.
// Names and signatures follow Apple's public CoreFoundation API so that callers read as they would
// on Apple's systems.
#pragma once

#include <CoreFoundation/CFSymbolNames.h>

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define CF_EXTERN_C_BEGIN extern "C" {
#define CF_EXTERN_C_END }
#else
#define CF_EXTERN_C_BEGIN
#define CF_EXTERN_C_END
#endif

#define CF_EXPORT extern __attribute__((visibility("default")))
#define CF_INLINE static inline

CF_EXTERN_C_BEGIN

typedef unsigned char Boolean;
typedef uint8_t UInt8;
typedef int8_t SInt8;
typedef uint16_t UInt16;
typedef int16_t SInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef uint64_t UInt64;
typedef int64_t SInt64;
typedef float Float32;
typedef double Float64;
typedef uint16_t UniChar;
typedef uint32_t UTF32Char;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef unsigned long CFTypeID;
typedef unsigned long CFOptionFlags;
typedef unsigned long CFHashCode;
typedef signed long CFIndex;

typedef const void *CFTypeRef;

typedef const struct __CFString *CFStringRef;
typedef struct __CFString *CFMutableStringRef;
typedef const struct __CFAllocator *CFAllocatorRef;
typedef CFTypeRef CFPropertyListRef;
typedef const struct __CFNull *CFNullRef;

typedef enum : CFIndex {
    kCFCompareLessThan = -1,
    kCFCompareEqualTo = 0,
    kCFCompareGreaterThan = 1
} CFComparisonResult;

typedef CFComparisonResult (*CFComparatorFunction)(const void *val1, const void *val2, void *context);

static const CFIndex kCFNotFound = -1;

typedef struct {
    CFIndex location;
    CFIndex length;
} CFRange;

CF_INLINE CFRange CFRangeMake(CFIndex loc, CFIndex len) {
    CFRange range;
    range.location = loc;
    range.length = len;
    return range;
}

// Allocators. kCFAllocatorDefault (NULL) and kCFAllocatorSystemDefault allocate with malloc;
// kCFAllocatorNull neither allocates nor frees, and is passed as the deallocator of no-copy objects
// whose bytes the caller keeps.
CF_EXPORT const CFAllocatorRef kCFAllocatorDefault;
CF_EXPORT const CFAllocatorRef kCFAllocatorSystemDefault;
CF_EXPORT const CFAllocatorRef kCFAllocatorMalloc;
CF_EXPORT const CFAllocatorRef kCFAllocatorMallocZone;
CF_EXPORT const CFAllocatorRef kCFAllocatorNull;

CF_EXPORT CFTypeID CFAllocatorGetTypeID(void);
CF_EXPORT CFAllocatorRef CFAllocatorGetDefault(void);
CF_EXPORT void *CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags hint);
CF_EXPORT void CFAllocatorDeallocate(CFAllocatorRef allocator, void *ptr);

// The polymorphic functions. Reference counts are atomic; constant objects (CFSTR strings, the
// booleans, kCFNull, the allocators) are never freed and ignore retain and release.
CF_EXPORT CFTypeRef CFRetain(CFTypeRef cf);
CF_EXPORT void CFRelease(CFTypeRef cf);
CF_EXPORT CFIndex CFGetRetainCount(CFTypeRef cf);
CF_EXPORT CFTypeID CFGetTypeID(CFTypeRef cf);
CF_EXPORT Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2);
CF_EXPORT CFHashCode CFHash(CFTypeRef cf);
CF_EXPORT CFStringRef CFCopyDescription(CFTypeRef cf);
CF_EXPORT CFStringRef CFCopyTypeIDDescription(CFTypeID type_id);
CF_EXPORT CFAllocatorRef CFGetAllocator(CFTypeRef cf);

// kCFNull stands for a null value inside collections.
CF_EXPORT const CFNullRef kCFNull;
CF_EXPORT CFTypeID CFNullGetTypeID(void);

CF_EXTERN_C_END
