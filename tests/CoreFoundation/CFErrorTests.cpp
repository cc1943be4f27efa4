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

TEST(ErrorConstants, HaveTheirDocumentedTexts) {
    const std::pair<CFStringRef, const char*> constants[] = {
        {kCFErrorDomainPOSIX, "NSPOSIXErrorDomain"},
        {kCFErrorDomainOSStatus, "NSOSStatusErrorDomain"},
        {kCFErrorDomainMach, "NSMachErrorDomain"},
        {kCFErrorDomainCocoa, "NSCocoaErrorDomain"},
        {kCFErrorLocalizedDescriptionKey, "NSLocalizedDescription"},
        {kCFErrorLocalizedFailureReasonKey, "NSLocalizedFailureReason"},
        {kCFErrorLocalizedFailureKey, "NSLocalizedFailure"},
        {kCFErrorLocalizedRecoverySuggestionKey, "NSLocalizedRecoverySuggestion"},
        {kCFErrorDescriptionKey, "NSDescription"},
        {kCFErrorUnderlyingErrorKey, "NSUnderlyingError"},
        {kCFErrorURLKey, "NSURL"},
        {kCFErrorFilePathKey, "NSFilePath"},
        {kCFErrorIsFriendlyKey, "IsFriendly"},
    };
    for (auto [constant, expected] : constants) {
        EXPECT_EQ(text(constant), expected);
        EXPECT_TRUE(CFEqual(constant, str(expected).get()));
        EXPECT_EQ(CFHash(constant), CFHash(str(expected).get()));
    }
}

class ErrorTest : public ::testing::Test {
protected:
    Ref<CFStringRef> domain = str("Quiver.ErrorDomain");
    Ref<CFMutableDictionaryRef> info{new_dict()};

    Ref<CFErrorRef> make(CFIndex code, CFDictionaryRef userInfo) {
        return Ref<CFErrorRef>(CFErrorCreate(nullptr, domain, code, userInfo));
    }
};

TEST_F(ErrorTest, CopiesUserInfoAndRetainsDomain) {
    CFDictionarySetValue(info, kCFErrorLocalizedFailureReasonKey, str("first").get());
    CFIndex domainBase = CFGetRetainCount(domain);
    {
        Ref<CFErrorRef> e = make(3, info);
        EXPECT_EQ(CFGetRetainCount(domain), domainBase + 1);
        CFDictionarySetValue(info, kCFErrorLocalizedFailureReasonKey, str("changed").get());
        EXPECT_EQ(take(CFErrorCopyFailureReason(e)), "first");
        Ref<CFDictionaryRef> copied(CFErrorCopyUserInfo(e));
        EXPECT_EQ(CFDictionaryGetCount(copied), 1);
        EXPECT_EQ(CFErrorGetDomain(e), domain.get());
        EXPECT_EQ(CFErrorGetCode(e), 3);
    }
    EXPECT_EQ(CFGetRetainCount(domain), domainBase);
}

TEST_F(ErrorTest, NullUserInfoBecomesEmpty) {
    Ref<CFErrorRef> e = make(0, nullptr);
    Ref<CFDictionaryRef> copied(CFErrorCopyUserInfo(e));
    ASSERT_TRUE(copied);
    EXPECT_EQ(CFDictionaryGetCount(copied), 0);
    EXPECT_EQ(CFErrorCopyFailureReason(e), nullptr);
    EXPECT_EQ(CFErrorCopyRecoverySuggestion(e), nullptr);
}

