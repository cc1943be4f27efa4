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

bool QVManifestDBWriteCSVRepresentation(CFStringRef databasePath, const CSVWriter& write, CFErrorRef* error) {
    return Boundary(error, [&]() -> bool {
        // Rows go out in file-ID order as SQLite reads them along the primary key, so nothing is
        // held but the row at hand.
        std::string text = kHeader;
        bool more = true;
        try {
            ManifestDatabase database;
            database.OpenForReading(std::filesystem::path(CF::String::Retain(databasePath).utf8()));
            database.QueryAllRows(
                [&](const ManifestDatabase::Row& row) {
                    if (!more) return;
                    const std::string_view fileID = row.fileID;
                    MB::File record;
                    if (!row.data.empty()) {
                        std::optional<MB::File> decoded;
                        try {
                            decoded = MB::File::Decode(row.data);
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
                    fmt::format_to(
                        std::back_inserter(text),
                        "\n\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\",\"{}\","
                        "\"{}\",\"{}\",\"{}\",\"{}\",\"{}\"",
                        escape(std::string(fileID)), escape(row.domain.utf8()), escape(std::string(row.relativePath)),
                        row.flags,
                        escape(record.RelativePath.utf8()), escape(record.Target.utf8()), escape(base64(record.Digest)),
                        escape(base64(record.EncryptionKey)), record.Mode, record.InodeNumber, record.UserID,
                        record.GroupID, record.LastModified, record.LastStatusChange, record.Birth, record.Size,
                        record.ProtectionClass, escape(attributes(record.ExtendedAttributes)));
                    if (text.size() >= 65536) {
                        more = write(text);
                        text.clear();
                    }
                },
                "fileID");
        } catch (const CF::Error& e) {
            throw Error(QVErrorInvalidManifestDatabase, e, "Failed to parse records from manifest database");
        }
        return more && write(text);
    });
}

CFStringRef QVManifestDBCopyCSVRepresentation(CFStringRef databasePath, CFErrorRef* error) {
    std::string table;
    const bool written = QVManifestDBWriteCSVRepresentation(
        databasePath,
        [&](std::string_view text) {
            table += text;
            return true;
        },
        error);
    return written ? CF::String(table).Detach() : nullptr;
}

}  // namespace Quiver
