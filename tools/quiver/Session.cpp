// The tool's life in its process: a private temporary folder for the library, removed however the
// process ends; the progress line; the password prompt; the library's log level.
//
// Decrypted manifests and file contents pass through the library's temporary storage, so the folder
// must not outlive the process. Normal exits and failures come back through main(), which calls
// EndSession(). Signals that end the process are blocked in every thread and taken by one thread that
// waits for them. It first asks the main thread to stop: the main thread looks at every progress
// report and then parks for good, so that nothing is written while the cleanup runs (work that
// reports no progress, such as a write to a full pipe, is given a second). Then it restores the
// terminal, removes the folder (and any half-written destination) and lets the signal end the process
// as it would have, so the shell still sees the signal.
#include <pthread.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "Tool.hpp"

namespace fs = std::filesystem;

namespace QuiverTool {

namespace {

struct SessionState {
    std::mutex lock;
    fs::path temporaryFolder;
    std::vector<fs::path> removeOnSignal;
    bool terminalChanged = false;
    termios savedTerminal{};
};

std::atomic<bool> interrupted{false};
std::atomic<bool> progressShown{false};  // a progress line is on the terminal
std::mutex parkLock;
std::condition_variable parkedSignal;
bool parked = false;

SessionState& Session() {
    static SessionState* state = new SessionState;  // never destroyed: the signal thread may outlive main()
    return *state;
}

// Removal may race with the library creating files in the folder; try a few times.
void RemoveTree(const fs::path& path) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::error_code ec;
        fs::remove_all(path, ec);
        if (!fs::exists(fs::symlink_status(path, ec))) return;
    }
}

// Sent by EndSession to the signal thread alone, so that it returns and is joined: a thread still
// waiting at exit shows up in leak checkers as a block possibly lost.
constexpr int kSessionOver = SIGUSR2;

// The signal thread; made once, never destroyed, joined by EndSession.
std::thread& SignalThreadHandle() {
    static std::thread* handle = new std::thread;
    return *handle;
}

void SignalThread(sigset_t signals) {
    int signal = 0;
    while (sigwait(&signals, &signal) != 0) {
    }
    if (signal == kSessionOver) return;
    interrupted = true;
    {
        std::unique_lock<std::mutex> guard(parkLock);
        parkedSignal.wait_for(guard, std::chrono::seconds(1), [] { return parked; });
    }
    {
        SessionState& session = Session();
        std::lock_guard<std::mutex> guard(session.lock);
        if (session.terminalChanged) tcsetattr(STDIN_FILENO, TCSANOW, &session.savedTerminal);
        if (progressShown) {
            static const char clear[] = "\r\033[K";
            ssize_t ignored = write(STDERR_FILENO, clear, sizeof clear - 1);
            (void)ignored;
        }
        for (const fs::path& p : session.removeOnSignal) RemoveTree(p);
        if (!session.temporaryFolder.empty()) RemoveTree(session.temporaryFolder);
    }
    // End the process by the signal itself, as if it had never been caught.
    std::signal(signal, SIG_DFL);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
    raise(signal);
    _exit(128 + signal);
}

}  // namespace

void StopIfInterrupted() {
    if (!interrupted) return;
    {
        std::lock_guard<std::mutex> guard(parkLock);
        parked = true;
    }
    parkedSignal.notify_all();
    for (;;) pause();  // the signal thread ends the process
}

void StartSession() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGQUIT);
    sigaddset(&signals, kSessionOver);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A closed pipe shows up as EPIPE from write(), handled where the output is written.
    std::signal(SIGPIPE, SIG_IGN);
    // Past a file-size limit, write() then fails with EFBIG and the export says so and cleans up,
    // instead of the process dying with its work half done.
    std::signal(SIGXFSZ, SIG_IGN);

    const char* base = std::getenv("TMPDIR");
    std::string pattern = (fs::path(base && *base ? base : "/tmp") / "quiver-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw Failure(kFailure, fmt::format("cannot create a temporary folder in {}: {}",
                                            fs::path(pattern).parent_path().string(), std::strerror(errno)));
    {
        std::lock_guard<std::mutex> guard(Session().lock);
        Session().temporaryFolder = pattern;
    }
    SignalThreadHandle() = std::thread(SignalThread, signals);
    if (!quiver::setTemporaryFolder(pattern))
        throw Failure(kFailure, fmt::format("cannot use the temporary folder {}", pattern));
}

void EndSession() {
    fs::path folder;
    {
        std::lock_guard<std::mutex> guard(Session().lock);
        folder = std::exchange(Session().temporaryFolder, fs::path());
    }
    if (std::thread& thread = SignalThreadHandle(); thread.joinable()) {
        pthread_kill(thread.native_handle(), kSessionOver);
        thread.join();
    }
    if (folder.empty()) return;
    RemoveTree(folder);
    std::error_code ec;
    if (fs::exists(fs::symlink_status(folder, ec))) Warn(fmt::format("could not remove {}", folder.string()));
}

