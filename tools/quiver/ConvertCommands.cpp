// Commands that convert a backup: `passwd` (a new password in place, Manifest.plist alone rewritten),
// `decrypt` (a plain copy of an encrypted backup) and `encrypt` (an encrypted copy of a plain one), and
// the writing that `export --manifest db` asks for (a Manifest.mbdb backup with a Manifest.db manifest).
//
// A new password, like the backup's own, never comes from the command line, where other users of
// the machine can read it: it comes from --new-password-file, QUIVER_NEW_PASSWORD, or a prompt that
// asks twice so that a typing slip does not lock the owner out of the backup.
#include <unistd.h>

#include <algorithm>
#include <cctype>
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

struct PasswordOptions {
    std::string newPasswordFile;
    uint32_t iterations = quiver::PasswordParameters{}.iterations;
    uint32_t sha1Iterations = quiver::PasswordParameters{}.sha1Iterations;

    quiver::PasswordParameters parameters() const { return {iterations, sha1Iterations}; }
};

void AddPasswordOptions(CLI::App* command, PasswordOptions& o) {
    command->add_option("--new-password-file", o.newPasswordFile, "Read the new password from FILE")->type_name("FILE");
    AddIterationOptions(command, o.iterations, o.sha1Iterations);
}

std::string ReadPasswordFile(const std::string& path) {
    std::error_code ec;
    if (fs::is_directory(path, ec))
        throw Failure(kPasswordProblem, fmt::format("the password file {} is a folder, not a file", path));
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure(kFailure, fmt::format("cannot read the password file {}: {}", path, std::strerror(errno)));
    std::ostringstream content;
    content << in.rdbuf();
    std::string text = content.str();
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (text.empty()) throw Failure(kPasswordProblem, fmt::format("the password file {} is empty", path));
    return text;
}

std::string NewPassword(const PasswordOptions& o) {
    if (!o.newPasswordFile.empty()) return ReadPasswordFile(o.newPasswordFile);
    if (const char* env = std::getenv("QUIVER_NEW_PASSWORD"); env && *env) return env;
    std::optional<std::string> first = PromptForPassword("New password: ");
    if (!first)
        throw Failure(kPasswordProblem, "no new password was given: set QUIVER_NEW_PASSWORD, use "
                                        "--new-password-file FILE, or run quiver on a terminal to be asked for it");
    if (first->empty()) throw Failure(kPasswordProblem, "the new password typed is empty");
    std::optional<std::string> second = PromptForPassword("The new password again: ");
    if (!second || *second != *first) throw Failure(kPasswordProblem, "the two new passwords typed differ; nothing was changed");
    return *first;
}

// The backup's present password, for a command that does not load the backup.
std::string CurrentPassword(const std::string& path, const GlobalOptions& global) {
    if (std::optional<std::string> given = GivenPassword(global)) return *given;
    std::optional<std::string> typed = PromptForPassword(fmt::format("Password for {}: ", path));
    if (!typed)
        throw Failure(kPasswordProblem, fmt::format("no password was given for {}: set QUIVER_PASSWORD, use "
                                                    "--password-file FILE, or run quiver on a terminal",
                                                    path));
    if (typed->empty()) throw Failure(kPasswordProblem, fmt::format("the password typed for {} is empty", path));
    return *typed;
}

bool WantsZip(const std::string& destination, bool zipOption) {
    if (zipOption) return true;
    std::string extension = fs::path(destination).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == ".zip";
}

void RequireNewDestination(const std::string& destination) {
    std::error_code ec;
    if (fs::exists(fs::symlink_status(destination, ec)))
        throw Failure(kFailure, fmt::format("{} already exists; give a new name", destination));
}

// ---- passwd ----

struct PasswdOptions {
    std::string backup;
    PasswordOptions password;
};

