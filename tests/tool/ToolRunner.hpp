// Runs the built quiver tool as a user would: a separate process with its own arguments, environment
// and standard input, whose output and exit status the tests read back.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace QuiverToolTest {

inline bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
inline std::string Bytes(const std::vector<uint8_t>& v) { return std::string(v.begin(), v.end()); }
// Each field of `expected` as `actual` holds it (null when absent), named when it differs.
inline void ExpectFields(const nlohmann::json& actual, const nlohmann::json& expected) {
    for (const auto& [key, value] : expected.items()) EXPECT_EQ(actual.value(key, nlohmann::json()), value) << key;
}

struct RunResult {
    int status = -1;  // exit status, or 128 + signal number when a signal ended the process
    bool signaled = false;
    std::string out;
    std::string err;
};

// Environment changes for the child: a value sets the variable, an absent key keeps the parent's.
// QUIVER_PASSWORD is always removed unless given here.
using Environment = std::map<std::string, std::string>;

// Runs the tool to completion with standard input from /dev/null.
RunResult RunTool(const std::vector<std::string>& args, const Environment& env);

// Runs the tool with standard input on a terminal of its own (a pseudo-terminal), as a person at a
// prompt runs it: once `prompt` has appeared on standard error, `typed` is typed.
RunResult RunToolOnTerminal(const std::vector<std::string>& args, const Environment& env, const std::string& prompt,
                            const std::string& typed);

// A running tool whose standard output is a pipe the test reads when it chooses.
class RunningTool {
public:
    RunningTool(const std::vector<std::string>& args, const Environment& env);
    ~RunningTool();
    RunningTool(const RunningTool&) = delete;
    RunningTool& operator=(const RunningTool&) = delete;

    // Blocks until the tool has written at least one byte (false when it ended first).
    bool WaitForOutput();
    void Signal(int signal);
    // Closes the reading end, as `| head` does once it has its lines.
    void CloseOutput();
    RunResult Wait();

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

// A scratch folder for each test, work_, with a private TMPDIR for the tool at work_/tmp that must be
// empty again when the test ends: the tool may leave no temporary files behind.
class ScratchToolTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    // Runs the tool with TMPDIR at work_/tmp, QUIVER_PASSWORD set to password unless it is empty, and env.
    RunResult Run(const std::vector<std::string>& args, const std::string& password = "", Environment env = {}) const;

    std::filesystem::path work_;
};

}  // namespace QuiverToolTest
