// Runs the built quiver tool as a user would: a separate process with its own arguments, environment
// and standard input, whose output and exit status the tests read back.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace QuiverToolTest {

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
    RunResult Wait();

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

}  // namespace QuiverToolTest
