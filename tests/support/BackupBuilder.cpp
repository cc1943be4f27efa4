#include "support/BackupBuilder.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <stdexcept>
#include <utility>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/QVManifest.hpp"
#include "Quiver/QVManifestDB.hpp"
#include "Quiver/QVManifestEntry.hpp"
#include "Quiver/QVManifestMBDB.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Encoding.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/Hash.hpp"
#include "Quiver/Support/Random.hpp"
#include "support/TemporaryPath.hpp"

namespace fs = std::filesystem;
using Quiver::Support::Cryptor;

namespace QuiverTest {

namespace {

// Devices list their class keys from the highest class down.
constexpr std::array<uint32_t, 11> kKeyBagClasses{11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};
// The class under which devices wrap the Manifest.db key.
constexpr uint32_t kManifestKeyClass = 4;

QVManifestDataVersion VersionCode(const std::string& version) {
    if (version == "2.4") return QVManifestDataVersion24;
    if (version == "3.0") return QVManifestDataVersion30;
    if (version == "3.1") return QVManifestDataVersion31;
    if (version == "3.2") return QVManifestDataVersion32;
    if (version == "3.3") return QVManifestDataVersion33;
    throw std::invalid_argument("backup builder: unknown manifest version '" + version + "'");
}

// Devices enciphered Manifest.db, with a manifest key and a two-pass key bag, from iOS 10.2 (3.2) on.
bool EnciphersManifest(QVManifestDataVersion version) { return version >= QVManifestDataVersion32; }

std::string Upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

std::string RandomHex(std::size_t bytes) { return Quiver::Support::hex_encode(Quiver::Support::RandomBytes(bytes)); }

std::array<uint8_t, 32> RandomKey() {
    std::vector<uint8_t> random = Quiver::Support::RandomBytes(32);
    std::array<uint8_t, 32> key{};
    std::copy(random.begin(), random.end(), key.begin());
    return key;
}

CF::Data PropertyListData(CFPropertyListRef plist, bool xml) {
    CFErrorRef error = nullptr;
    CFDataRef data = CFPropertyListCreateData(kCFAllocatorDefault, plist,
                                              xml ? kCFPropertyListXMLFormat_v1_0 : kCFPropertyListBinaryFormat_v1_0,
                                              0, &error);
    if (!data) throw CF::Error::Adopt(error);
    return CF::Data::Adopt(data);
}

void WriteBytes(const fs::path& path, std::span<const uint8_t> bytes) {
    Quiver::Support::writable_file out(path, Quiver::Support::writable_file::mode::exclusive);
    out.write(bytes);
    out.close();
}

void SetTimes(QVManifestEntryClass& entry, int64_t unixSeconds) {
    entry.birth = entry.lastModified = entry.lastStatusChange =
        CF::Date::FromUnixTime(static_cast<double>(unixSeconds)).AbsoluteTime();
}

CF::Dictionary ManifestPlist(const BackupDescription& d, const CF::Data& keyBag, const CF::Data& manifestKey,
                             const std::string& udid) {
    CF::Dictionary lockdown = CF::Dictionary::CreateMutable();
    lockdown.Set("ProductVersion", CF::String(d.productVersion));
    lockdown.Set("ProductType", CF::String(d.productType));
    lockdown.Set("BuildVersion", CF::String(d.buildVersion));
    lockdown.Set("UniqueDeviceID", CF::String(udid));
    lockdown.Set("SerialNumber", CF::String(Upper(RandomHex(6))));
    lockdown.Set("DeviceName", CF::String(d.deviceName));

    CF::Dictionary plist = CF::Dictionary::CreateMutable();
    plist.Set("BackupKeyBag", keyBag);
    // The manifest format of the 2.4 era goes with Manifest.plist version 9.1; Manifest.db with 10.0.
    plist.Set("Version", CF::String(d.manifestVersion == "2.4" ? "9.1" : "10.0"));
    plist.Set("Date", CF::Date::FromUnixTime(static_cast<double>(d.date)));
    // Devices write this number as a string.
    plist.Set("SystemDomainsVersion", CF::String("24.0"));
    if (manifestKey) plist.Set("ManifestKey", manifestKey);
    plist.Set("WasPasscodeSet", CF::Boolean(false));
    plist.Set("Lockdown", lockdown);
    plist.Set("Applications", CF::Dictionary::CreateMutable());
    plist.Set("IsEncrypted", CF::Boolean(d.encrypted));
    return plist;
}

CF::Dictionary StatusPlist(const BackupDescription& d) {
    CF::Dictionary plist = CF::Dictionary::CreateMutable();
    plist.Set("UUID", CF::String(Quiver::Support::MakeUUIDString()));
    plist.Set("IsFullBackup", CF::Boolean(false));
    plist.Set("Version", CF::String(d.manifestVersion));
    plist.Set("BackupState", CF::String("new"));
    plist.Set("Date", CF::Date::FromUnixTime(static_cast<double>(d.date)));
    plist.Set("SnapshotState", CF::String("finished"));
    return plist;
}

CF::Dictionary InfoPlist(const BackupDescription& d, const std::string& udid) {
    CF::Dictionary plist = CF::Dictionary::CreateMutable();
    plist.Set("Build Version", CF::String(d.buildVersion));
    plist.Set("Device Name", CF::String(d.deviceName));
    plist.Set("Display Name", CF::String(d.deviceName));
    plist.Set("GUID", CF::String(Upper(RandomHex(16))));
    plist.Set("Installed Applications", CF::Array::CreateMutable());
    plist.Set("Last Backup Date", CF::Date::FromUnixTime(static_cast<double>(d.date)));
    plist.Set("Product Type", CF::String(d.productType));
    plist.Set("Product Version", CF::String(d.productVersion));
    plist.Set("Serial Number", CF::String(Upper(RandomHex(6))));
    plist.Set("Target Identifier", CF::String(udid));
    plist.Set("Target Type", CF::String("Device"));
    plist.Set("Unique Identifier", CF::String(Upper(udid)));
    return plist;
}

}  // namespace

BackupItem BackupItem::File(std::string domain, std::string relativePath, std::vector<uint8_t> content) {
    BackupItem item;
    item.kind = ItemKind::File;
    item.domain = std::move(domain);
    item.relativePath = std::move(relativePath);
    item.content = std::move(content);
    return item;
}

BackupItem BackupItem::File(std::string domain, std::string relativePath, std::string_view content) {
    return File(std::move(domain), std::move(relativePath), std::vector<uint8_t>(content.begin(), content.end()));
}

BackupItem BackupItem::Directory(std::string domain, std::string relativePath) {
    BackupItem item;
    item.kind = ItemKind::Directory;
    item.domain = std::move(domain);
    item.relativePath = std::move(relativePath);
    return item;
}

BackupItem BackupItem::Symlink(std::string domain, std::string relativePath, std::string target) {
    BackupItem item;
    item.kind = ItemKind::Symlink;
    item.domain = std::move(domain);
    item.relativePath = std::move(relativePath);
    item.target = std::move(target);
    return item;
}

const BuiltItem& BuiltBackup::Item(std::string_view domain, std::string_view relativePath) const {
    for (const BuiltItem& item : items) {
        if (item.domain == domain && item.relativePath == relativePath) return item;
    }
    throw std::out_of_range("backup builder: no item " + std::string(domain) + "-" + std::string(relativePath));
}

std::string LocalFilename(const std::string& fileID, const std::string& manifestVersion) {
    if (manifestVersion == "2.4") return fileID;
    return fileID.substr(0, 2) + "/" + fileID;
}

BuiltBackup BuildBackup(const fs::path& directory, const BackupDescription& d) {
    UseTestTemporaryPath();
    const QVManifestDataVersion version = VersionCode(d.manifestVersion);
    const bool mbdb = version == QVManifestDataVersion24;
    const bool enciphered = d.encrypted && EnciphersManifest(version);

    std::set<std::pair<std::string, std::string>> seen;
    for (const BackupItem& item : d.items) {
        if (!seen.emplace(item.domain, item.relativePath).second) {
            throw std::invalid_argument("backup builder: two items for " + item.domain + "-" + item.relativePath);
        }
    }
    fs::create_directories(directory);
    for (const char* name : {"Manifest.plist", "Info.plist", "Status.plist", "Manifest.db", "Manifest.mbdb"}) {
        if (fs::exists(directory / name)) {
            throw std::invalid_argument("backup builder: " + (directory / name).string() + " already exists");
        }
    }

    // Plain backups carry a key bag too, under a password nobody knows.
    MB::KeyBagParameters keyBagParameters = d.keyBag;
    keyBagParameters.firstPass = keyBagParameters.firstPass && EnciphersManifest(version);
    const MB::KeyBag keyBag =
        MB::KeyBag::Create(d.encrypted ? d.password : RandomHex(16), kKeyBagClasses, keyBagParameters);

    BuiltBackup built;
    built.directory = directory;
    built.manifestVersion = d.manifestVersion;
    built.manifestName = mbdb ? "Manifest.mbdb" : "Manifest.db";
    if (enciphered) {
        built.encryption = MB::ManifestEncryption::Create(keyBag, kManifestKeyClass);
        built.manifestKey = built.encryption->GetManifestKey();
    } else if (d.encrypted) {
        built.encryption.emplace(keyBag, CF::Data());
    }

    std::vector<Quiver::Entry> entries;
    uint64_t inode = 0x10000;
    for (const BackupItem& item : d.items) {
        const CF::String domain(item.domain);
        const CF::String path(item.relativePath);
        BuiltItem out;
        out.kind = item.kind;
        out.domain = item.domain;
        out.relativePath = item.relativePath;

        Quiver::Entry entry;
        if (item.kind == ItemKind::File) {
            std::vector<uint8_t> stored = item.content;
            CF::Data wrappedKey;
            const uint32_t protectionClass = item.protectionClass.value_or(d.encrypted ? 3 : 4);
            if (d.encrypted) {
                std::array<uint8_t, 32> key = RandomKey();
                wrappedKey = built.encryption->LockKey(protectionClass, key);
                stored = Cryptor::Encrypt(Cryptor::Algorithm::AES256, key, {}, item.content);
            }
            CFErrorRef error = nullptr;
            std::shared_ptr<QVFileClass> file = Quiver::QVFileCreateFromData(item.content, &error);
            if (!file) throw CF::Error::Adopt(error);
            entry = Quiver::QVManifestEntryCreateForFile(file, domain.get(), path.get(), wrappedKey.get(), &error);
            if (!entry) throw CF::Error::Adopt(error);
            entry->protectionClass = Quiver::ProtectionClassFromCode(protectionClass);
            out.digest = Quiver::Support::Sha1(stored);
            const std::vector<uint8_t> digest = d.recordDigests ? out.digest : std::vector<uint8_t>();
            entry->SetTexts({{QVManifestEntryClass::kDigest,
                              {reinterpret_cast<const char*>(digest.data()), digest.size()}}});
            out.protectionClass = protectionClass;
            out.encryptionKey = wrappedKey.vector();
            out.content = item.content;
            out.fileID = CF::String::Retain(Quiver::QVManifestEntryGetFileID(entry)).utf8();
            out.localFilename = LocalFilename(out.fileID, d.manifestVersion);
            fs::create_directories((directory / out.localFilename).parent_path());
            WriteBytes(directory / out.localFilename, stored);
        } else {
            entry = item.kind == ItemKind::Directory
                        ? Quiver::QVManifestEntryCreateForDirectory(domain.get(), path.get())
                        : Quiver::QVManifestEntryCreateForSymlink(domain.get(), path.get(),
                                                                  CF::String(item.target).get());
            entry->protectionClass = Quiver::ProtectionClassFromCode(item.protectionClass.value_or(0));
            out.protectionClass = item.protectionClass.value_or(0);
            out.fileID = CF::String::Retain(Quiver::QVManifestEntryGetFileID(entry)).utf8();
        }
        if (item.mode) entry->mode = *item.mode;
        SetTimes(*entry, item.modified.value_or(d.date));
        entry->inode = inode++;
        CF::Dictionary attributes = CF::Dictionary::CreateMutable();
        for (const auto& [name, value] : item.extendedAttributes) attributes.Set(name, CF::Data(value));
        entry->properties = attributes;
        entries.push_back(entry);
        built.items.push_back(std::move(out));
    }

    Quiver::Manifest manifest = Quiver::QVManifestCreateEmpty();
    Quiver::QVManifestUpdateEntries(manifest, entries);
    if (mbdb) {
        CFErrorRef error = nullptr;
        CFDataRef image = Quiver::QVManifestCreateManifestDataRepresentation(manifest, version, &error);
        if (!image) throw CF::Error::Adopt(error);
        WriteBytes(directory / "Manifest.mbdb", CF::Data::Adopt(image).bytes());
    } else {
        const std::vector<std::byte> database = Quiver::QVManifestCreateManifestDBRepresentation(manifest, version);
        std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(database.data()), database.size());
        if (enciphered) {
            WriteBytes(directory / "Manifest.db", Cryptor::Encrypt(Cryptor::Algorithm::AES256, *built.manifestKey,
                                                                   {}, bytes));
        } else {
            WriteBytes(directory / "Manifest.db", bytes);
        }
    }

