// Commands that look at a backup without writing anything: `info` (what device, which version,
// encrypted or not, how much is in it), `ls` (the entries, for people or as JSON for scripts) and
// `csv` (every entry as CSV, from a backup of any kind or a bare Manifest.db).
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Tool.hpp"

namespace fs = std::filesystem;
using nlohmann::json;

namespace QuiverTool {

namespace {

std::string Thousands(uint64_t n) {
    const std::string digits = std::to_string(n);
    std::string grouped;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
    }
    return grouped;
}

struct InfoOptions {
    std::string backup;
    bool json = false;
    bool local = false;
};

int RunInfo(const InfoOptions& o, const GlobalOptions& global) {
    std::error_code ec;
    if (!fs::exists(o.backup, ec)) throw Failure(kFailure, fmt::format("{}: no such file or directory", o.backup));
    RefuseFolderOfBackups(o.backup);
    // The metadata files say what a person needs to tell backups apart, and say it without the
    // password. Whatever they cannot be read for, opening the backup says best.
    quiver::Metadata metadata;
    std::optional<quiver::Summary> summary;
    std::string metadataError;
    if (std::optional<FoundBackup> found = ReadFoundBackup(o.backup, metadataError)) {
        metadata = std::move(found->metadata);
    } else {
        summary = SummarizeBackup(o.backup, global);
    }
    const bool encryptedByMetadata = metadata.encrypted();
    // The contents are counted, not kept: the checks are those of loading, the memory a fraction.
    if (!summary && (!encryptedByMetadata || PasswordGiven(global))) summary = SummarizeBackup(o.backup, global);

    std::string version = StringValue(metadata.status, "Version");
    std::string manifestFile = metadata.manifestFile;
    bool encrypted = encryptedByMetadata;
    // The ManifestKey is what enciphers Manifest.db; backups before iOS 10.2 have none.
    bool enciphered = encrypted && metadata.manifest["ManifestKey"].type() == quiver::Value::Type::Data &&
                      manifestFile == "Manifest.db";
    std::vector<std::string> missing = metadata.missing;
    std::optional<quiver::Contents> contents;
    if (summary) {
        // A partial copy may lack the version; the library took it from the kind of manifest present.
        version = summary->manifestVersion;
        manifestFile = summary->metadata.manifestFile;
        encrypted = summary->encrypted;
        enciphered = summary->manifestEnciphered;
        missing = summary->metadata.missing;
        metadata = std::move(summary->metadata);
        contents = summary->contents;
    }
    const DeviceFacts device = DeviceFactsOf(metadata);
    const std::optional<int64_t> date = BackupDateOf(metadata);
    const std::string backupID = StringValue(metadata.status, "UUID");
    const std::string snapshotState = StringValue(metadata.status, "SnapshotState");
    // Devices set SnapshotState to "finished" when the backup completed.
    const bool completeKnown = !snapshotState.empty();
    const bool complete = snapshotState == "finished";
    // A copy rather than the optional: GCC warns that an optional filled by a call into the library
    // may be unset where it is read.
    quiver::KeyBagInfo keyBagInfo;
    bool keyBagRead = false;
    if (encrypted)
        if (std::optional<quiver::KeyBagInfo> read = quiver::readKeyBagInfo(metadata.manifest))
            keyBagInfo = *read, keyBagRead = true;
    const quiver::KeyBagInfo* keyBag = keyBagRead ? &keyBagInfo : nullptr;
    auto orNull = [](const std::string& s) { return s.empty() ? json(nullptr) : json(s); };

    if (o.json) {
        json keyBagJson = nullptr;
        if (keyBag)
            keyBagJson = {{"version", keyBag->version},
                          {"type", keyBag->type},
                          {"classes", keyBag->classes},
                          {"passes", keyBag->dpIterations ? 2 : 1},
                          {"iterations", keyBag->iterations},
                          {"dpIterations", keyBag->dpIterations ? json(*keyBag->dpIterations) : json(nullptr)}};
        auto count = [&](auto quiver::Contents::*field) { return contents ? json((*contents).*field) : json(nullptr); };
        json out = {
            {"path", o.backup},
            {"deviceName", orNull(device.name)},
            {"productVersion", orNull(device.productVersion)},
            {"buildVersion", orNull(device.buildVersion)},
            {"productType", orNull(device.productType)},
            {"backupID", orNull(backupID)},
            {"version", orNull(version)},
            {"manifestFile", orNull(manifestFile)},
            {"encrypted", encrypted},
            {"manifestEnciphered", enciphered},
            {"keyBag", keyBagJson},
            {"complete", completeKnown ? json(complete) : json(nullptr)},
            {"missing", missing},
            {"date", date ? json(IsoTimeText(*date)) : json(nullptr)},
            {"manifestRead", contents.has_value()},
            {"files", count(&quiver::Contents::files)},
            {"directories", count(&quiver::Contents::directories)},
            {"symlinks", count(&quiver::Contents::symlinks)},
            {"totalSize", count(&quiver::Contents::totalSize)},
            {"domains", count(&quiver::Contents::domains)},
        };
        WriteAll(STDOUT_FILENO, out.dump(2) + "\n");
        return kSuccess;
    }
    auto orUnknown = [](const std::string& s) { return s.empty() ? std::string("(unknown)") : Printable(s); };
    std::string text;
    text += fmt::format("Backup:           {}\n", o.backup);
    text += fmt::format("Device name:      {}\n", orUnknown(device.name));
    text += fmt::format("Device type:      {}\n", orUnknown(device.productType));
    text += fmt::format("iOS version:      {}{}\n", orUnknown(device.productVersion),
                        device.buildVersion.empty() ? "" : fmt::format(" ({})", Printable(device.buildVersion)));
    if (!backupID.empty()) text += fmt::format("Backup ID:        {}\n", Printable(backupID));
    text += fmt::format("Manifest version: {}{}\n", orUnknown(version),
                        manifestFile.empty() ? "" : fmt::format(" ({})", manifestFile));
    // Before iOS 10.2 an encrypted backup kept its manifest plain, with each file's key in its record.
    text += fmt::format("Encrypted:        {}\n", !encrypted ? "no" : enciphered ? "yes" : "yes (manifest not enciphered, as before iOS 10.2)");
    if (keyBag) {
        text += fmt::format("Key bag:          version {}, {} classes, ", keyBag->version, keyBag->classes);
        text += keyBag->dpIterations
                    ? fmt::format("two passes ({} rounds of PBKDF2-HMAC-SHA256, then {} of PBKDF2-HMAC-SHA1)\n",
                                  Thousands(*keyBag->dpIterations), Thousands(keyBag->iterations))
                    : fmt::format("one pass ({} rounds of PBKDF2-HMAC-SHA1, as before iOS 10.2)\n",
                                  Thousands(keyBag->iterations));
    }
    if (completeKnown) {
        text += fmt::format("Complete:         {}\n", complete ? std::string("yes")
                                                                : fmt::format("no (it stopped in the state \"{}\")",
                                                                              Printable(snapshotState)));
    }
    if (!missing.empty()) {
        std::string list;
        for (const std::string& name : missing) list += (list.empty() ? "" : ", ") + name;
        text += fmt::format("Missing:          {}{}\n", list,
                            missing == std::vector<std::string>{"Info.plist"} ? "" : " (a partial copy: it reads, but is not written out)");
    }
    text += fmt::format("Date:             {}\n", date ? LabelledTimeText(*date, o.local) : std::string("(unknown)"));
    if (!contents) {
        text += "Contents:         not read: give the password (QUIVER_PASSWORD or --password-file) to count\n"
                "                  the files and their size\n";
        WriteAll(STDOUT_FILENO, text);
        return kSuccess;
    }
    text += fmt::format("Domains:          {}\n", contents->domains);
    text += fmt::format("Files:            {}\n", contents->files);
    text += fmt::format("Directories:      {}\n", contents->directories);
    text += fmt::format("Symlinks:         {}\n", contents->symlinks);
    text += fmt::format("Total size:       {}{}\n", SizeText(contents->totalSize),
                        contents->totalSize >= 1000 ? fmt::format(" ({} bytes)", contents->totalSize) : std::string());
    WriteAll(STDOUT_FILENO, text);
    return kSuccess;
}

struct ListOptions {
    std::string backup;
    std::optional<std::string> domain;
    std::optional<std::string> path;
    bool json = false;
    bool jsonLines = false;
    bool longFormat = false;
    bool local = false;
};

int RunList(const ListOptions& o, const GlobalOptions& global) {
    const ListingFormat format = ListingFormatOf(o.json, o.jsonLines, o.longFormat);
    OpenBackup open = LoadBackup(o.backup, global);
    EntryListing listing(format, o.local);
    listing.AddAll(SelectEntries(open.get(), o.domain, o.path));
    listing.Finish();
    return kSuccess;
}

// The library's own listing of a plain Manifest.db, byte for byte.
int RunExactCsv(const std::string& database) {
    // Written as it is read. The first megabytes are held until the listing ends or outgrows them, so a
    // damaged database of ordinary size leaves nothing on the output; a larger one may leave a listing
    // that the error line calls incomplete.
    constexpr size_t kHeld = size_t{4} << 20;
    std::string held;
    bool streaming = false;
    try {
        quiver::Backup::writeManifestCSV(database, [&](std::string_view text) {
            held += text;
            if (streaming || held.size() > kHeld) {
                WriteAll(STDOUT_FILENO, held);
                held.clear();
                streaming = true;
            }
            return true;
        });
    } catch (const quiver::Error& failure) {
        const bool damaged = failure.code() == quiver::ErrorCode::InvalidManifestDatabase ||
                             failure.code() == quiver::ErrorCode::DatabaseOperation ||
                             failure.code() == quiver::ErrorCode::InvalidMBFile;
        throw Failure(damaged ? kBadBackup : kFailure,
                      fmt::format("{} is not a readable Manifest.db: {}{}", database, failure.what(),
                                  streaming ? "; the listing written is incomplete" : ""));
    }
    held += '\n';
    WriteAll(STDOUT_FILENO, held);
    return kSuccess;
}

// The same columns as the library's listing, quoted as RFC 4180 says: every field in double quotes,
// a double quote inside doubled, records ending in CR LF. Line breaks and commas inside a quoted
// field are data, so every reader that follows the RFC gets each row back whole.
void AppendCsvField(std::string& out, std::string_view value, bool last = false) {
    out += '"';
    for (char c : value) {
        if (c == '"') out += '"';
        out += c;
    }
    out += last ? "\"\r\n" : "\",";
}

// Standard alphabet, padded, on one line.
std::string Base64(std::span<const uint8_t> bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = std::min<size_t>(3, bytes.size() - i);
        uint32_t v = uint32_t{bytes[i]} << 16;
        if (n > 1) v |= uint32_t{bytes[i + 1]} << 8;
        if (n > 2) v |= bytes[i + 2];
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
        out += n > 2 ? kAlphabet[v & 63] : '=';
    }
    return out;
}

