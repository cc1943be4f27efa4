// Opening a backup the way a person expects: a directory or a zip file, a password asked for only
// when the backup needs one, and a failure explained in one line that says what is wrong and maps to
// the exit status a script can act on (3 for the password, 4 for what is not a usable backup).
//
// A password given for a plain backup is not needed: QUIVER_PASSWORD may well be set in a shell for
// other backups, and the library opens the backup without it; -v says so.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "Tool.hpp"

namespace fs = std::filesystem;
using quiver::ErrorCode;

namespace QuiverTool {

namespace {

struct Password {
    std::string text;
    std::string origin;  // where it came from, for messages
};

std::optional<Password> PasswordFromOptions(const GlobalOptions& options) {
    if (!options.passwordFile.empty()) {
        // A folder opens as a stream that reads nothing, which would pass for an empty file.
        std::error_code ec;
        if (fs::is_directory(options.passwordFile, ec))
            throw Failure(kPasswordProblem,
                          fmt::format("the password file {} is a folder, not a file", options.passwordFile));
        std::ifstream in(options.passwordFile, std::ios::binary);
        if (!in)
            throw Failure(kFailure,
                          fmt::format("cannot read the password file {}: {}", options.passwordFile, std::strerror(errno)));
        std::ostringstream content;
        content << in.rdbuf();
        std::string text = content.str();
        // A file written by `echo` ends with a line break that is not part of the password.
        if (!text.empty() && text.back() == '\n') text.pop_back();
        if (!text.empty() && text.back() == '\r') text.pop_back();
        if (text.empty()) throw Failure(kPasswordProblem, fmt::format("the password file {} is empty", options.passwordFile));
        return Password{text, "the password file"};
    }
    if (const char* env = std::getenv("QUIVER_PASSWORD"); env && *env) return Password{env, "QUIVER_PASSWORD"};
    return std::nullopt;
}

bool IsWrongPassword(const quiver::Error& error) {
    // The key bag fails to unlock under a wrong password. When the key bag opened but the manifest key
    // does not unwrap, the password was right and the backup is damaged.
    return error.code() == ErrorCode::IncorrectPassword || error.check() == "password";
}

// The file of the backup that a loading error is about, for the message; empty when unknown.
std::string DamagedPart(const quiver::Error& error) {
    if (error.check() == "manifest-key") return "the manifest key (ManifestKey in Manifest.plist)";
    if (error.code() == ErrorCode::InvalidKeyBag) return "the key bag (BackupKeyBag in Manifest.plist)";
    std::string file = error.backupFile();
    if (file == "Manifest.db" && error.code() == ErrorCode::CryptoOperation) file += " (enciphered)";
    if (file.empty() && (error.code() == ErrorCode::CryptoOperation || error.code() == ErrorCode::InvalidMetadata))
        return "Manifest.plist";
    return file;
}

Failure Damaged(const std::string& path, const quiver::Error& error) {
    const std::string part = DamagedPart(error);
    return Failure(kBadBackup, fmt::format("{} is damaged: {}{}", path, part.empty() ? "" : part + ": ", error.what()));
}

Failure LoadFailure(const std::string& path, const quiver::Error& error) {
    switch (error.code()) {
        case ErrorCode::PasswordRequired:
            return Failure(kPasswordProblem,
                           fmt::format("{} is encrypted and no password was given: set QUIVER_PASSWORD, use "
                                       "--password-file FILE, or run quiver on a terminal to be asked for it",
                                       path));
        case ErrorCode::IncorrectPassword:
            return Failure(kPasswordProblem, fmt::format("the password for {} is incorrect", path));
        case ErrorCode::UnlockFailed:
            if (IsWrongPassword(error))
                return Failure(kPasswordProblem, fmt::format("the password for {} is incorrect", path));
            return Damaged(path, error);
        case ErrorCode::InvalidBackup:
            if (error.check() == "missing")
                return Failure(kBadBackup, fmt::format("{} is not a backup: {} is missing", path, error.backupFile()));
            if (error.check() == "zip")
                return Failure(kBadBackup,
                               fmt::format("{} is not a backup: it is neither a backup directory nor a zip file that "
                                           "can be read (it may be cut short)",
                                           path));
            if (error.check() == "not-a-property-list")
                return Failure(kBadBackup, fmt::format("{} is not a readable backup: {} could not be read ({})", path,
                                                       error.backupFile(), CauseText(error)));
            return Failure(kBadBackup, fmt::format("{} is not a readable backup: {}", path, error.what()));
        case ErrorCode::UnknownManifestVersion:
        case ErrorCode::EncryptionNotSupported:
            return Failure(kBadBackup, fmt::format("{} is of an unsupported kind: {}", path, error.what()));
        default:
            // What the library counts as a bad backup beyond the cases above is damage.
            if (error.isBadBackup()) return Damaged(path, error);
            return Failure(kFailure, fmt::format("cannot open {}: {}", path, error.what()));
    }
}

// What an opening gives: a backup, or its summary.
bool IsEncrypted(const quiver::Backup& backup) { return backup.encrypted(); }
bool IsEncrypted(const quiver::Summary& summary) { return summary.encrypted; }
std::vector<std::string> WarningsOf(const quiver::Backup& backup) { return backup.loadWarnings(); }
std::vector<std::string> WarningsOf(const quiver::Summary& summary) { return summary.loadWarnings; }

// One attempt to open the backup; nothing, and the error in `failure`, when it fails.
template <class Opened, class Open>
std::optional<Opened> TryLoad(const std::string& path, const std::optional<std::string>& password,
                              std::optional<quiver::Error>& failure, const Open& open) {
    Progress progress(password ? "Deriving the key from the password" : "Opening the backup");
    bool loading = false;
    auto report = [&](double fraction) {
        if (!loading) {
            progress.SetLabel("Loading the manifest");
            loading = true;
        }
        progress.Update(fraction);
    };
    try {
        return open(path, password, report);
    } catch (const quiver::Error& e) {
        if (e.code() == ErrorCode::InvalidArgument && e.check() == "password")
            throw Failure(kPasswordProblem, "the password is not valid UTF-8 text");
        failure = e;
        return std::nullopt;
    }
}

}  // namespace

std::string CauseText(const quiver::Error& error) {
    const std::vector<std::string>& reasons = error.reasons();
    if (reasons.size() < 2) return error.what();
    std::string text;
    for (size_t i = 1; i < reasons.size(); ++i) text += (i > 1 ? ": " : "") + reasons[i];
    return text;
}

void RequireWholeBackup(const quiver::Backup& backup, const std::string& path) {
    for (const std::string& name : backup.unreadableMetadata())
        throw Failure(kBadBackup, fmt::format("{} is damaged: {} is not a property list; the backup can be read and "
                                              "extracted, not written as a backup",
                                              path, name));
    std::vector<std::string> lacking;
    for (const std::string& name : backup.missingMetadata())
        if (name != "Info.plist") lacking.push_back(name);
    if (lacking.empty()) return;
    std::string list;
    for (const std::string& name : lacking) list += (list.empty() ? "" : " and ") + name;
    throw Failure(kBadBackup, fmt::format("{} is a partial copy of a backup without {}: it can be read and extracted, "
                                          "not written as a backup",
                                          path, list));
}

OpenBackup& OpenBackup::operator=(OpenBackup&& other) noexcept {
    if (this != &other) {
        Release();
        backup_ = std::move(other.backup_);
    }
    return *this;
}

// A loaded backup lives until the process ends: freeing a manifest of a million entries one object
// at a time costs a good part of a second that the exit would spend for nothing (main ends with
// _exit). The library itself frees everything it owns; the tool just never asks it to.
void OpenBackup::Release() {
    if (!backup_) return;
    static auto* kept = new std::vector<quiver::Backup>;
    kept->push_back(std::move(*backup_));
    backup_.reset();
}

bool PasswordGiven(const GlobalOptions& options) { return PasswordFromOptions(options).has_value(); }

std::optional<std::string> GivenPassword(const GlobalOptions& options) {
    std::optional<Password> given = PasswordFromOptions(options);
    if (!given) return std::nullopt;
    return given->text;
}

namespace {

// Opens the backup with `open` (Backup::open or Backup::summarize), asking for the password when it
// turns out to need one; see LoadBackup.
template <class Opened, class Open>
Opened LoadWith(const std::string& path, const GlobalOptions& options, const Open& open) {
    std::error_code ec;
    fs::file_status status = fs::status(path, ec);
    if (!fs::exists(status)) throw Failure(kFailure, fmt::format("{}: no such file or directory", path));
    if (fs::is_directory(status)) RefuseFolderOfBackups(path);

    std::optional<Password> given = PasswordFromOptions(options);
    std::optional<std::string> password;
    if (given) password = given->text;
    std::optional<quiver::Error> failure;
    // The library opens a plain backup without the password it was given.
    std::optional<Opened> backup = TryLoad<Opened>(path, password, failure, open);
    if (backup && password && !IsEncrypted(*backup))
        Detail(options.verbosity, fmt::format("{} is not encrypted; the password from {} is not needed", path,
                                              given->origin));
    if (!backup && failure->code() == ErrorCode::PasswordRequired) {
        for (int attempt = 0; attempt < 3 && !backup; ++attempt) {
            std::optional<std::string> typed = PromptForPassword(fmt::format("Password for {}: ", path));
            if (!typed) {
                // Standard input is a terminal that ended (Ctrl-D) before a password was typed.
                if (isatty(STDIN_FILENO)) throw Failure(kPasswordProblem, fmt::format("no password was typed for {}", path));
                break;
            }
            if (typed->empty()) throw Failure(kPasswordProblem, fmt::format("the password typed for {} is empty", path));
            backup = TryLoad<Opened>(path, typed, failure, open);
            if (!backup && !IsWrongPassword(*failure)) break;
            if (!backup && attempt < 2) Warn("incorrect password, try again");
        }
    }
    if (!backup) {
        Detail(options.verbosity, fmt::format("the library reported: {}", failure->trace()));
        throw LoadFailure(path, *failure);
    }
    // A partial copy reads; what the library had to make up is said once, on standard error.
    for (const std::string& warning : WarningsOf(*backup)) Warn(fmt::format("{}: {}", path, warning));
    return std::move(*backup);
}

}  // namespace

OpenBackup LoadBackup(const std::string& path, const GlobalOptions& options) {
    return OpenBackup(LoadWith<quiver::Backup>(
        path, options, [](const std::string& p, const std::optional<std::string>& password, const quiver::Progress& progress) {
            return quiver::Backup::open(p, password, progress);
        }));
}

quiver::Summary SummarizeBackup(const std::string& path, const GlobalOptions& options) {
    return LoadWith<quiver::Summary>(
        path, options, [](const std::string& p, const std::optional<std::string>& password, const quiver::Progress& progress) {
            return quiver::Backup::summarize(p, password, progress);
        });
}

const char* EntryTypeName(const quiver::Entry& entry) {
    if (entry.isDirectory()) return "dir";
    if (entry.isSymlink()) return "symlink";
    return "file";
}

quiver::Entry RequireEntry(const quiver::Backup& backup, const std::string& domain, const std::string& path) {
    std::optional<quiver::Entry> entry = backup.find(domain, path);
    if (!entry) throw Failure(kFailure, fmt::format("nothing in the backup at {} {}", Printable(domain), Printable(path)));
    return *entry;
}

std::vector<quiver::Entry> SelectEntries(const quiver::Backup& backup, const std::optional<std::string>& domain,
                                         const std::optional<std::string>& path) {
    std::vector<quiver::Entry> entries;
    if (!domain) {
        entries = backup.entries().toVector();
    } else {
        std::string wanted = path.value_or("");
        while (!wanted.empty() && wanted.back() == '/') wanted.pop_back();
        // Paths are relative to their domain; "/Media" is what a person means by "Media".
        wanted.erase(0, wanted.find_first_not_of('/') == std::string::npos ? wanted.size() : wanted.find_first_not_of('/'));
        entries = backup.entriesUnder(*domain, wanted).toVector();
        if (entries.empty()) {
            if (wanted.empty()) throw Failure(kFailure, fmt::format("the backup has no domain {}", Printable(*domain)));
            throw Failure(kFailure, fmt::format("nothing in the backup at {} {}", Printable(*domain), Printable(wanted)));
        }
    }
    auto before = [](const quiver::Entry& a, const quiver::Entry& b) {
        return std::pair(a.domain(), a.path()) < std::pair(b.domain(), b.path());
    };
    // The manifest keeps this order as a rule; the sort is for the exceptions.
    if (!std::is_sorted(entries.begin(), entries.end(), before)) std::stable_sort(entries.begin(), entries.end(), before);
    return entries;
}

}  // namespace QuiverTool
