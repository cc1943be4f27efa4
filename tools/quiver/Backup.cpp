// Opening a backup the way a person expects: a directory or a zip file, a password asked for only
// when the backup needs one, and a failure explained in one line that says what is wrong and maps to
// the exit status a script can act on (3 for the password, 4 for what is not a usable backup).
//
// The library refuses a password for a plain backup. QUIVER_PASSWORD may well be set in a shell for
// other backups, so the tool then simply opens the backup without it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "Quiver/QVError.hpp"
#include "Quiver/QVVerify.hpp"
#include "Tool.hpp"

namespace fs = std::filesystem;
using namespace Quiver;

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

// What failed, as the library names it; "" when it names nothing.
std::string Check(const CF::Error& error) { return ErrorContextValue(error, kQVErrorCheckKey); }

bool IsWrongPassword(const CF::Error& error) {
    // The key bag fails to unlock under a wrong password. When the key bag opened but the manifest key
    // does not unwrap, the password was right and the backup is damaged.
    return error.Code() == QVErrorIncorrectPassword || Check(error) == "password";
}

// The file of the backup that a loading error is about, for the message; empty when unknown.
std::string DamagedPart(const CF::Error& error) {
    if (Check(error) == "manifest-key") return "the manifest key (ManifestKey in Manifest.plist)";
    if (error.Code() == QVErrorInvalidKeyBag) return "the key bag (BackupKeyBag in Manifest.plist)";
    std::string file = ErrorContextValue(error, kQVErrorBackupFileKey);
    if (file == "Manifest.db" && QVErrorCryptoOperation == error.Code()) file += " (enciphered)";
    if (file.empty() && (error.Code() == QVErrorCryptoOperation || error.Code() == QVErrorInvalidMetadata))
        return "Manifest.plist";
    return file;
}

Failure Damaged(const std::string& path, const CF::Error& error) {
    const std::string part = DamagedPart(error);
    return Failure(kBadBackup, fmt::format("{} is damaged: {}{}", path, part.empty() ? "" : part + ": ", ErrorText(error)));
}

Failure LoadFailure(const std::string& path, const CF::Error& error) {
    switch (error.Code()) {
        case QVErrorPasswordRequired:
            return Failure(kPasswordProblem,
                           fmt::format("{} is encrypted and no password was given: set QUIVER_PASSWORD, use "
                                       "--password-file FILE, or run quiver on a terminal to be asked for it",
                                       path));
        case QVErrorIncorrectPassword:
            return Failure(kPasswordProblem, fmt::format("the password for {} is incorrect", path));
        case QVErrorUnlockFailed:
            if (IsWrongPassword(error))
                return Failure(kPasswordProblem, fmt::format("the password for {} is incorrect", path));
            return Damaged(path, error);
        case QVErrorInvalidBackup:
            if (Check(error) == "missing")
                return Failure(kBadBackup, fmt::format("{} is not a backup: {} is missing", path,
                                                       ErrorContextValue(error, kQVErrorBackupFileKey)));
            if (Check(error) == "zip")
                return Failure(kBadBackup,
                               fmt::format("{} is not a backup: it is neither a backup directory nor a zip file that "
                                           "can be read (it may be cut short)",
                                           path));
            if (Check(error) == "not-a-property-list")
                return Failure(kBadBackup, fmt::format("{} is not a readable backup: {} could not be read ({})", path,
                                                       ErrorContextValue(error, kQVErrorBackupFileKey),
                                                       ErrorText(error.Underlying())));
            return Failure(kBadBackup, fmt::format("{} is not a readable backup: {}", path, ErrorText(error)));
        case QVErrorUnknownManifestVersion:
        case QVErrorEncryptionNotSupported:
            return Failure(kBadBackup, fmt::format("{} is of an unsupported kind: {}", path, ErrorText(error)));
        case QVErrorInvalidManifestDatabase:
        case QVErrorDatabaseOperation:
        case QVErrorLoadingExternalRepresentation:
        case QVErrorInvalidMBFile:
        case QVErrorArchiveFile:
        case QVErrorCryptoOperation:
        case QVErrorInvalidKeyBag:
        case QVErrorInvalidMetadata:
            return Damaged(path, error);
        default:
            return Failure(kFailure, fmt::format("cannot open {}: {}", path, ErrorText(error)));
    }
}

Backup TryLoad(const std::string& path, bool zip, const std::optional<std::string>& password, CF::Error& failure) {
    Progress progress(password ? "Deriving the key from the password" : "Opening the backup");
    bool loading = false;
    LoadProgress report = [&](int64_t, int64_t, double fraction) {
        if (!loading) {
            progress.SetLabel("Loading the manifest");
            loading = true;
        }
        progress.Update(fraction);
    };
    CF::String pathText(path);
    CF::String passwordText = password ? CF::String(*password) : CF::String();
    if (password && !passwordText) throw Failure(kPasswordProblem, "the password is not valid UTF-8 text");
    CFErrorRef error = nullptr;
    Backup backup = zip ? QVBackupContainerCreateFromZipFile(pathText.get(), passwordText.get(), report, &error)
                        : QVBackupContainerCreateFromDirectory(pathText.get(), passwordText.get(), report, &error);
    failure = CF::Error::Adopt(error);
    return backup;
}


}  // namespace

