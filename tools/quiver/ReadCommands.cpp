// Commands that read items out of a backup: `cat` streams one file's plaintext to standard output,
// `extract` writes a readable tree DEST/DOMAIN/PATH.
//
// Both are thin callers of the library, which checks each file as it reads it and keeps extraction
// inside DEST whatever the names in the manifest. Entries that would escape are skipped with a
// warning, the rest is extracted, and the command ends with status 1; so are files the backup holds
// damaged, and the command then ends with status 4.
#include <unistd.h>

#include <fmt/format.h>

#include "Tool.hpp"

namespace fs = std::filesystem;

namespace QuiverTool {

namespace {

// ---- cat ----

struct CatOptions {
    std::string backup;
    std::string domain;
    std::string path;
};

// A damaged stored file ends the command with status 4, anything else that stops the read with 1.
Failure ReadFailure(const quiver::Entry& entry, const quiver::Error& error, uint64_t delivered) {
    if (!error.check().empty())
        return Failure(kBadBackup, "the backup is damaged: " + Printable(error.reasons().empty() ? "" : error.reasons().front()) +
                                       (delivered > 0 ? "; what was written of it is incomplete" : ""));
    return Failure(kFailure, fmt::format("cannot read {} {}: {}", Printable(entry.domain()), Printable(entry.path()),
                                         Printable(error.what())));
}

int RunCat(const CatOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    const quiver::Entry entry = RequireEntry(open.get(), o.domain, o.path);
    if (!entry.isFile())
        throw Failure(kFailure, fmt::format("{} {} is a {}, not a file", Printable(o.domain), Printable(o.path),
                                            entry.isDirectory() ? "directory" : "symbolic link"));
    uint64_t delivered = 0;
    // An output that fails (or a reader that went away) stops the read; the library does not see why.
    std::optional<Failure> written;
    try {
        open.get().read(
            entry,
            [&](std::span<const uint8_t> chunk) {
                try {
                    WriteAll(STDOUT_FILENO, chunk.data(), chunk.size());
                } catch (const Failure& f) {
                    written = f;
                    return false;
                }
                delivered += chunk.size();
                return true;
            },
            [](const quiver::Problem& p) { Warn(Printable(p.domain) + " " + Printable(p.path) + " " + p.detail); });
    } catch (const quiver::Error& e) {
        throw ReadFailure(entry, e, delivered);
    }
    if (written) throw *written;
    return kSuccess;
}

// ---- extract ----

struct ExtractOptions {
    std::string backup;
    std::string destination;
    std::optional<std::string> domain;
    std::optional<std::string> path;
};

int RunExtract(const ExtractOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    std::vector<quiver::Entry> entries = SelectEntries(open.get(), o.domain, o.path);
    std::optional<quiver::ExtractSummary> summary;
    {
        Progress progress("Extracting");
        try {
            summary = open.get().extract(
                entries, o.destination,
                [](const quiver::ExtractEvent& event) {
                    const std::string shown = Printable(event.entry.domain()) + " " + Printable(event.entry.path());
                    if (event.result == quiver::ExtractEvent::Result::Extracted)
                        Warn(shown + " " + event.reason);
                    else if (event.result == quiver::ExtractEvent::Result::Unsafe)
                        Warn(fmt::format("skipped {}: {}", shown, event.reason));
                    else
                        Warn(fmt::format("could not extract {}: {}", shown, Printable(event.reason)));
                },
                [&](double fraction) {
                    StopIfInterrupted();
                    progress.Update(fraction);
                });
        } catch (const quiver::Error& e) {
            throw Failure(kFailure, fmt::format("cannot extract into {}: {}", o.destination, e.what()));
        }
    }
    Detail(global.verbosity, fmt::format("extracted {} of {} entries into {}", summary->extracted, entries.size(), o.destination));
    const uint64_t broken = summary->failed + summary->damaged;
    if (summary->unsafe > 0 || broken > 0) {
        std::string message;
        if (summary->unsafe > 0)
            message = fmt::format("{} {} with unsafe names skipped", summary->unsafe, summary->unsafe == 1 ? "entry" : "entries");
        if (broken > 0)
            message += fmt::format("{}{} {} could not be extracted", message.empty() ? "" : "; ", broken,
                                   broken == 1 ? "entry" : "entries");
        throw Failure(summary->damaged > 0 ? kBadBackup : kFailure, message);
    }
    return kSuccess;
}

}  // namespace

void AddReadCommands(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto cat = std::make_shared<CatOptions>();
    CLI::App* catCommand = app.add_subcommand("cat", "Write the plaintext of one file to standard output");
    catCommand->add_option("BACKUP", cat->backup, "Backup directory or zip file")->required();
    catCommand->add_option("DOMAIN", cat->domain, "The file's domain, e.g. HomeDomain")->required();
    catCommand->add_option("PATH", cat->path, "The file's path in its domain")->required();
    catCommand->callback([cat, &global, &action] { action = [cat, &global] { return RunCat(*cat, global); }; });

    auto extract = std::make_shared<ExtractOptions>();
    CLI::App* extractCommand =
        app.add_subcommand("extract", "Write the files, folders and links of a backup as a tree DEST/DOMAIN/PATH");
    extractCommand->add_option("BACKUP", extract->backup, "Backup directory or zip file")->required();
    extractCommand->add_option("DEST", extract->destination, "Folder to write into (created when missing)")->required();
    extractCommand->add_option("DOMAIN", extract->domain, "Only this domain");
    extractCommand->add_option("PATH", extract->path, "Only this path and what is below it");
    extractCommand->callback(
        [extract, &global, &action] { action = [extract, &global] { return RunExtract(*extract, global); }; });
}

}  // namespace QuiverTool
