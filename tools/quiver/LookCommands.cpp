// Commands that look closer at what a backup holds: `stat` (everything the manifest records of one
// entry, and what its stored file is), `find` (entries chosen by name, kind, size and date, listed
// as `ls` lists them) and `domains` (what each domain holds, and which apps left data).
#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Tool.hpp"

using nlohmann::json;

namespace QuiverTool {

namespace {

std::string Hex(std::span<const uint8_t> bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) fmt::format_to(std::back_inserter(text), "{:02x}", b);
    return text;
}

bool IsUtf8Text(std::span<const uint8_t> bytes) {
    size_t i = 0;
    while (i < bytes.size()) {
        const uint8_t c = bytes[i];
        size_t extra = 0;
        if (c < 0x80) {
            // A string attribute often ends in its C terminator; other controls mean binary.
            if (c < 0x20 && c != '\t' && c != '\n' && c != '\r' && !(c == 0 && i + 1 == bytes.size())) return false;
            ++i;
            continue;
        }
        if (c >= 0xc2 && c <= 0xdf) extra = 1;
        else if (c >= 0xe0 && c <= 0xef) extra = 2;
        else if (c >= 0xf0 && c <= 0xf4) extra = 3;
        else return false;
        if (i + extra >= bytes.size()) return false;
        for (size_t k = 1; k <= extra; ++k)
            if ((bytes[i + k] & 0xc0) != 0x80) return false;
        i += extra + 1;
    }
    return true;
}

// A property list as JSON: dates as ISO text, data as hexadecimal.
json PropertyListJson(const quiver::Value& value) {
    using Type = quiver::Value::Type;
    switch (value.type()) {
        case Type::Null: return nullptr;
        case Type::String: return json::parse(JsonString(value.asString()));
        case Type::Boolean: return value.asBoolean();
        case Type::Integer: return value.asInteger();
        case Type::Real: return value.asReal();
        case Type::Date: return IsoTimeText(static_cast<int64_t>(std::floor(value.asDate())));
        case Type::Data: return Hex(value.asData());
        case Type::Array: {
            json out = json::array();
            for (size_t i = 0; i < value.size(); ++i) out.push_back(PropertyListJson(value[i]));
            return out;
        }
        case Type::Dictionary: {
            json out = json::object();
            for (size_t i = 0; i < value.size(); ++i)
                out[json::parse(JsonString(value.keyAt(i))).get<std::string>()] = PropertyListJson(value[i]);
            return out;
        }
    }
    return nullptr;
}

// An extended attribute as people can read it: a property list decoded, text as text, anything else
// in hexadecimal. One key says which it is.
json AttributeJson(const quiver::Value& value) {
    if (value.type() != quiver::Value::Type::Data) return {{"plist", PropertyListJson(value)}};
    const std::span<const uint8_t> bytes(value.asData());
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (bytes.size() >= 6 && (text.substr(0, 6) == "bplist" || bytes[0] == '<')) {
        try {
            return {{"plist", PropertyListJson(quiver::Value::fromXML(text))}};
        } catch (const quiver::Error&) {
            // Not a property list after all: shown as text or bytes below.
        }
    }
    if (!bytes.empty() && IsUtf8Text(bytes)) {
        std::string text(bytes.begin(), bytes.end());
        if (text.back() == '\0') text.pop_back();
        return {{"text", text}};
    }
    return {{"hex", Hex(bytes)}};
}

// ---- stat ----

struct StatOptions {
    std::string backup, domain, path;
    bool json = false;
    bool local = false;
};

int RunStat(const StatOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    const quiver::Backup& backup = open.get();
    std::string wanted = o.path;
    wanted.erase(0, std::min(wanted.find_first_not_of('/'), wanted.size()));
    while (!wanted.empty() && wanted.back() == '/') wanted.pop_back();
    const quiver::Entry e = RequireEntry(backup, o.domain, wanted);

    const uint16_t mode = e.mode();
    const quiver::Times times = e.times();
    const std::span<const uint8_t> digest = e.digest();
    const std::span<const uint8_t> key = e.wrappedKey();
    const auto protectionClass = static_cast<uint32_t>(e.protectionClass());
    const std::string fileID = e.fileID();

    // Only regular files have a stored file.
    std::optional<std::string> storedName;
    std::optional<uint64_t> storedSize;
    std::string storedProblem;
    if (e.isFile()) {
        storedName = backup.storedName(e);
        try {
            storedSize = backup.storedLength(e);
        } catch (const quiver::Error& failure) {
            storedProblem = failure.what();
        }
    }
    json attributes = json::object();
    const quiver::Value properties = e.extendedAttributes();
    for (size_t i = 0; i < properties.size(); ++i)
        attributes[json::parse(JsonString(properties.keyAt(i))).get<std::string>()] = AttributeJson(properties[i]);

    if (o.json) {
        auto orNull = [](auto&& optional) { return optional ? json(*optional) : json(nullptr); };
        json out = {
            {"domain", json::parse(JsonString(e.domain()))},
            {"path", json::parse(JsonString(e.path()))},
            {"type", EntryTypeName(e)},
            {"fileID", fileID},
            {"mode", mode},
            {"modeText", ModeString(mode)},
            {"uid", e.uid()},
            {"gid", e.gid()},
            {"inode", e.inode()},
            {"size", e.isFile() ? e.size() : 0},
            {"birth", times.birth},
            {"mtime", times.modified},
            {"ctime", times.statusChanged},
            {"protectionClass", protectionClass},
            {"digest", digest.empty() ? json(nullptr) : json(Hex(digest))},
            {"hasKey", !key.empty()},
            {"target", e.isSymlink() ? json::parse(JsonString(e.target())) : json(nullptr)},
            {"storedName", orNull(storedName)},
            {"storedSize", orNull(storedSize)},
            {"storedProblem", storedProblem.empty() ? json(nullptr) : json(storedProblem)},
            {"extendedAttributes", attributes},
        };
        WriteAll(STDOUT_FILENO, out.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
        return kSuccess;
    }
    auto time = [&](int64_t t) { return fmt::format("{} ({})", LabelledTimeText(t, o.local), t); };
    std::string text;
    text += fmt::format("Domain:      {}\n", Printable(e.domain()));
    text += fmt::format("Path:        {}\n", Printable(e.path()));
    text += fmt::format("Type:        {}\n", EntryTypeName(e));
    if (e.isSymlink()) text += fmt::format("Target:      {}\n", Printable(e.target()));
    text += fmt::format("File ID:     {}\n", Printable(fileID));
    text += fmt::format("Mode:        {} ({:o})\n", ModeString(mode), mode);
    text += fmt::format("Owner:       uid {}, gid {}\n", e.uid(), e.gid());
    text += fmt::format("Inode:       {}\n", e.inode());
    if (e.isFile())
        text += fmt::format("Size:        {}{}\n", SizeText(e.size()),
                            e.size() >= 1000 ? fmt::format(" ({} bytes)", e.size()) : "");
    text += fmt::format("Modified:    {}\n", time(times.modified));
    text += fmt::format("Changed:     {}\n", time(times.statusChanged));
    text += fmt::format("Born:        {}\n", time(times.birth));
    text += fmt::format("Protection:  class {} ({})\n", protectionClass, quiver::to_string(e.protectionClass()));
    text += fmt::format("Digest:      {}\n", digest.empty() ? std::string("none recorded") : "SHA-1 " + Hex(digest));
    text += fmt::format("Key:         {}\n", key.empty() ? std::string("none") : fmt::format("yes, {} bytes wrapped", key.size()));
    if (storedName)
        text += fmt::format("Stored as:   {} ({})\n", *storedName,
                            storedSize ? fmt::format("{} bytes", *storedSize) : storedProblem);
    if (!attributes.empty()) {
        text += "Extended attributes:\n";
        for (const auto& [name, value] : attributes.items()) {
            std::string shown;
            if (value.contains("text")) shown = "\"" + Printable(value["text"].get<std::string>()) + "\"";
            else if (value.contains("hex")) shown = "hex " + value["hex"].get<std::string>();
            else shown = "property list " + value["plist"].dump(-1, ' ', false, json::error_handler_t::replace);
            text += fmt::format("  {}: {}\n", Printable(name), Printable(shown));
        }
    }
    WriteAll(STDOUT_FILENO, text);
    return kSuccess;
}

// ---- find ----

struct FindOptions {
    std::string backup;
    std::vector<std::string> patterns;
    std::vector<std::string> domains;
    std::vector<std::string> types;
    std::string minSize, maxSize, newer, older;
    bool ignoreCase = false;
    bool json = false;
    bool jsonLines = false;
    bool longFormat = false;
    bool local = false;
};

// "1500", "10k", "2M", "1G": bytes, or multiples of 1024.
uint64_t ParseSize(const std::string& option, const std::string& text) {
    size_t used = 0;
    unsigned long long value = 0;
    try {
        value = std::stoull(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || text[0] == '-') throw Failure(kUsage, fmt::format("{} {}: not a size (give bytes, or 10k, 2M, 1G)", option, text));
    std::string unit = text.substr(used);
    std::transform(unit.begin(), unit.end(), unit.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (!unit.empty() && unit.back() == 'b') unit.pop_back();
    int shift = 0;
    if (unit == "k") shift = 10;
    else if (unit == "m") shift = 20;
    else if (unit == "g") shift = 30;
    else if (unit == "t") shift = 40;
    else if (!unit.empty()) throw Failure(kUsage, fmt::format("{} {}: unknown unit \"{}\" (k, M, G or T)", option, text, unit));
    if (shift && value > (~0ULL >> shift)) throw Failure(kUsage, fmt::format("{} {}: too large", option, text));
    return static_cast<uint64_t>(value) << shift;
}

// "2021-01-31", "2021-01-31 12:00", "2021-01-31T12:00:00" (UTC, or local time with --local) or
// "@1612094400" (Unix seconds).
int64_t ParseDate(const std::string& option, const std::string& text, bool local) {
    if (!text.empty() && text[0] == '@') {
        try {
            size_t used = 0;
            const long long seconds = std::stoll(text.substr(1), &used);
            if (used == text.size() - 1) return seconds;
        } catch (const std::exception&) {
        }
    } else {
        std::tm parts{};
        for (const char* format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
            parts = std::tm{};
            const char* end = strptime(text.c_str(), format, &parts);
            if (end && *end == '\0') {
                parts.tm_isdst = -1;
                return local ? static_cast<int64_t>(mktime(&parts)) : static_cast<int64_t>(timegm(&parts));
            }
        }
    }
    throw Failure(kUsage, fmt::format("{} {}: not a date (give 2021-01-31, \"2021-01-31 12:00\" or @UNIXSECONDS)", option, text));
}

int RunFind(const FindOptions& o, const GlobalOptions& global) {
    const ListingFormat format = ListingFormatOf(o.json, o.jsonLines, o.longFormat);
    // Every option is checked before the backup is opened and a password asked for.
    std::vector<std::string> types;
    for (const std::string& type : o.types) {
        if (type == "f" || type == "file") types.push_back("file");
        else if (type == "d" || type == "dir" || type == "directory") types.push_back("dir");
        else if (type == "l" || type == "symlink" || type == "link") types.push_back("symlink");
        else throw Failure(kUsage, fmt::format("--type {}: give file (f), dir (d) or symlink (l)", type));
    }
    // Bounds that were not given take the widest values; sizes, once given, leave folders and links out.
    const bool bySize = !o.minSize.empty() || !o.maxSize.empty();
    const uint64_t minSize = o.minSize.empty() ? 0 : ParseSize("--min-size", o.minSize);
    const uint64_t maxSize = o.maxSize.empty() ? UINT64_MAX : ParseSize("--max-size", o.maxSize);
    const int64_t newer = o.newer.empty() ? INT64_MIN : ParseDate("--newer", o.newer, o.local);
    const int64_t older = o.older.empty() ? INT64_MAX : ParseDate("--older", o.older, o.local);
    const int flags = o.ignoreCase ? FNM_CASEFOLD : 0;

    OpenBackup open = LoadBackup(o.backup, global);
    std::vector<quiver::Entry> entries = SelectEntries(open.get(), std::nullopt, std::nullopt);
    EntryListing listing(format, o.local);
    std::string name;
    for (const quiver::Entry& e : entries) {
        const std::string_view domain = e.domain();
        if (!o.domains.empty()) {
            const bool inDomain = std::any_of(o.domains.begin(), o.domains.end(), [&](const std::string& pattern) {
                return fnmatch(pattern.c_str(), std::string(domain).c_str(), flags) == 0;
            });
            if (!inDomain) continue;
        }
        if (!types.empty() && std::find(types.begin(), types.end(), EntryTypeName(e)) == types.end()) continue;
        if (bySize) {
            if (!e.isFile()) continue;
            const uint64_t size = e.size();
            if (size < minSize || size > maxSize) continue;
        }
        const int64_t modified = EntryModifiedUnixTime(e);
        if (modified <= newer || modified >= older) continue;
        if (!o.patterns.empty()) {
            name.assign(domain);
            name += '/';
            name += e.path();
            const bool matches = std::any_of(o.patterns.begin(), o.patterns.end(), [&](const std::string& pattern) {
                return fnmatch(pattern.c_str(), name.c_str(), flags) == 0;
            });
            if (!matches) continue;
        }
        listing.Add(e);
    }
    listing.Finish();
    return kSuccess;
}

// ---- domains ----

struct DomainsOptions {
    std::string backup;
    bool json = false;
};

struct Tally {
    int64_t files = 0, directories = 0, symlinks = 0;
    uint64_t size = 0;
};

json TallyJson(const Tally& t) {
    return {{"files", t.files}, {"directories", t.directories}, {"symlinks", t.symlinks}, {"size", t.size}};
}

// The app a domain's files belong to: "AppDomain-ID", "AppDomainPlugin-ID.extension" (an app's
// extension, counted with the app whose ID it starts with) and "AppDomainGroup-group.ID" (data
// shared by several apps, shown as a group).
struct AppDomain {
    std::string kind;  // "app", "plugin", "group"
    std::string id;
};

std::optional<AppDomain> AppDomainOf(const std::string& domain) {
    static const std::pair<const char*, const char*> kinds[] = {
        {"AppDomainPlugin-", "plugin"}, {"AppDomainGroup-", "group"}, {"AppDomain-", "app"}};
    for (const auto& [prefix, kind] : kinds) {
        const std::string_view p(prefix);
        if (domain.size() > p.size() && domain.compare(0, p.size(), p) == 0) return AppDomain{kind, domain.substr(p.size())};
    }
    return std::nullopt;
}

int RunDomains(const DomainsOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    std::map<std::string, Tally> domains;
    Tally total;
    for (const quiver::Entry e : open.get().entries()) {
        Tally& t = domains[std::string(e.domain())];
        for (Tally* tally : {&t, &total}) {
            if (e.isDirectory()) {
                ++tally->directories;
            } else if (e.isSymlink()) {
                ++tally->symlinks;
            } else {
                ++tally->files;
                tally->size += e.size();
            }
        }
    }
    // Apps with data: those whose domains hold at least one file. Extensions count with their app.
    struct App {
        Tally tally;
        std::vector<std::string> domains;
    };
    std::map<std::string, App> apps;
    for (const auto& [domain, tally] : domains) {
        const std::optional<AppDomain> app = AppDomainOf(domain);
        if (!app || app->kind != "app") continue;
        apps[app->id].domains.push_back(domain);
        apps[app->id].tally = tally;
    }
    for (const auto& [domain, tally] : domains) {
        const std::optional<AppDomain> app = AppDomainOf(domain);
        if (!app || app->kind != "plugin") continue;
        // The longest app ID that the extension's ID extends.
        std::string owner;
        for (const auto& [id, unused] : apps)
            if (app->id.size() > id.size() && app->id.compare(0, id.size(), id) == 0 && app->id[id.size()] == '.' &&
                id.size() > owner.size())
                owner = id;
        if (owner.empty()) continue;
        App& a = apps[owner];
        a.domains.push_back(domain);
        a.tally.files += tally.files;
        a.tally.directories += tally.directories;
        a.tally.symlinks += tally.symlinks;
        a.tally.size += tally.size;
    }
    std::erase_if(apps, [](const auto& item) { return item.second.tally.files == 0; });

    if (o.json) {
        json domainList = json::array();
        for (const auto& [domain, tally] : domains) {
            json item = TallyJson(tally);
            item["domain"] = json::parse(JsonString(domain));
            domainList.push_back(item);
        }
        json appList = json::array();
        for (const auto& [id, app] : apps) {
            json item = TallyJson(app.tally);
            item["bundleID"] = json::parse(JsonString(id));
            item["domains"] = json::parse(json(app.domains).dump(-1, ' ', false, json::error_handler_t::replace));
            appList.push_back(item);
        }
        json out = {{"domains", domainList}, {"apps", appList}, {"total", TallyJson(total)}};
        WriteAll(STDOUT_FILENO, out.dump(2) + "\n");
        return kSuccess;
    }
    size_t width = 6;
    for (const auto& [domain, unused] : domains) width = std::max(width, Printable(domain).size());
    std::string text = fmt::format("{:<{}}  {:>8}  {:>7}  {:>6}  {:>10}\n", "DOMAIN", width, "FILES", "DIRS", "LINKS", "SIZE");
    for (const auto& [domain, t] : domains)
        text += fmt::format("{:<{}}  {:>8}  {:>7}  {:>6}  {:>10}\n", Printable(domain), width, t.files, t.directories,
                            t.symlinks, SizeText(t.size));
    text += fmt::format("{} domains, {} files, {} ({} bytes)\n", domains.size(), total.files, SizeText(total.size), total.size);
    text += fmt::format("\nApps with data: {}\n", apps.size());
    for (const auto& [id, app] : apps)
        text += fmt::format("  {}  {} in {} {}{}\n", Printable(id), SizeText(app.tally.size), app.tally.files,
                            app.tally.files == 1 ? "file" : "files",
                            app.domains.size() > 1 ? fmt::format(" ({} domains)", app.domains.size()) : std::string());
    WriteAll(STDOUT_FILENO, text);
    return kSuccess;
}

}  // namespace

void AddLookCommands(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto stat = std::make_shared<StatOptions>();
    CLI::App* statCommand = app.add_subcommand("stat", "Show everything the manifest records of one entry, and its stored file");
    statCommand->add_option("BACKUP", stat->backup, "Backup directory or zip file")->required();
    statCommand->add_option("DOMAIN", stat->domain, "The entry's domain")->required();
    statCommand->add_option("PATH", stat->path, "The entry's path in its domain (\"\" for the domain's root)")->required();
    statCommand->add_flag("--json", stat->json, "Print one JSON object (absent values are null)");
    statCommand->add_flag("--local", stat->local, "Times in local time instead of UTC");
    statCommand->callback([stat, &global, &action] { action = [stat, &global] { return RunStat(*stat, global); }; });

    auto find = std::make_shared<FindOptions>();
    CLI::App* findCommand = app.add_subcommand(
        "find", "List the entries that match every condition given, as ls lists them");
    findCommand->add_option("BACKUP", find->backup, "Backup directory or zip file")->required();
    findCommand->add_option("PATTERN", find->patterns,
                            "Glob patterns over \"DOMAIN/PATH\" (* matches across /); an entry matching any is listed");
    findCommand->add_option("--domain", find->domains, "Only domains matching this glob (repeatable)")
        ->type_name("GLOB")
        ->allow_extra_args(false);
    findCommand->add_option("--type", find->types, "Only file (f), dir (d) or symlink (l) entries (repeatable)")
        ->type_name("TYPE")
        ->allow_extra_args(false);
    findCommand->add_option("--min-size", find->minSize, "Only files of at least SIZE (bytes, or 10k, 2M, 1G)")->type_name("SIZE");
    findCommand->add_option("--max-size", find->maxSize, "Only files of at most SIZE")->type_name("SIZE");
    findCommand->add_option("--newer", find->newer, "Only entries modified after DATE (2021-01-31, \"2021-01-31 12:00\", @UNIXSECONDS; UTC)")->type_name("DATE");
    findCommand->add_option("--older", find->older, "Only entries modified before DATE")->type_name("DATE");
    findCommand->add_flag("-i,--ignore-case", find->ignoreCase, "Patterns match regardless of case");
    findCommand->add_flag("-l,--long", find->longFormat, "Mode, owner, size and date (UTC) of each entry");
    findCommand->add_flag("--json", find->json, "Print one JSON array of entry objects, as ls --json");
    findCommand->add_flag("--jsonl", find->jsonLines, "Print one JSON object per line");
    findCommand->add_flag("--local", find->local, "Dates shown and given in local time instead of UTC");
    findCommand->callback([find, &global, &action] { action = [find, &global] { return RunFind(*find, global); }; });

    auto domains = std::make_shared<DomainsOptions>();
    CLI::App* domainsCommand = app.add_subcommand("domains", "Count the entries and bytes of each domain, and list the apps that have data");
    domainsCommand->add_option("BACKUP", domains->backup, "Backup directory or zip file")->required();
    domainsCommand->add_flag("--json", domains->json, "Print one JSON object");
    domainsCommand->callback([domains, &global, &action] { action = [domains, &global] { return RunDomains(*domains, global); }; });
}

}  // namespace QuiverTool
