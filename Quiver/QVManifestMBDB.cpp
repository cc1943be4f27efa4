// Manifest.mbdb reading and writing.
//
// The image comes from the backup and is not trusted: every length in it is checked before it is used.
// All reads go through RecordCursor, a position over Support::byte_reader that either yields the bytes
// or integer asked for and moves on, or yields nothing and stays where it was; nothing here indexes the
// bytes directly. Integers are big-endian; strings and blobs are a 16-bit length and that many bytes,
// where both 0x0000 and 0xFFFF mean "empty". Times are stored as unsigned 32-bit Unix seconds.
#include "Quiver/QVManifestMBDB.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Quiver/CF/Empty.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/Support/ByteReader.hpp"

namespace Quiver {

namespace {

// "mbdb" and the two format bytes that are written (and not checked on reading).
constexpr uint8_t kHeader[] = {'m', 'b', 'd', 'b', 0x05, 0x00};
constexpr uint64_t kMagicSize = 4;
constexpr uint64_t kHeaderSize = sizeof(kHeader);
constexpr uint64_t kFixedBlockSize = 39;  // mode, inode, uid, gid, three times, size, protection class
constexpr uint64_t kEmptyFieldLength = 0xFFFF;  // like 0: an empty field with no bytes after it
constexpr size_t kUnwritableFieldSize = 0xFFFF;
constexpr size_t kMaxProperties = 0xFF;  // the count is one byte
constexpr uint32_t kUnixToCFSeconds = 978307200;  // 1970-01-01 to 2001-01-01

std::span<const uint8_t> bytesOf(CFDataRef data) {
    const CFIndex length = CFDataGetLength(data);
    if (length <= 0) return {};
    return {CFDataGetBytePtr(data), static_cast<size_t>(length)};
}

class RecordCursor {
public:
    RecordCursor(Support::byte_reader bytes, uint64_t position) : bytes_(bytes), position_(position) {}

    uint64_t position() const { return position_; }
    bool has(uint64_t length) const { return bytes_.contains(position_, length); }

    // A length-prefixed field, or nullopt when the length or its bytes run past the end.
    std::optional<std::span<const uint8_t>> field() {
        const auto length = bytes_.be(position_, 2);
        if (!length) return std::nullopt;
        if (*length == 0 || *length == kEmptyFieldLength) {
            position_ += 2;
            return std::span<const uint8_t>();
        }
        const auto body = bytes_.slice(position_ + 2, *length);
        if (!body) return std::nullopt;
        position_ += 2 + *length;
        return body;
    }

    std::optional<uint64_t> integer(unsigned width) {
        const auto value = bytes_.be(position_, width);
        if (value) position_ += width;
        return value;
    }

private:
    Support::byte_reader bytes_;
    uint64_t position_;
};

// A UTF-8 field viewed in the manifest's bytes; nullopt when missing or not UTF-8.
std::optional<std::string_view> stringField(RecordCursor& cursor) {
    const auto bytes = cursor.field();
    if (!bytes) return std::nullopt;
    const std::string_view text(reinterpret_cast<const char*>(bytes->data()), bytes->size());
    bool ascii = true;
    for (size_t i = 0; i < text.size() && ascii; ++i) ascii = bytes->data()[i] < 0x80;
    if (!ascii && !CF::String(text)) return std::nullopt;  // making the string checks the UTF-8
    return text;
}

std::optional<std::string_view> dataField(RecordCursor& cursor) {
    const auto bytes = cursor.field();
    if (!bytes) return std::nullopt;
    return std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size());
}

double dateFromUnixSeconds(uint64_t seconds) {
    return static_cast<CFAbsoluteTime>(seconds) - static_cast<CFAbsoluteTime>(kUnixToCFSeconds);
}

// The whole seconds of the date, reduced to their low 32 bits, moved to the Unix epoch in 32-bit
// arithmetic. Done on doubles so that no date, however far off (or not a number), overflows a cast.
uint32_t unixSecondsFromDate(double absoluteTime) {
    constexpr double kTwoTo32 = 4294967296.0;
    double whole = std::trunc(absoluteTime);
    if (!std::isfinite(whole)) whole = 0;
    double low = std::fmod(whole, kTwoTo32);
    if (low < 0) low += kTwoTo32;
    return static_cast<uint32_t>(low) + kUnixToCFSeconds;
}

// Reads the record at `offset`; an empty handle when any part of it is missing. `next` becomes the
// position after the record.
// One string per domain for all the records of a manifest.
class DomainNames {
public:
    CF::String Intern(std::string_view text) {
        auto found = names_.find(std::string(text));
        if (found == names_.end()) found = names_.emplace(std::string(text), CF::String(text)).first;
        return found->second;
    }

private:
    std::unordered_map<std::string, CF::String> names_;
};

Entry readRecord(const Support::byte_reader& bytes, uint64_t offset, uint64_t& next, DomainNames& domains,
                 std::shared_ptr<const QVGetFileFunction> getFileFunc) {
    RecordCursor cursor(bytes, offset);
    const auto domain = stringField(cursor);
    const auto path = stringField(cursor);
    const auto target = stringField(cursor);
    const auto digest = dataField(cursor);
    const auto key = dataField(cursor);
    if (!domain || !path || !target || !digest || !key) return nullptr;

    if (!cursor.has(kFixedBlockSize)) return nullptr;
    const auto mode = cursor.integer(2);
    const auto inode = cursor.integer(8);
    const auto uid = cursor.integer(4);
    const auto gid = cursor.integer(4);
    const auto statusChanged = cursor.integer(4);  // the three times are stored in this order
    const auto modified = cursor.integer(4);
    const auto born = cursor.integer(4);
    const auto size = cursor.integer(8);
    const auto protection = cursor.integer(1);
    if (!mode || !inode || !uid || !gid || !statusChanged || !modified || !born || !size || !protection)
        return nullptr;
    const EntryProtectionClass protectionClass = ProtectionClassFromCode(static_cast<int64_t>(*protection));

    const auto count = cursor.integer(1);
    if (!count) return nullptr;
    CF::Dictionary properties;
    if (*count > 0) {
        properties = CF::Dictionary::CreateMutable();
        for (uint64_t i = 0; i < *count; ++i) {
            const auto name = stringField(cursor);
            if (!name) return nullptr;
            const auto value = dataField(cursor);
            if (!value) return nullptr;
            // a later equal name replaces an earlier one
            properties.Set(CF::String(*name).get(),
                           CF::Data(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(value->data()), value->size())).get());
        }
    }

