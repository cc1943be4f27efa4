// Errors: a retained domain, a code and an immutable copy of the user-information dictionary. The
// description comes from the user information when it has one, and is otherwise made up from the
// failure reason or from the domain and code, the way Apple's errors read.
#include "CFConstant.hpp"

namespace {

CF_CONSTANT_OBJECT cf::ConstantString gDomainPOSIX("NSPOSIXErrorDomain");
CF_CONSTANT_OBJECT cf::ConstantString gDomainOSStatus("NSOSStatusErrorDomain");
CF_CONSTANT_OBJECT cf::ConstantString gDomainMach("NSMachErrorDomain");
CF_CONSTANT_OBJECT cf::ConstantString gDomainCocoa("NSCocoaErrorDomain");
CF_CONSTANT_OBJECT cf::ConstantString gLocalizedDescriptionKey("NSLocalizedDescription");
CF_CONSTANT_OBJECT cf::ConstantString gLocalizedFailureKey("NSLocalizedFailure");
CF_CONSTANT_OBJECT cf::ConstantString gLocalizedFailureReasonKey("NSLocalizedFailureReason");
CF_CONSTANT_OBJECT cf::ConstantString gLocalizedRecoverySuggestionKey("NSLocalizedRecoverySuggestion");
CF_CONSTANT_OBJECT cf::ConstantString gDescriptionKey("NSDescription");
CF_CONSTANT_OBJECT cf::ConstantString gUnderlyingErrorKey("NSUnderlyingError");
CF_CONSTANT_OBJECT cf::ConstantString gURLKey("NSURL");
CF_CONSTANT_OBJECT cf::ConstantString gFilePathKey("NSFilePath");

const __CFError* error_of(CFErrorRef err, const char* function) {
    return cf::cast<__CFError>(err, kCFTypeIDError, function);
}

// The string stored under key, or NULL when there is none (or the value is not a string).
CFStringRef string_for_key(const __CFError* e, CFStringRef key) {
    CFTypeRef v = CFDictionaryGetValue(e->userInfo, key);
    return v && CFGetTypeID(v) == kCFTypeIDString ? static_cast<CFStringRef>(v) : nullptr;
}

CFStringRef copy_string_for_key(CFErrorRef err, CFStringRef key, const char* function) {
    CFStringRef s = string_for_key(error_of(err, function), key);
    return s ? static_cast<CFStringRef>(CFRetain(s)) : nullptr;
}

std::string description_of(const __CFError* e) {
    if (CFStringRef s = string_for_key(e, kCFErrorLocalizedDescriptionKey)) return cf::utf8_of(s);
    CFStringRef reason = string_for_key(e, kCFErrorLocalizedFailureReasonKey);
    if (CFStringRef failure = string_for_key(e, kCFErrorLocalizedFailureKey))
        return reason ? cf::utf8_of(failure) + " " + cf::utf8_of(reason) : cf::utf8_of(failure);
    if (reason) return "The operation couldn't be completed. " + cf::utf8_of(reason);
    return "The operation couldn't be completed. (" + cf::utf8_of(e->domain) + " error " + std::to_string(e->code) +
           ".)";
}

CFErrorRef make_error(CFStringRef domain, CFIndex code, CFDictionaryRef userInfo, const char* function) {
    cf::cast<__CFString>(domain, kCFTypeIDString, function);
    auto* e = new __CFError();
    e->domain = static_cast<CFStringRef>(CFRetain(domain));
    e->code = code;
    e->userInfo = userInfo;
    return e;
}

}  // namespace

const CFErrorDomain kCFErrorDomainPOSIX = &gDomainPOSIX.object;
const CFErrorDomain kCFErrorDomainOSStatus = &gDomainOSStatus.object;
const CFErrorDomain kCFErrorDomainMach = &gDomainMach.object;
const CFErrorDomain kCFErrorDomainCocoa = &gDomainCocoa.object;
const CFStringRef kCFErrorLocalizedDescriptionKey = &gLocalizedDescriptionKey.object;
const CFStringRef kCFErrorLocalizedFailureKey = &gLocalizedFailureKey.object;
const CFStringRef kCFErrorLocalizedFailureReasonKey = &gLocalizedFailureReasonKey.object;
const CFStringRef kCFErrorLocalizedRecoverySuggestionKey = &gLocalizedRecoverySuggestionKey.object;
const CFStringRef kCFErrorDescriptionKey = &gDescriptionKey.object;
const CFStringRef kCFErrorUnderlyingErrorKey = &gUnderlyingErrorKey.object;
const CFStringRef kCFErrorURLKey = &gURLKey.object;
const CFStringRef kCFErrorFilePathKey = &gFilePathKey.object;

__CFError::~__CFError() {
    if (domain) CFRelease(domain);
    if (userInfo) CFRelease(userInfo);
}

bool __CFError::equal(const __CFObject* other) const {
    const auto* o = static_cast<const __CFError*>(other);
    return code == o->code && CFEqual(domain, o->domain) && CFEqual(userInfo, o->userInfo);
}

std::string __CFError::describe() const { return cf::describe_nested(this, 0); }

CFTypeID CFErrorGetTypeID(void) { return kCFTypeIDError; }

CFErrorRef CFErrorCreate(CFAllocatorRef allocator, CFErrorDomain domain, CFIndex code, CFDictionaryRef userInfo) {
    CFDictionaryRef copy = userInfo ? CFDictionaryCreateCopy(allocator, userInfo)
                                    : CFDictionaryCreate(allocator, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                         &kCFTypeDictionaryValueCallBacks);
    return make_error(domain, code, copy, "CFErrorCreate");
}

CFErrorRef CFErrorCreateWithUserInfoKeysAndValues(CFAllocatorRef allocator, CFErrorDomain domain, CFIndex code,
                                                  const void* const* userInfoKeys, const void* const* userInfoValues,
                                                  CFIndex numUserInfoValues) {
    CFDictionaryRef userInfo =
        CFDictionaryCreate(allocator, const_cast<const void**>(userInfoKeys), const_cast<const void**>(userInfoValues),
                           numUserInfoValues, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    return make_error(domain, code, userInfo, "CFErrorCreateWithUserInfoKeysAndValues");
}

CFErrorDomain CFErrorGetDomain(CFErrorRef err) { return error_of(err, "CFErrorGetDomain")->domain; }

CFIndex CFErrorGetCode(CFErrorRef err) { return error_of(err, "CFErrorGetCode")->code; }

CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef err) {
    // The stored dictionary is immutable, so sharing it is as good as a copy.
    return static_cast<CFDictionaryRef>(CFRetain(error_of(err, "CFErrorCopyUserInfo")->userInfo));
}

CFStringRef CFErrorCopyDescription(CFErrorRef err) {
    const __CFError* e = error_of(err, "CFErrorCopyDescription");
    if (CFStringRef s = string_for_key(e, kCFErrorLocalizedDescriptionKey)) return static_cast<CFStringRef>(CFRetain(s));
    return cf::make_string(description_of(e));
}

CFStringRef CFErrorCopyFailureReason(CFErrorRef err) {
    return copy_string_for_key(err, kCFErrorLocalizedFailureReasonKey, "CFErrorCopyFailureReason");
}

CFStringRef CFErrorCopyRecoverySuggestion(CFErrorRef err) {
    return copy_string_for_key(err, kCFErrorLocalizedRecoverySuggestionKey, "CFErrorCopyRecoverySuggestion");
}