void WriteCsv(std::vector<quiver::Entry> entries) {
    // In file-ID order, as the library lists a database.
    std::sort(entries.begin(), entries.end(),
              [](const quiver::Entry& a, const quiver::Entry& b) { return a.fileID() < b.fileID(); });
    std::string text;
    for (const char* name : {"fileID", "domain", "relativePath", "fileTypeFlags", "relativePath2", "target", "digest",
                             "encryptionKey", "mode", "inodeNumber", "userID", "groupID", "lastModified",
                             "lastStatusChange", "birth", "size", "protectionClass"})
        AppendCsvField(text, name);
    AppendCsvField(text, "extendedAttributes", true);
    for (const quiver::Entry& e : entries) {
        const quiver::Times times = e.times();
        const std::string_view path = e.path();
        AppendCsvField(text, e.fileID());
        AppendCsvField(text, e.domain());
        AppendCsvField(text, path);
        AppendCsvField(text, std::to_string(e.typeFlags()));
        AppendCsvField(text, path);
        AppendCsvField(text, e.isSymlink() ? e.target() : std::string_view());
        AppendCsvField(text, Base64(e.digest()));
        AppendCsvField(text, Base64(e.wrappedKey()));
        AppendCsvField(text, std::to_string(e.mode()));
        AppendCsvField(text, std::to_string(e.inode()));
        AppendCsvField(text, std::to_string(e.uid()));
        AppendCsvField(text, std::to_string(e.gid()));
        AppendCsvField(text, std::to_string(times.modified));
        AppendCsvField(text, std::to_string(times.statusChanged));
        AppendCsvField(text, std::to_string(times.birth));
        AppendCsvField(text, std::to_string(e.size()));
        AppendCsvField(text, std::to_string(static_cast<uint32_t>(e.protectionClass())));
        AppendCsvField(text, e.describeExtendedAttributes(), true);
        if (text.size() >= 65536) {
            WriteAll(STDOUT_FILENO, text);
            text.clear();
        }
    }
    WriteAll(STDOUT_FILENO, text);
}