int RunPasswd(const PasswdOptions& o, const GlobalOptions& global) {
    std::error_code ec;
    if (!fs::exists(o.backup, ec)) throw Failure(kFailure, fmt::format("{}: no such file or directory", o.backup));
    if (!fs::is_directory(o.backup, ec))
        throw Failure(kFailure, fmt::format("{} is a zip file; a password is changed in a backup directory "
                                            "(export it to one, or decrypt and encrypt it)",
                                            o.backup));
    RefuseFolderOfBackups(o.backup);
    // Said before any password is asked for, which a plain backup does not have.
    std::optional<quiver::Metadata> metadata;
    try {
        metadata = quiver::Backup::readMetadata(o.backup);
    } catch (const quiver::Error&) {
        // Whatever keeps the metadata from being read, changing the password says best.
    }
    if (metadata && !metadata->encrypted())
        throw Failure(kFailure, fmt::format("{} is not encrypted; `quiver encrypt` writes an encrypted copy", o.backup));
    const std::string current = CurrentPassword(o.backup, global);
    const std::string fresh = NewPassword(o.password);
    Progress progress("Deriving the keys");
    try {
        quiver::Backup::changePassword(o.backup, current, fresh, o.password.parameters());
    } catch (const quiver::Error& failure) {
        progress.Finish();
        Detail(global.verbosity, fmt::format("the library reported: {}", failure.trace()));
        const ErrorCode code = failure.code();
        if (code == ErrorCode::IncorrectPassword || failure.check() == "password")
            throw Failure(kPasswordProblem, fmt::format("the password for {} is incorrect; nothing was changed", o.backup));
        if (code == ErrorCode::NotEncrypted)
            throw Failure(kFailure, fmt::format("{} is not encrypted; `quiver encrypt` writes an encrypted copy", o.backup));
        if (code == ErrorCode::InvalidBackup || code == ErrorCode::InvalidKeyBag || code == ErrorCode::InvalidMetadata ||
            code == ErrorCode::UnlockFailed || code == ErrorCode::EncryptionNotSupported)
            throw Failure(kBadBackup, fmt::format("{}: {}; nothing was changed", o.backup, failure.what()));
        throw Failure(kFailure, fmt::format("could not change the password of {}: {}", o.backup, failure.what()));
    }
    progress.Finish();
    Detail(global.verbosity, fmt::format("{}: Manifest.plist holds the key bag of the new password", o.backup));
    return kSuccess;
}

// ---- decrypt and encrypt ----

struct ConvertOptions {
    std::string backup;
    std::string destination;
    bool zip = false;
    bool skipDamaged = false;
    PasswordOptions password;  // encrypt only
};

// Runs one conversion of a loaded backup and turns its outcome into the tool's messages and statuses;
// `leftOutStatus` is the status of a backup written without the files that cannot be read.
int WriteConverted(const std::string& backup, const std::string& destination, bool zip, bool skipDamaged,
                   int leftOutStatus, const std::string& label,
                   const std::function<void(const quiver::ConvertOptions&)>& convert, const GlobalOptions& global) {
    size_t unreadable = 0;
    RemoveOnSignal removeIfInterrupted(quiver::Backup::partialPath(destination));
    Progress progress(label);
    quiver::ConvertOptions options;
    options.zip = zip;
    options.skipDamaged = skipDamaged;
    options.progress = [&](double fraction) { progress.Update(fraction); };
    options.problem = [&](const quiver::Problem& p) {
        ++unreadable;
        Warn(fmt::format("{} {} ({}) cannot be read{}: {}", Printable(p.domain), Printable(p.path), p.fileID,
                         skipDamaged ? " and is left out" : "", p.detail));
    };
    try {
        convert(options);
    } catch (const quiver::Error& failure) {
        progress.Finish();
        Detail(global.verbosity, fmt::format("the library reported: {}", failure.trace()));
        if (unreadable > 0 && !skipDamaged)
            throw Failure(kBadBackup, fmt::format("{} of {} cannot be read; nothing was written (--skip-damaged "
                                                  "leaves {} out)",
                                                  unreadable == 1 ? "a file" : fmt::format("{} files", unreadable),
                                                  backup, unreadable == 1 ? "it" : "them"));
        throw Failure(kFailure, fmt::format("could not write {}: {}", destination, CauseText(failure)));
    }
    progress.Finish();
    if (unreadable > 0) {
        Warn(fmt::format("{} written without the {} {} that cannot be read", destination, unreadable,
                         unreadable == 1 ? "file" : "files"));
        return leftOutStatus;
    }
    return kSuccess;
}