TEST_F(ErrorTest, UnderlyingErrorLivesAsLongAsTheOuterOne) {
    Ref<CFErrorRef> underlying(CFErrorCreate(nullptr, kCFErrorDomainPOSIX, ENOENT, nullptr));
    CFIndex base = CFGetRetainCount(underlying);
    CFDictionarySetValue(info, kCFErrorUnderlyingErrorKey, underlying.get());
    {
        Ref<CFErrorRef> outer = make(3, info);
        CFDictionaryRemoveValue(info, kCFErrorUnderlyingErrorKey);
        EXPECT_EQ(CFGetRetainCount(underlying), base + 1);
        Ref<CFDictionaryRef> copied(CFErrorCopyUserInfo(outer));
        EXPECT_EQ(CFDictionaryGetValue(copied, kCFErrorUnderlyingErrorKey), underlying.get());
    }
    EXPECT_EQ(CFGetRetainCount(underlying), base);
}

TEST_F(ErrorTest, DescriptionPrefersTheLocalizedDescription) {
    CFDictionarySetValue(info, kCFErrorLocalizedDescriptionKey, str("Error in filesystem").get());
    CFDictionarySetValue(info, kCFErrorLocalizedFailureReasonKey, str("disk full").get());
    EXPECT_EQ(take(CFErrorCopyDescription(make(3, info))), "Error in filesystem");
}

TEST_F(ErrorTest, DescriptionFallsBackToReasonThenDomainAndCode) {
    CFDictionarySetValue(info, kCFErrorLocalizedFailureReasonKey, str("disk full").get());
    EXPECT_EQ(take(CFErrorCopyDescription(make(3, info))), "The operation couldn't be completed. disk full");
    EXPECT_EQ(take(CFErrorCopyDescription(make(-7, nullptr))),
              "The operation couldn't be completed. (Quiver.ErrorDomain error -7.)");
}

TEST_F(ErrorTest, NonStringDescriptionIsIgnored) {
    CFDictionarySetValue(info, kCFErrorLocalizedDescriptionKey, kCFBooleanTrue);
    EXPECT_EQ(take(CFErrorCopyDescription(make(2, info))),
              "The operation couldn't be completed. (Quiver.ErrorDomain error 2.)");
}

TEST_F(ErrorTest, DescribesItselfWithoutAddresses) {
    Ref<CFErrorRef> underlying(CFErrorCreate(nullptr, kCFErrorDomainPOSIX, 2, nullptr));
    CFDictionarySetValue(info, kCFErrorLocalizedDescriptionKey, str("File not found").get());
    CFDictionarySetValue(info, kCFErrorUnderlyingErrorKey, underlying.get());
    EXPECT_EQ(take(CFCopyDescription(make(16, info).get())),
              "Error Domain=Quiver.ErrorDomain Code=16 \"File not found\" UserInfo={\n"
              "    NSLocalizedDescription = \"File not found\";\n"
              "    NSUnderlyingError = Error Domain=NSPOSIXErrorDomain Code=2 "
              "\"The operation couldn't be completed. (NSPOSIXErrorDomain error 2.)\";\n"
              "}");
}

TEST_F(ErrorTest, DomainAndCodeMatch) {
    Ref<CFErrorRef> e = make(16, nullptr);
    EXPECT_TRUE(CFErrorDomainAndCodeMatch(e, str("Quiver.ErrorDomain"), 16));
    EXPECT_FALSE(CFErrorDomainAndCodeMatch(e, str("Quiver.ErrorDomain"), 15));
    EXPECT_FALSE(CFErrorDomainAndCodeMatch(e, kCFErrorDomainPOSIX, 16));
    EXPECT_FALSE(CFErrorDomainAndCodeMatch(nullptr, domain, 16));
}

TEST(ErrnoDescription, KnownValuesHaveTextsUnknownOnesNone) {
    EXPECT_EQ(take(CFErrorCreateDescriptionFromErrno(ENOENT)), "No such file or directory");
    EXPECT_EQ(take(CFErrorCreateDescriptionFromErrno(EACCES)), "Permission denied");
    EXPECT_EQ(CFErrorCreateDescriptionFromErrno(99999), nullptr);
    EXPECT_EQ(CFErrorCreateDescriptionFromErrno(-1), nullptr);
}

}  // namespace
