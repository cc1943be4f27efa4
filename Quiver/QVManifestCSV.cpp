#include "Quiver/QVManifestCSV.hpp"

#include <CoreFoundation/CFExtension.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Quiver/CF/CF.hpp"
#include "Quiver/MB/File.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVManifestDB.hpp"

namespace Quiver {

namespace {

constexpr const char* kHeader =
    "\"fileID\",\"domain\",\"relativePath\",\"fileTypeFlags\",\"relativePath2\",\"target\",\"digest\","
    "\"encryptionKey\",\"mode\",\"inodeNumber\",\"userID\",\"groupID\",\"lastModified\",\"lastStatusChange\","
    "\"birth\",\"size\",\"protectionClass\",\"extendedAttributes\"";

// Every double quote of a value becomes three: the listing's readers expect exactly that.
std::string escape(std::string value) {
    if (value.find('"') == std::string::npos) return value;
    std::string out;
    out.reserve(value.size() + 8);
    for (char c : value) {
        if (c == '"') {
            out += "\"\"\"";
        } else {
            out += c;
        }
    }
    return out;
}

std::string base64(const CF::Data& data) {
    if (!data) return {};
    return CF::String::Adopt(CFDataCopyBase64Representation(data.get())).utf8();
}

std::string attributes(const CF::Dictionary& dictionary) {
    if (!dictionary) return {};
    return CF::String::Adopt(CFDictionaryCopyDebugDescription(dictionary.get())).utf8();
}

}  // namespace

CFStringRef QVManifestDBCopyCSVRepresentation(CFStringRef databasePath, CFErrorRef* error) {
    return Boundary(error, [&]() -> CFStringRef {
        std::vector<CF::String> rows;
        try {
            ManifestDatabase database;
            database.Open(std::filesystem::path(CF::String::Retain(databasePath).utf8()));
            database.QueryAllRows([&](const CF::String& fileID, const CF::String& domain, const CF::String& path,
                                      int32_t flags, const CF::Data& blob, int64_t, int64_t count) {
                if (rows.empty()) rows.reserve(static_cast<size_t>(count));
                MB::File record;
                if (blob.size() > 0) {
                    std::optional<MB::File> decoded;
                    try {
                        decoded = MB::File::Decode(blob.get());
                    } catch (const std::exception& e) {
                        throw Error(QVErrorInvalidMBFile, CF::Error(),
                                    fmt::format("Missing or invalid MBFile structure ({}): fileID '{}'", e.what(),
                                                fileID));
                    }
                    if (!decoded)
                        throw Error(QVErrorInvalidMBFile, CF::Error(),
                                    fmt::format("Missing or invalid MBFile structure: fileID '{}'", fileID));
                    record = std::move(*decoded);
                }
                rows.emplace_back(fmt::format(
                    "\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\","
                    "\"{}\",\"{}\",\"{}\",\"{}\"",
                    escape(fileID.utf8()), escape(domain.utf8()), escape(path.utf8()), flags,
                    escape(record.RelativePath.utf8()), escape(record.Target.utf8()), escape(base64(record.Digest)),
                    escape(base64(record.EncryptionKey)), record.Mode, record.InodeNumber, record.UserID,
                    record.GroupID, record.LastModified, record.LastStatusChange, record.Birth, record.Size,
                    record.ProtectionClass, escape(attributes(record.ExtendedAttributes))));
            });
        } catch (const CF::Error& e) {
            throw Error(QVErrorInvalidManifestDatabase, e, "Failed to parse records from manifest database");
        }
        std::sort(rows.begin(), rows.end(), [](const CF::String& a, const CF::String& b) {
            return CFStringCompare(a.get(), b.get(), 0) == kCFCompareLessThan;
        });
        std::string table = kHeader;
        for (const CF::String& row : rows) {
            table += '\n';
            table += row.utf8();
        }
        return CF::String(table).Detach();
    });
}

}  // namespace Quiver
