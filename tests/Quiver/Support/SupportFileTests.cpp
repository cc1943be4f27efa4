// readable_file and writable_file: open modes, errors that carry errno and path, whole-file reads
// with a limit, and descriptors that are never leaked.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "Quiver/Support/File.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

namespace fs = std::filesystem;
using namespace Quiver::Support;

namespace {

class SupportFileTest : public QuiverTest::ScratchDirectoryTest {
protected:
    fs::path Write(const std::string& name, const std::vector<uint8_t>& bytes) {
        fs::path path = root / name;
        writable_file file(path);
        file.write(bytes);
        file.close();
        return path;
    }
    static std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }
    static std::vector<uint8_t> ReadAll(const fs::path& path) { return readable_file(path).read_whole_file(1 << 20); }

    // Runs f, expecting a system_error with the given errno whose text names path.
    template <typename F>
    static void ExpectSystemError(F f, int err, const fs::path& path) {
        try {
            f();
            ADD_FAILURE() << "no exception";
        } catch (const std::system_error& e) {
            EXPECT_EQ(e.code().value(), err) << e.what();
            EXPECT_NE(std::string(e.what()).find("'" + path.string() + "'"), std::string::npos) << e.what();
        }
    }
};

TEST_F(SupportFileTest, MissingPathAndDirectoryAreRefusedForReadingNamingOperationAndPath) {
    fs::path missing = root / "no" / "such";
    ExpectSystemError([&] { readable_file file(missing); }, ENOENT, missing);
    try {
        readable_file file(missing);
    } catch (const std::system_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("open failed for '" + missing.string() + "'", 0), 0u) << e.what();
    }
    ExpectSystemError([&] { readable_file file(root); }, EISDIR, root);
}

TEST_F(SupportFileTest, ReadReturnsZeroOnlyAtEndAndClosedFilesRefuseIO) {
    fs::path path = Write("five", Bytes("hello"));
    readable_file file(path);
    EXPECT_EQ(file.size(), 5u);
    uint8_t buffer[3];
    EXPECT_EQ(file.read(buffer, 3), 3u);
    EXPECT_EQ(file.read(buffer, 3), 2u);
    EXPECT_EQ(buffer[0], 'l');
    EXPECT_EQ(buffer[1], 'o');
    EXPECT_EQ(file.read(buffer, 3), 0u);
    file.close();
    EXPECT_FALSE(file.is_open());
    EXPECT_THROW(file.read(buffer, 1), std::system_error);
    std::error_code ec;
    EXPECT_EQ(file.read(buffer, 1, ec), 0u);
    EXPECT_EQ(ec.value(), EBADF);
    writable_file writer(path, writable_file::mode::append);
    writer.close();
    EXPECT_FALSE(writer.is_open());
    EXPECT_THROW(writer.write(Bytes("y")), std::system_error);
    writer.close();  // a second close is harmless
}

TEST_F(SupportFileTest, ReadWholeFileAcceptsExactLimitRefusesMoreAndCopesWithFilesThatReportNoSize) {
    std::vector<uint8_t> data(100000);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    fs::path path = Write("data", data);
    EXPECT_EQ(readable_file(path).read_whole_file(data.size()), data);
    EXPECT_EQ(readable_file(path).read_whole_file(data.size() * 3), data);
    readable_file file(path);
    ExpectSystemError([&] { file.read_whole_file(data.size() - 1); }, EFBIG, path);
    fs::path empty = Write("empty", {});
    EXPECT_TRUE(readable_file(empty).read_whole_file(0).empty());
    EXPECT_TRUE(readable_file(empty).read_whole_file(10).empty());
    // /proc files claim size 0 but have contents, like pipes and growing files.
    std::vector<uint8_t> status = readable_file("/proc/self/status").read_whole_file(1 << 20);
    EXPECT_NE(std::string(status.begin(), status.end()).find("Name:"), std::string::npos);
}

}  // namespace
