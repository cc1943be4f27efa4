#include "support/IndependentReader.hpp"

#include <openssl/evp.h>
#include <openssl/sha.h>
#include <plist/plist.h>
#include <sqlite3.h>
#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace fs = std::filesystem;

namespace QuiverTest {

namespace {

using Bytes = std::vector<uint8_t>;

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error("independent reader: " + what); }

Bytes ReadAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) Fail("cannot open " + path.string());
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Hex(const Bytes& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 15]);
    }
    return out;
}

Bytes Sha1(std::string_view bytes) {
    Bytes digest(SHA_DIGEST_LENGTH);
    SHA1(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest.data());
    return digest;
}
Bytes Sha1(const Bytes& bytes) { return Sha1(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())); }

uint64_t BigEndian(const uint8_t* p, std::size_t length) {
    uint64_t value = 0;
    for (std::size_t i = 0; i < length; ++i) value = (value << 8) | p[i];
    return value;
}

// ---- OpenSSL ----

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

Bytes Pbkdf2(const EVP_MD* digest, const Bytes& password, const Bytes& salt, uint64_t iterations) {
    if (iterations == 0 || iterations > 0x7FFFFFFF) Fail("iteration count " + std::to_string(iterations));
    Bytes key(32);
    if (PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(password.data()), static_cast<int>(password.size()),
                          salt.data(), static_cast<int>(salt.size()), static_cast<int>(iterations), digest,
                          static_cast<int>(key.size()), key.data()) != 1)
        Fail("PBKDF2 failed");
    return key;
}

// RFC 3394 with the default initial value; nullopt when the integrity check fails.
std::optional<Bytes> Unwrap(const Bytes& kek, const uint8_t* wrapped, std::size_t length) {
    if (kek.size() != 32 || length < 24 || length % 8 != 0) return std::nullopt;
    CipherContext ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_CIPHER_CTX_set_flags(ctx.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    Bytes out(length);
    int n = 0;
    if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_wrap(), nullptr, kek.data(), nullptr) != 1 ||
        EVP_DecryptUpdate(ctx.get(), out.data(), &n, wrapped, static_cast<int>(length)) <= 0 || n <= 0)
        return std::nullopt;
    out.resize(static_cast<std::size_t>(n));
    return out;
}

// AES-256-CBC with a zero initial value; with `padded`, PKCS#7 is checked and removed.
std::optional<Bytes> Decipher(const Bytes& key, const Bytes& data, bool padded) {
    if (key.size() != 32) return std::nullopt;
    CipherContext ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    const uint8_t iv[16] = {};
    Bytes out(data.size() + 16);
    int n = 0, m = 0;
    if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv) != 1) return std::nullopt;
    EVP_CIPHER_CTX_set_padding(ctx.get(), padded ? 1 : 0);
    if (EVP_DecryptUpdate(ctx.get(), out.data(), &n, data.data(), static_cast<int>(data.size())) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), out.data() + n, &m) != 1)
        return std::nullopt;
    out.resize(static_cast<std::size_t>(n + m));
    return out;
}

// ---- libplist ----

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist ParsePlist(const Bytes& bytes) {
    plist_t node = nullptr;
    if (!bytes.empty()) plist_from_memory(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &node);
    return Plist(node);
}

Bytes DataOf(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_DATA) return {};
    char* bytes = nullptr;
    uint64_t length = 0;
    plist_get_data_val(node, &bytes, &length);
    Bytes out(bytes, bytes + length);
    std::free(bytes);
    return out;
}

std::string StringOf(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING) return {};
    char* text = nullptr;
    plist_get_string_val(node, &text);
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

uint64_t IntegerOf(plist_t node) {
    uint64_t value = 0;
    if (node && plist_get_node_type(node) == PLIST_UINT) plist_get_uint_val(node, &value);
    return value;
}

// A keyed archive: the root object and its references resolved, "$null" (reference 0) as nothing.
class KeyedArchive {
public:
    explicit KeyedArchive(const Bytes& bytes) : archive_(ParsePlist(bytes)) {
        plist_t top = archive_ ? plist_dict_get_item(archive_.get(), "$top") : nullptr;
        objects_ = archive_ ? plist_dict_get_item(archive_.get(), "$objects") : nullptr;
        if (!top || !objects_ || plist_get_node_type(objects_) != PLIST_ARRAY) Fail("MBFile is not a keyed archive");
        root_ = Resolve(plist_dict_get_item(top, "root"));
        if (!root_ || plist_get_node_type(root_) != PLIST_DICT) Fail("MBFile has no root object");
    }