std::string Utf8(CFStringRef string) { return string ? CF::String::Retain(string).utf8() : std::string(); }

std::string ErrorText(const CF::Error& error) {
    std::vector<std::string> parts;
    CF::Error current = error;
    for (int depth = 0; current && depth < 16; ++depth, current = current.Underlying()) {
        std::string text = current.Reason();
        if (text.empty()) text = current.Description();
        if (!text.empty() && std::find(parts.begin(), parts.end(), text) == parts.end()) parts.push_back(text);
    }
    std::string joined;
    for (const std::string& part : parts) {
        if (!joined.empty()) joined += ": ";
        joined += part;
    }
    return joined.empty() ? "unknown error" : joined;
}

void RequireWholeBackup(const Backup& backup, const std::string& path) {
    for (const std::string& name : QVBackupContainerCopyUnreadableMetadata(backup))
        throw Failure(kBadBackup, fmt::format("{} is damaged: {} is not a property list; the backup can be read and "
                                              "extracted, not written as a backup",
                                              path, name));
    std::vector<std::string> lacking;
    for (const std::string& name : QVBackupContainerCopyMissingMetadata(backup))
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
    static auto* kept = new std::vector<Backup>;
    kept->push_back(std::move(backup_));
}

bool PasswordGiven(const GlobalOptions& options) { return PasswordFromOptions(options).has_value(); }

std::optional<std::string> GivenPassword(const GlobalOptions& options) {
    std::optional<Password> given = PasswordFromOptions(options);
    if (!given) return std::nullopt;
    return given->text;
}

OpenBackup LoadBackup(const std::string& path, const GlobalOptions& options) {
    std::error_code ec;
    fs::file_status status = fs::status(path, ec);
    if (!fs::exists(status)) throw Failure(kFailure, fmt::format("{}: no such file or directory", path));
    const bool zip = !fs::is_directory(status);
    if (!zip) RefuseFolderOfBackups(path);

    std::optional<Password> given = PasswordFromOptions(options);
    std::optional<std::string> password;
    if (given) password = given->text;
    CF::Error failure;
    Backup backup = TryLoad(path, zip, password, failure);
    if (!backup && failure.Code() == QVErrorNotEncrypted && password) {
        Detail(options.verbosity, fmt::format("{} is not encrypted; the password from {} is not needed", path,
                                              given->origin));
        backup = TryLoad(path, zip, std::nullopt, failure);
    }
    if (!backup && failure.Code() == QVErrorPasswordRequired) {
        for (int attempt = 0; attempt < 3 && !backup; ++attempt) {
            std::optional<std::string> typed = PromptForPassword(fmt::format("Password for {}: ", path));
            if (!typed) {
                // Standard input is a terminal that ended (Ctrl-D) before a password was typed.
                if (isatty(STDIN_FILENO)) throw Failure(kPasswordProblem, fmt::format("no password was typed for {}", path));
                break;
            }
            if (typed->empty()) throw Failure(kPasswordProblem, fmt::format("the password typed for {} is empty", path));
            backup = TryLoad(path, zip, typed, failure);
            if (!backup && !IsWrongPassword(failure)) break;
            if (!backup && attempt < 2) Warn("incorrect password, try again");
        }
    }
    if (!backup) {
        Detail(options.verbosity, fmt::format("the library reported: {}", failure.Text()));
        throw LoadFailure(path, failure);
    }
    // A partial copy reads; what the library had to make up is said once, on standard error.
    for (const std::string& warning : QVBackupContainerCopyLoadWarnings(backup)) Warn(fmt::format("{}: {}", path, warning));
    return OpenBackup(std::move(backup));
}

const char* EntryTypeName(const Entry& entry) {
    if (QVManifestEntryIsDirectory(entry)) return "dir";
    if (QVManifestEntryIsSymlink(entry)) return "symlink";
    return "file";
}

int64_t EntryModifiedUnixTime(const Entry& entry) {
    double modified = 0;
    QVManifestEntryGetTimes(entry, nullptr, &modified, nullptr);
    return static_cast<int64_t>(std::floor(modified + kCFAbsoluteTimeIntervalSince1970));
}

Entry RequireEntry(const Backup& backup, const std::string& domain, const std::string& path) {
    Entry entry = QVBackupContainerGetEntryForPath(backup, CF::String(domain).get(), CF::String(path).get());
    if (!entry) throw Failure(kFailure, fmt::format("nothing in the backup at {} {}", Printable(domain), Printable(path)));
    return entry;
}