    auto entry = std::make_shared<QVManifestEntryClass>();
    entry->SetDomain(domains.Intern(*domain));
    entry->SetTexts({{QVManifestEntryClass::kPath, *path},
                     {QVManifestEntryClass::kTarget, *target},
                     {QVManifestEntryClass::kDigest, *digest},
                     {QVManifestEntryClass::kEncryptionKey, *key}});
    entry->fileIDBytes = FileIDBytesForPath(*domain, *path);
    entry->fileIDIsHex = true;
    entry->fileType = 0;  // the format has no type byte; the mode's type bits say what the entry is
    entry->mode = static_cast<uint16_t>(*mode);
    entry->userID = static_cast<uint32_t>(*uid);
    entry->groupID = static_cast<uint32_t>(*gid);
    entry->lastStatusChange = dateFromUnixSeconds(*statusChanged);
    entry->lastModified = dateFromUnixSeconds(*modified);
    entry->birth = dateFromUnixSeconds(*born);
    entry->size = *size;
    entry->inode = *inode;
    entry->protectionClass = protectionClass;
    entry->properties = std::move(properties);
    entry->external = false;
    entry->getFileFunc = std::move(getFileFunc);
    next = cursor.position();
    return entry;
}

class RecordWriter {
public:
    explicit RecordWriter(std::vector<uint8_t>& out) : out_(out) {}

    void integer(uint64_t value, unsigned width) {
        for (unsigned i = width; i-- > 0;) out_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }

    // A field too long for its 16-bit length is left out entirely, length included. The record is then
    // unreadable; that is how this format has always been written, and it is kept so.
    void field(std::span<const uint8_t> bytes) {
        if (bytes.size() >= kUnwritableFieldSize) return;
        integer(bytes.size(), 2);
        out_.insert(out_.end(), bytes.begin(), bytes.end());
    }

    void field(CFDataRef data) { field(data ? bytesOf(data) : std::span<const uint8_t>()); }
    void field(std::string_view text) { field(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size())); }

    // The string's UTF-8 bytes, all of them (CFStringGetCStringPtr would stop at an embedded NUL).
    void field(CFStringRef s) {
        if (!s) return field(std::span<const uint8_t>());
        const CFRange all = CFRangeMake(0, CFStringGetLength(s));
        CFIndex used = 0;
        CFStringGetBytes(s, all, kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
        scratch_.resize(static_cast<size_t>(used));
        CFStringGetBytes(s, all, kCFStringEncodingUTF8, 0, false, scratch_.data(), used, &used);
        field(std::span<const uint8_t>(scratch_.data(), static_cast<size_t>(used)));
    }

private:
    std::vector<uint8_t>& out_;
    std::vector<uint8_t> scratch_;
};

// Appends the entry's record to `out`; false, with nothing appended, when the entry has no record form.
bool appendRecord(std::vector<uint8_t>& out, const QVManifestEntryClass& entry) {
    std::vector<std::pair<CFTypeRef, CFTypeRef>> properties;
    if (entry.properties) properties = entry.properties.Entries();
    if (properties.size() > kMaxProperties) return false;
    for (const auto& [name, value] : properties) {
        if (!name || CFGetTypeID(name) != CFStringGetTypeID()) return false;
        if (!value || CFGetTypeID(value) != CFDataGetTypeID()) return false;
    }
    const uint32_t protectionCode = ProtectionClassCode(entry.protectionClass);  // fatal outside 0 to 4

    RecordWriter writer(out);
    writer.field(entry.domainText);
    writer.field(entry.path());
    writer.field(entry.target());
    writer.field(entry.digest());
    writer.field(entry.encryptionKey());
    writer.integer(entry.mode, 2);
    writer.integer(entry.inode, 8);
    writer.integer(entry.userID, 4);
    writer.integer(entry.groupID, 4);
    writer.integer(unixSecondsFromDate(entry.lastStatusChange), 4);
    writer.integer(unixSecondsFromDate(entry.lastModified), 4);
    writer.integer(unixSecondsFromDate(entry.birth), 4);
    writer.integer(entry.size, 8);
    writer.integer(protectionCode, 1);
    writer.integer(properties.size(), 1);
    for (const auto& [name, value] : properties) {
        writer.field(static_cast<CFStringRef>(name));
        writer.field(static_cast<CFDataRef>(value));
    }
    return true;
}