    plist_t Member(const char* name) const { return Resolve(plist_dict_get_item(root_, name)); }

    // Data stored bare or as an object holding "NS.data" (NSMutableData).
    Bytes DataMember(const char* name) const {
        plist_t node = Member(name);
        if (node && plist_get_node_type(node) == PLIST_DICT) node = Resolve(plist_dict_get_item(node, "NS.data"));
        return DataOf(node);
    }

private:
    plist_t Resolve(plist_t node) const {
        if (!node || plist_get_node_type(node) != PLIST_UID) return node;
        uint64_t index = 0;
        plist_get_uid_val(node, &index);
        if (index == 0 || index >= plist_array_get_size(objects_)) return nullptr;
        return plist_array_get_item(objects_, static_cast<uint32_t>(index));
    }

    Plist archive_;
    plist_t objects_ = nullptr;
    plist_t root_ = nullptr;
};

// ---- Key bag ----

using ClassKeys = std::map<uint32_t, Bytes>;

// Items until the second "UUID" describe the bag; each "UUID" after that opens one class.
ClassKeys UnlockKeyBag(const Bytes& blob, const std::string& password) {
    std::map<std::string, Bytes> header;
    std::vector<std::map<std::string, Bytes>> classes;
    int uuids = 0;
    for (std::size_t pos = 0; pos < blob.size();) {
        if (blob.size() - pos < 8) Fail("key bag ends inside an item header");
        const std::string tag(blob.begin() + static_cast<long>(pos), blob.begin() + static_cast<long>(pos + 4));
        const uint64_t length = BigEndian(&blob[pos + 4], 4);
        if (length > blob.size() - pos - 8) Fail("key bag item " + tag + " runs past the end");
        if (tag == "UUID" && ++uuids > 1) classes.emplace_back();
        (classes.empty() ? header : classes.back())[tag] =
            Bytes(blob.begin() + static_cast<long>(pos + 8), blob.begin() + static_cast<long>(pos + 8 + length));
        pos += 8 + length;
    }
    auto number = [](std::map<std::string, Bytes>& items, const char* tag) {
        const Bytes& value = items[tag];
        if (value.size() != 4) Fail(std::string("key bag has no four-byte ") + tag);
        return BigEndian(value.data(), 4);
    };

    if (header["SALT"].empty()) Fail("key bag has no SALT");
    const Bytes passwordBytes(password.begin(), password.end());
    const bool firstPass = header.count("DPSL") || header.count("DPIC");
    if (firstPass && !(header.count("DPSL") && header.count("DPIC"))) Fail("key bag has only one of DPSL and DPIC");
    const Bytes second = firstPass ? Pbkdf2(EVP_sha256(), passwordBytes, header["DPSL"], number(header, "DPIC"))
                                   : passwordBytes;
    const Bytes kek = Pbkdf2(EVP_sha1(), second, header["SALT"], number(header, "ITER"));

    ClassKeys keys;
    for (auto& item : classes) {
        if (!(number(item, "WRAP") & 2)) continue;  // the device's key alone: not in a backup's reach
        const Bytes& wrapped = item["WPKY"];
        std::optional<Bytes> key = Unwrap(kek, wrapped.data(), wrapped.size());
        const uint32_t protectionClass = static_cast<uint32_t>(number(item, "CLAS"));
        if (!key) Fail("class " + std::to_string(protectionClass) + " does not unwrap: wrong password?");
        keys[protectionClass] = *key;
    }
    if (keys.empty()) Fail("key bag has no class wrapped with the password");
    return keys;
}

// 4 bytes of protection class, little-endian, then the RFC 3394-wrapped key.
Bytes UnwrapBlob(const ClassKeys& keys, const Bytes& blob, const std::string& what) {
    if (blob.size() != 44) Fail(what + ": wrapped key of " + std::to_string(blob.size()) + " bytes");
    const uint32_t protectionClass = blob[0] | (uint32_t{blob[1]} << 8) | (uint32_t{blob[2]} << 16) | (uint32_t{blob[3]} << 24);
    auto classKey = keys.find(protectionClass);
    if (classKey == keys.end()) Fail(what + ": no key for class " + std::to_string(protectionClass));
    std::optional<Bytes> key = Unwrap(classKey->second, blob.data() + 4, blob.size() - 4);
    if (!key || key->size() != 32) Fail(what + ": key does not unwrap under class " + std::to_string(protectionClass));
    return *key;
}