std::vector<Entry> SelectEntries(const Backup& backup, const std::optional<std::string>& domain,
                                 const std::optional<std::string>& path) {
    Manifest manifest = QVBackupContainerGetManifest(backup);
    std::vector<Entry> entries;
    if (!domain) {
        entries = QVManifestGetEntries(manifest);
    } else {
        std::string wanted = path.value_or("");
        while (!wanted.empty() && wanted.back() == '/') wanted.pop_back();
        // Paths are relative to their domain; "/Media" is what a person means by "Media".
        wanted.erase(0, wanted.find_first_not_of('/') == std::string::npos ? wanted.size() : wanted.find_first_not_of('/'));
        entries = QVManifestCopyEntriesAtPath(manifest, CF::String(*domain).get(), CF::String(wanted).get());
        if (entries.empty()) {
            if (wanted.empty()) throw Failure(kFailure, fmt::format("the backup has no domain {}", Printable(*domain)));
            throw Failure(kFailure, fmt::format("nothing in the backup at {} {}", Printable(*domain), Printable(wanted)));
        }
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return std::pair(QVManifestEntryGetDomainUTF8(a), QVManifestEntryGetPathUTF8(a)) <
               std::pair(QVManifestEntryGetDomainUTF8(b), QVManifestEntryGetPathUTF8(b));
    });
    return entries;
}

std::string CheckStoredFile(const Backup& backup, const Entry& entry, std::vector<uint8_t>* deferredDigest) {
    // A reader that hashes as it reads takes the digest along; a copy has it checked here.
    const std::vector<QVProblem> problems =
        QVBackupContainerVerifyEntry(backup, entry, deferredDigest ? QVVerifyMode::Quick : QVVerifyMode::Digests,
                                     deferredDigest);
    std::string notes;
    for (const QVProblem& p : problems) {
        // An export checks every file, so names are only put together for a file that fails.
        const std::string shown = Printable(p.domain) + " " + Printable(p.path);
        switch (p.kind) {
            case QVProblemKind::StoredFileMissing:
                throw Failure(kBadBackup,
                              fmt::format("the backup is damaged: the stored file of {} ({}) is missing", shown, p.fileID));
            case QVProblemKind::Unreadable: throw Failure(kFailure, fmt::format("{} {}", shown, p.detail));
            case QVProblemKind::KeyDoesNotUnwrap:
                throw Failure(kBadBackup, fmt::format("the backup is damaged: {} {}", shown, p.detail));
            default:
                if (!p.warning)
                    throw Failure(kBadBackup, fmt::format("the backup is damaged: the stored file of {} ({}, {} bytes) {}",
                                                          shown, p.fileID, p.storedLength, p.detail));
                notes += (notes.empty() ? "" : "; ") + shown + " " + p.detail;
        }
    }
    return notes;
}

int CheckStoredFiles(const Backup& backup, bool skipDamaged, int verbosity) {
    // One pass over every stored file finds all the damage at once, so that a person learns of every
    // bad file before anything is written, not one run at a time.
    std::vector<QVProblem> damaged;
    Progress progress("Checking the stored files");
    CFErrorRef error = nullptr;
    const std::optional<int64_t> walked = QVBackupContainerVerify(
        backup, QVVerifyMode::Digests,
        [&](const QVProblem& p) {
            // Problems of the manifest as a whole (orphans, duplicate IDs, missing parents) do not
            // keep a file from being copied; only a stored file that cannot be trusted does.
            const bool ofAStoredFile = !p.path.empty() || !p.domain.empty();
            if (!ofAStoredFile || p.kind == QVProblemKind::DuplicateFileID || p.kind == QVProblemKind::WrongFileID ||
                p.kind == QVProblemKind::MissingParent || p.kind == QVProblemKind::OrphanStoredFile ||
                p.kind == QVProblemKind::MetadataUnreadable)
                return;
            if (p.warning) {
                Detail(verbosity, fmt::format("{} {}: {}", Printable(p.domain), Printable(p.path), p.detail));
                return;
            }
            damaged.push_back(p);
        },
        [&](int64_t, int64_t, double fraction) { progress.Update(fraction); }, &error);
    progress.Finish();
    CF::Error failure = CF::Error::Adopt(error);
    if (!walked) throw Failure(kFailure, fmt::format("could not check the stored files: {}", ErrorText(failure)));
    if (damaged.empty()) return 0;
    std::string list;
    for (const QVProblem& p : damaged)
        list += fmt::format("quiver: damaged: {} {} (stored as {}): {}\n", Printable(p.domain), Printable(p.path),
                            p.storedName.empty() ? p.fileID : p.storedName, p.detail);
    WriteAll(STDERR_FILENO, list);
    const size_t count = damaged.size();
    if (!skipDamaged)
        throw Failure(kBadBackup, fmt::format("the backup is damaged: {} {} listed above; nothing was written (give "
                                              "--skip-damaged to write the rest without {})",
                                              count, count == 1 ? "file is" : "files are", count == 1 ? "it" : "them"));
    for (const QVProblem& p : damaged)
        QVBackupContainerRemovePath(backup, CF::String(p.domain).get(), CF::String(p.path).get());
    return static_cast<int>(count);
}

}  // namespace QuiverTool