// `decrypt` or `encrypt`: the backup loaded, checked to be of the kind the command converts, and written.
int Convert(const ConvertOptions& o, const GlobalOptions& global, bool encrypt) {
    const bool zip = WantsZip(o.destination, o.zip);
    RequireNewDestination(o.destination);
    OpenBackup open = LoadBackup(o.backup, global);
    RequireWholeBackup(open.get(), o.backup);
    if (encrypt && open.get().encrypted())
        throw Failure(kFailure, fmt::format("{} is encrypted already; `quiver passwd` gives it a new password", o.backup));
    if (!encrypt && !open.get().encrypted())
        throw Failure(kFailure, fmt::format("{} is not encrypted; `quiver export` copies it", o.backup));
    const std::string fresh = encrypt ? NewPassword(o.password) : std::string();
    return WriteConverted(
        o.backup, o.destination, zip, o.skipDamaged, kBadBackup, encrypt ? "Encrypting" : "Decrypting",
        [&](const quiver::ConvertOptions& options) {
            if (encrypt)
                open.get().writeEncrypted(o.destination, fresh, o.password.parameters(), options);
            else
                open.get().writeDecrypted(o.destination, options);
        },
        global);
}

}  // namespace

void AddIterationOptions(CLI::App* command, uint32_t& iterations, uint32_t& sha1Iterations) {
    command->add_option("--iterations", iterations, "Rounds of the first (SHA-256) derivation pass; iOS uses 10000000")
        ->type_name("N")
        ->check(CLI::Range(1u, 100'000'000u));
    command->add_option("--sha1-iterations", sha1Iterations, "Rounds of the second (SHA-1) derivation pass; iOS uses 10000")
        ->type_name("N")
        ->check(CLI::Range(1u, 100'000'000u));
}

int WriteWithManifestDB(const quiver::Backup& backup, const std::string& source, const std::string& destination, bool zip,
                        bool skipDamaged, const quiver::PasswordParameters& parameters, const GlobalOptions& global) {
    // Status 1 for a copy without some files, as `export` ends.
    return WriteConverted(
        source, destination, zip, skipDamaged, kFailure, "Writing with Manifest.db",
        [&](const quiver::ConvertOptions& options) { backup.writeWithManifestDB(destination, parameters, options); },
        global);
}

void AddConvertCommands(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto passwd = std::make_shared<PasswdOptions>();
    CLI::App* passwdCommand =
        app.add_subcommand("passwd", "Give an encrypted backup directory a new password in place");
    passwdCommand->add_option("BACKUP", passwd->backup, "Encrypted backup directory")->required();
    AddPasswordOptions(passwdCommand, passwd->password);
    passwdCommand->callback([passwd, &global, &action] { action = [passwd, &global] { return RunPasswd(*passwd, global); }; });

    auto decrypt = std::make_shared<ConvertOptions>();
    CLI::App* decryptCommand = app.add_subcommand("decrypt", "Write an encrypted backup as a plain one");
    decryptCommand->add_option("BACKUP", decrypt->backup, "Encrypted backup directory or zip file")->required();
    decryptCommand->add_option("DEST", decrypt->destination, "New directory or zip file (must not exist)")->required();
    decryptCommand->add_flag("--zip", decrypt->zip, "Write a zip file (also when DEST ends in .zip)");
    decryptCommand->add_flag("--skip-damaged", decrypt->skipDamaged,
                             "Leave out the files that cannot be read instead of writing nothing");
    decryptCommand->callback(
        [decrypt, &global, &action] { action = [decrypt, &global] { return Convert(*decrypt, global, false); }; });

    auto encrypt = std::make_shared<ConvertOptions>();
    CLI::App* encryptCommand = app.add_subcommand("encrypt", "Write a plain backup as an encrypted one");
    encryptCommand->add_option("BACKUP", encrypt->backup, "Plain backup directory or zip file")->required();
    encryptCommand->add_option("DEST", encrypt->destination, "New directory or zip file (must not exist)")->required();
    encryptCommand->add_flag("--zip", encrypt->zip, "Write a zip file (also when DEST ends in .zip)");
    encryptCommand->add_flag("--skip-damaged", encrypt->skipDamaged,
                             "Leave out the files that cannot be read instead of writing nothing");
    AddPasswordOptions(encryptCommand, encrypt->password);
    encryptCommand->callback(
        [encrypt, &global, &action] { action = [encrypt, &global] { return Convert(*encrypt, global, true); }; });
}

}  // namespace QuiverTool
