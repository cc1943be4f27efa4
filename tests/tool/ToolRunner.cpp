#include "tool/ToolRunner.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
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

// Forks and execs the tool; stdout and stderr go to the given pipe ends, stdin comes from
// /dev/null or, with a terminal's descriptor, from that terminal, made the child's own.
pid_t Spawn(const std::vector<std::string>& args, const Environment& env, int outFd, int errFd, int terminalFd = -1) {
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
        if (terminalFd >= 0) {
            setsid();
            ioctl(terminalFd, TIOCSCTTY, 0);
            dup2(terminalFd, STDIN_FILENO);
        } else {
            int in = open("/dev/null", O_RDONLY);
            dup2(in, STDIN_FILENO);
        }
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

// Reads the child's standard output and error until both close, then reaps it. With a terminal, its
// echo is read and dropped so that the tool never waits on a full terminal, and `typed` is typed once
// `prompt` is out: the tool flushes what was typed before it turned echo off.
RunResult Collect(pid_t pid, Pipe& out, Pipe& err, int master = -1, const std::string& prompt = "",
                  const std::string& typed = "") {
    close(out.fds[1]);
    close(err.fds[1]);
    std::string collected[2];
    pollfd fds[3] = {{out.fds[0], POLLIN, 0}, {err.fds[0], POLLIN, 0}, {master, POLLIN, 0}};
    int open = 2;
    bool answered = master < 0;
    char buffer[65536];
    while (open > 0) {
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 3; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                if (i < 2) collected[i].append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                if (i < 2) {
                    close(fds[i].fd);
                    --open;
                }
                fds[i].fd = -1;
            }
        }
        if (!answered && collected[1].find(prompt) != std::string::npos) {
            answered = true;
            if (write(master, typed.data(), typed.size()) != static_cast<ssize_t>(typed.size()))
                throw std::runtime_error("could not type on the terminal");
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

RunResult RunToolOnTerminal(const std::vector<std::string>& args, const Environment& env, const std::string& prompt,
                            const std::string& typed) {
    int master = -1, terminal = -1;
    if (openpty(&master, &terminal, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("openpty failed");
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(terminal, F_SETFD, FD_CLOEXEC);
    Pipe out, err;
    pid_t pid = Spawn(args, env, out.fds[1], err.fds[1], terminal);
    close(terminal);
    RunResult result = Collect(pid, out, err, master, prompt, typed);
    close(master);
    return result;
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