void report(const QVProgressFunction& progress, int64_t done, int64_t total) {
    if (progress) progress(done, total, total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 0.0);
}

}  // namespace

Entry QVManifestEntryCreateFromManifestData(CFDataRef data, int64_t offset, int64_t* nextOffset,
                                            QVGetFileFunction getFileFunc) {
    if (nextOffset) *nextOffset = 0;
    QV_ASSERT(data);
    if (offset < 0) return nullptr;
    const Support::byte_reader bytes(bytesOf(data));
    uint64_t next = 0;
    DomainNames domains;
    Entry entry = readRecord(bytes, static_cast<uint64_t>(offset), next, domains,
                             getFileFunc ? std::make_shared<const QVGetFileFunction>(std::move(getFileFunc)) : nullptr);
    if (entry && nextOffset && next < bytes.size()) *nextOffset = static_cast<int64_t>(next);
    return entry;
}

CFDataRef QVManifestEntryCreateManifestDataRepresentation(const Entry& entry) {
    QV_ASSERT(entry);
    std::vector<uint8_t> record;
    if (!appendRecord(record, *entry)) return nullptr;
    return CF::Data(record).Detach();
}

Manifest QVManifestCreateFromManifestData(CFDataRef data, QVManifestDataVersion version,
                                          const QVGetFileFunction& getFile, const QVProgressFunction& progress) {
    QV_ASSERT(data);
    const char* const reader = __PRETTY_FUNCTION__;
    if (version != QVManifestDataVersion24) {
        log_fmt(log_level::error, "{}: Invalid manifest version '{}' for this encoding scheme", reader,
                static_cast<int32_t>(version));
        return nullptr;
    }
    const Support::byte_reader bytes(bytesOf(data));
    const int64_t length = static_cast<int64_t>(bytes.size());
    if (bytes.size() < kHeaderSize) {
        log_fmt(log_level::error, "{}: Invalid file", reader);
        return nullptr;
    }
    report(progress, 0, length);
    const auto magic = bytes.slice(0, kMagicSize);
    if (!magic || !std::equal(magic->begin(), magic->end(), std::begin(kHeader))) {
        log_fmt(log_level::error, "{}: Invalid file header", reader);
        return nullptr;
    }
    // The two format bytes are not checked: images with other values read the same way.
    report(progress, static_cast<int64_t>(kHeaderSize), length);

    std::vector<Entry> entries;
    DomainNames domains;
    const auto sharedGetter = getFile ? std::make_shared<const QVGetFileFunction>(getFile) : nullptr;
    uint64_t offset = kHeaderSize;
    for (;;) {
        uint64_t next = 0;
        Entry entry;
        try {
            entry = readRecord(bytes, offset, next, domains, sharedGetter);
        } catch (const std::exception&) {  // a protection-class code above 4
            entry = nullptr;
        }
        if (!entry) {
            log_fmt(log_level::error, "{}: Invalid manifest entry", reader);
            return nullptr;
        }
        entries.push_back(std::move(entry));
        report(progress, static_cast<int64_t>(offset), length);
        if (next >= bytes.size()) break;
        offset = next;
    }
    return MakeManifest(std::move(entries), version, CF::Dictionary(), getFile);
}

CFDataRef QVManifestCreateManifestDataRepresentation(const Manifest& manifest, QVManifestDataVersion version,
                                                    CFErrorRef* error) {
    QV_ASSERT(manifest);
    return Boundary(error, [&]() -> CFDataRef {
        if (version != QVManifestDataVersion24)
            throw Error(QVErrorInvalidArgument, CF::Error(),
                        fmt::format("Invalid manifest version '{}' for this encoding scheme",
                                    static_cast<int32_t>(version)));
        std::vector<Entry> entries = QVManifestGetEntries(manifest);
        std::stable_sort(entries.begin(), entries.end(), DomainPathPairLess);

        std::vector<uint8_t> image(std::begin(kHeader), std::end(kHeader));
        std::vector<std::string> skipped;
        for (const Entry& entry : entries) {
            if (!appendRecord(image, *entry)) skipped.push_back(to_string(entry));
        }
        if (!skipped.empty())
            throw Error(QVErrorUnknown, CF::Error(),
                        fmt::format("Failed to serialize entries {}", fmt::join(skipped, ", ")));
        return CF::Data(image).Detach();
    });
}

}  // namespace Quiver
