// readable_file and writable_file: open modes, errors that carry errno and path, whole-file reads
// with a limit, and descriptors that are never leaked.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "Quiver/Support/File.hpp"

namespace fs = std::filesystem;
using namespace Quiver::Support;

namespace {

class SupportFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "quiver-support-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path Write(const std::string& name, const std::vector<uint8_t>& bytes) {
        fs::path path = dir_ / name;
        writable_file file(path);
        file.write(bytes);
        file.close();
        return path;
    }
    static std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }
    static std::vector<uint8_t> ReadAll(const fs::path& path) { return readable_file(path).read_whole_file(1 << 20); }

    static std::size_t OpenDescriptorCount() {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
    }

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

    fs::path dir_;
};

TEST_F(SupportFileTest, MissingPathThrowsENOENTNamingOperationAndPath) {
    fs::path missing = dir_ / "no" / "such";
    ExpectSystemError([&] { readable_file file(missing); }, ENOENT, missing);
    try {
        readable_file file(missing);
    } catch (const std::system_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("open failed for '" + missing.string() + "'", 0), 0u) << e.what();
    }
}

TEST_F(SupportFileTest, DirectoryIsRefusedForReading) {
    ExpectSystemError([&] { readable_file file(dir_); }, EISDIR, dir_);
}

TEST_F(SupportFileTest, ReadReturnsZeroOnlyAtEnd) {
    fs::path path = Write("five", Bytes("hello"));
    readable_file file(path);
    EXPECT_EQ(file.size(), 5u);
    uint8_t buffer[3];
    EXPECT_EQ(file.read(buffer, 3), 3u);
    EXPECT_EQ(file.read(buffer, 3), 2u);
    EXPECT_EQ(buffer[0], 'l');
    EXPECT_EQ(buffer[1], 'o');
    EXPECT_EQ(file.read(buffer, 3), 0u);
}

TEST_F(SupportFileTest, ReadWholeFileAcceptsExactLimitAndRefusesMore) {
    std::vector<uint8_t> data(100000);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    fs::path path = Write("data", data);
    EXPECT_EQ(readable_file(path).read_whole_file(data.size()), data);
    EXPECT_EQ(readable_file(path).read_whole_file(data.size() * 3), data);
    readable_file file(path);
    ExpectSystemError([&] { file.read_whole_file(data.size() - 1); }, EFBIG, path);
}

TEST_F(SupportFileTest, ReadWholeFileOfEmptyFileIsEmpty) {
    fs::path path = Write("empty", {});
    EXPECT_TRUE(readable_file(path).read_whole_file(0).empty());
    EXPECT_TRUE(readable_file(path).read_whole_file(10).empty());
}

TEST_F(SupportFileTest, ReadWholeFileCopesWithFilesThatReportNoSize) {
    // /proc files claim size 0 but have contents, like pipes and growing files.
    std::vector<uint8_t> status = readable_file("/proc/self/status").read_whole_file(1 << 20);
    EXPECT_NE(std::string(status.begin(), status.end()).find("Name:"), std::string::npos);
}

TEST_F(SupportFileTest, ExclusiveCreateRefusesExistingFileAndLeavesItAlone) {
    fs::path path = Write("taken", Bytes("keep"));
    ExpectSystemError([&] { writable_file file(path, writable_file::mode::exclusive); }, EEXIST, path);
    EXPECT_EQ(ReadAll(path), Bytes("keep"));

    fs::path fresh = dir_ / "fresh";
    writable_file file(fresh, writable_file::mode::exclusive);
    file.write(Bytes("new"));
    file.close();
    EXPECT_EQ(ReadAll(fresh), Bytes("new"));
}

TEST_F(SupportFileTest, ClobberTruncatesAndAppendExtends) {
    fs::path path = Write("f", Bytes("long old contents"));
    {
        writable_file file(path, writable_file::mode::clobber);
        file.write(Bytes("ab"));
    }
    EXPECT_EQ(ReadAll(path), Bytes("ab"));
    {
        writable_file file(path, writable_file::mode::append);
        file.write(Bytes("cd"));
    }
    EXPECT_EQ(ReadAll(path), Bytes("abcd"));
}

TEST_F(SupportFileTest, WriteFailureCarriesErrnoAndPath) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    writable_file file("/dev/full", writable_file::mode::append);
    std::vector<uint8_t> data(4096, 1);
    ExpectSystemError([&] { file.write(data); }, ENOSPC, "/dev/full");
}

TEST_F(SupportFileTest, ClosedFilesRefuseIO) {
    fs::path path = Write("x", Bytes("x"));
    readable_file reader(path);
    reader.close();
    EXPECT_FALSE(reader.is_open());
    uint8_t byte;
    EXPECT_THROW(reader.read(&byte, 1), std::system_error);
    std::error_code ec;
    EXPECT_EQ(reader.read(&byte, 1, ec), 0u);
    EXPECT_EQ(ec.value(), EBADF);

    writable_file writer(path, writable_file::mode::append);
    writer.close();
    EXPECT_FALSE(writer.is_open());
    EXPECT_THROW(writer.write(Bytes("y")), std::system_error);
    writer.close();  // a second close is harmless
}

TEST_F(SupportFileTest, NoDescriptorLeaksThroughFailuresMovesAndDestruction) {
    fs::path path = Write("leak", Bytes("data"));
    std::size_t before = OpenDescriptorCount();
    for (int i = 0; i < 50; ++i) {
        readable_file a(path);
        readable_file b(path);
        a = std::move(b);  // a's own descriptor must be released here
        EXPECT_FALSE(b.is_open());
        EXPECT_EQ(a.read_whole_file(10).size(), 4u);
        writable_file w(dir_ / "out");
        writable_file x(dir_ / "out2");
        w = std::move(x);
        EXPECT_THROW(readable_file(dir_ / "missing"), std::system_error);
        EXPECT_THROW(readable_file{dir_}, std::system_error);  // opened, then refused
        EXPECT_THROW(writable_file(path, writable_file::mode::exclusive), std::system_error);
    }
    EXPECT_EQ(OpenDescriptorCount(), before);
}

}  // namespace
