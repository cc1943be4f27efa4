// Helpers beyond Apple's CoreFoundation that the library and its callers share.
#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFData.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFError.h>
#include <CoreFoundation/CFString.h>

CF_EXTERN_C_BEGIN

// User-information key of errors whose description may be shown to an end user as it stands
// (value kCFBooleanTrue); kCFBooleanFalse or absence means it may not.
CF_EXPORT const CFStringRef kCFErrorIsFriendlyKey;

// True when err is not NULL, its domain equals domain and its code equals code.
CF_EXPORT Boolean CFErrorDomainAndCodeMatch(CFErrorRef err, CFStringRef domain, CFIndex code);
// The platform's text for an errno value, or NULL when there is none.
CF_EXPORT CFStringRef CFErrorCreateDescriptionFromErrno(int errnoValue);

// The UTF-8 bytes of a NUL-terminated string (without the NUL); NULL for a NULL string.
CF_EXPORT CFDataRef CFDataCreateFromUTF8String(CFAllocatorRef allocator, const char *utf8);
// The bytes read as UTF-8; NULL when they are not valid UTF-8.
CF_EXPORT CFStringRef CFDataCopyUTF8String(CFDataRef data);
// Standard Base64 with padding and no line breaks.
CF_EXPORT CFStringRef CFDataCopyBase64Representation(CFDataRef data);
// Decodes standard Base64 (padding optional, whitespace skipped); NULL for anything else.
CF_EXPORT CFDataRef CFDataCreateFromBase64Representation(CFAllocatorRef allocator, CFStringRef base64);

// A deterministic, address-free rendering of the dictionary: "{}" when empty, otherwise
// "{\n    key = value;\n}" with nested collections indented, in insertion order.
CF_EXPORT CFStringRef CFDictionaryCopyDebugDescription(CFDictionaryRef dict);
// Sets every key-value pair of source on target, replacing values of keys already present.
CF_EXPORT void CFDictionarySetValues(CFMutableDictionaryRef target, CFDictionaryRef source);

CF_EXTERN_C_END