struct CsvOptions {
    std::string source;
    bool exact = false;
};

bool IsSQLiteFile(const std::string& path) {
    char header[16] = {};
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return false;
    const size_t n = std::fread(header, 1, sizeof header, file);
    std::fclose(file);
    return n == sizeof header && std::memcmp(header, "SQLite format 3", 16) == 0;
}

int RunCsv(const CsvOptions& o, const GlobalOptions& global) {
    std::error_code ec;
    const fs::file_status status = fs::status(o.source, ec);
    if (!fs::exists(status)) throw Failure(kFailure, fmt::format("{}: no such file or directory", o.source));
    const bool database = fs::is_regular_file(status) && IsSQLiteFile(o.source);
    if (o.exact) {
        // The library's listing reads a Manifest.db file as it lies; a backup's is used when it is plain.
        std::string file = o.source;
        if (fs::is_directory(status)) {
            file = (fs::path(o.source) / "Manifest.db").string();
            std::string metadataError;
            std::optional<FoundBackup> found = ReadFoundBackup(o.source, metadataError);
            const bool encrypted = found && found->metadata.encrypted();
            if (encrypted || !IsSQLiteFile(file))
                throw Failure(kUsage, fmt::format("--exact lists a plain Manifest.db, and {} has none; without --exact "
                                                  "the listing is made from the backup itself",
                                                  o.source));
        } else if (!database) {
            throw Failure(kUsage, fmt::format("--exact lists a plain Manifest.db or a backup folder holding one; {} is "
                                              "neither (without --exact a zip is listed too)",
                                              o.source));
        }
        return RunExactCsv(file);
    }
    if (database) {
        std::vector<quiver::Entry> entries;
        try {
            entries = quiver::Backup::readManifestDB(o.source).toVector();
        } catch (const quiver::Error& failure) {
            throw Failure(kBadBackup, fmt::format("{} is not a readable Manifest.db: {}", o.source, failure.what()));
        }
        WriteCsv(std::move(entries));
        return kSuccess;
    }
    OpenBackup open = LoadBackup(o.source, global);
    WriteCsv(open.get().entries().toVector());
    return kSuccess;
}

}  // namespace

