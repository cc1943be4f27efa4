// A backup the size of a real phone's manifest, written by the benchmarks that need one: rows over a few
// dozen domains, two thirds of them files (half with digests), the rest directories and some symlinks.
// Stored files are written only when asked for (plain backups only): then each file holds up to 16 KiB of
// incompressible bytes, about 1.6 GB for the default rows, and its digest is the bytes' SHA-1. Without
// them the work measured reads and edits the manifest only. An encrypted one has an enciphered
// Manifest.db and a key bag with small iteration counts (password "password").
#pragma once

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVManifestDB.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/Support/Random.hpp"

namespace QuiverBench {

inline void WriteBytes(const std::filesystem::path& path, const uint8_t* bytes, size_t size) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
}

inline void WritePlist(const std::filesystem::path& path, const CF::Dictionary& dict) {
    CF::Data data = CF::Data::Adopt(
        CFPropertyListCreateData(kCFAllocatorDefault, dict.get(), kCFPropertyListBinaryFormat_v1_0, 0, nullptr));
    WriteBytes(path, data.bytes().data(), data.bytes().size());
}

// The manifest of such a backup: entries with wrapped keys when encrypted, and their stored files
// written under storedDir when it is not empty. The library's temporary path must be set.
inline Quiver::Manifest MakeLargeManifest(int64_t rows, bool encrypted, const std::filesystem::path& storedDir = {}) {
    using namespace Quiver;
    std::vector<CF::String> domains;
    for (int d = 0; d < 40; ++d)
        domains.emplace_back(d == 0 ? std::string("HomeDomain") : "AppDomain-com.example.app" + std::to_string(d));
    std::vector<uint8_t> key(44, 0x5a);
    key[0] = 3;
    key[1] = key[2] = key[3] = 0;
    std::vector<Entry> entries;
    entries.reserve(static_cast<size_t>(rows));
    for (int64_t i = 0; i < rows; ++i) {
        const CF::String& domain = domains[static_cast<size_t>(i % 40)];
        const std::string path = "Media/DCIM/" + std::to_string(100 + i % 97) + "APPLE/IMG_" + std::to_string(i) + ".HEIC";
        Entry entry;
        if (i % 3 != 2) {
            entry = QVManifestEntryCreateForDirectory(domain.get(), CF::String(path).get());
            entry->mode = 0x81A4;
            entry->fileType = 1;
            entry->size = static_cast<uint64_t>(i * 7919 % (storedDir.empty() ? 5000000 : 16384));
            std::vector<uint8_t> digest = i % 2 == 0 ? Support::RandomBytes(20) : std::vector<uint8_t>();
            if (!storedDir.empty()) {
                const std::vector<uint8_t> bytes = Support::RandomBytes(entry->size);
                const std::string id = entry->fileID();
                std::filesystem::create_directories(storedDir / id.substr(0, 2));
                WriteBytes(storedDir / id.substr(0, 2) / id, bytes.data(), bytes.size());
                if (i % 2 == 0) digest = Support::Sha1(bytes);
            }
            const std::string_view asText(reinterpret_cast<const char*>(digest.data()), digest.size());
            entry->SetTexts({{QVManifestEntryClass::kDigest, asText},
                             {QVManifestEntryClass::kEncryptionKey,
                              encrypted ? std::string_view(reinterpret_cast<const char*>(key.data()), key.size())
                                        : std::string_view()}});
            entry->protectionClass = EntryProtectionClassCompleteUntilUnlocked;
        } else if (i % 30 == 2) {
            entry = QVManifestEntryCreateForSymlink(domain.get(), CF::String(path).get(), CFSTR("../elsewhere"));
        } else {
            entry = QVManifestEntryCreateForDirectory(domain.get(), CF::String(path).get());
        }
        entry->inode = static_cast<uint64_t>(1000000 + i);
        entries.push_back(std::move(entry));
    }
    Manifest manifest = QVManifestCreateEmpty();
    QVManifestUpdateEntries(manifest, std::move(entries));
    return manifest;
}

// Writes the backup into dir (created); returns the size of the plain Manifest.db. The library's
// temporary path must be set.
inline size_t WriteLargeBackup(const std::filesystem::path& dir, int64_t rows, bool encrypted, bool stored = false) {
    using namespace Quiver;
    std::filesystem::create_directories(dir);
    Manifest manifest = MakeLargeManifest(rows, encrypted, stored ? dir : std::filesystem::path());
    std::vector<std::byte> database = QVManifestCreateManifestDBRepresentation(manifest, QVManifestDataVersion33);
    const std::span<const uint8_t> plain(reinterpret_cast<const uint8_t*>(database.data()), database.size());

    CF::Dictionary manifestPlist = CF::Dictionary::CreateMutable();
    CF::Dictionary lockdown = CF::Dictionary::CreateMutable();
    lockdown.Set("ProductVersion", CF::String("17.5"));
    lockdown.Set("DeviceName", CF::String("Bench Phone"));
    manifestPlist.Set("Lockdown", lockdown);
    manifestPlist.Set("Version", CF::String("10.0"));
    manifestPlist.Set("IsEncrypted", CF::Boolean(encrypted));
    const uint32_t classes[] = {11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};
    MB::KeyBag keyBag = MB::KeyBag::Create("password", classes, {.iterations = 1, .dpIterations = 1});
    manifestPlist.Set("BackupKeyBag", keyBag.CopyData());
    if (encrypted) {
        MB::ManifestEncryption keys = MB::ManifestEncryption::Create(keyBag, 4);
        manifestPlist.Set("ManifestKey", keys.LockKey(4, keys.GetManifestKey()));
        const std::array<uint8_t, 32> manifestKey = keys.GetManifestKey();
        std::vector<uint8_t> cipher = Support::Cryptor::Encrypt(Support::Cryptor::Algorithm::AES256, manifestKey, {}, plain);
        WriteBytes(dir / "Manifest.db", cipher.data(), cipher.size());
    } else {
        WriteBytes(dir / "Manifest.db", plain.data(), plain.size());
    }
    CF::Dictionary status = CF::Dictionary::CreateMutable();
    status.Set("Version", CF::String("3.3"));
    WritePlist(dir / "Manifest.plist", manifestPlist);
    WritePlist(dir / "Status.plist", status);
    WritePlist(dir / "Info.plist", CF::Dictionary::CreateMutable());
    return plain.size();
}

}  // namespace QuiverBench
