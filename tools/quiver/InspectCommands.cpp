// Commands that look at a backup without writing anything: `info` (what device, which version,
// encrypted or not, how much is in it), `ls` (the entries, for people or as JSON for scripts) and
// `csv` (the CSV listing of a Manifest.db file).
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Quiver/QVError.hpp"
#include "Quiver/QVManifestCSV.hpp"
#include "Tool.hpp"

using namespace Quiver;
using nlohmann::json;

namespace QuiverTool {

namespace {

std::string StringValue(const CF::Dictionary& dict, const char* key) {
    CF::String value = dict.Get<CF::String>(key);
    return value ? value.utf8() : std::string();
}

// The backup's date: the host's "Last Backup Date", else the date of the backup's status or manifest.
std::optional<int64_t> BackupDate(const CF::Dictionary& info, const CF::Dictionary& status,
                                  const CF::Dictionary& manifest) {
    for (const auto& [dict, key] : {std::pair{&info, "Last Backup Date"}, {&status, "Date"}, {&manifest, "Date"}}) {
        CF::Date date = dict->Get<CF::Date>(key);
        if (date) return static_cast<int64_t>(std::floor(date.UnixTime()));
    }
    return std::nullopt;
}

std::string ManifestVersionText(QVManifestDataVersion version) {
    switch (version) {
        case QVManifestDataVersion24: return "2.4";
        case QVManifestDataVersion30: return "3.0";
        case QVManifestDataVersion31: return "3.1";
        case QVManifestDataVersion32: return "3.2";
        case QVManifestDataVersion33: return "3.3";
        default: return "";
    }
}

std::string IsoTime(int64_t unixSeconds) {
    std::string text = UtcTimeText(unixSeconds);
    if (text.size() == 19) text[10] = 'T';
    return text + "Z";
}

struct InfoOptions {
    std::string backup;
    bool json = false;
};

int RunInfo(const InfoOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    const Backup& backup = open.get();
    CF::Dictionary info = CF::Dictionary::Adopt(QVBackupContainerCopyInfoDict(backup));
    CF::Dictionary status = CF::Dictionary::Adopt(QVBackupContainerCopyStatusDict(backup));
    CF::Dictionary manifestDict = CF::Dictionary::Adopt(QVBackupContainerCopyManifestDict(backup));
    CF::Dictionary lockdown = manifestDict.Get<CF::Dictionary>("Lockdown");

    auto pick = [](std::string first, const std::string& second) { return first.empty() ? second : first; };
    const std::string deviceName = pick(StringValue(info, "Device Name"), StringValue(lockdown, "DeviceName"));
    const std::string productVersion = pick(StringValue(info, "Product Version"), StringValue(lockdown, "ProductVersion"));
    const std::string buildVersion = pick(StringValue(info, "Build Version"), StringValue(lockdown, "BuildVersion"));
    const std::string productType = pick(StringValue(info, "Product Type"), StringValue(lockdown, "ProductType"));
    // A partial copy may lack the version; the library took it from the kind of manifest present.
    const std::string version = ManifestVersionText(backup->manifestVersion);
    const bool encrypted = QVBackupContainerIsEncrypted(backup) != 0;
    const bool enciphered = QVBackupContainerHasEncipheredManifest(backup);
    const std::vector<std::string> missing = QVBackupContainerCopyMissingMetadata(backup);
    const std::optional<int64_t> date = BackupDate(info, status, manifestDict);

    int64_t files = 0, directories = 0, symlinks = 0;
    uint64_t totalSize = 0;
    Manifest manifest = QVBackupContainerGetManifest(backup);
    for (const Entry& e : QVManifestGetEntries(manifest)) {
        if (QVManifestEntryIsDirectory(e)) {
            ++directories;
        } else if (QVManifestEntryIsSymlink(e)) {
            ++symlinks;
        } else {
            ++files;
            totalSize += QVManifestEntryGetFileSize(e);
        }
    }
    CF::Array domains = CF::Array::Adopt(QVManifestCopyDomainsList(manifest));
    const std::string manifestFile = version == "2.4" ? "Manifest.mbdb" : "Manifest.db";

    if (o.json) {
        json out = {
            {"path", o.backup},
            {"deviceName", deviceName},
            {"productVersion", productVersion},
            {"buildVersion", buildVersion},
            {"productType", productType},
            {"version", version},
            {"manifestFile", manifestFile},
            {"encrypted", encrypted},
            {"manifestEnciphered", enciphered},
            {"missing", missing},
            {"date", date ? json(IsoTime(*date)) : json(nullptr)},
            {"files", files},
            {"directories", directories},
            {"symlinks", symlinks},
            {"totalSize", totalSize},
            {"domains", domains.size()},
        };
        WriteAll(STDOUT_FILENO, out.dump(2) + "\n");
        return kSuccess;
    }
    auto orUnknown = [](const std::string& s) { return s.empty() ? std::string("(unknown)") : s; };
    std::string text;
    text += fmt::format("Backup:           {}\n", o.backup);
    text += fmt::format("Device name:      {}\n", orUnknown(deviceName));
    text += fmt::format("Device type:      {}\n", orUnknown(productType));
    text += fmt::format("iOS version:      {}{}\n", orUnknown(productVersion),
                        buildVersion.empty() ? "" : fmt::format(" ({})", buildVersion));
    text += fmt::format("Manifest version: {} ({})\n", version, manifestFile);
    // Before iOS 10.2 an encrypted backup kept its manifest plain, with each file's key in its record.
    text += fmt::format("Encrypted:        {}\n", !encrypted ? "no" : enciphered ? "yes" : "yes (manifest not enciphered, as before iOS 10.2)");
    if (!missing.empty()) {
        std::string list;
        for (const std::string& name : missing) list += (list.empty() ? "" : ", ") + name;
        text += fmt::format("Missing:          {}{}\n", list,
                            missing == std::vector<std::string>{"Info.plist"} ? "" : " (a partial copy: it reads, but is not written out)");
    }
    text += fmt::format("Date:             {}\n", date ? UtcTimeText(*date) + " UTC" : std::string("(unknown)"));
    text += fmt::format("Domains:          {}\n", domains.size());
    text += fmt::format("Files:            {}\n", files);
    text += fmt::format("Directories:      {}\n", directories);
    text += fmt::format("Symlinks:         {}\n", symlinks);
    text += fmt::format("Total size:       {}{}\n", SizeText(totalSize),
                        totalSize >= 1000 ? fmt::format(" ({} bytes)", totalSize) : std::string());
    WriteAll(STDOUT_FILENO, text);
    return kSuccess;
}

struct ListOptions {
    std::string backup;
    std::optional<std::string> domain;
    std::optional<std::string> path;
    bool json = false;
    bool longFormat = false;
};

// A JSON string. Names rarely need escaping, so the JSON library is asked only for those that do.
void AppendJsonString(std::string& out, const std::string& text) {
    const bool plain = std::none_of(text.begin(), text.end(), [](char c) {
        return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20;
    });
    if (!plain) {
        out += json(text).dump();
        return;
    }
    out += '"';
    out += text;
    out += '"';
}

// One entry as a JSON object indented inside the listing's array, keys in alphabetical order.
void AppendEntryJson(std::string& out, const Entry& e) {
    uint16_t mode = 0;
    uint32_t uid = 0, gid = 0;
    QVManifestEntryCopyFilesystemAttributes(e, &mode, &uid, &gid, nullptr, nullptr, nullptr);
    auto key = [&](const char* name) { fmt::format_to(std::back_inserter(out), "    \"{}\": ", name); };
    out += "  {\n";
    key("domain");
    AppendJsonString(out, EntryDomain(e));
    out += ",\n";
    key("fileID");
    AppendJsonString(out, QVManifestEntryCopyFileIDUTF8(e));
    fmt::format_to(std::back_inserter(out), ",\n    \"gid\": {},\n    \"mode\": {},\n    \"mtime\": {},\n", gid, mode,
                   EntryModifiedUnixTime(e));
    key("path");
    AppendJsonString(out, EntryPath(e));
    fmt::format_to(std::back_inserter(out), ",\n    \"protectionClass\": {},\n    \"size\": {},\n",
                   ProtectionClassCode(QVManifestEntryGetProtectionClass(e)),
                   QVManifestEntryIsFile(e) ? QVManifestEntryGetFileSize(e) : 0);
    key("target");
    if (QVManifestEntryIsSymlink(e)) {
        AppendJsonString(out, std::string(QVManifestEntryGetTargetUTF8(e)));
    } else {
        out += "null";
    }
    fmt::format_to(std::back_inserter(out), ",\n    \"type\": \"{}\",\n    \"uid\": {}\n  }}", EntryTypeName(e), uid);
}

int RunList(const ListOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    std::vector<Entry> entries = SelectEntries(open.get(), o.domain, o.path);
    if (o.json) {
        // Written as it goes, entry by entry: a document of every entry would cost more memory than
        // the manifest itself.
        std::string text = entries.empty() ? "[]\n" : "[\n";
        for (size_t i = 0; i < entries.size(); ++i) {
            AppendEntryJson(text, entries[i]);
            text += i + 1 < entries.size() ? ",\n" : "\n]\n";
            if (text.size() >= 65536) {
                WriteAll(STDOUT_FILENO, text);
                text.clear();
            }
        }
        WriteAll(STDOUT_FILENO, text);
        return kSuccess;
    }
    std::string text;
    for (const Entry& e : entries) {
        // Names come from the backup: control characters are shown escaped, never sent to the terminal.
        std::string name = Printable(EntryPath(e));
        const std::string domain = Printable(EntryDomain(e));
        if (QVManifestEntryIsDirectory(e)) name += "/";
        if (o.longFormat) {
            uint16_t mode = 0;
            uint32_t uid = 0, gid = 0;
            QVManifestEntryCopyFilesystemAttributes(e, &mode, &uid, &gid, nullptr, nullptr, nullptr);
            text += fmt::format("{} {:>5} {:>5} {:>10} {}  {}\t{}", ModeString(mode), uid, gid,
                                QVManifestEntryIsFile(e) ? QVManifestEntryGetFileSize(e) : 0,
                                UtcTimeText(EntryModifiedUnixTime(e)), domain, name);
            if (QVManifestEntryIsSymlink(e)) text += " -> " + Printable(std::string(QVManifestEntryGetTargetUTF8(e)));
        } else {
            text += fmt::format("{}\t{}", domain, name);
        }
        text += '\n';
        if (text.size() >= 65536) {
            WriteAll(STDOUT_FILENO, text);
            text.clear();
        }
    }
    WriteAll(STDOUT_FILENO, text);
    return kSuccess;
}

int RunCsv(const std::string& database) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(database, ec))
        throw Failure(kFailure, fmt::format("{}: no such file", database));
    // Written as it is read. The first megabytes are held until the listing ends or outgrows them, so a
    // damaged database of ordinary size leaves nothing on the output; a larger one may leave a listing
    // that the error line calls incomplete.
    constexpr size_t kHeld = size_t{4} << 20;
    std::string held;
    bool streaming = false;
    CFErrorRef error = nullptr;
    const bool listed = QVManifestDBWriteCSVRepresentation(
        CF::String(database).get(),
        [&](std::string_view text) {
            held += text;
            if (streaming || held.size() > kHeld) {
                WriteAll(STDOUT_FILENO, held);
                held.clear();
                streaming = true;
            }
            return true;
        },
        &error);
    CF::Error failure = CF::Error::Adopt(error);
    if (!listed) {
        const bool damaged = failure.Code() == QVErrorInvalidManifestDatabase ||
                             failure.Code() == QVErrorDatabaseOperation || failure.Code() == QVErrorInvalidMBFile;
        throw Failure(damaged ? kBadBackup : kFailure,
                      fmt::format("{} is not a readable Manifest.db: {}{}", database, ErrorText(failure),
                                  streaming ? "; the listing written is incomplete" : ""));
    }
    held += '\n';
    WriteAll(STDOUT_FILENO, held);
    return kSuccess;
}

}  // namespace

