// Errors: a domain, a code and a user-information dictionary.
#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>

CF_EXTERN_C_BEGIN

typedef struct __CFError *CFErrorRef;
typedef CFStringRef CFErrorDomain;

CF_EXPORT const CFErrorDomain kCFErrorDomainPOSIX;
CF_EXPORT const CFErrorDomain kCFErrorDomainOSStatus;
CF_EXPORT const CFErrorDomain kCFErrorDomainMach;
CF_EXPORT const CFErrorDomain kCFErrorDomainCocoa;

CF_EXPORT const CFStringRef kCFErrorLocalizedDescriptionKey;
CF_EXPORT const CFStringRef kCFErrorLocalizedFailureKey;
CF_EXPORT const CFStringRef kCFErrorLocalizedFailureReasonKey;
CF_EXPORT const CFStringRef kCFErrorLocalizedRecoverySuggestionKey;
CF_EXPORT const CFStringRef kCFErrorDescriptionKey;
CF_EXPORT const CFStringRef kCFErrorUnderlyingErrorKey;
CF_EXPORT const CFStringRef kCFErrorURLKey;
CF_EXPORT const CFStringRef kCFErrorFilePathKey;

CF_EXPORT CFTypeID CFErrorGetTypeID(void);
// The user-information dictionary is copied; NULL means an empty one.
CF_EXPORT CFErrorRef CFErrorCreate(CFAllocatorRef allocator, CFErrorDomain domain, CFIndex code, CFDictionaryRef userInfo);
CF_EXPORT CFErrorRef CFErrorCreateWithUserInfoKeysAndValues(CFAllocatorRef allocator, CFErrorDomain domain,
                                                            CFIndex code, const void *const *userInfoKeys,
                                                            const void *const *userInfoValues, CFIndex numUserInfoValues);
CF_EXPORT CFErrorDomain CFErrorGetDomain(CFErrorRef err);
CF_EXPORT CFIndex CFErrorGetCode(CFErrorRef err);
CF_EXPORT CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef err);
// The localized description: the user-information value, or a text made from the domain and code.
CF_EXPORT CFStringRef CFErrorCopyDescription(CFErrorRef err);
CF_EXPORT CFStringRef CFErrorCopyFailureReason(CFErrorRef err);
CF_EXPORT CFStringRef CFErrorCopyRecoverySuggestion(CFErrorRef err);

CF_EXTERN_C_END