// ---- Manifest.mbdb ----

class MbdbCursor {
public:
    explicit MbdbCursor(const Bytes& bytes) : bytes_(bytes) {}
    bool AtEnd() const { return position_ == bytes_.size(); }
    uint64_t Integer(std::size_t length) {
        Need(length);
        const uint64_t value = BigEndian(&bytes_[position_], length);
        position_ += length;
        return value;
    }
    Bytes Field() {
        const uint64_t length = Integer(2);
        if (length == 0 || length == 0xFFFF) return {};
        Need(length);
        Bytes value(bytes_.begin() + static_cast<long>(position_), bytes_.begin() + static_cast<long>(position_ + length));
        position_ += length;
        return value;
    }
    std::string Text() {
        Bytes value = Field();
        return std::string(value.begin(), value.end());
    }

private:
    void Need(uint64_t length) const {
        if (length > bytes_.size() - position_) Fail("Manifest.mbdb ends inside a record at " + std::to_string(position_));
    }
    const Bytes& bytes_;
    std::size_t position_ = 6;
};

IndependentEntry::Kind KindOfMode(uint64_t mode) {
    switch (mode & 0xF000) {
        case 0x8000: return IndependentEntry::Kind::File;
        case 0x4000: return IndependentEntry::Kind::Directory;
        case 0xA000: return IndependentEntry::Kind::Symlink;
        default: return IndependentEntry::Kind::Other;
    }
}

std::vector<std::pair<IndependentEntry, Bytes>> ReadMbdb(const Bytes& bytes) {
    static constexpr uint8_t kHeader[] = {'m', 'b', 'd', 'b', 5, 0};
    if (bytes.size() < sizeof kHeader || !std::equal(std::begin(kHeader), std::end(kHeader), bytes.begin()))
        Fail("Manifest.mbdb lacks its header");
    std::vector<std::pair<IndependentEntry, Bytes>> out;
    MbdbCursor cursor(bytes);
    while (!cursor.AtEnd()) {
        IndependentEntry e;
        e.domain = cursor.Text();
        e.relativePath = cursor.Text();
        e.target = cursor.Text();
        e.digest = cursor.Field();
        Bytes key = cursor.Field();
        e.kind = KindOfMode(cursor.Integer(2));
        cursor.Integer(8 + 4 + 4 + 3 * 4);  // inode, owner, group, three times
        e.size = cursor.Integer(8);
        e.protectionClass = static_cast<uint32_t>(cursor.Integer(1));
        for (uint64_t n = cursor.Integer(1); n > 0; --n) {
            cursor.Field();
            cursor.Field();
        }
        e.fileID = Hex(Sha1(e.domain + "-" + e.relativePath));
        out.emplace_back(std::move(e), std::move(key));
    }
    return out;
}

// ---- Manifest.db ----

// A deciphered Manifest.db is whole pages, perhaps followed by one PKCS#7 block: the page size in the
// database header tells which.
Bytes StripDatabasePadding(Bytes plain) {
    static constexpr char kMagic[] = "SQLite format 3";
    if (plain.size() < 100 || !std::equal(kMagic, kMagic + sizeof kMagic, plain.begin()))
        Fail("Manifest.db does not decipher to a database: wrong manifest key?");
    uint64_t pageSize = BigEndian(&plain[16], 2);
    if (pageSize == 1) pageSize = 65536;
    const std::size_t extra = plain.size() % pageSize;
    if (extra == 0) return plain;
    if (extra > 16 || plain.back() != extra ||
        !std::all_of(plain.end() - static_cast<long>(extra), plain.end(), [&](uint8_t b) { return b == extra; }))
        Fail("Manifest.db ends in " + std::to_string(extra) + " bytes that are not a padding block");
    plain.resize(plain.size() - extra);
    return plain;
}

