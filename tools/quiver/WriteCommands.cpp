// Commands that write a new backup: `export` (the backup as it is, to a directory or zip, or with
// `--manifest db` a Manifest.mbdb backup moved to Manifest.db), `edit` (files put, paths removed,
// folders and links made, in the order given, then written as a new backup; an encrypted backup stays
// encrypted, each new file with its own key) and `sample` (the small plain backup that `make run`
// shows, made from nothing through the library).
//
// The library writes an export under a hidden name beside the destination and removes it when the
// export fails; the tool only removes it when a signal ends the process mid-way.
#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "Tool.hpp"

namespace fs = std::filesystem;

namespace QuiverTool {

namespace {

// A destination named "*.zip" is a zip file whether or not --zip was given: a folder of that name is
// never what a person asked for.
bool WantsZip(const std::string& destination, bool zipOption) {
    if (zipOption) return true;
    std::string extension = fs::path(destination).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == ".zip";
}

void RequireNewDestination(const std::string& destination, bool zip) {
    std::error_code ec;
    if (fs::exists(fs::symlink_status(destination, ec)))
        throw Failure(kFailure, fmt::format("{} already exists; give a new name", destination));
    fs::path parent = fs::path(destination).parent_path();
    if (zip && !parent.empty() && !fs::is_directory(parent, ec))
        throw Failure(kFailure, fmt::format("the folder {} does not exist", parent.string()));
}

// How a copy of a backup treats the damaged stored files it finds: by default none are looked for.
struct DamagePolicy {
    bool check = false;
    bool skip = false;
    int verbosity = 0;
};

// Writes the backup. With a check, each stored file copied from the source is checked as it is
// copied; every damaged one is listed on standard error (warnings go to -v), and any ends the command
// (status 4, nothing written) unless they are to be skipped; their number is returned.
int WriteBackup(const quiver::Backup& backup, const std::string& destination, bool zip, DamagePolicy damage = {}) {
    RemoveOnSignal removeIfInterrupted(quiver::Backup::partialPath(destination));
    Progress progress(zip ? "Writing the zip file" : "Writing the backup");
    quiver::WriteOptions options;
    options.zip = zip;
    options.progress = [&](double fraction) { progress.Update(fraction); };
    // The label says what is being written; the manifest of a large backup takes a while at the end.
    options.phase = [&](std::string_view phase) {
        const std::string what = phase == "files" ? "the stored files" : phase == "manifest" ? "the manifest" : "the metadata";
        progress.SetLabel(fmt::format("Writing {} of {}", what, zip ? "the zip file" : "the backup"));
    };
    std::vector<quiver::Problem> damaged;
    options.check = damage.check;
    options.skipDamaged = damage.skip;
    options.problem = [&](const quiver::Problem& p) {
        if (p.warning) Detail(damage.verbosity, fmt::format("{} {}: {}", Printable(p.domain), Printable(p.path), p.detail));
        else damaged.push_back(p);
    };
    auto list = [&] {
        std::string text;
        for (const quiver::Problem& p : damaged)
            text += fmt::format("quiver: damaged: {} {} (stored as {}): {}\n", Printable(p.domain), Printable(p.path),
                                p.storedName.empty() ? p.fileID : p.storedName, p.detail);
        WriteAll(STDERR_FILENO, text);
    };
    try {
        backup.write(destination, options);
    } catch (const quiver::Error& failure) {
        if (!damaged.empty() && !damage.skip) {
            list();
            const size_t count = damaged.size();
            throw Failure(kBadBackup, fmt::format("the backup is damaged: {} {} listed above; nothing was written "
                                                  "(give --skip-damaged to write the rest without {})",
                                                  count, count == 1 ? "file is" : "files are",
                                                  count == 1 ? "it" : "them"));
        }
        // The cause's own words say what went wrong ("No space left on device", a file that failed).
        throw Failure(kFailure, fmt::format("could not write {}: {}", destination, CauseText(failure)));
    }
    list();
    return static_cast<int>(damaged.size());
}

// ---- export ----

struct ExportOptions {
    std::string backup;
    std::string destination;
    bool zip = false;
    bool skipDamaged = false;
    std::string manifest;  // "db", "mbdb", or empty for the backup's own
    uint32_t iterations = quiver::PasswordParameters{}.iterations;
    uint32_t sha1Iterations = quiver::PasswordParameters{}.sha1Iterations;
};

// A copy written without the damaged files is not the whole backup: status 1 says so.
int WrittenWithout(int skipped, const std::string& destination) {
    if (skipped == 0) return kSuccess;
    throw Failure(kFailure, fmt::format("wrote {} without the {} damaged {} listed above", destination, skipped,
                                        skipped == 1 ? "file" : "files"));
}

int RunExport(const ExportOptions& o, const GlobalOptions& global) {
    const bool zip = WantsZip(o.destination, o.zip);
    RequireNewDestination(o.destination, zip);
    OpenBackup open = LoadBackup(o.backup, global);
    RequireWholeBackup(open.get(), o.backup);
    const bool mbdb = open.get().manifestFormat() == "Manifest.mbdb";
    if (o.manifest == "db" && mbdb)
        return WriteWithManifestDB(open.get(), o.backup, o.destination, zip, o.skipDamaged,
                                   {o.iterations, o.sha1Iterations}, global);
    if (o.manifest == "db")
        Warn(fmt::format("{} has a Manifest.db manifest already; it is written as it is", o.backup));
    if (o.manifest == "mbdb" && !mbdb)
        throw Failure(kFailure, fmt::format("{} has a Manifest.db manifest; writing it with Manifest.mbdb (iOS 9 "
                                            "and earlier) is not supported",
                                            o.backup));
    return WrittenWithout(WriteBackup(open.get(), o.destination, zip, {true, o.skipDamaged, global.verbosity}),
                          o.destination);
}

// ---- edit ----

struct EditOptions {
    std::string backup;
    std::string destination;
    bool zip = false;
    bool replaceDirectories = false;
    bool skipDamaged = false;
    std::vector<std::string> put, remove, mkdir, symlink;
    CLI::Option* putOption = nullptr;
    CLI::Option* removeOption = nullptr;
    CLI::Option* mkdirOption = nullptr;
    CLI::Option* symlinkOption = nullptr;
    CLI::App* command = nullptr;
};

enum class EditKind { Put, Remove, Mkdir, Symlink };

struct Edit {
    EditKind kind;
    std::string domain;
    std::string path;
    std::string extra;  // the local file of a put, the target of a symlink
};

// The edits in the order they were given on the command line. The parser records one step per value,
// so an edit is complete when its option has received all of its values.
std::vector<Edit> EditsInOrder(const EditOptions& o) {
    std::vector<Edit> edits;
    size_t received[4] = {0, 0, 0, 0};
    for (const CLI::Option* option : o.command->parse_order()) {
        EditKind kind;
        const std::vector<std::string>* values;
        size_t width;
        if (option == o.putOption) {
            kind = EditKind::Put, values = &o.put, width = 3;
        } else if (option == o.removeOption) {
            kind = EditKind::Remove, values = &o.remove, width = 2;
        } else if (option == o.mkdirOption) {
            kind = EditKind::Mkdir, values = &o.mkdir, width = 2;
        } else if (option == o.symlinkOption) {
            kind = EditKind::Symlink, values = &o.symlink, width = 3;
        } else {
            continue;
        }
        size_t& count = received[static_cast<int>(kind)];
        if (++count % width != 0) continue;
        if (count > values->size()) throw Failure(kUsage, "an edit option is missing its arguments");
        const size_t at = count - width;
        edits.push_back({kind, (*values)[at], (*values)[at + 1], width == 3 ? (*values)[at + 2] : std::string()});
    }
    return edits;
}

// Names written into a backup must be safe to extract again: a plain domain and a relative path
// without "..".
void RequireSafeName(const Edit& edit, bool pathRequired) {
    auto bad = [&](const std::string& why) {
        return Failure(kUsage, fmt::format("cannot edit {} {}: {}", Printable(edit.domain), Printable(edit.path), why));
    };
    if (pathRequired && edit.path.empty()) throw bad("a path is needed");
    if (auto problem = quiver::Backup::nameProblem(edit.domain, edit.path)) throw bad(*problem);
}

// The library refuses an edit that something in the backup is in the way of (a folder that would
// have to be made where a file is, a link where something else is) with words that name both.
Failure InTheWay(const quiver::Error& error) { return Failure(kFailure, Printable(error.what())); }

void ApplyEdit(quiver::Backup& backup, const Edit& edit, bool replaceDirectories, const GlobalOptions& global) {
    const std::string shown = fmt::format("{} {}", Printable(edit.domain), Printable(edit.path));
    switch (edit.kind) {
        case EditKind::Put: {
            std::error_code ec;
            if (!fs::is_regular_file(edit.extra, ec))
                throw Failure(kFailure, fmt::format("{} is not a file that can be put into the backup", edit.extra));
            std::optional<quiver::Entry> existing = backup.find(edit.domain, edit.path);
            // A file put over a folder would take the folder and all below it; that is said, not done,
            // unless asked for.
            if (existing && existing->isDirectory()) {
                const size_t below = backup.entriesUnder(edit.domain, edit.path).size() - 1;
                if (!replaceDirectories)
                    throw Failure(kFailure, fmt::format("cannot put {}: it is a folder with {} {} below it; give "
                                                        "--replace-dir to replace the folder and all below it",
                                                        shown, below, below == 1 ? "entry" : "entries"));
                backup.remove(edit.domain, edit.path);
                Detail(global.verbosity, fmt::format("removed the folder {} and the {} entries below it", shown, below));
            }
            try {
                backup.putFile(edit.domain, edit.path, edit.extra);
            } catch (const quiver::Error& failure) {
                if (failure.check() == "source")
                    throw Failure(kFailure, fmt::format("cannot read {}: {}", edit.extra, failure.what()));
                if (failure.code() == quiver::ErrorCode::InvalidArgument) throw InTheWay(failure);
                throw Failure(kFailure, fmt::format("cannot put {}: {}", shown, failure.what()));
            }
            Detail(global.verbosity, fmt::format("put {} from {}", shown, edit.extra));
            break;
        }
        case EditKind::Remove:
            if (!backup.remove(edit.domain, edit.path))
                throw Failure(kFailure, fmt::format("cannot remove {}: nothing is there", shown));
            Detail(global.verbosity, fmt::format("removed {}", shown));
            break;
        case EditKind::Mkdir:
            try {
                backup.makeDirectory(edit.domain, edit.path);
            } catch (const quiver::Error& failure) {
                if (edit.path.empty()) throw Failure(kFailure, fmt::format("cannot make the folder {}", shown));
                throw InTheWay(failure);
            }
            Detail(global.verbosity, fmt::format("made the folder {}", shown));
            break;
        case EditKind::Symlink: {
            if (edit.extra.empty()) throw Failure(kUsage, fmt::format("the link {} needs a target", shown));
            try {
                backup.makeSymlink(edit.domain, edit.path, edit.extra);
            } catch (const quiver::Error& failure) {
                throw InTheWay(failure);
            }
            Detail(global.verbosity, fmt::format("made the link {} -> {}", shown, Printable(edit.extra)));
            break;
        }
    }
}

int RunEdit(const EditOptions& o, const GlobalOptions& global) {
    std::vector<Edit> edits = EditsInOrder(o);
    // Unsafe names are usage errors, found before the backup is opened or a password asked for.
    for (const Edit& edit : edits) RequireSafeName(edit, edit.kind == EditKind::Put || edit.kind == EditKind::Symlink);
    const bool zip = WantsZip(o.destination, o.zip);
    RequireNewDestination(o.destination, zip);
    OpenBackup open = LoadBackup(o.backup, global);
    RequireWholeBackup(open.get(), o.backup);
    for (const Edit& edit : edits) ApplyEdit(open.get(), edit, o.replaceDirectories, global);
    // What the edits left of the source is checked as it is copied.
    return WrittenWithout(WriteBackup(open.get(), o.destination, zip, {true, o.skipDamaged, global.verbosity}),
                          o.destination);
}

// ---- sample ----

struct SampleOptions {
    std::string destination;
    bool zip = false;
};

constexpr int64_t kSampleDate = 1710498600;  // 2024-03-15 10:30:00 UTC

void StoreSampleFile(quiver::Backup& backup, const char* domain, const char* path, std::string_view content) {
    try {
        backup.putData(domain, path, std::span(reinterpret_cast<const uint8_t*>(content.data()), content.size()));
    } catch (const quiver::Error& failure) {
        throw Failure(kFailure, fmt::format("cannot make the sample file {} {}: {}", domain, path, failure.what()));
    }
}

int RunSample(const SampleOptions& o) {
    using quiver::Value;
    const bool zip = WantsZip(o.destination, o.zip);
    RequireNewDestination(o.destination, zip);
    quiver::Backup backup = quiver::Backup::create();

    const Value date = Value::date(static_cast<double>(kSampleDate));
    const Value lockdown = Value::dictionary({{"DeviceName", Value::string("Sample iPhone")},
                                              {"ProductType", Value::string("iPhone14,2")},
                                              {"ProductVersion", Value::string("17.4")},
                                              {"BuildVersion", Value::string("21E219")}});
    const Value notesApp = Value::dictionary(
        {{"CFBundleIdentifier", Value::string("com.example.notes")}, {"CFBundleVersion", Value::string("3.2")}});
    const Value applications = Value::dictionary({{"com.example.notes", notesApp}});

    const Value manifest = Value::dictionary({{"Version", Value::string("10.0")},
                                              {"Date", date},
                                              {"IsEncrypted", Value::boolean(false)},
                                              {"WasPasscodeSet", Value::boolean(false)},
                                              {"Lockdown", lockdown},
                                              {"Applications", applications}});
    const Value status = Value::dictionary({{"Version", Value::string("3.3")},
                                            {"Date", date},
                                            {"BackupState", Value::string("new")},
                                            {"SnapshotState", Value::string("finished")},
                                            {"IsFullBackup", Value::boolean(false)},
                                            {"UUID", Value::string("9F0C3A52-5D4B-4E0A-9C37-2B8E8F6A1D04")}});
    const Value info = Value::dictionary({{"Device Name", Value::string("Sample iPhone")},
                                          {"Display Name", Value::string("Sample iPhone")},
                                          {"Product Type", Value::string("iPhone14,2")},
                                          {"Product Version", Value::string("17.4")},
                                          {"Build Version", Value::string("21E219")},
                                          {"Last Backup Date", date},
                                          {"Target Type", Value::string("Device")}});
    backup.setMetadata(info, status, manifest);

    const Value settings = Value::dictionary({{"AutoLock", Value::integer(120)},
                                              {"Wallpaper", Value::string("Blue Hour")},
                                              {"ShowBatteryPercentage", Value::boolean(true)}});
    const Value notesSettings =
        Value::dictionary({{"SortOrder", Value::string("modified")}, {"DefaultFolder", Value::string("Notes")}});

    StoreSampleFile(backup, "HomeDomain", "Library/Preferences/com.example.settings.plist", settings.toXML());
    StoreSampleFile(backup, "HomeDomain", "Library/Notes/welcome.txt",
                    "Welcome to Quiver.\n\nThis file lives in the HomeDomain of a sample backup that the quiver\n"
                    "tool wrote through the library: `quiver cat build/sample HomeDomain Library/Notes/welcome.txt`\n"
                    "printed it.\n");
    StoreSampleFile(backup, "AppDomain-com.example.notes", "Documents/shopping.txt",
                    "- apples\n- bread\n- coffee\n");
    StoreSampleFile(backup, "AppDomain-com.example.notes", "Library/Preferences/com.example.notes.plist",
                    notesSettings.toXML());
    StoreSampleFile(backup, "CameraRollDomain", "Media/DCIM/100APPLE/IMG_0001.txt",
                    "(a photo would be here)\n");
    try {
        backup.makeSymlink("AppDomain-com.example.notes", "Documents/latest.txt", "shopping.txt");
        backup.makeDirectory("MediaDomain", "Media");
    } catch (const quiver::Error&) {
        throw Failure(kFailure, "cannot make the sample's folders and links");
    }

    // Every entry carries the sample's date, so that two samples list alike.
    for (const quiver::Entry entry : backup.entries()) backup.setTimes(entry, {kSampleDate, kSampleDate, kSampleDate});
    OpenBackup hold(std::move(backup));
    WriteBackup(hold.get(), o.destination, zip);
    return kSuccess;
}

}  // namespace

void AddWriteCommands(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto exportOptions = std::make_shared<ExportOptions>();
    CLI::App* exportCommand = app.add_subcommand("export", "Write the backup as a new backup directory or zip file");
    exportCommand->add_option("BACKUP", exportOptions->backup, "Backup directory or zip file")->required();
    exportCommand->add_option("DEST", exportOptions->destination, "New directory or zip file (must not exist)")->required();
    exportCommand->add_flag("--zip", exportOptions->zip, "Write a zip file (also when DEST ends in .zip)");
    exportCommand->add_flag("--skip-damaged", exportOptions->skipDamaged,
                            "Leave out the damaged files (listed first), write the rest, and end with status 1");
    exportCommand->add_option("--manifest", exportOptions->manifest,
                              "Write the manifest as KIND: db moves a Manifest.mbdb backup to Manifest.db")
        ->type_name("KIND")
        ->check(CLI::IsMember({"db", "mbdb"}));
    AddIterationOptions(exportCommand, exportOptions->iterations, exportOptions->sha1Iterations);
    exportCommand->callback([exportOptions, &global, &action] {
        action = [exportOptions, &global] { return RunExport(*exportOptions, global); };
    });

    auto edit = std::make_shared<EditOptions>();
    CLI::App* editCommand = app.add_subcommand("edit", "Change a backup and write the result as a new backup");
    edit->command = editCommand;
    editCommand->add_option("BACKUP", edit->backup, "Backup directory or zip file")->required();
    editCommand->add_option("DEST", edit->destination, "New directory or zip file (must not exist)")->required();
    editCommand->add_flag("--zip", edit->zip, "Write a zip file (also when DEST ends in .zip)");
    editCommand->add_flag("--skip-damaged", edit->skipDamaged,
                          "Leave out the damaged files (listed first), write the rest, and end with status 1");
    editCommand->add_flag("--replace-dir", edit->replaceDirectories,
                          "Let --put replace a folder, and everything below it, with a file");
    edit->putOption = editCommand->add_option("--put", edit->put, "Store LOCALFILE at DOMAIN PATH")
                          ->type_name("DOMAIN PATH LOCALFILE")
                          ->type_size(3)
                          ->expected(1, CLI::detail::expected_max_vector_size)
                          ->allow_extra_args(false);
    edit->removeOption = editCommand->add_option("--rm", edit->remove, "Remove DOMAIN PATH and what is below it")
                             ->type_name("DOMAIN PATH")
                             ->type_size(2)
                             ->expected(1, CLI::detail::expected_max_vector_size)
                             ->allow_extra_args(false);
    edit->mkdirOption = editCommand->add_option("--mkdir", edit->mkdir, "Make the folder DOMAIN PATH")
                            ->type_name("DOMAIN PATH")
                            ->type_size(2)
                            ->expected(1, CLI::detail::expected_max_vector_size)
                            ->allow_extra_args(false);
    edit->symlinkOption = editCommand->add_option("--symlink", edit->symlink, "Make a link at DOMAIN PATH to TARGET")
                              ->type_name("DOMAIN PATH TARGET")
                              ->type_size(3)
                              ->expected(1, CLI::detail::expected_max_vector_size)
                              ->allow_extra_args(false);
    editCommand->callback([edit, &global, &action] { action = [edit, &global] { return RunEdit(*edit, global); }; });

    auto sample = std::make_shared<SampleOptions>();
    CLI::App* sampleCommand = app.add_subcommand("sample", "Write a small plain sample backup");
    sampleCommand->add_option("DEST", sample->destination, "New directory or zip file (must not exist)")->required();
    sampleCommand->add_flag("--zip", sample->zip, "Write a zip file (also when DEST ends in .zip)");
    sampleCommand->callback([sample, &action] { action = [sample] { return RunSample(*sample); }; });
}

}  // namespace QuiverTool