void AddInspectCommands(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto info = std::make_shared<InfoOptions>();
    CLI::App* infoCommand = app.add_subcommand("info", "Show the device, version, encryption and contents of a backup");
    infoCommand->add_option("BACKUP", info->backup, "Backup directory or zip file")->required();
    infoCommand->add_flag("--json", info->json, "Print one JSON object");
    infoCommand->callback([info, &global, &action] { action = [info, &global] { return RunInfo(*info, global); }; });

    auto list = std::make_shared<ListOptions>();
    CLI::App* listCommand = app.add_subcommand("ls", "List the entries of a backup, a domain, or a path");
    listCommand->add_option("BACKUP", list->backup, "Backup directory or zip file")->required();
    listCommand->add_option("DOMAIN", list->domain, "Only this domain");
    listCommand->add_option("PATH", list->path, "Only this path and what is below it");
    listCommand->add_flag("--json", list->json, "Print one JSON array of entry objects");
    listCommand->add_flag("-l,--long", list->longFormat, "Mode, owner, size and date of each entry");
    listCommand->callback([list, &global, &action] { action = [list, &global] { return RunList(*list, global); }; });

    auto database = std::make_shared<std::string>();
    CLI::App* csvCommand = app.add_subcommand("csv", "Print the CSV listing of a Manifest.db file");
    csvCommand->add_option("MANIFEST_DB", *database, "An unencrypted Manifest.db")->required();
    csvCommand->callback([database, &action] { action = [database] { return RunCsv(*database); }; });
}

}  // namespace QuiverTool
