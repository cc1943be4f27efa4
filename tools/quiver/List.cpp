// Finding backups: `list` shows the backups in the folders given, or in the places where the host
// software keeps them, one line each, from their metadata files alone (no password, no manifest), so
// that listing a folder of large encrypted backups costs a few small reads per backup. The same search
// tells a person who points a command at such a folder which backups it holds.
#include <glob.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Tool.hpp"

namespace fs = std::filesystem;
using nlohmann::json;

namespace QuiverTool {

std::string StringValue(const quiver::Value& dict, const char* key) { return std::string(dict[key].asString()); }

DeviceFacts DeviceFactsOf(const quiver::Metadata& metadata) {
    const quiver::Value& lockdown = metadata.manifest["Lockdown"];
    auto pick = [&](const char* infoKey, const char* lockdownKey) {
        std::string value = StringValue(metadata.info, infoKey);
        return value.empty() ? StringValue(lockdown, lockdownKey) : value;
    };
    return {pick("Device Name", "DeviceName"), pick("Product Type", "ProductType"),
            pick("Product Version", "ProductVersion"), pick("Build Version", "BuildVersion")};
}

std::optional<int64_t> BackupDateOf(const quiver::Metadata& metadata) {
    for (const auto& [dict, key] : {std::pair{&metadata.info, "Last Backup Date"}, {&metadata.status, "Date"},
                                    {&metadata.manifest, "Date"}}) {
        const quiver::Value& date = (*dict)[key];
        if (date.type() == quiver::Value::Type::Date) return static_cast<int64_t>(std::floor(date.asDate()));
    }
    return std::nullopt;
}

namespace {

// Any one of these makes a folder a backup, or a partial copy of one, rather than a folder of them.
bool LooksLikeBackup(const fs::path& folder) {
    std::error_code ec;
    for (const char* name : {"Manifest.plist", "Status.plist", "Manifest.db", "Manifest.mbdb"})
        if (fs::exists(folder / name, ec)) return true;
    return false;
}

uint64_t SizeOnDisk(const fs::path& path) {
    std::error_code ec;
    if (!fs::is_directory(fs::symlink_status(path, ec))) {
        const uintmax_t size = fs::file_size(path, ec);
        return ec ? 0 : size;
    }
    uint64_t total = 0;
    for (fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec), end;
         !ec && it != end; it.increment(ec)) {
        std::error_code sizeError;
        if (it->is_regular_file(sizeError)) {
            const uintmax_t size = it->file_size(sizeError);
            if (!sizeError) total += size;
        }
    }
    return total;
}

// The places where the host software keeps backups: on macOS in the home folder, on Windows below
// the roaming application data or the user's profile, and those of Windows as seen from WSL.
std::vector<std::string> UsualPlaces() {
    std::vector<std::string> places;
    if (const char* home = std::getenv("HOME"); home && *home)
        places.push_back((fs::path(home) / "Library/Application Support/MobileSync/Backup").string());
    if (const char* appData = std::getenv("APPDATA"); appData && *appData)
        places.push_back((fs::path(appData) / "Apple Computer/MobileSync/Backup").string());
    if (const char* profile = std::getenv("USERPROFILE"); profile && *profile)
        places.push_back((fs::path(profile) / "Apple/MobileSync/Backup").string());
    for (const char* pattern : {"/mnt/c/Users/*/AppData/Roaming/Apple Computer/MobileSync/Backup",
                                "/mnt/c/Users/*/Apple/MobileSync/Backup"}) {
        glob_t found{};
        if (glob(pattern, GLOB_ONLYDIR, nullptr, &found) == 0)
            for (size_t i = 0; i < found.gl_pathc; ++i) places.emplace_back(found.gl_pathv[i]);
        globfree(&found);
    }
    return places;
}

std::string OrUnknown(const std::string& text) { return text.empty() ? "?" : text; }

json OrNull(const std::string& text) { return text.empty() ? json(nullptr) : json(text); }

bool IsEncrypted(const quiver::Metadata& metadata) { return metadata.encrypted(); }

struct ListOptions {
    std::vector<std::string> folders;
    bool json = false;
    bool local = false;
};

int RunListBackups(const ListOptions& o) {
    const bool searchUsual = o.folders.empty();
    const std::vector<std::string> places = searchUsual ? UsualPlaces() : o.folders;
    std::vector<FoundBackup> found;
    for (const std::string& place : places) {
        std::error_code ec;
        if (!fs::exists(place, ec)) {
            if (!searchUsual) Warn(fmt::format("{}: no such file or directory", place));
            continue;
        }
        std::vector<FoundBackup> here;
        if (fs::is_directory(place, ec)) {
            here = FindBackups(place);
        } else {
            std::string error;
            if (std::optional<FoundBackup> zip = ReadFoundBackup(place, error, true))
                here.push_back(std::move(*zip));
            else
                Warn(fmt::format("{} is not a readable backup: {}", place, error));
        }
        for (FoundBackup& backup : here) found.push_back(std::move(backup));
    }

    if (o.json) {
        json out = json::array();
        for (const FoundBackup& b : found) {
            const DeviceFacts device = DeviceFactsOf(b.metadata);
            const std::optional<int64_t> date = BackupDateOf(b.metadata);
            out.push_back({
                {"path", b.path},
                {"deviceName", OrNull(device.name)},
                {"productType", OrNull(device.productType)},
                {"productVersion", OrNull(device.productVersion)},
                {"buildVersion", OrNull(device.buildVersion)},
                {"backupID", OrNull(StringValue(b.metadata.status, "UUID"))},
                {"date", date ? json(IsoTimeText(*date)) : json(nullptr)},
                {"encrypted", IsEncrypted(b.metadata)},
                {"size", b.size},
                {"missing", b.metadata.missing},
            });
        }
        WriteAll(STDOUT_FILENO, out.dump(2) + "\n");
    } else {
        // Columns line up; names come from the backups and are shown escaped.
        std::vector<std::array<std::string, 6>> rows;
        std::array<size_t, 6> widths{};
        for (const FoundBackup& b : found) {
            const DeviceFacts device = DeviceFactsOf(b.metadata);
            const std::optional<int64_t> date = BackupDateOf(b.metadata);
            rows.push_back({Printable(b.path), Printable(OrUnknown(device.name)),
                            "iOS " + Printable(OrUnknown(device.productVersion)),
                            date ? LabelledTimeText(*date, o.local) : std::string("?"),
                            IsEncrypted(b.metadata) ? "encrypted" : "plain", SizeText(b.size)});
            for (size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], rows.back()[i].size());
        }
        std::string text;
        for (const auto& row : rows) {
            for (size_t i = 0; i < row.size(); ++i) {
                if (i + 1 < row.size())
                    text += fmt::format("{:<{}}  ", row[i], widths[i]);
                else
                    text += row[i];
            }
            text += '\n';
        }
        WriteAll(STDOUT_FILENO, text);
    }
    if (!found.empty()) return kSuccess;
    if (searchUsual) {
        std::string where;
        for (const std::string& place : places) where += (where.empty() ? "" : ", ") + place;
        Warn(where.empty() ? std::string("no backups found: none of the usual places exists here")
                           : fmt::format("no backups found in {}", where));
    } else {
        Warn("no backups found");
    }
    return kFailure;
}

}  // namespace

