#include "support/DamagedBackups.hpp"

#include <algorithm>
#include <functional>
#include <stdexcept>

#include <SQLiteCpp/SQLiteCpp.h>

#include "Quiver/QVManifestMBDB.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Random.hpp"
#include "support/BackupBuilder.hpp"

namespace fs = std::filesystem;
using Quiver::Support::Cryptor;

namespace QuiverTest {

namespace {

using Bytes = std::vector<uint8_t>;

// Changes one value of Manifest.plist.
void EditManifestPlist(const BuiltBackup& built, const char* key, const std::function<Bytes(Bytes)>& change) {
    const fs::path path = built.directory / "Manifest.plist";
    CF::Dictionary manifest = ReadPropertyList(path).MutableCopy();
    CF::Data value = manifest.Get<CF::Data>(key);
    if (!value) throw std::logic_error(std::string("damaged backups: Manifest.plist has no ") + key);
    manifest.Set(key, CF::Data(change(value.vector())));
    WritePropertyList(path, manifest.get());
}

void EditFile(const fs::path& path, const std::function<Bytes(Bytes)>& change) {
    WriteWholeFile(path, change(ReadWholeFile(path)));
}

Bytes Cut(Bytes bytes, std::size_t size) {
    bytes.resize(std::min(size, bytes.size()));
    return bytes;
}

// The page size from a SQLite header, where 1 stands for 65536.
std::size_t PageSize(const Bytes& database) {
    const std::size_t size = (std::size_t{database.at(16)} << 8) | database.at(17);
    return size == 1 ? 65536 : size;
}

// Inverts the header of every page after the first, where the tables and indexes keep their trees.
Bytes FlipPageHeaders(Bytes database) {
    const std::size_t page = PageSize(database);
    if (database.size() < 2 * page) throw std::logic_error("damaged backups: the database has one page");
    for (std::size_t start = page; start + page <= database.size(); start += page)
        for (std::size_t i = start; i < start + 12; ++i) database[i] ^= 0xff;
    return database;
}

}  // namespace

std::vector<DamagedBackup> BuildDamagedBackups(const fs::path& root) {
    std::vector<DamagedBackup> out;
    // Each fault starts from a fresh copy of a sound backup.
    auto make = [&](const std::string& name, const std::string& version, bool encrypted, const char* named,
                    bool digests = true) -> BuiltBackup {
        const BackupDescription description{
            .items = SampleItems(), .manifestVersion = version, .encrypted = encrypted, .recordDigests = digests};
        BuiltBackup built = BuildBackup(root / name, description);
        const BuiltItem& large = built.Item("AppDomain-com.example.notes", "Documents/large.db");
        out.push_back({name, built.directory, encrypted ? description.password : "", large.domain,
                       large.relativePath, named, false, false, false, ""});
        return built;
    };
    auto database = [](const BuiltBackup& built) { return built.directory / "Manifest.db"; };

    // The manifest database.
    make("DatabaseTruncated", "3.3", false, "Manifest.db");
    EditFile(root / "DatabaseTruncated/Manifest.db", [](Bytes b) { return Cut(b, b.size() / 2); });
    make("DatabaseEmpty", "3.3", false, "Manifest.db");
    WriteWholeFile(root / "DatabaseEmpty/Manifest.db", {});
    make("DatabaseRandom", "3.3", false, "Manifest.db");
    WriteWholeFile(root / "DatabaseRandom/Manifest.db", Quiver::Support::RandomBytes(16384));
    make("DatabasePageFlipped", "3.3", false, "Manifest.db");
    EditFile(root / "DatabasePageFlipped/Manifest.db", FlipPageHeaders);
    {
        BuiltBackup built = make("EncryptedDatabaseFlipped", "3.3", true, "Manifest.db");
        EditFile(database(built), [&](Bytes b) {
            Bytes plain = Cryptor::Decrypt(Cryptor::Algorithm::AES256, *built.manifestKey, {}, b);
            return Cryptor::Encrypt(Cryptor::Algorithm::AES256, *built.manifestKey, {}, FlipPageHeaders(plain));
        });
    }
    // Cut mid-block: devices write the database with and without a padding block, so a cut of one
    // whole block could be either.
    make("EncryptedDatabaseTruncated", "3.3", true, "Manifest.db");
    EditFile(root / "EncryptedDatabaseTruncated/Manifest.db", [](Bytes b) { return Cut(b, b.size() - 8); });

    // The metadata. A missing Status.plist or Manifest.plist makes a partial copy, which reads; one that
    // is not a property list is damage, and so is a copy without the Manifest.plist that deciphers it.
    make("StatusGarbage", "3.3", false, "Status.plist");
    WriteWholeFile(root / "StatusGarbage/Status.plist", Quiver::Support::RandomBytes(300));
    out.back().metadataFault = true;
    out.back().kind = "metadata-not-a-property-list";
    {
        BuiltBackup built = make("StatusVersionUnknown", "3.3", false, "'3.4'");
        CF::Dictionary status = ReadPropertyList(built.directory / "Status.plist").MutableCopy();
        status.Set("Version", CF::String("3.4"));
        WritePropertyList(built.directory / "Status.plist", status.get());
    }
    make("ManifestPlistMissingEncrypted", "3.3", true, "Manifest.plist");
    fs::remove(root / "ManifestPlistMissingEncrypted/Manifest.plist");
    make("ManifestPlistGarbage", "3.3", false, "Manifest.plist");
    EditFile(root / "ManifestPlistGarbage/Manifest.plist", [](Bytes b) { return Cut(b, b.size() / 3); });
    out.back().metadataFault = true;
    out.back().kind = "metadata-not-a-property-list";
    // An encrypted backup whose Manifest.plist is no property list looks plain: its enciphered
    // manifest, or the wrapped keys in its records, give it away.
    make("ManifestPlistGarbageEncrypted", "3.3", true, "Manifest.plist");
    EditFile(root / "ManifestPlistGarbageEncrypted/Manifest.plist", [](Bytes b) { return Cut(b, b.size() / 3); });
    make("ManifestPlistGarbageEncryptedMbdb", "2.4", true, "Manifest.plist");
    EditFile(root / "ManifestPlistGarbageEncryptedMbdb/Manifest.plist", [](Bytes b) { return Cut(b, b.size() / 3); });

    // The key bag and the manifest key of an encrypted backup.
    EditManifestPlist(make("KeyBagTruncated", "3.3", true, "BackupKeyBag"), "BackupKeyBag",
                      [](Bytes b) { return Cut(b, b.size() / 2 + 3); });
    EditManifestPlist(make("KeyBagLengthPastEnd", "3.3", true, "BackupKeyBag"), "BackupKeyBag", [](Bytes b) {
        // The second field's length (the first is the version, "VERS" and four bytes).
        b.at(16) = 0x7f;
        return b;
    });
    EditManifestPlist(make("KeyBagRandom", "3.3", true, "BackupKeyBag"), "BackupKeyBag",
                      [](Bytes) { return Quiver::Support::RandomBytes(700); });
    EditManifestPlist(make("KeyBagRoundsAbsurd", "3.3", true, "DPIC"), "BackupKeyBag", [](Bytes b) {
        // Four billion rounds of the first derivation pass: minutes of work, were it done.
        const std::string tag = "DPIC";
        auto at = std::search(b.begin(), b.end(), tag.begin(), tag.end());
        if (at == b.end()) throw std::logic_error("damaged backups: the key bag has no DPIC");
        std::fill(at + 8, at + 12, 0xff);
        return b;
    });
    EditManifestPlist(make("ManifestKeyTooShort", "3.3", true, "ManifestKey"), "ManifestKey", [](Bytes b) { return Cut(b, 24); });

    // Manifest.mbdb.
    make("MbdbTruncated", "2.4", false, "Manifest.mbdb");
    EditFile(root / "MbdbTruncated/Manifest.mbdb", [](Bytes b) { return Cut(b, b.size() - 30); });
    make("MbdbFieldPastEnd", "2.4", false, "Manifest.mbdb");
    EditFile(root / "MbdbFieldPastEnd/Manifest.mbdb", [](Bytes b) {
        // The first record's domain: its length follows the six bytes of the header.
        b.at(6) = 0xff;
        b.at(7) = 0xf0;
        return b;
    });

    // Stored files: only reading them shows the fault.
    struct StoredFault {
        const char* name;
        const char* version;
        bool encrypted;
        bool digests;
        const char* kind;
        std::function<void(const fs::path&)> damage;
    };
    const StoredFault stored[] = {
        {"StoredFileMissing", "3.3", false, true, "stored-file-missing", [](const fs::path& p) { fs::remove(p); }},
        {"StoredFileShorter", "3.3", false, true, "digest-mismatch",
         [](const fs::path& p) { EditFile(p, [](Bytes b) { return Cut(b, 4096); }); }},
        {"StoredFileLonger", "3.3", false, true, "digest-mismatch",
         [](const fs::path& p) { EditFile(p, [](Bytes b) { return b.resize(b.size() + 5, 'x'), b; }); }},
        {"EncryptedStoredFileMissing", "3.3", true, true, "stored-file-missing", [](const fs::path& p) { fs::remove(p); }},
        {"EncryptedStoredFileShorter", "3.3", true, true, "digest-mismatch",
         [](const fs::path& p) { EditFile(p, [](Bytes b) { return Cut(b, b.size() - 32); }); }},
        // Without a digest only the cipher's blocks and padding can tell.
        {"EncryptedStoredFileCutMidBlock", "3.3", true, false, "not-whole-blocks",
         [](const fs::path& p) { EditFile(p, [](Bytes b) { return Cut(b, b.size() - 5); }); }},
        {"EncryptedStoredFileCutAtBlock", "3.3", true, false, "bad-padding",
         [](const fs::path& p) { EditFile(p, [](Bytes b) { return Cut(b, b.size() - 32); }); }},
        {"MbdbStoredFileMissing", "2.4", false, true, "stored-file-missing", [](const fs::path& p) { fs::remove(p); }},
    };
    for (const StoredFault& fault : stored) {
        BuiltBackup built = make(fault.name, fault.version, fault.encrypted, "Documents/large.db", fault.digests);
        const BuiltItem& victim = built.Item(out.back().domain, out.back().relativePath);
        fault.damage(built.directory / victim.localFilename);
        out.back().storedFileFault = true;
        out.back().kind = fault.kind;
    }

    // The manifest's structure: every file reads, but a device restoring the backup would miss some.
    auto structural = [&](const std::string& name, const std::string& version, const char* named, const char* kind) {
        BuiltBackup built = make(name, version, false, named);
        out.back().structuralFault = true;
        out.back().kind = kind;
        return built;
    };
    {
        BuiltBackup built = structural("OrphanStoredFile", "3.3", "0f/0f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c", "orphan-stored-file");
        fs::create_directories(built.directory / "0f");
        WriteWholeFile(built.directory / "0f/0f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c", {'l', 'o', 's', 't'});
    }
    {
        // The row keeps its stored file, under the ID it now wrongly has.
        BuiltBackup built = structural("WrongFileID", "3.3", "Documents/large.db", "wrong-file-id");
        const BuiltItem& victim = built.Item(out.back().domain, out.back().relativePath);
        const std::string wrong = "00" + victim.fileID.substr(2);
        SQLite::Database db(database(built).string(), SQLite::OPEN_READWRITE);
        SQLite::Statement update(db, "UPDATE Files SET fileID = ? WHERE fileID = ?");
        update.bind(1, wrong);
        update.bind(2, victim.fileID);
        update.exec();
        fs::create_directories(built.directory / "00");
        fs::rename(built.directory / victim.localFilename, built.directory / "00" / wrong);
    }
    {
        BuiltBackup built = structural("MissingParent", "3.3", "Documents/large.db", "missing-parent");
        SQLite::Database db(database(built).string(), SQLite::OPEN_READWRITE);
        db.exec("DELETE FROM Files WHERE domain = 'AppDomain-com.example.notes' AND relativePath = 'Documents'");
    }
    {
        // A Manifest.mbdb names its files by domain and path only: two records of one path share an ID.
        BuiltBackup built = structural("MbdbDuplicateFileID", "2.4", "Documents/large.db", "duplicate-file-id");
        const fs::path mbdb = built.directory / "Manifest.mbdb";
        CF::Data data(ReadWholeFile(mbdb));
        Quiver::Manifest manifest =
            Quiver::QVManifestCreateFromManifestData(data.get(), QVManifestDataVersion24, nullptr, nullptr);
        if (!manifest) throw std::logic_error("damaged backups: the built Manifest.mbdb does not read");
        std::vector<Quiver::Entry> entries = Quiver::QVManifestGetEntries(manifest);
        for (const Quiver::Entry& e : Quiver::QVManifestGetEntries(manifest))
            if (Quiver::QVManifestEntryGetPathUTF8(e) == "Documents/large.db")
                entries.push_back(Quiver::QVManifestEntryCreateCopy(e, nullptr));
        Quiver::QVManifestUpdateEntries(manifest, entries);
        CF::Data written = CF::Data::Adopt(
            Quiver::QVManifestCreateManifestDataRepresentation(manifest, QVManifestDataVersion24, nullptr));
        WriteWholeFile(mbdb, written.vector());
    }

    // A zip cut short.
    {
        const fs::path zip = ZipOfBackup(make("ZipTruncated", "3.3", false, "zip"));
        EditFile(zip, [](Bytes b) { return Cut(b, b.size() * 2 / 3); });
        out.back().path = zip;
    }
    return out;
}

}  // namespace QuiverTest