fs::path SessionTemporaryFolder() {
    std::lock_guard<std::mutex> guard(Session().lock);
    return Session().temporaryFolder;
}

RemoveOnSignal::RemoveOnSignal(fs::path path) : path_(std::move(path)) {
    std::lock_guard<std::mutex> guard(Session().lock);
    Session().removeOnSignal.push_back(path_);
}

RemoveOnSignal::~RemoveOnSignal() {
    std::lock_guard<std::mutex> guard(Session().lock);
    auto& list = Session().removeOnSignal;
    std::erase(list, path_);
}

// ---- Password prompt ----

std::optional<std::string> PromptForPassword(const std::string& prompt) {
    if (!isatty(STDIN_FILENO)) return std::nullopt;
    termios original{};
    if (tcgetattr(STDIN_FILENO, &original) != 0) return std::nullopt;
    termios quiet = original;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    {
        std::lock_guard<std::mutex> guard(Session().lock);
        Session().savedTerminal = original;
        Session().terminalChanged = true;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    // Only now: what is typed once the prompt shows must survive the flush of earlier input.
    WriteAll(STDERR_FILENO, prompt);
    std::string password;
    bool ended = false;
    char c = 0;
    for (;;) {
        ssize_t n = read(STDIN_FILENO, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ended = password.empty();
            break;
        }
        if (c == '\n' || c == '\r') break;
        password.push_back(c);
    }
    {
        std::lock_guard<std::mutex> guard(Session().lock);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &original);
        Session().terminalChanged = false;
    }
    if (ended) return std::nullopt;
    return password;
}

// ---- Progress ----

struct Progress::State {
    std::mutex lock;
    std::condition_variable wake;
    std::string label;
    double fraction = -1;  // unknown
    int shownPercent = -1;
    bool stop = false;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    unsigned tick = 0;
    bool drawn = false;
    std::thread ticker;

    // Called with the lock held.
    void Draw() {
        if (interrupted) return;  // the signal thread clears the line
        std::string line;
        if (fraction >= 0) {
            line = fmt::format("\r\033[K{} {:3d}%", label, shownPercent);
        } else {
            static const char spinner[] = "|/-\\";
            auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
            line = fmt::format("\r\033[K{} {} {}s", label, spinner[tick++ % 4], seconds.count());
        }
        ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
        (void)ignored;
        drawn = true;
        progressShown = true;
    }
};

Progress::Progress(std::string label) {
    if (!isatty(STDERR_FILENO)) return;
    state_ = std::make_shared<State>();
    state_->label = std::move(label);
    std::shared_ptr<State> state = state_;
    state_->ticker = std::thread([state] {
        std::unique_lock<std::mutex> guard(state->lock);
        // Nothing is drawn for work that ends within a moment.
        if (state->wake.wait_for(guard, std::chrono::milliseconds(300), [&] { return state->stop; })) return;
        while (!state->stop) {
            state->Draw();
            state->wake.wait_for(guard, std::chrono::milliseconds(200), [&] { return state->stop; });
        }
    });
}

Progress::~Progress() { Finish(); }

void Progress::SetLabel(std::string label) {
    if (!state_) return;
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->label = std::move(label);
    state_->fraction = -1;
    state_->shownPercent = -1;
}

void Progress::Update(double fraction) {
    StopIfInterrupted();
    if (!state_) return;
    std::lock_guard<std::mutex> guard(state_->lock);
    if (!(fraction >= 0)) fraction = 0;  // NaN included
    if (fraction > 1) fraction = 1;
    state_->fraction = fraction;
    state_->shownPercent = static_cast<int>(fraction * 100);
}

void Progress::Finish() {
    if (!state_) return;
    {
        std::lock_guard<std::mutex> guard(state_->lock);
        state_->stop = true;
    }
    state_->wake.notify_all();
    if (state_->ticker.joinable()) state_->ticker.join();
    if (state_->drawn) {
        static const char clear[] = "\r\033[K";
        ssize_t ignored = write(STDERR_FILENO, clear, sizeof clear - 1);
        (void)ignored;
        progressShown = false;
    }
    state_.reset();
}

// ---- Messages and the library's log ----

void ConfigureLogging(int verbosity) { quiver::setLogLevel(verbosity); }

void Detail(int verbosity, const std::string& line) {
    if (verbosity > 0) WriteAll(STDERR_FILENO, fmt::format("quiver: {}\n", line));
}

void Warn(const std::string& line) {
    try {
        WriteAll(STDERR_FILENO, fmt::format("quiver: warning: {}\n", line));
    } catch (const Failure&) {
    }
}

}  // namespace QuiverTool
