// What the quiver tool's commands share: exit statuses, the failure that ends a command with one of
// them, the global options, the opening of a backup with its password, the terminal progress line,
// and the process's private temporary folder with its cleanup on exit and on signals.
//
// A command is a function that returns an exit status or throws Failure; main() turns anything else
// that escapes into status 1, so every path out of the program passes through the cleanup.
//
// The tool reaches the library through its C++ front alone, as any other program would: what it
// needed that the front lacked was added to the front, not reached for below it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <quiver/quiver.hpp>

namespace QuiverTool {

enum ExitStatus : int {
    kSuccess = 0,
    kFailure = 1,
    kUsage = 2,
    kPasswordProblem = 3,  // missing or incorrect
    kBadBackup = 4,        // not a backup, damaged, or of an unsupported version
};

// Ends the command: main() prints the message (when not empty) as one line and exits with the status.
class Failure : public std::runtime_error {
public:
    Failure(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

struct GlobalOptions {
    int verbosity = 0;
    std::string passwordFile;
};

using Action = std::function<int()>;

// Each command family adds its subcommands; the chosen one stores its work in `action`.
void AddInspectCommands(CLI::App& app, const GlobalOptions& options, Action& action);  // info, ls, csv
void AddListCommand(CLI::App& app, const GlobalOptions& options, Action& action);      // list
void AddReadCommands(CLI::App& app, const GlobalOptions& options, Action& action);     // cat, extract
void AddWriteCommands(CLI::App& app, const GlobalOptions& options, Action& action);    // export, edit, sample
void AddVerifyCommand(CLI::App& app, const GlobalOptions& options, Action& action);    // verify
void AddLookCommands(CLI::App& app, const GlobalOptions& options, Action& action);     // stat, find, domains
void AddConvertCommands(CLI::App& app, const GlobalOptions& options, Action& action);  // passwd, decrypt, encrypt

// ---- Conversions (ConvertCommands.cpp) ----

// --iterations and --sha1-iterations: the rounds of the two passes of a new key bag's derivation.
void AddIterationOptions(CLI::App* command, uint32_t& iterations, uint32_t& sha1Iterations);
// `export --manifest db`: the loaded backup written with a Manifest.db manifest (an encrypted one
// keeping its keys, under a two-pass key bag made with `parameters`), files that cannot be read named
// on standard error as `decrypt` names them. The exit status: 1, as `export` ends, for a copy written
// without some of them.
int WriteWithManifestDB(const quiver::Backup& backup, const std::string& source, const std::string& destination,
                        bool zip, bool skipDamaged, const quiver::PasswordParameters& parameters,
                        const GlobalOptions& global);

// ---- Backups (Backup.cpp) ----

// A loaded backup, handed on when the command is done with it (see Release in Backup.cpp).
class OpenBackup {
public:
    OpenBackup() = default;
    explicit OpenBackup(quiver::Backup backup) : backup_(std::move(backup)) {}
    OpenBackup(OpenBackup&&) noexcept = default;
    OpenBackup& operator=(OpenBackup&& other) noexcept;
    OpenBackup(const OpenBackup&) = delete;
    OpenBackup& operator=(const OpenBackup&) = delete;
    ~OpenBackup() { Release(); }

    explicit operator bool() const { return backup_.has_value(); }
    quiver::Backup& get() { return *backup_; }
    const quiver::Backup& get() const { return *backup_; }
    void Release();

private:
    std::optional<quiver::Backup> backup_;
};

// Whether --password-file or QUIVER_PASSWORD gives a password (a prompt is not asked here). Throws
// Failure(3) for a password file that cannot be read.
bool PasswordGiven(const GlobalOptions& options);
// The password that --password-file or QUIVER_PASSWORD gives, if any; the same failures.
std::optional<std::string> GivenPassword(const GlobalOptions& options);

// ---- Finding backups (List.cpp) ----

// A backup found on disk, with what its metadata files say.
struct FoundBackup {
    std::string path;
    quiver::Metadata metadata;
    uint64_t size = 0;  // bytes on disk: the folder's files, or the zip file
};

// The metadata of a backup directory or zip file, read without its password or manifest; nullopt
// when the library cannot read it (`error` then says why). The size on disk, which walks every stored
// file of a folder, is measured only when asked for.
std::optional<FoundBackup> ReadFoundBackup(const std::string& path, std::string& error, bool measureSize = false);
// The backups in a folder that is one, or in its subfolders, with their sizes; subfolders that look
// like backups but cannot be read are named in warnings.
std::vector<FoundBackup> FindBackups(const std::string& folder);
// A folder that holds backups rather than being one ends the command (status 4) with their list.
void RefuseFolderOfBackups(const std::string& path);

// What Info.plist, or else the Lockdown dictionary of Manifest.plist, says of the device.
struct DeviceFacts {
    std::string name, productType, productVersion, buildVersion;
};
DeviceFacts DeviceFactsOf(const quiver::Metadata& metadata);
// The backup's date in Unix seconds: the host's "Last Backup Date", else the date of the status or
// the manifest.
std::optional<int64_t> BackupDateOf(const quiver::Metadata& metadata);
// The string under key, or empty.
std::string StringValue(const quiver::Value& dict, const char* key);

// Loads a backup directory or zip file. The password comes from --password-file, QUIVER_PASSWORD or
// a prompt on the terminal, and only when the backup turns out to need one. Throws Failure with
// status 3 for a missing or wrong password, 4 for what is not a readable backup, 1 otherwise.
OpenBackup LoadBackup(const std::string& path, const GlobalOptions& options);
// Summarizes a backup (Backup::summarize) the same way, with the same password and failures.
quiver::Summary SummarizeBackup(const std::string& path, const GlobalOptions& options);

// The causes of an error without its outermost reason (what a failure to write names as its cause);
// the whole text when there is no cause.
std::string CauseText(const quiver::Error& error);

// The entry of (domain, path) or Failure(1) naming what is missing.
quiver::Entry RequireEntry(const quiver::Backup& backup, const std::string& domain, const std::string& path);

// Every entry, a domain's, or those at and below a path, sorted by domain and path. Throws Failure(1)
// when a domain or path was asked for and nothing is there.
std::vector<quiver::Entry> SelectEntries(const quiver::Backup& backup, const std::optional<std::string>& domain,
                                         const std::optional<std::string>& path);

// "file", "dir" or "symlink".
const char* EntryTypeName(const quiver::Entry& entry);
// Unix seconds of the entry's last modification.
inline int64_t EntryModifiedUnixTime(const quiver::Entry& entry) { return entry.times().modified; }

// Refuses (status 4) to write out a partial copy: one without Status.plist or Manifest.plist.
void RequireWholeBackup(const quiver::Backup& backup, const std::string& path);


// ---- Output (Output.cpp) ----

// Writes all of the bytes to a file descriptor, retrying after interruptions and short writes.
// Throws Failure(1); a reader that went away (EPIPE) ends the command quietly with status 0, as
// `quiver ls | head` has what it asked for.
void WriteAll(int fd, const void* bytes, size_t length);
void WriteAll(int fd, std::string_view text);

// "-rw-r--r--" from a whole POSIX mode.
std::string ModeString(uint16_t mode);
// "2021-01-01 00:00:00" in UTC, from Unix seconds.
std::string UtcTimeText(int64_t unixSeconds);
// The same with what it is in: "2021-01-01 00:00:00 UTC", or local time with its offset
// ("2021-01-01 09:00:00 +0900").
std::string LabelledTimeText(int64_t unixSeconds, bool local);
// "2021-01-01T00:00:00Z" for JSON.
std::string IsoTimeText(int64_t unixSeconds);
// "1.5 MB" for people; exact bytes are in --json.
std::string SizeText(uint64_t bytes);
// A name from a backup made safe to show on a terminal: control characters become "\xNN".
std::string Printable(std::string_view name);

// ---- Entry listings (Listing.cpp) ----

enum class ListingFormat { Names, Long, Json, JsonLines };

// What `ls` prints and `find` prints the same way: "DOMAIN<tab>PATH" (folders end in "/"), the same
// with mode, owner, size and date (-l), one JSON array of objects, or one JSON object per line.
// Written as it goes, so that memory does not grow with the listing and a reader sees lines at once.
class EntryListing {
public:
    EntryListing(ListingFormat format, bool local) : format_(format), local_(local) {}
    void Add(const quiver::Entry& entry);
    // The same for many entries at once: JSON objects are then made on two cores.
    void AddAll(std::span<const quiver::Entry> entries);
    // Writes what is held and, for a JSON array, its end.
    void Finish();

private:
    void Append(const quiver::Entry& entry);
    void Flush(size_t atLeast);
    ListingFormat format_;
    bool local_;
    size_t count_ = 0;
    std::string text_;
};

// The format that the listing options ask for (JSON has every field -l shows); Failure(2) for
// --json with --jsonl.
ListingFormat ListingFormatOf(bool json, bool jsonLines, bool longFormat);

// A JSON string of text that may not be UTF-8: invalid bytes become U+FFFD rather than failing.
std::string JsonString(std::string_view text);

// ---- Terminal and session (Session.cpp) ----

// A progress line on standard error, drawn only when standard error is a terminal. Without a known
// fraction it shows a spinner and the time spent, redrawn by a ticker thread while the library works.
class Progress {
public:
    explicit Progress(std::string label);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void SetLabel(std::string label);
    void Update(double fraction);
    // Clears the line; the destructor does it too.
    void Finish();

private:
    struct State;
    std::shared_ptr<State> state_;
};

// Asks for a password on the terminal without echo; nothing when standard input is not a terminal.
std::optional<std::string> PromptForPassword(const std::string& prompt);

// Creates the private temporary folder, hands it to the library, and arranges that it is removed at
// exit and when SIGINT, SIGTERM or SIGHUP ends the process. Call once, before any other thread starts.
void StartSession();
// Parks the calling thread for good once a signal has come, so that the cleanup of the signal thread
// does not race with new writes. Progress::Update calls it; so do loops that report no progress.
void StopIfInterrupted();
// Removes the temporary folder; called by main() after the command's objects are gone.
void EndSession();
std::filesystem::path SessionTemporaryFolder();

// A path that a signal should remove too: an export or edit destination still being written.
class RemoveOnSignal {
public:
    explicit RemoveOnSignal(std::filesystem::path path);
    ~RemoveOnSignal();
    RemoveOnSignal(const RemoveOnSignal&) = delete;
    RemoveOnSignal& operator=(const RemoveOnSignal&) = delete;

private:
    std::filesystem::path path_;
};

// Sets the library's log level from -v (info) and -vv (debug); without -v the library stays silent.
void ConfigureLogging(int verbosity);
// One line of detail on standard error, shown with -v only.
void Detail(int verbosity, const std::string& line);
// "quiver: warning: ..." on standard error.
void Warn(const std::string& line);

}  // namespace QuiverTool
