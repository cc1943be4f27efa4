// The error domain, the factory's dictionary, the errno and filesystem factories, the boundary rule and
// the assertion text.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "Quiver/QVError.hpp"

using namespace Quiver;

TEST(ErrorFactory, ErrnoAndFilesystemErrors) {
    CF::Error none = MakeErrnoError(0, "just text");
    EXPECT_EQ(none.Code(), QVErrorFilesystem);
    EXPECT_EQ(none.Reason(), "just text");
    EXPECT_FALSE(none.Underlying());
    CF::Error posix = MakeErrnoError(2, "missing").Underlying();
    ASSERT_TRUE(posix);
    EXPECT_TRUE(posix.Matches(kCFErrorDomainPOSIX, 2));
    EXPECT_EQ(posix.UserInfo().Get(kCFErrorIsFriendlyKey), kCFBooleanFalse);
    EXPECT_FALSE(posix.Description().empty());
    CF::Error e = MakeFilesystemError(std::runtime_error("disk on fire"), "/tmp/x y");
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

TEST(ErrorBoundary, FailureStoresOneReferenceAndUndoesSuccessLeavesTheOutParameterAloneAssertionsEscape) {
    int value = 5;
    CFErrorRef error = nullptr;
    EXPECT_FALSE(exportedOperation(&value, 1, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CFGetRetainCount(error), 1);  // the caller's reference is the only one left
    EXPECT_EQ(CFErrorGetCode(error), QVErrorInvalidBackup);
    CFRelease(error);
    error = nullptr;
    EXPECT_FALSE(exportedOperation(&value, 2, &error));  // standard exceptions become filesystem errors
    CF::Error e = CF::Error::Adopt(error);
    EXPECT_EQ(e.Code(), QVErrorFilesystem);
    EXPECT_EQ(e.Reason(), "stream broke ()");
    EXPECT_FALSE(exportedOperation(&value, 1, nullptr));
    auto sentinel = reinterpret_cast<CFErrorRef>(0x1);
    error = sentinel;
    auto result = exportedOperation(&value, 0, &error);
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, 5);
    EXPECT_EQ(error, sentinel);
    // The undo step runs on failure only.
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
    // An assertion escapes the boundary with its text.
    error = nullptr;
    try {
        exportedOperation(nullptr, 0, &error);
        FAIL() << "no exception";
    } catch (const std::invalid_argument& assertion) {
        std::string text = assertion.what();
        EXPECT_NE(text.find("ErrorTests.cpp:"), std::string::npos) << text;
        EXPECT_NE(text.find(":  "), std::string::npos) << text;
        EXPECT_NE(text.find("exportedOperation"), std::string::npos) << text;
        EXPECT_TRUE(text.ends_with(" Assertion handle failed.")) << text;
    }
    EXPECT_EQ(error, nullptr);
}
