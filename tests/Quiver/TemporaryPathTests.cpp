// The temporary storage path can be set once per process, so each case runs in a fresh process
// (a death-test child that exits with the case's verdict).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Quiver/CF/String.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

namespace fs = std::filesystem;

namespace {

class TemporaryPath : public QuiverTest::ScratchDirectoryTest {
protected:
    static void SetUpTestSuite() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

bool set(const fs::path& p) { return QuiverSetTemporaryPath(CF::String(p.string()).get()); }

std::string copied() {
    CF::String s = CF::String::Adopt(QuiverCopyTemporaryPath());
    return s ? s.utf8() : "(null)";
}

// The exit status of a fresh-process case. The child runs the fixture's setup again but never its
// teardown, so it removes its own scratch directory first.
int Verdict(bool passed, const fs::path& scratch) {
    std::error_code ec;
    fs::remove_all(scratch, ec);
    return passed ? 0 : 1;
}

// Runs `body` in a child process; the case passes when the body returns true.
#define EXPECT_IN_FRESH_PROCESS(body) \
    EXPECT_EXIT(std::exit(Verdict((body), root)), ::testing::ExitedWithCode(0), "")

}  // namespace

TEST_F(TemporaryPath, GettersThrowUntilSetAndEmptyNullOrUncreatablePathsAreRefused) {
    fs::path file = root / "plain-file";
    std::ofstream(file) << "x";
    auto check = [&] {
        try {
            Quiver::GetTemporaryPath();
            return false;
        } catch (const std::runtime_error& e) {
            if (std::string(e.what()) != "Temporary storage path not set") return false;
        }
        return !QuiverSetTemporaryPath(CFSTR("")) && !QuiverSetTemporaryPath(nullptr) && !set(file / "below") &&
               QuiverCopyTemporaryPath() == nullptr && set(root / "good");
    };
    EXPECT_IN_FRESH_PROCESS(check());
}

// Missing parents are made; the same path again is fine, another (even in letter case alone) is refused;
// each copy is a fresh string that the caller may change without touching the stored path.
TEST_F(TemporaryPath, SetOnceWithItsParentsAndCopiedFresh) {
    fs::path deep = root / "Store" / "deep";
    auto check = [&] {
        if (!set(deep) || !fs::is_directory(deep) || !set(deep) || set(root / "store" / "deep") || set(root / "second") ||
            Quiver::GetTemporaryFilesystemPath() != deep)
            return false;
        CFStringRef a = QuiverCopyTemporaryPath();
        CFStringRef b = QuiverCopyTemporaryPath();
        bool ok = a != b && CFEqual(a, b) && CFGetRetainCount(a) == 1;
        CFStringAppend(const_cast<CFMutableStringRef>(a), CFSTR("/changed"));
        ok = ok && copied() == deep.string();
        CFRelease(a);
        CFRelease(b);
        return ok;
    };
    EXPECT_IN_FRESH_PROCESS(check());
}