    // Only an enciphered manifest has a key; Manifest.mbdb and the Manifest.db of 3.0 and 3.1 stay plain.
    CF::Data manifestKey;
    if (enciphered) manifestKey = built.encryption->LockKey(kManifestKeyClass, *built.manifestKey);
    const std::string udid = RandomHex(20);
    WritePropertyList(directory / "Manifest.plist", ManifestPlist(d, keyBag.CopyData(), manifestKey, udid).get());
    WritePropertyList(directory / "Status.plist", StatusPlist(d).get());
    WritePropertyList(directory / "Info.plist", InfoPlist(d, udid).get(), true);
    return built;
}

std::vector<BackupItem> SampleItems() {
    auto pattern = [](std::size_t n) {
        std::vector<uint8_t> bytes(n);
        for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>((i * 31 + 7) % 251);
        return bytes;
    };
    std::vector<BackupItem> items;
    items.push_back(BackupItem::Directory("HomeDomain", ""));
    items.push_back(BackupItem::Directory("HomeDomain", "Library"));
    items.push_back(BackupItem::Directory("HomeDomain", "Library/Preferences"));
    items.push_back(BackupItem::File("HomeDomain", "Library/Preferences/empty.plist", std::vector<uint8_t>{}));
    items.push_back(BackupItem::File("HomeDomain", "Library/Preferences/one.txt", std::string_view("1")));
    items.push_back(BackupItem::File("HomeDomain", "Library/Preferences/block.bin", pattern(16)));
    items.push_back(BackupItem::File("HomeDomain", "Library/Preferences/block-and-one.bin", pattern(17)));
    items.push_back(BackupItem::Symlink("HomeDomain", "Library/Prefs", "Preferences"));
    items.push_back(BackupItem::Directory("AppDomain-com.example.notes", ""));
    items.push_back(BackupItem::Directory("AppDomain-com.example.notes", "Documents"));
    BackupItem large = BackupItem::File("AppDomain-com.example.notes", "Documents/large.db", pattern(100'000));
    large.protectionClass = 1;
    large.mode = 0100600;
    large.modified = 1600000000;
    large.extendedAttributes["com.example.tag"] = {0x01, 0x02};
    items.push_back(std::move(large));
    return items;
}

fs::path ZipOfBackup(const BuiltBackup& built, const std::string& password) {
    const fs::path zip = built.directory.string() + ".zip";
    CFErrorRef error = nullptr;
    CF::String pw(password);
    Quiver::Backup backup = Quiver::QVBackupContainerCreateFromDirectory(
        CF::String(built.directory.string()).get(), password.empty() ? nullptr : pw.get(), nullptr, &error);
    if (!backup) throw CF::Error::Adopt(error);
    if (!Quiver::QVBackupContainerExportToZip(backup, CF::String(zip.string()).get(), nullptr))
        throw std::runtime_error("backup builder: the zip export of " + built.directory.string() + " failed");
    return zip;
}

std::map<std::string, std::string> SnapshotTree(const fs::path& root) {
    auto describe = [](const fs::path& p) {
        struct stat st {};
        if (lstat(p.c_str(), &st) != 0) return std::string("missing");
        std::string d = std::to_string(st.st_mode) + " " + std::to_string(st.st_size) + " " +
                        std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
        if (S_ISREG(st.st_mode)) d += " " + Quiver::Support::hex_encode(Quiver::Support::HashOfFile(p));
        return d;
    };
    std::map<std::string, std::string> out{{"", describe(root)}};
    if (fs::is_directory(fs::symlink_status(root)))
        for (const auto& e : fs::recursive_directory_iterator(root)) out[fs::relative(e.path(), root)] = describe(e.path());
    return out;
}

std::vector<uint8_t> ReadFileObject(const std::shared_ptr<QVFileClass>& file) {
    std::vector<uint8_t> bytes;
    Quiver::QVFileGetData(file, 0, [&](const std::vector<uint8_t>& chunk) {
        bytes.insert(bytes.end(), chunk.begin(), chunk.end());
        return true;
    });
    return bytes;
}

std::vector<uint8_t> ReadWholeFile(const fs::path& path) {
    Quiver::Support::readable_file in(path);
    return in.read_whole_file(std::size_t{1} << 30);
}

void WriteWholeFile(const fs::path& path, const std::vector<uint8_t>& bytes) {
    Quiver::Support::writable_file out(path);
    out.write(bytes);
    out.close();
}

CF::Dictionary ReadPropertyList(const fs::path& path) {
    const std::vector<uint8_t> bytes = ReadWholeFile(path);
    CF::Data data(bytes);
    CFPropertyListRef plist = CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(),
                                                           kCFPropertyListImmutable, nullptr, nullptr);
    if (!plist) return {};
    if (CFGetTypeID(plist) != CFDictionaryGetTypeID()) {
        CFRelease(plist);
        return {};
    }
    return CF::Dictionary::Adopt(static_cast<CFDictionaryRef>(plist));
}

void WritePropertyList(const fs::path& path, CFPropertyListRef plist, bool xml) {
    WriteWholeFile(path, PropertyListData(plist, xml).vector());
}

}  // namespace QuiverTest
