// The error domain, the factory's dictionary, the errno and filesystem factories, the boundary rule and
// the assertion text.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "Quiver/QVError.hpp"

using namespace Quiver;

namespace {

CF::Dictionary infoOf(const CF::Error& e) { return e.UserInfo(); }

}  // namespace

TEST(ErrorFactory, CodeZeroCarriesOnlyTheEmptyDescription) {
    CF::Error e = Error(QVErrorNone);
    EXPECT_EQ(e.Domain().utf8(), "Quiver.ErrorDomain");
    EXPECT_EQ(e.Code(), 0);
    CF::Dictionary info = infoOf(e);
    EXPECT_EQ(info.size(), 1);
    EXPECT_EQ(info.Get<CF::String>(kCFErrorLocalizedDescriptionKey).utf8(), "");
}

TEST(ErrorFactory, UnknownCodesShareTheFallbackTextAndKeepTheirValue) {
    for (int code : {1, 25, 99, -3}) {
        CF::Error e = Error(static_cast<QVError>(code));
        EXPECT_EQ(e.Code(), code);
        EXPECT_EQ(e.Description(), "Unknown Error");
    }
    EXPECT_EQ(Error(QVErrorCryptoOperation).Description(), "Cryto operation failed");
    EXPECT_EQ(Error(QVErrorNotEncrypted).Description(), "A password was specified but backup is not encrypted.");
    EXPECT_EQ(Error(QVErrorInvalidMBFile).Description(), "The backup archive did not contain a valid MBFile");
}

TEST(ErrorFactory, FriendlyKeyOnlyOnTheFourUserFacingCodes) {
    for (int code = -1; code <= 30; ++code) {
        CF::Dictionary info = infoOf(Error(static_cast<QVError>(code)));
        CFTypeRef friendly = info.Get(kCFErrorIsFriendlyKey);
        bool expected = code == 12 || code == 15 || code == 19 || code == 21;
        if (expected) {
            EXPECT_EQ(friendly, kCFBooleanTrue) << code;
        } else {
            EXPECT_EQ(friendly, nullptr) << code;  // absent, not false
        }
    }
}

TEST(ErrorFactory, ReasonAndUnderlyingErrorAreAddedWhenGiven) {
    CF::Error cause = MakeErrnoError(ENOENT, "cause");
    CF::Error e = Error(QVErrorIncorrectPassword, cause, "wrong");
    CF::Dictionary info = infoOf(e);
    EXPECT_EQ(info.size(), 4);
    EXPECT_EQ(e.Reason(), "wrong");
    EXPECT_EQ(e.Underlying().get(), cause.get());
    EXPECT_TRUE(e.IsFriendly());

    EXPECT_EQ(infoOf(Error(QVErrorUnlockFailed, CF::Error(), "")).size(), 1);
    EXPECT_EQ(infoOf(Error(QVErrorUnlockFailed, CF::Error(), " ")).size(), 2);  // a blank is a reason
}

TEST(ErrorFactory, ErrnoErrorWrapsThePosixError) {
    CF::Error none = MakeErrnoError(0, "just text");
    EXPECT_EQ(none.Code(), QVErrorFilesystem);
    EXPECT_EQ(none.Reason(), "just text");
    EXPECT_FALSE(none.Underlying());

    CF::Error e = MakeErrnoError(2, "missing");
    CF::Error posix = e.Underlying();
    ASSERT_TRUE(posix);
    EXPECT_TRUE(posix.Matches(kCFErrorDomainPOSIX, 2));
    EXPECT_EQ(posix.UserInfo().Get(kCFErrorIsFriendlyKey), kCFBooleanFalse);
    EXPECT_FALSE(posix.Description().empty());
}

TEST(ErrorFactory, FilesystemErrorNamesExceptionAndPath) {
    std::runtime_error boom("disk on fire");
    CF::Error e = MakeFilesystemError(boom, "/tmp/x y");
    EXPECT_EQ(e.Code(), QVErrorFilesystem);
    EXPECT_EQ(e.Reason(), "disk on fire (/tmp/x y)");
}

namespace {

// A stand-in for an exported function: asserts outside the boundary, fails inside it.
std::shared_ptr<int> exportedOperation(const int* handle, int mode, CFErrorRef* error) {
    QV_ASSERT(handle);
    return Boundary(error, [&]() -> std::shared_ptr<int> {
        if (mode == 1) throw Error(QVErrorInvalidBackup, CF::Error(), "bad backup");
        if (mode == 2) throw std::runtime_error("stream broke");
        return std::make_shared<int>(*handle);
    });
}

}  // namespace

TEST(ErrorBoundary, StoresExactlyOneReferenceOnFailure) {
    int value = 5;
    CFErrorRef error = nullptr;
    EXPECT_FALSE(exportedOperation(&value, 1, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CFGetRetainCount(error), 1);  // the caller's reference is the only one left
    EXPECT_EQ(CFErrorGetCode(error), QVErrorInvalidBackup);
    CFRelease(error);
}

TEST(ErrorBoundary, TranslatesStandardExceptionsAndToleratesNullOutParameter) {
    int value = 5;
    CFErrorRef error = nullptr;
    EXPECT_FALSE(exportedOperation(&value, 2, &error));
    ASSERT_NE(error, nullptr);
    CF::Error e = CF::Error::Adopt(error);
    EXPECT_EQ(e.Code(), QVErrorFilesystem);
    EXPECT_EQ(e.Reason(), "stream broke ()");

    EXPECT_FALSE(exportedOperation(&value, 1, nullptr));
}

TEST(ErrorBoundary, LeavesOutParameterUntouchedOnSuccess) {
    int value = 5;
    auto sentinel = reinterpret_cast<CFErrorRef>(0x1);
    CFErrorRef error = sentinel;
    auto result = exportedOperation(&value, 0, &error);
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, 5);
    EXPECT_EQ(error, sentinel);
}

TEST(ErrorBoundary, AssertionEscapesWithItsText) {
    CFErrorRef error = nullptr;
    try {
        exportedOperation(nullptr, 0, &error);
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        std::string text = e.what();
        EXPECT_NE(text.find("ErrorTests.cpp:"), std::string::npos) << text;
        EXPECT_NE(text.find(":  "), std::string::npos) << text;
        EXPECT_NE(text.find("exportedOperation"), std::string::npos) << text;
        EXPECT_TRUE(text.ends_with(" Assertion handle failed.")) << text;
    }
    EXPECT_EQ(error, nullptr);
}

TEST(ErrorBoundary, OnFailureRunsOnlyOnFailure) {
    int undone = 0;
    auto run = [&](bool fail) {
        return Boundary(
            nullptr,
            [&] {
                if (fail) throw Error(QVErrorUnknown);
                return true;
            },
            FilesystemErrorFromException{}, [&] { ++undone; });
    };
    EXPECT_TRUE(run(false));
    EXPECT_EQ(undone, 0);
    EXPECT_FALSE(run(true));
    EXPECT_EQ(undone, 1);
}