std::optional<FoundBackup> ReadFoundBackup(const std::string& path, std::string& error, bool measureSize) {
    FoundBackup found;
    found.path = path;
    try {
        found.metadata = quiver::Backup::readMetadata(path);
    } catch (const quiver::Error& e) {
        error = e.what();
        return std::nullopt;
    }
    if (measureSize) found.size = SizeOnDisk(path);
    return found;
}

std::vector<FoundBackup> FindBackups(const std::string& folder) {
    std::vector<FoundBackup> found;
    std::vector<fs::path> candidates;
    if (LooksLikeBackup(folder)) {
        candidates.push_back(folder);
    } else {
        std::error_code ec;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            std::error_code typeError;
            if (it->is_directory(typeError) && LooksLikeBackup(it->path())) candidates.push_back(it->path());
        }
        std::sort(candidates.begin(), candidates.end());
    }
    for (const fs::path& candidate : candidates) {
        std::string error;
        if (std::optional<FoundBackup> backup = ReadFoundBackup(candidate.string(), error, true))
            found.push_back(std::move(*backup));
        else
            Warn(fmt::format("{} is not a readable backup: {}", Printable(candidate.string()), error));
    }
    return found;
}

void RefuseFolderOfBackups(const std::string& path) {
    std::error_code ec;
    if (!fs::is_directory(path, ec) || LooksLikeBackup(path)) return;
    std::vector<fs::path> backups;
    for (fs::directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code typeError;
        if (it->is_directory(typeError) && LooksLikeBackup(it->path())) backups.push_back(it->path());
    }
    if (backups.empty()) return;
    std::sort(backups.begin(), backups.end());
    std::string list;
    for (const fs::path& backup : backups) {
        std::string error;
        std::optional<FoundBackup> found = ReadFoundBackup(backup.string(), error);
        list += "\n  " + Printable(backup.string());
        if (!found) {
            list += "  (not readable)";
            continue;
        }
        const DeviceFacts device = DeviceFactsOf(found->metadata);
        const std::optional<int64_t> date = BackupDateOf(found->metadata);
        list += fmt::format("  ({}, iOS {}, {})", Printable(OrUnknown(device.name)), Printable(OrUnknown(device.productVersion)),
                            date ? LabelledTimeText(*date, false) : std::string("date unknown"));
    }
    throw Failure(kBadBackup, backups.size() == 1
                                  ? fmt::format("{} is a folder that holds a backup, not a backup; give that one:{}", path, list)
                                  : fmt::format("{} is a folder that holds {} backups, not a backup; give one of them:{}",
                                                path, backups.size(), list));
}

void AddListCommand(CLI::App& app, const GlobalOptions&, Action& action) {
    auto list = std::make_shared<ListOptions>();
    CLI::App* command = app.add_subcommand(
        "list", "Show the backups in folders, or in the usual places when none is given (folder, device, iOS, date, "
                "encryption, size)");
    command->add_option("DIR", list->folders, "A backup, or a folder of backups");
    command->add_flag("--json", list->json, "Print one JSON array of backup objects");
    command->add_flag("--local", list->local, "Show dates in local time instead of UTC");
    command->callback([list, &action] { action = [list] { return RunListBackups(*list); }; });
}

}  // namespace QuiverTool
