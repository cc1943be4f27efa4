// Errors: what they copy and retain, how their descriptions are made, the CFExtension helpers around
// them, and the constant keys being usable from other files' static initialisers.
#include "CFTestRef.hpp"

#include <CoreFoundation/CFExtension.h>
#include <gtest/gtest.h>

#include <cerrno>

using namespace cftest;

namespace {

// Runs during this file's static initialisation, which the linker may order before that of the sources
// defining the constants: the library's own error domain is built this way at start-up.
struct StartupSnapshot {
    std::string domain, key, friendly;
    bool booleanTrue = false;
    std::string errorDescription;
    StartupSnapshot() {
        domain = text(kCFErrorDomainPOSIX);
        key = text(kCFErrorLocalizedDescriptionKey);
        friendly = text(kCFErrorIsFriendlyKey);
        booleanTrue = CFBooleanGetValue(kCFBooleanTrue);
        const void* keys[] = {kCFErrorLocalizedDescriptionKey, kCFErrorIsFriendlyKey};
        const void* values[] = {CFSTR("at startup"), kCFBooleanTrue};
        CFErrorRef e = CFErrorCreateWithUserInfoKeysAndValues(nullptr, kCFErrorDomainPOSIX, 1, keys, values, 2);
        errorDescription = take(CFErrorCopyDescription(e));
        CFRelease(e);
    }
};
const StartupSnapshot gStartup;

TEST(ErrorConstants, UsableFromStaticInitialisers) {
    EXPECT_EQ(gStartup.domain, "NSPOSIXErrorDomain");
    EXPECT_EQ(gStartup.key, "NSLocalizedDescription");
    EXPECT_EQ(gStartup.friendly, "IsFriendly");
    EXPECT_TRUE(gStartup.booleanTrue);
    EXPECT_EQ(gStartup.errorDescription, "at startup");
}

class ErrorTest : public ::testing::Test {
protected:
    Ref<CFStringRef> domain = str("Quiver.ErrorDomain");
    Ref<CFMutableDictionaryRef> info{new_dict()};

    Ref<CFErrorRef> make(CFIndex code, CFDictionaryRef userInfo) {
        return Ref<CFErrorRef>(CFErrorCreate(nullptr, domain, code, userInfo));
    }
};

TEST_F(ErrorTest, CopiesUserInfoRetainsDomainAndUnderlyingErrorAndMatchesDomainAndCode) {
    Ref<CFErrorRef> underlying(CFErrorCreate(nullptr, kCFErrorDomainPOSIX, ENOENT, nullptr));
    CFIndex domainBase = CFGetRetainCount(domain), underlyingBase = CFGetRetainCount(underlying);
    CFDictionarySetValue(info, kCFErrorLocalizedFailureReasonKey, str("first").get());
    CFDictionarySetValue(info, kCFErrorUnderlyingErrorKey, underlying.get());
    {
        Ref<CFErrorRef> e = make(3, info);
        CFDictionarySetValue(info, kCFErrorLocalizedFailureReasonKey, str("changed").get());
        CFDictionaryRemoveValue(info, kCFErrorUnderlyingErrorKey);
        EXPECT_EQ(CFGetRetainCount(domain), domainBase + 1);
        EXPECT_EQ(CFGetRetainCount(underlying), underlyingBase + 1);
        EXPECT_EQ(take(CFErrorCopyFailureReason(e)), "first");
        Ref<CFDictionaryRef> copied(CFErrorCopyUserInfo(e));
        EXPECT_EQ(CFDictionaryGetCount(copied), 2);
        EXPECT_EQ(CFDictionaryGetValue(copied, kCFErrorUnderlyingErrorKey), underlying.get());
        EXPECT_EQ(CFErrorGetDomain(e), domain.get());
        EXPECT_EQ(CFErrorGetCode(e), 3);
        EXPECT_TRUE(CFErrorDomainAndCodeMatch(e, str("Quiver.ErrorDomain"), 3));
        EXPECT_FALSE(CFErrorDomainAndCodeMatch(e, str("Quiver.ErrorDomain"), 4));
        EXPECT_FALSE(CFErrorDomainAndCodeMatch(e, kCFErrorDomainPOSIX, 3));
        EXPECT_FALSE(CFErrorDomainAndCodeMatch(nullptr, domain, 3));
    }
    EXPECT_EQ(CFGetRetainCount(domain), domainBase);
    EXPECT_EQ(CFGetRetainCount(underlying), underlyingBase);
    // A null dictionary becomes an empty one.
    Ref<CFErrorRef> bare = make(0, nullptr);
    Ref<CFDictionaryRef> empty(CFErrorCopyUserInfo(bare));
    ASSERT_TRUE(empty);
    EXPECT_EQ(CFDictionaryGetCount(empty), 0);
    EXPECT_EQ(CFErrorCopyFailureReason(bare), nullptr);
    EXPECT_EQ(CFErrorCopyRecoverySuggestion(bare), nullptr);
}

TEST_F(ErrorTest, DescriptionIsTheLocalizedOneOrTheReasonOrDomainAndCode) {
    const char* const generic = "The operation couldn't be completed. (Quiver.ErrorDomain error 3.)";
    const struct {
        CFTypeRef description;
        const char* reason;
        const char* expected;
    } cases[] = {{CFSTR("Error in filesystem"), "disk full", "Error in filesystem"},
                 {nullptr, "disk full", "The operation couldn't be completed. disk full"},
                 {nullptr, nullptr, generic},
                 {kCFBooleanTrue, nullptr, generic}};  // not a string: ignored
    for (const auto& c : cases) {
        CFDictionaryRemoveAllValues(info);
        if (c.description) CFDictionarySetValue(info, kCFErrorLocalizedDescriptionKey, c.description);
        if (c.reason) CFDictionarySetValue(info, kCFErrorLocalizedFailureReasonKey, str(c.reason).get());
        EXPECT_EQ(take(CFErrorCopyDescription(make(3, info))), c.expected);
    }
    EXPECT_EQ(take(CFErrorCopyDescription(make(-7, nullptr))),
              "The operation couldn't be completed. (Quiver.ErrorDomain error -7.)");
}

}  // namespace