std::vector<std::pair<IndependentEntry, Bytes>> ReadDatabase(Bytes image) {
    // Read from memory; a database last written in WAL mode reads as a rollback one without its WAL file.
    if (image.size() >= 20 && image[18] == 2 && image[19] == 2) image[18] = image[19] = 1;
    SQLite::Database db(":memory:", SQLite::OPEN_READWRITE);
    if (sqlite3_deserialize(db.getHandle(), "main", image.data(), static_cast<sqlite3_int64>(image.size()),
                            static_cast<sqlite3_int64>(image.size()), SQLITE_DESERIALIZE_READONLY) != SQLITE_OK)
        Fail("Manifest.db does not open");
    std::vector<std::pair<IndependentEntry, Bytes>> out;
    SQLite::Statement rows(db, "SELECT fileID, domain, relativePath, flags, file FROM Files");
    while (rows.executeStep()) {
        IndependentEntry e;
        e.fileID = rows.getColumn(0).getString();
        e.domain = rows.getColumn(1).getString();
        e.relativePath = rows.getColumn(2).getString();
        const int flags = rows.getColumn(3).getInt();
        e.kind = flags == 1   ? IndependentEntry::Kind::File
                 : flags == 2 ? IndependentEntry::Kind::Directory
                 : flags == 4 ? IndependentEntry::Kind::Symlink
                              : IndependentEntry::Kind::Other;
        const SQLite::Column blob = rows.getColumn(4);
        const auto* start = static_cast<const uint8_t*>(blob.getBlob());
        KeyedArchive archive(Bytes(start, start + blob.getBytes()));
        e.size = IntegerOf(archive.Member("Size"));
        e.protectionClass = static_cast<uint32_t>(IntegerOf(archive.Member("ProtectionClass")));
        e.target = StringOf(archive.Member("Target"));
        e.digest = archive.DataMember("Digest");
        Bytes key = archive.DataMember("EncryptionKey");
        out.emplace_back(std::move(e), std::move(key));
    }
    return out;
}

}  // namespace

IndependentBackup ReadBackupIndependently(const fs::path& directory, const std::string& password) {
    IndependentBackup backup;
    Plist manifestPlist = ParsePlist(ReadAll(directory / "Manifest.plist"));
    if (!manifestPlist || plist_get_node_type(manifestPlist.get()) != PLIST_DICT) Fail("Manifest.plist is no dictionary");
    plist_t isEncrypted = plist_dict_get_item(manifestPlist.get(), "IsEncrypted");
    backup.encrypted = isEncrypted && plist_get_node_type(isEncrypted) == PLIST_BOOLEAN && plist_bool_val_is_true(isEncrypted);

    ClassKeys classKeys;
    if (backup.encrypted) classKeys = UnlockKeyBag(DataOf(plist_dict_get_item(manifestPlist.get(), "BackupKeyBag")), password);

    std::vector<std::pair<IndependentEntry, Bytes>> records;
    const bool mbdb = fs::exists(directory / "Manifest.mbdb");
    backup.manifestName = mbdb ? "Manifest.mbdb" : "Manifest.db";
    if (mbdb) {
        records = ReadMbdb(ReadAll(directory / "Manifest.mbdb"));
    } else {
        Bytes image = ReadAll(directory / "Manifest.db");
        const Bytes wrappedManifestKey = DataOf(plist_dict_get_item(manifestPlist.get(), "ManifestKey"));
        if (backup.encrypted && !wrappedManifestKey.empty()) {
            std::optional<Bytes> plain = Decipher(UnwrapBlob(classKeys, wrappedManifestKey, "ManifestKey"), image, false);
            if (!plain) Fail("Manifest.db is not whole cipher blocks");
            image = StripDatabasePadding(std::move(*plain));
            backup.manifestEnciphered = true;
        }
        records = ReadDatabase(std::move(image));
    }

    for (auto& [entry, wrappedKey] : records) {
        if (entry.kind == IndependentEntry::Kind::File) {
            const std::string name = mbdb ? entry.fileID : entry.fileID.substr(0, 2) + "/" + entry.fileID;
            const std::string what = entry.domain + "-" + entry.relativePath;
            const Bytes stored = ReadAll(directory / name);
            entry.digestMatches = !entry.digest.empty() && Sha1(stored) == entry.digest;
            if (backup.encrypted) {
                std::optional<Bytes> plain = Decipher(UnwrapBlob(classKeys, wrappedKey, what), stored, true);
                if (!plain) Fail(what + ": stored file does not decipher under its key");
                entry.plaintext = std::move(*plain);
            } else {
                entry.plaintext = stored;
            }
        }
        backup.entries.push_back(std::move(entry));
    }
    return backup;
}

}  // namespace QuiverTest
