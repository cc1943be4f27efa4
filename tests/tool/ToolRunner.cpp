#include "tool/ToolRunner.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

#include "support/TemporaryPath.hpp"

namespace QuiverToolTest {

namespace {

constexpr unsigned kTimeLimitSeconds = 300;

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() {
        if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    }
};

std::vector<std::string> ChildEnvironment(const Environment& env) {
    std::vector<std::string> result;
    for (char** e = environ; *e; ++e) {
        std::string entry(*e);
        std::string name = entry.substr(0, entry.find('='));
        if (name == "QUIVER_PASSWORD" || env.count(name)) continue;
        result.push_back(entry);
    }
    for (const auto& [name, value] : env) result.push_back(name + "=" + value);
    return result;
}

// Forks and execs the tool; stdout and stderr go to the given pipe ends, stdin comes from /dev/null.
pid_t Spawn(const std::vector<std::string>& args, const Environment& env, int outFd, int errFd) {
    std::vector<std::string> environment = ChildEnvironment(env);
    std::vector<char*> argv{const_cast<char*>(QUIVER_TOOL)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(outFd, STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        alarm(kTimeLimitSeconds);  // survives the exec: a hung tool ends on SIGALRM and the test sees it
        execve(QUIVER_TOOL, argv.data(), envp.data());
        _exit(127);
    }
    return pid;
}

RunResult Reap(pid_t pid) {
    RunResult result;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) {
        result.signaled = true;
        result.status = 128 + WTERMSIG(status);
    } else {
        result.status = WEXITSTATUS(status);
    }
    return result;
}

// Reads the child's standard output and error until both close, then reaps it.
RunResult Collect(pid_t pid, Pipe& out, Pipe& err) {
    close(out.fds[1]);
    close(err.fds[1]);
    std::string collected[2];
    pollfd fds[2] = {{out.fds[0], POLLIN, 0}, {err.fds[0], POLLIN, 0}};
    int open = 2;
    char buffer[65536];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                collected[i].append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                --open;
                fds[i].fd = -1;
            }
        }
    }
    RunResult result = Reap(pid);
    result.out = std::move(collected[0]);
    result.err = std::move(collected[1]);
    return result;
}

}  // namespace

RunResult RunTool(const std::vector<std::string>& args, const Environment& env) {
    Pipe out, err;
    return Collect(Spawn(args, env, out.fds[1], err.fds[1]), out, err);
}

RunningTool::RunningTool(const std::vector<std::string>& args, const Environment& env) {
    Pipe out;
    int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    pid_ = Spawn(args, env, out.fds[1], devnull);
    close(devnull);
    close(out.fds[1]);
    out_ = out.fds[0];
}

RunningTool::~RunningTool() {
    if (out_ >= 0) close(out_);
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        Reap(pid_);
    }
}

bool RunningTool::WaitForOutput() {
    char byte = 0;
    for (;;) {
        ssize_t n = read(out_, &byte, 1);
        if (n < 0 && errno == EINTR) continue;
        return n == 1;
    }
}

void RunningTool::Signal(int signal) { kill(pid_, signal); }

void RunningTool::CloseOutput() {
    if (out_ >= 0) close(out_);
    out_ = -1;
}

RunResult RunningTool::Wait() {
    RunResult result = Reap(pid_);
    pid_ = -1;
    return result;
}

void ScratchToolTest::SetUpTestSuite() { QuiverTest::UseTestTemporaryPath(); }

void ScratchToolTest::SetUp() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quiver-tool-XXXXXX").string();
    ASSERT_TRUE(mkdtemp(pattern.data()));
    work_ = pattern;
    std::filesystem::create_directories(work_ / "tmp");
}

void ScratchToolTest::TearDown() {
    EXPECT_TRUE(std::filesystem::is_empty(work_ / "tmp")) << "the tool left temporary files behind";
    std::error_code ec;
    std::filesystem::remove_all(work_, ec);
}

RunResult ScratchToolTest::Run(const std::vector<std::string>& args, const std::string& password, Environment env) const {
    env["TMPDIR"] = (work_ / "tmp").string();
    if (!password.empty()) env["QUIVER_PASSWORD"] = password;
    return RunTool(args, env);
}

}  // namespace QuiverToolTest
