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
#include "Quiver/Support/ByteReader.hpp"
#include "Tool.hpp"

namespace fs = std::filesystem;
using namespace Quiver;
using nlohmann::json;

namespace QuiverTool {

namespace {

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

// What the key bag's header says of how the password becomes a key. It stands in Manifest.plist
// unenciphered, so it is read without the password; the class keys stay wrapped.
struct KeyBagFacts {
    uint32_t version = 0;
    uint32_t type = 0;
    uint32_t iterations = 0;                  // ITER: PBKDF2-HMAC-SHA1
    std::optional<uint32_t> dpIterations;     // DPIC: PBKDF2-HMAC-SHA256, from iOS 10.2 on
    int classes = 0;
};

std::optional<KeyBagFacts> ReadKeyBagFacts(const CF::Dictionary& manifest) {
    CF::Data blob = manifest.Get<CF::Data>("BackupKeyBag");
    if (!blob) return std::nullopt;
    const std::vector<uint8_t> bytes = blob.vector();
    Support::byte_reader reader(bytes);
    KeyBagFacts facts;
    bool sawVersion = false, sawIterations = false;
    uint64_t offset = 0;
    while (reader.contains(offset, 8)) {
        const std::span<const uint8_t> tagBytes = *reader.slice(offset, 4);
        const std::string tag(tagBytes.begin(), tagBytes.end());
        const uint64_t length = *reader.be(offset + 4, 4);
        if (!reader.contains(offset + 8, length)) return std::nullopt;
        // Header values come before the first class's; the first of each tag is the header's.
        const bool number = length == 4;
        const auto value = static_cast<uint32_t>(number ? reader.be(offset + 8, 4).value_or(0) : 0);
        if (tag == "VERS" && number && !sawVersion) facts.version = value, sawVersion = true;
        if (tag == "TYPE" && number && facts.classes == 0) facts.type = value;
        if (tag == "ITER" && number && !sawIterations) facts.iterations = value, sawIterations = true;
        if (tag == "DPIC" && number && !facts.dpIterations) facts.dpIterations = value;
        if (tag == "CLAS") ++facts.classes;
        offset += 8 + length;
    }
    if (!sawVersion || !sawIterations) return std::nullopt;
    return facts;
}

std::string Thousands(uint64_t n) {
    std::string digits = std::to_string(n);
    for (int i = static_cast<int>(digits.size()) - 3; i > 0; i -= 3) digits.insert(static_cast<size_t>(i), ",");
    return digits;
}

struct InfoOptions {
    std::string backup;
    bool json = false;
    bool local = false;
};

// What only the manifest tells: read when the backup is plain or a password was given.
struct Contents {
    int64_t files = 0, directories = 0, symlinks = 0;
    uint64_t totalSize = 0;
    size_t domains = 0;
};

int RunInfo(const InfoOptions& o, const GlobalOptions& global) {
    std::error_code ec;
    if (!fs::exists(o.backup, ec)) throw Failure(kFailure, fmt::format("{}: no such file or directory", o.backup));
    RefuseFolderOfBackups(o.backup);
    // The metadata files say what a person needs to tell backups apart, and say it without the
    // password. Whatever they cannot be read for, loading the backup says best.
    QVBackupMetadata metadata;
    OpenBackup open;
    CF::Error metadataError;
    if (std::optional<FoundBackup> found = ReadFoundBackup(o.backup, metadataError)) {
        metadata = std::move(found->metadata);
    } else {
        open = LoadBackup(o.backup, global);
    }
    const bool encryptedByMetadata = metadata.manifest.Get<CF::Boolean>("IsEncrypted").value();
    if (!open.get() && (!encryptedByMetadata || PasswordGiven(global))) open = LoadBackup(o.backup, global);

    std::string version = StringValue(metadata.status, "Version");
    std::string manifestFile = metadata.manifestFile;
    bool encrypted = encryptedByMetadata;
    // The ManifestKey is what enciphers Manifest.db; backups before iOS 10.2 have none.
    bool enciphered = encrypted && metadata.manifest.Get<CF::Data>("ManifestKey") && manifestFile == "Manifest.db";
    std::vector<std::string> missing = metadata.missing;
    std::optional<Contents> contents;
    if (const Backup& backup = open.get()) {
        metadata.info = CF::Dictionary::Adopt(QVBackupContainerCopyInfoDict(backup));
        metadata.status = CF::Dictionary::Adopt(QVBackupContainerCopyStatusDict(backup));
        metadata.manifest = CF::Dictionary::Adopt(QVBackupContainerCopyManifestDict(backup));
        // A partial copy may lack the version; the library took it from the kind of manifest present.
        version = ManifestVersionText(backup->manifestVersion);
        manifestFile = version == "2.4" ? "Manifest.mbdb" : "Manifest.db";
        encrypted = QVBackupContainerIsEncrypted(backup) != 0;
        enciphered = QVBackupContainerHasEncipheredManifest(backup);
        missing = QVBackupContainerCopyMissingMetadata(backup);
        Contents c;
        Manifest manifest = QVBackupContainerGetManifest(backup);
        for (const Entry& e : QVManifestGetEntries(manifest)) {
            if (QVManifestEntryIsDirectory(e)) {
                ++c.directories;
            } else if (QVManifestEntryIsSymlink(e)) {
                ++c.symlinks;
            } else {
                ++c.files;
                c.totalSize += QVManifestEntryGetFileSize(e);
            }
        }
        c.domains = CF::Array::Adopt(QVManifestCopyDomainsList(manifest)).size();
        contents = c;
    }
    const DeviceFacts device = DeviceFactsOf(metadata);
    const std::optional<int64_t> date = BackupDateOf(metadata);
    const std::string backupID = StringValue(metadata.status, "UUID");
    const std::string snapshotState = StringValue(metadata.status, "SnapshotState");
    // Devices set SnapshotState to "finished" when the backup completed.
    const bool completeKnown = !snapshotState.empty();
    const bool complete = snapshotState == "finished";
    const std::optional<KeyBagFacts> keyBag = encrypted ? ReadKeyBagFacts(metadata.manifest) : std::nullopt;
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
        auto count = [&](auto Contents::*field) { return contents ? json((*contents).*field) : json(nullptr); };
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
            {"files", count(&Contents::files)},
            {"directories", count(&Contents::directories)},
            {"symlinks", count(&Contents::symlinks)},
            {"totalSize", count(&Contents::totalSize)},
            {"domains", count(&Contents::domains)},
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
    bool longFormat = false;
    bool local = false;
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
                                LabelledTimeText(EntryModifiedUnixTime(e), o.local), domain, name);
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
    listCommand->add_flag("-l,--long", list->longFormat, "Mode, owner, size and date (UTC) of each entry");
    listCommand->add_flag("--local", list->local, "Dates in local time instead of UTC");
    listCommand->callback([list, &global, &action] { action = [list, &global] { return RunList(*list, global); }; });

    auto database = std::make_shared<std::string>();
    CLI::App* csvCommand = app.add_subcommand("csv", "Print the CSV listing of a Manifest.db file");
    csvCommand->add_option("MANIFEST_DB", *database, "An unencrypted Manifest.db")->required();
    csvCommand->callback([database, &action] { action = [database] { return RunCsv(*database); }; });
}

}  // namespace QuiverTool