void AddInspectCommands(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto info = std::make_shared<InfoOptions>();
    CLI::App* infoCommand = app.add_subcommand("info", "Show the device, version, encryption and contents of a backup (the contents need the password of an encrypted one)");
    infoCommand->add_option("BACKUP", info->backup, "Backup directory or zip file")->required();
    infoCommand->add_flag("--json", info->json, "Print one JSON object (absent values are null)");
    infoCommand->add_flag("--local", info->local, "The date in local time instead of UTC");
    infoCommand->callback([info, &global, &action] { action = [info, &global] { return RunInfo(*info, global); }; });

    auto list = std::make_shared<ListOptions>();
    CLI::App* listCommand = app.add_subcommand("ls", "List the entries of a backup, a domain, or a path");
    listCommand->add_option("BACKUP", list->backup, "Backup directory or zip file")->required();
    listCommand->add_option("DOMAIN", list->domain, "Only this domain");
    listCommand->add_option("PATH", list->path, "Only this path and what is below it");
    listCommand->add_flag("--json", list->json, "Print one JSON array of entry objects");
    listCommand->add_flag("--jsonl", list->jsonLines, "Print one JSON object per line, as the entries are listed");
    listCommand->add_flag("-l,--long", list->longFormat, "Mode, owner, size and date (UTC) of each entry");
    listCommand->add_flag("--local", list->local, "Dates in local time instead of UTC");
    listCommand->callback([list, &global, &action] { action = [list, &global] { return RunList(*list, global); }; });

    auto csv = std::make_shared<CsvOptions>();
    CLI::App* csvCommand = app.add_subcommand("csv", "Print every entry of a backup or a Manifest.db as CSV (RFC 4180)");
    csvCommand->add_option("SOURCE", csv->source, "Backup directory or zip file (encrypted ones too), or a Manifest.db file")
        ->required();
    csvCommand->add_flag("--exact", csv->exact, "The library's own listing of a plain Manifest.db, byte for byte (not RFC 4180)");
    csvCommand->callback([csv, &global, &action] { action = [csv, &global] { return RunCsv(*csv, global); }; });
}

}  // namespace QuiverTool
