// Whole backups for tests, written to a directory in the layout that devices produce.
//
// Tests of the container must open backups that look like the ones users have, yet they cannot ship
// real ones (private data, and the password derivations of real key bags take seconds). So the
// builder makes them here, with the library's own writers for every piece: entries from the entry
// creators, Manifest.db and Manifest.mbdb from the manifest writers, key bags and wrapped keys from
// the key classes, ciphertext from the cryptor. The fixed parts follow what devices write:
//
// - Manifest.plist and Status.plist are binary property lists, Info.plist an XML one (the host
//   writes it).
// - Manifest.plist holds "IsEncrypted", "Version" ("9.1" beside Manifest.mbdb, "10.0" beside
//   Manifest.db), "SystemDomainsVersion" (the string "24.0"), "Date", "WasPasscodeSet",
//   "Applications", "Lockdown" (with "ProductVersion" and "DeviceName") and a "BackupKeyBag" (plain
//   backups carry one too).
// - Each manifest version is written as the devices of its generation wrote it:
//     2.4 (iOS 4 to 9)      Manifest.mbdb, never enciphered, each record holding its file's wrapped key;
//     3.0, 3.1 (iOS 10.0, 10.1)  Manifest.db, left plain even in an encrypted backup, the wrapped
//                           keys in its rows;
//     3.2, 3.3 (iOS 10.2 on)  Manifest.db enciphered under a "ManifestKey" wrapped under class 4.
//   Key bags before 3.2 derive the password in one pass (no DPWT, DPIC, DPSL); from 3.2 on in two.
//   In every generation classes 11, 10, 9 and 5 are marked as wrapped with the device key as well.
// - Stored files lie at "<first two hex digits>/<file ID>" beside Manifest.db and flat beside
//   Manifest.mbdb. In an encrypted backup each is AES-256-CBC with a zero initial value and PKCS#7
//   padding under its own random key (an empty file becomes one block of padding), and the entry
//   holds that key wrapped under the file's protection class. An entry's size is the plaintext size;
//   its digest is the SHA-1 of the stored bytes, so of the ciphertext when encrypted.
// - The key bag holds the classes 11 down to 1; its iteration counts are tiny so that tests stay fast.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Quiver/CF/CF.hpp"
#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVFile.hpp"

namespace QuiverTest {

enum class ItemKind { File, Directory, Symlink };

// One item of the backed-up device.
struct BackupItem {
    ItemKind kind = ItemKind::File;
    std::string domain;
    std::string relativePath;
    std::vector<uint8_t> content;  // regular files
    std::string target;            // symlinks
    // Default: 3 for files of encrypted backups, 4 for files of plain ones, 0 for directories and
    // symlinks. A file of an encrypted backup needs a class of the key bag (1 to 11).
    std::optional<uint32_t> protectionClass;
    // The whole POSIX mode, type bits included; default 0100644, 040755, 0120755 by kind.
    std::optional<uint16_t> mode;
    // Unix seconds, used for birth, last modified and last status change; default the backup's date.
    std::optional<int64_t> modified;
    std::map<std::string, std::vector<uint8_t>> extendedAttributes;

    static BackupItem File(std::string domain, std::string relativePath, std::vector<uint8_t> content);
    static BackupItem File(std::string domain, std::string relativePath, std::string_view content);
    static BackupItem Directory(std::string domain, std::string relativePath);
    static BackupItem Symlink(std::string domain, std::string relativePath, std::string target);
};

struct BackupDescription {
    std::vector<BackupItem> items;
    // "2.4" writes Manifest.mbdb and a flat store; "3.0" to "3.3" Manifest.db and the two-digit store.
    // It also sets the generation of the encryption (see above): before "3.2" the key bag has one
    // derivation pass whatever keyBag.firstPass says, and there is no manifest key.
    std::string manifestVersion = "3.3";
    bool encrypted = false;
    std::string password = "password";
    MB::KeyBagParameters keyBag{.version = 3, .type = 1, .iterations = 1, .dpIterations = 1, .dpwt = 1};
    // Devices of the Manifest.db era mostly leave the digest out.
    bool recordDigests = true;
    std::string deviceName = "Test Device";
    std::string productVersion = "14.3";
    std::string buildVersion = "18C66";
    std::string productType = "Device9,3";  // a model identifier in the devices' form
    int64_t date = 1609459200;  // Unix seconds: the backup's date and the items' default times
};

// What the builder wrote for one item.
struct BuiltItem {
    ItemKind kind = ItemKind::File;
    std::string domain;
    std::string relativePath;
    std::string fileID;
    std::string localFilename;  // relative to the backup directory; empty for directories and symlinks
    std::vector<uint8_t> content;  // the plaintext
    std::vector<uint8_t> digest;   // as the entry records it
    uint32_t protectionClass = 0;
    std::vector<uint8_t> encryptionKey;  // the entry's wrapped key; empty in plain backups
};

struct BuiltBackup {
    std::filesystem::path directory;
    std::string manifestVersion;
    std::string manifestName;  // "Manifest.db" or "Manifest.mbdb"
    std::vector<BuiltItem> items;  // in the order of the description
    // Encrypted backups: the key holder that wrapped every key, and the Manifest.db key (3.2 and 3.3
    // only: the manifests of older generations are not enciphered).
    std::optional<MB::ManifestEncryption> encryption;
    std::optional<std::array<uint8_t, 32>> manifestKey;

    const BuiltItem& Item(std::string_view domain, std::string_view relativePath) const;
};

// Writes the backup into directory (created when missing; it must not already hold a backup).
// Call UseTestTemporaryPath() first. Throws on a description it cannot write: an unknown manifest
// version, two items with the same domain and path, a protection class the key bag lacks.
BuiltBackup BuildBackup(const std::filesystem::path& directory, const BackupDescription& description);

// A small mixed set of items over two domains: a domain root, nested directories, a symlink, and
// files of 0, 1, 16, 17 and 100,000 bytes (block and chunk boundaries of the cipher and the readers).
std::vector<BackupItem> SampleItems();

// The stored name of a file ID for a manifest version: flat for "2.4", "ab/ab..." otherwise.
std::string LocalFilename(const std::string& fileID, const std::string& manifestVersion);

// The built backup packed in a new zip file beside its directory ("<directory>.zip") by the
// library's export; throws when it cannot be opened or written.
std::filesystem::path ZipOfBackup(const BuiltBackup& built, const std::string& password = "");

// Every path below root (root itself as "") with its mode, size, modification time to the
// nanosecond and, for regular files, the SHA-1 of the contents: equal snapshots mean nothing changed.
std::map<std::string, std::string> SnapshotTree(const std::filesystem::path& root);

// Small file helpers for tests that read fixtures or damage them.
std::vector<uint8_t> ReadWholeFile(const std::filesystem::path& path);
// Everything a file object delivers through QVFileGetData (deciphered or enciphered as it is switched).
std::vector<uint8_t> ReadFileObject(const std::shared_ptr<QVFileClass>& file);
void WriteWholeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes);
// The dictionary in a property-list file; empty when the file is not one.
CF::Dictionary ReadPropertyList(const std::filesystem::path& path);
void WritePropertyList(const std::filesystem::path& path, CFPropertyListRef plist, bool xml = false);

}  // namespace QuiverTest
