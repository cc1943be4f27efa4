// Property lists in the XML and binary formats, read and written through libplist.
#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFData.h>
#include <CoreFoundation/CFError.h>

CF_EXTERN_C_BEGIN

typedef CFOptionFlags CFPropertyListMutabilityOptions;
enum {
    kCFPropertyListImmutable = 0,
    kCFPropertyListMutableContainers = 1,
    kCFPropertyListMutableContainersAndLeaves = 2
};

typedef CFIndex CFPropertyListFormat;
enum {
    kCFPropertyListOpenStepFormat = 1,
    kCFPropertyListXMLFormat_v1_0 = 100,
    kCFPropertyListBinaryFormat_v1_0 = 200
};

// Error codes of kCFErrorDomainCocoa used by property-list reading and writing.
enum {
    kCFPropertyListReadCorruptError = 3840,
    kCFPropertyListReadUnknownVersionError = 3841,
    kCFPropertyListReadStreamError = 3842,
    kCFPropertyListWriteStreamError = 3851
};

// Reads XML or binary property lists. Returns NULL with an error (when error is not NULL) for bytes
// that are not a property list. Binary UID values become CFKeyedArchiverUID objects.
CF_EXPORT CFPropertyListRef CFPropertyListCreateWithData(CFAllocatorRef allocator, CFDataRef data,
                                                         CFOptionFlags options, CFPropertyListFormat *format,
                                                         CFErrorRef *error);
// Writes kCFPropertyListXMLFormat_v1_0 or kCFPropertyListBinaryFormat_v1_0. Dictionary keys must be
// strings; the leaves strings, data, numbers, booleans, dates or (binary only) UIDs.
CF_EXPORT CFDataRef CFPropertyListCreateData(CFAllocatorRef allocator, CFPropertyListRef propertyList,
                                             CFPropertyListFormat format, CFOptionFlags options, CFErrorRef *error);
CF_EXPORT CFPropertyListRef CFPropertyListCreateDeepCopy(CFAllocatorRef allocator, CFPropertyListRef propertyList,
                                                         CFOptionFlags mutabilityOption);
CF_EXPORT Boolean CFPropertyListIsValid(CFPropertyListRef plist, CFPropertyListFormat format);

// The UID values of keyed archives (binary property lists only).
typedef const struct __CFKeyedArchiverUID *CFKeyedArchiverUIDRef;
CF_EXPORT CFTypeID _CFKeyedArchiverUIDGetTypeID(void);
CF_EXPORT CFKeyedArchiverUIDRef _CFKeyedArchiverUIDCreate(CFAllocatorRef allocator, uint32_t value);
CF_EXPORT uint32_t _CFKeyedArchiverUIDGetValue(CFKeyedArchiverUIDRef uid);

CF_EXTERN_C_END
