// quiver::Backup, quiver::Entry and quiver::EntryRange over the container, manifest and entry calls
// of the layer below. Nothing here decides what a backup is; it turns CF objects and CFError
// out-parameters into plain C++ values and exceptions.
#include "quiver/Backup.hpp"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <ostream>

#include "Quiver/Front/Front.hpp"
#include "Quiver/QVConvert.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVExtract.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/QVManifestCSV.hpp"
#include "Quiver/QVManifestDB.hpp"
#include "Quiver/QVTemporaryPath.hpp"
#include "Quiver/QVVerify.hpp"
#include "Quiver/Support/ByteReader.hpp"

namespace fs = std::filesystem;

namespace quiver {

using front::Text;

namespace {

Quiver::Entry Record(const std::shared_ptr<void>& record) {
    return Quiver::Entry(record, static_cast<QVManifestEntryClass*>(record.get()));
}
const QVManifestEntryClass& Of(const std::shared_ptr<void>& record) {
    return *static_cast<const QVManifestEntryClass*>(record.get());
}

// Manifests record whole seconds; an absolute time of 0 is 2001-01-01, a time like any other.
int64_t UnixSeconds(double absolute) {
    return static_cast<int64_t>(std::floor(absolute + kCFAbsoluteTimeIntervalSince1970));
}

double AbsoluteTime(int64_t unixSeconds) {
    return static_cast<double>(unixSeconds) - kCFAbsoluteTimeIntervalSince1970;
}

Problem ToProblem(const Quiver::QVProblem& p) {
    return Problem{Quiver::to_string(p.kind), p.warning, p.domain, p.path, p.fileID, p.storedName, p.detail,
                   p.protectionClass, p.storedLength};
}

Quiver::QVVerifyMode ToMode(VerifyMode mode) {
    switch (mode) {
        case VerifyMode::Quick: return Quiver::QVVerifyMode::Quick;
        case VerifyMode::Digests: return Quiver::QVVerifyMode::Digests;
        case VerifyMode::Full: return Quiver::QVVerifyMode::Full;
    }
    return Quiver::QVVerifyMode::Digests;
}

Quiver::QVPasswordParameters ToParameters(const PasswordParameters& p) {
    Quiver::QVPasswordParameters parameters;
    parameters.iterations = p.iterations;
    parameters.sha1Iterations = p.sha1Iterations;
    return parameters;
}

Value Dictionary(CFDictionaryRef dictionary) {
    return dictionary && CFDictionaryGetCount(dictionary) > 0 ? front::FromPropertyList(dictionary) : Value();
}

// The layer below needs a folder for its private files before it opens or makes anything. A program
// that chose none gets one under TMPDIR, removed when the process exits normally.
void EnsureTemporaryFolder() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (CF::String set = CF::String::Adopt(QuiverCopyTemporaryPath())) return;
        std::error_code ec;
        std::string pattern = (fs::temp_directory_path(ec) / "quiver-XXXXXX").string();
        if (ec || !mkdtemp(pattern.data())) return;  // the call that needs it then fails and says why
        static const fs::path folder = pattern;
        if (!QuiverSetTemporaryPath(CF::String(pattern).get())) {
            fs::remove_all(folder, ec);
            return;
        }
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(folder, ignored);
        });
    });
}

// The layer below makes a rejected name its caller's business; the front refuses it as an argument.
void RequireWritableName(std::string_view domain, std::string_view path) {
    if (auto problem = Quiver::QVEntryNameProblem(domain, path, Quiver::QVNameUse::Write))
        throw front::InvalidArgumentError(std::string(domain) + " " + std::string(path) + ": " + *problem);
}

}  // namespace

const char* to_string(ProtectionClass protectionClass) {
    switch (protectionClass) {
        case ProtectionClass::NotSet: return "NotSet";
        case ProtectionClass::Complete: return "Complete";
        case ProtectionClass::WriteOnly: return "WriteOnly";
        case ProtectionClass::CompleteUntilUnlocked: return "CompleteUntilUnlocked";
        case ProtectionClass::None: return "None";
    }
    return "Unknown";
}

std::optional<KeyBagInfo> readKeyBagInfo(const Value& manifestProperties) {
    const Value& blob = manifestProperties["BackupKeyBag"];
    if (blob.type() != Value::Type::Data) return std::nullopt;
    // Tag, big-endian length, value. The header's values come before the first class's, so the
    // first of each tag is the header's; class keys stay wrapped, as no password is at hand.
    const Quiver::Support::byte_reader reader(blob.asData());
    KeyBagInfo info;
    bool sawVersion = false, sawIterations = false;
    uint64_t offset = 0;
    while (reader.contains(offset, 8)) {
        const std::span<const uint8_t> tagBytes = *reader.slice(offset, 4);
        const std::string_view tag(reinterpret_cast<const char*>(tagBytes.data()), tagBytes.size());
        const uint64_t length = *reader.be(offset + 4, 4);
        if (!reader.contains(offset + 8, length)) return std::nullopt;
        const bool number = length == 4;
        const auto value = static_cast<uint32_t>(number ? reader.be(offset + 8, 4).value_or(0) : 0);
        if (tag == "VERS" && number && !sawVersion) info.version = value, sawVersion = true;
        if (tag == "TYPE" && number && info.classes == 0) info.type = value;
        if (tag == "ITER" && number && !sawIterations) info.iterations = value, sawIterations = true;
        if (tag == "DPIC" && number && !info.dpIterations) info.dpIterations = value;
        if (tag == "CLAS") ++info.classes;
        offset += 8 + length;
    }
    if (!sawVersion || !sawIterations) return std::nullopt;
    return info;
}

// ---- Entry ----

// The accessors read the record through the pointer the entry holds: a listing calls them for every
// field of hundreds of thousands of entries, and a shared pointer made per call costs two atomic
// operations each time.
std::string_view Entry::domain() const { return Of(record_).domainText; }
std::string_view Entry::path() const { return Of(record_).path(); }
std::string_view Entry::target() const { return Of(record_).target(); }
std::string Entry::fileID() const { return Of(record_).fileID(); }
EntryKind Entry::kind() const {
    switch (Of(record_).mode & 0xE000) {
        case 0x4000: return EntryKind::Directory;
        case 0xA000: return EntryKind::Symlink;
        case 0x8000: return EntryKind::File;
        default: return EntryKind::Other;
    }
}
uint8_t Entry::typeFlags() const { return Of(record_).fileType; }
uint64_t Entry::size() const { return Of(record_).size; }
uint16_t Entry::mode() const { return Of(record_).mode; }
uint32_t Entry::uid() const { return Of(record_).userID; }
uint32_t Entry::gid() const { return Of(record_).groupID; }
uint64_t Entry::inode() const { return Of(record_).inode; }
Times Entry::times() const {
    const QVManifestEntryClass& e = Of(record_);
    return Times{UnixSeconds(e.birth), UnixSeconds(e.lastModified), UnixSeconds(e.lastStatusChange)};
}
ProtectionClass Entry::protectionClass() const { return static_cast<ProtectionClass>(Of(record_).protectionClass); }
std::span<const uint8_t> Entry::digest() const { return Of(record_).digest(); }
std::span<const uint8_t> Entry::wrappedKey() const { return Of(record_).encryptionKey(); }
Value Entry::extendedAttributes() const { return Dictionary(Quiver::QVManifestEntryGetProperties(Record(record_))); }
std::string Entry::describeExtendedAttributes() const {
    CFDictionaryRef attributes = Quiver::QVManifestEntryGetProperties(Record(record_));
    if (!attributes || CFDictionaryGetCount(attributes) == 0) return {};
    return CF::String::Adopt(CFDictionaryCopyDebugDescription(attributes)).utf8();
}

// ---- EntryRange ----

// Either the manifest's own list (the whole backup, nothing copied) or a selection of its own.
struct EntryRange::Source {
    Quiver::Manifest manifest;
    std::vector<Quiver::Entry> selection;
    const std::vector<Quiver::Entry>& list() const { return manifest ? manifest->entries : selection; }
};

size_t EntryRange::size() const { return source_ ? source_->list().size() : 0; }

Entry EntryRange::operator[](size_t index) const { return Entry(source_->list().at(index)); }

std::vector<Entry> EntryRange::toVector() const {
    std::vector<Entry> entries;
    entries.reserve(size());
    for (Entry entry : *this) entries.push_back(std::move(entry));
    return entries;
}

// ---- Backup: opening and metadata ----

namespace {

// Opens the container behind open() and summarize(): one that keeps its entries, or one that counts them.
Quiver::Backup openContainer(const fs::path& path, const std::optional<std::string>& password, const Progress& progress,
                             bool count) {
    std::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    if (!fs::exists(status))
        throw Error(Error::Details{ErrorCode::NoItemAtPath, "Quiver.ErrorDomain",
                                   {path.string() + ": no such file or directory"}, {}, {}, {}, {}, "missing", {}});
    const QVDataSourceType type = fs::is_directory(status) ? QVDataSourceTypeDirectory : QVDataSourceTypeZip;
    EnsureTemporaryFolder();
    if (password && !password->empty() && !CF::String(*password))
        throw Error(Error::Details{ErrorCode::InvalidArgument, "Quiver.ErrorDomain",
                                   {"the password is not valid UTF-8 text"}, {}, {}, {}, {}, "password", {}});
    Quiver::LoadProgress report;
    if (progress) report = [&progress](int64_t, int64_t, double fraction) { progress(fraction); };
    const CF::String pathText = Text(path.string());
    auto load = [&](const std::optional<std::string>& secret, CFErrorRef* error) {
        const CF::String secretText = secret ? Text(*secret) : CF::String();
        if (count) return Quiver::QVBackupContainerCount(type, pathText.get(), secretText.get(), report, error);
        return type == QVDataSourceTypeZip
                   ? Quiver::QVBackupContainerCreateFromZipFile(pathText.get(), secretText.get(), report, error)
                   : Quiver::QVBackupContainerCreateFromDirectory(pathText.get(), secretText.get(), report, error);
    };
    CFErrorRef error = nullptr;
    Quiver::Backup backup = load(password, &error);
    CF::Error failure = CF::Error::Adopt(error);
    // A password given for a plain backup is not needed; the backup opens without it.
    if (!backup && password && failure.Code() == QVErrorNotEncrypted) {
        error = nullptr;
        backup = load(std::nullopt, &error);
        failure = CF::Error::Adopt(error);
    }
    if (!backup) front::Throw(failure);
    return backup;
}

Contents ContentsOf(const Quiver::ManifestContents& c) {
    return Contents{c.files, c.directories, c.symlinks, c.totalSize, c.domains};
}

}  // namespace

Backup Backup::open(const fs::path& path, const std::optional<std::string>& password, const Progress& progress) {
    return Backup(std::make_shared<Impl>(Impl{openContainer(path, password, progress, false), path}));
}

Summary Backup::summarize(const fs::path& path, const std::optional<std::string>& password, const Progress& progress) {
    // Read through a handle of its own, which never leaves here: its manifest is empty.
    const Backup counted(std::make_shared<Impl>(Impl{openContainer(path, password, progress, true), path}));
    Summary summary;
    summary.metadata = Metadata{counted.info(),
                                counted.status(),
                                counted.manifestProperties(),
                                counted.missingMetadata(),
                                counted.unreadableMetadata(),
                                counted.manifestFormat()};
    summary.manifestVersion = counted.manifestVersion();
    summary.encrypted = counted.encrypted();
    summary.manifestEnciphered = counted.manifestEnciphered();
    summary.loadWarnings = counted.loadWarnings();
    summary.contents = ContentsOf(counted.impl_->backup->contents);
    return summary;
}

Backup Backup::create() {
    EnsureTemporaryFolder();
    Quiver::Backup backup = front::Checked([](CFErrorRef* error) { return Quiver::QVBackupContainerCreateEmpty(error); });
    // An empty container has no manifest format yet; a new backup is of the newest one, on Manifest.db.
    backup->manifestVersion = QVManifestDataVersion33;
    return Backup(std::make_shared<Impl>(Impl{std::move(backup), {}}));
}

Metadata Backup::readMetadata(const fs::path& path) {
    EnsureTemporaryFolder();
    std::error_code ec;
    const bool zip = !fs::is_directory(path, ec);
    Quiver::QVBackupMetadata metadata;
    CFErrorRef error = nullptr;
    if (!Quiver::QVBackupContainerCopyMetadata(Text(path.string()).get(),
                                               zip ? QVDataSourceTypeZip : QVDataSourceTypeDirectory,
                                               &metadata, &error))
        front::Throw(error);
    return Metadata{Dictionary(metadata.info.get()), Dictionary(metadata.status.get()), Dictionary(metadata.manifest.get()),
                    metadata.missing, metadata.unreadable, metadata.manifestFile};
}

const fs::path& Backup::path() const { return impl_->path; }
bool Backup::encrypted() const { return Quiver::QVBackupContainerIsEncrypted(impl_->backup) != 0; }
bool Backup::manifestEnciphered() const { return Quiver::QVBackupContainerHasEncipheredManifest(impl_->backup); }
std::string Backup::manifestFormat() const {
    return impl_->backup->manifestVersion == QVManifestDataVersion24 ? "Manifest.mbdb" : "Manifest.db";
}
std::string Backup::manifestVersion() const {
    switch (impl_->backup->manifestVersion) {
        case QVManifestDataVersion24: return "2.4";
        case QVManifestDataVersion30: return "3.0";
        case QVManifestDataVersion31: return "3.1";
        case QVManifestDataVersion32: return "3.2";
        case QVManifestDataVersion33: return "3.3";
        default: return "";
    }
}

Value Backup::info() const {
    CF::Dictionary d = CF::Dictionary::Adopt(Quiver::QVBackupContainerCopyInfoDict(impl_->backup));
    return Dictionary(d.get());
}
Value Backup::status() const {
    CF::Dictionary d = CF::Dictionary::Adopt(Quiver::QVBackupContainerCopyStatusDict(impl_->backup));
    return Dictionary(d.get());
}
Value Backup::manifestProperties() const {
    CF::Dictionary d = CF::Dictionary::Adopt(Quiver::QVBackupContainerCopyManifestDict(impl_->backup));
    return Dictionary(d.get());
}

void Backup::setMetadata(const Value& info, const Value& status, const Value& manifest) {
    for (const Value* v : {&info, &status, &manifest})
        if (v->type() != Value::Type::Dictionary) throw front::InvalidArgumentError("metadata must be dictionaries");
    front::Ref i = front::ToPropertyList(info), s = front::ToPropertyList(status), m = front::ToPropertyList(manifest);
    Quiver::QVBackupContainerSetDictionaries(impl_->backup, static_cast<CFDictionaryRef>(i.get()),
                                             static_cast<CFDictionaryRef>(s.get()), static_cast<CFDictionaryRef>(m.get()));
}

std::vector<std::string> Backup::missingMetadata() const { return Quiver::QVBackupContainerCopyMissingMetadata(impl_->backup); }
std::vector<std::string> Backup::unreadableMetadata() const {
    return Quiver::QVBackupContainerCopyUnreadableMetadata(impl_->backup);
}
std::vector<std::string> Backup::loadWarnings() const { return Quiver::QVBackupContainerCopyLoadWarnings(impl_->backup); }
uint64_t Backup::fileCount() const {
    return static_cast<uint64_t>(Quiver::QVManifestGetTotalFileCount(Quiver::QVBackupContainerGetManifest(impl_->backup)));
}
Contents Backup::contents() const {
    return ContentsOf(Quiver::CountEntries(Quiver::QVBackupContainerGetManifest(impl_->backup)));
}
uint64_t Backup::totalSize() const {
    return static_cast<uint64_t>(Quiver::QVManifestGetTotalFileSize(Quiver::QVBackupContainerGetManifest(impl_->backup)));
}

// ---- Entries ----

EntryRange Backup::entries() const {
    return EntryRange(std::make_shared<const EntryRange::Source>(
        EntryRange::Source{Quiver::QVBackupContainerGetManifest(impl_->backup), {}}));
}

namespace {
std::vector<Quiver::Entry> SortedByPath(std::vector<Quiver::Entry> entries) {
    std::stable_sort(entries.begin(), entries.end(), [](const Quiver::Entry& a, const Quiver::Entry& b) {
        return Quiver::QVManifestEntryGetPathUTF8(a) < Quiver::QVManifestEntryGetPathUTF8(b);
    });
    return entries;
}
}  // namespace

EntryRange Backup::entriesInDomain(std::string_view domain) const {
    auto list = Quiver::QVManifestCopyEntriesInDomain(Quiver::QVBackupContainerGetManifest(impl_->backup), Text(domain).get());
    return EntryRange(std::make_shared<const EntryRange::Source>(EntryRange::Source{nullptr, SortedByPath(std::move(list))}));
}

EntryRange Backup::entriesUnder(std::string_view domain, std::string_view path) const {
    auto list = Quiver::QVManifestCopyEntriesAtPath(Quiver::QVBackupContainerGetManifest(impl_->backup), Text(domain).get(),
                                                   Text(path).get());
    return EntryRange(std::make_shared<const EntryRange::Source>(EntryRange::Source{nullptr, SortedByPath(std::move(list))}));
}

std::optional<Entry> Backup::find(std::string_view domain, std::string_view path) const {
    Quiver::Entry entry = Quiver::QVBackupContainerGetEntryForPath(impl_->backup, Text(domain).get(), Text(path).get());
    if (!entry) return std::nullopt;
    return Entry(std::move(entry));
}

std::optional<Entry> Backup::findByFileID(std::string_view fileID) const {
    Quiver::Entry entry =
        Quiver::QVManifestGetEntryForFileID(Quiver::QVBackupContainerGetManifest(impl_->backup), Text(fileID).get());
    if (!entry) return std::nullopt;
    return Entry(std::move(entry));
}

std::vector<std::string> Backup::domains() const {
    CF::Array list = CF::Array::Adopt(Quiver::QVManifestCopyDomainsList(Quiver::QVBackupContainerGetManifest(impl_->backup)));
    std::vector<std::string> names;
    for (CFIndex i = 0; i < list.size(); ++i)
        names.push_back(CF::String::Retain(static_cast<CFStringRef>(CFArrayGetValueAtIndex(list.get(), i))).utf8());
    std::sort(names.begin(), names.end());
    return names;
}

EntryRange Backup::readManifestDB(const fs::path& manifestDB) {
    Quiver::Manifest manifest = front::Checked([&](CFErrorRef* error) {
        return Quiver::QVManifestCreateFromManifestDatabase(Text(manifestDB.string()).get(), QVManifestDataVersion33, {},
                                                           {}, error);
    });
    return EntryRange(std::make_shared<const EntryRange::Source>(EntryRange::Source{std::move(manifest), {}}));
}

// ---- Stored files ----

std::string Backup::storedName(const Entry& entry) const {
    if (!entry.isFile()) return {};
    std::string name =
        Quiver::LocalFilenameForFileID(CF::String(entry.fileID()), impl_->backup->manifestVersion, true).utf8();
    // A file ID too short to have a folder is stored at the root.
    if (!name.empty() && name.front() == '/') name.erase(0, 1);
    return name;
}

uint64_t Backup::storedLength(const Entry& entry) const {
    if (!entry.isFile())
        throw front::InvalidArgumentError(std::string(entry.domain()) + " " + std::string(entry.path()) +
                                          " is not a regular file: it has no stored file");
    CFErrorRef error = nullptr;
    std::shared_ptr<QVFileClass> file = Quiver::QVManifestEntryGetFile(Record(entry.record_), &error);
    if (!file) {
        if (error) front::Throw(error);
        throw Error(Error::Details{ErrorCode::FileNotFound, "Quiver.ErrorDomain", {"missing"}, storedName(entry),
                                   std::string(entry.domain()), std::string(entry.path()), entry.fileID(), "missing", {}});
    }
    return Quiver::QVFileGetSize(file);
}

// ---- Reading and checking ----

void Backup::read(const Entry& entry, const std::function<bool(std::span<const uint8_t>)>& chunk,
                  const std::function<void(const Problem&)>& warning) const {
    Quiver::QVProblemFunction warnings;
    if (warning) warnings = [&warning](const Quiver::QVProblem& p) { warning(ToProblem(p)); };
    CFErrorRef error = nullptr;
    const bool read = Quiver::QVBackupContainerReadEntry(
        impl_->backup, Record(entry.record_),
        [&chunk](const uint8_t* bytes, size_t length) { return chunk(std::span<const uint8_t>(bytes, length)); },
        warnings, nullptr, &error);
    if (!read) front::Throw(error);
}

void Backup::read(const Entry& entry, std::ostream& out) const {
    read(entry, [&out](std::span<const uint8_t> bytes) {
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return static_cast<bool>(out);
    });
    if (!out) throw Error(Error::Details{ErrorCode::ReadWrite, "Quiver.ErrorDomain", {"the output stream failed"}, {},
                                         std::string(entry.domain()), std::string(entry.path()), entry.fileID(), {}, {}});
}

std::string Backup::readAll(const Entry& entry) const {
    std::string content;
    content.reserve(static_cast<size_t>(std::min<uint64_t>(entry.size(), 64u << 20)));
    read(entry, [&content](std::span<const uint8_t> bytes) {
        content.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return true;
    });
    return content;
}

std::vector<Problem> Backup::verify(const Entry& entry, VerifyMode mode) const {
    std::vector<Problem> problems;
    for (const Quiver::QVProblem& p : Quiver::QVBackupContainerVerifyEntry(impl_->backup, Record(entry.record_), ToMode(mode)))
        problems.push_back(ToProblem(p));
    return problems;
}

uint64_t Backup::verify(VerifyMode mode, const std::function<void(const Problem&)>& problem,
                        const Progress& progress) const {
    Quiver::LoadProgress report;
    if (progress) report = [&progress](int64_t, int64_t, double fraction) { progress(fraction); };
    CFErrorRef error = nullptr;
    std::optional<int64_t> damaged = Quiver::QVBackupContainerVerify(
        impl_->backup, ToMode(mode),
        [&problem](const Quiver::QVProblem& p) {
            if (problem) problem(ToProblem(p));
        },
        report, &error);
    if (!damaged) front::Throw(error);
    return static_cast<uint64_t>(*damaged);
}

ExtractSummary Backup::extract(const std::vector<Entry>& entries, const fs::path& destination,
                               const std::function<void(const ExtractEvent&)>& event, const Progress& progress) const {
    std::vector<Quiver::Entry> records;
    records.reserve(entries.size());
    for (const Entry& entry : entries) records.push_back(Record(entry.record_));
    CFErrorRef error = nullptr;
    std::optional<Quiver::QVExtractSummary> summary = Quiver::QVBackupContainerExtractEntries(
        impl_->backup, records, destination,
        [&event](const Quiver::QVExtractEvent& e) {
            if (event) event(ExtractEvent{Entry(e.entry), static_cast<ExtractEvent::Result>(e.result), e.reason});
        },
        [&progress](double fraction) {
            if (progress) progress(fraction);
            return true;
        },
        &error);
    if (!summary) front::Throw(error);
    return ExtractSummary{summary->extracted, summary->unsafe, summary->failed, summary->damaged};
}

// ---- Editing ----

namespace {

// Folder entries for every parent of path that has none, as `mkdir -p` makes them.
void MakeParents(const Quiver::Backup& backup, std::string_view domain, std::string_view path, bool includingPath) {
    const CF::String domainText = Text(domain);
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        const bool last = end == std::string_view::npos;
        if (last && !includingPath) break;
        if (last) end = path.size();
        const std::string_view prefix = path.substr(0, end);
        if (!Quiver::QVBackupContainerCreateDirectoryAtPath(backup, domainText.get(), Text(prefix).get()))
            throw front::InvalidArgumentError("cannot make the folder " + std::string(domain) + " " + std::string(prefix) +
                                              ": something else is there");
        if (last) break;
        start = end + 1;
    }
}

Quiver::Entry Store(const Quiver::Backup& backup, std::string_view domain, std::string_view path,
            const std::shared_ptr<QVFileClass>& file) {
    Quiver::Entry existing = Quiver::QVBackupContainerGetEntryForPath(backup, Text(domain).get(), Text(path).get());
    if (existing && Quiver::QVManifestEntryIsDirectory(existing))
        throw front::InvalidArgumentError("cannot put a file at " + std::string(domain) + " " + std::string(path) +
                                          ": a folder is there (remove it first)");
    if (!existing) MakeParents(backup, domain, path, false);
    return front::Checked([&](CFErrorRef* error) {
        return Quiver::QVBackupContainerStoreFileForPath(backup, Text(domain).get(), Text(path).get(), file, error);
    });
}

}  // namespace

Entry Backup::putFile(std::string_view domain, std::string_view path, const fs::path& source) {
    RequireWritableName(domain, path);
    std::error_code ec;
    if (!fs::is_regular_file(source, ec))
        throw front::InvalidArgumentError(source.string() + " is not a file that can be put into a backup");
    std::shared_ptr<QVFileClass> file;
    try {
        file = front::Checked(
            [&](CFErrorRef* error) { return Quiver::QVFileCreateFromFileAtPath(Text(source.string()), 1, error); });
    } catch (const Error& e) {
        throw front::WithCheck(e, "source");  // the caller's file, not the backup, is what failed
    }
    return Entry(Store(impl_->backup, domain, path, file));
}

Entry Backup::putData(std::string_view domain, std::string_view path, std::span<const uint8_t> content) {
    RequireWritableName(domain, path);
    std::shared_ptr<QVFileClass> file = front::Checked([&](CFErrorRef* error) {
        return Quiver::QVFileCreateFromData(std::vector<uint8_t>(content.begin(), content.end()), error);
    });
    return Entry(Store(impl_->backup, domain, path, file));
}

Entry Backup::makeDirectory(std::string_view domain, std::string_view path) {
    RequireWritableName(domain, path);
    MakeParents(impl_->backup, domain, path, true);
    return *find(domain, path);
}

Entry Backup::makeSymlink(std::string_view domain, std::string_view path, std::string_view target) {
    RequireWritableName(domain, path);
    if (path.empty() || target.empty()) throw front::InvalidArgumentError("a link needs a path and a target");
    const CF::String domainText = Text(domain), pathText = Text(path);
    if (!Quiver::QVBackupContainerGetEntryForPath(impl_->backup, domainText.get(), pathText.get()))
        MakeParents(impl_->backup, domain, path, false);
    Quiver::Entry link =
        Quiver::QVBackupContainerCreateSymlinkAtPath(impl_->backup, domainText.get(), pathText.get(), Text(target).get());
    if (!link)
        throw front::InvalidArgumentError("cannot make the link " + std::string(domain) + " " + std::string(path) +
                                          ": something other than a link is there");
    return Entry(std::move(link));
}

void Backup::setTimes(const Entry& entry, const Times& times) {
    const Quiver::Entry record = Record(entry.record_);
    record->birth = AbsoluteTime(times.birth);
    record->lastModified = AbsoluteTime(times.modified);
    record->lastStatusChange = AbsoluteTime(times.statusChanged);
}

std::optional<std::string> Backup::nameProblem(std::string_view domain, std::string_view path) {
    return Quiver::QVEntryNameProblem(domain, path, Quiver::QVNameUse::Write);
}

bool Backup::remove(std::string_view domain, std::string_view path) {
    return Quiver::QVBackupContainerRemovePath(impl_->backup, Text(domain).get(), Text(path).get()) != 0;
}

void Backup::removeEntries(const std::vector<Entry>& entries) {
    std::vector<Quiver::Entry> records;
    for (const Entry& entry : entries) records.push_back(Record(entry.record_));
    Quiver::QVManifestRemoveEntries(Quiver::QVBackupContainerGetManifest(impl_->backup), records);
}

// ---- Writing ----

void Backup::write(const fs::path& destination, const WriteOptions& options) const {
    Quiver::QVBackupContainerSetExportPhaseFunction(impl_->backup, [&options](const char* phase) {
        if (options.phase) options.phase(phase);
    });
    Quiver::ExportProgress progress = [&options](double fraction) {
        if (options.progress) options.progress(fraction);
    };
    if (options.check) {
        auto check = std::make_shared<Quiver::QVExportCheck>();
        check->skipDamaged = options.skipDamaged;
        check->problem = [&options](const Quiver::QVProblem& p) {
            if (options.problem) options.problem(ToProblem(p));
        };
        Quiver::QVBackupContainerSetExportCheck(impl_->backup, std::move(check));
    }
    const CF::String target = Text(destination.string());
    CFErrorRef error = nullptr;
    const bool written = options.zip ? Quiver::QVBackupContainerExportToZip(impl_->backup, target.get(), progress, &error)
                                     : Quiver::QVBackupContainerExportToDirectory(impl_->backup, target.get(), progress, &error);
    Quiver::QVBackupContainerSetExportPhaseFunction(impl_->backup, {});
    Quiver::QVBackupContainerSetExportCheck(impl_->backup, nullptr);
    if (!written) front::Throw(error);
}

namespace {

Quiver::ExportProgress ToExportProgress(const Progress& progress) {
    return [&progress](double fraction) {
        if (progress) progress(fraction);
    };
}

Quiver::QVConversionOptions ToConversion(const ConvertOptions& options) {
    Quiver::QVConversionOptions conversion;
    conversion.zip = options.zip;
    conversion.skipDamaged = options.skipDamaged;
    return conversion;
}

Quiver::QVConversionProblemFunction ToProblemFunction(const ConvertOptions& options) {
    return [&options](const Quiver::QVConversionProblem& p) {
        if (options.problem) options.problem(Problem{p.check, false, p.domain, p.path, p.fileID, {}, p.detail, {}, 0});
    };
}

}  // namespace

void Backup::writeDecrypted(const fs::path& destination, const ConvertOptions& options) const {
    CFErrorRef error = nullptr;
    const Quiver::ExportProgress progress = ToExportProgress(options.progress);
    if (!Quiver::QVBackupContainerExportDecrypted(impl_->backup, Text(destination.string()).get(), ToConversion(options),
                                                  ToProblemFunction(options), progress, &error))
        front::Throw(error);
}

void Backup::writeEncrypted(const fs::path& destination, std::string_view password, const PasswordParameters& parameters,
                            const ConvertOptions& options) const {
    CFErrorRef error = nullptr;
    const Quiver::ExportProgress progress = ToExportProgress(options.progress);
    if (!Quiver::QVBackupContainerExportEncrypted(impl_->backup, Text(destination.string()).get(), Text(password).get(),
                                                  ToParameters(parameters), ToConversion(options),
                                                  ToProblemFunction(options), progress, &error))
        front::Throw(error);
}

fs::path Backup::partialPath(const fs::path& destination) {
    return Quiver::QVBackupContainerPartialPath(Text(destination.string()).get());
}

void Backup::writeWithManifestDB(const fs::path& destination, const PasswordParameters& parameters,
                                 const ConvertOptions& options) const {
    CFErrorRef error = nullptr;
    const Quiver::ExportProgress progress = ToExportProgress(options.progress);
    if (!Quiver::QVBackupContainerExportWithManifestDB(impl_->backup, Text(destination.string()).get(),
                                                      ToParameters(parameters), ToConversion(options),
                                                      ToProblemFunction(options), progress, &error))
        front::Throw(error);
}

void Backup::changePassword(const fs::path& directory, std::string_view oldPassword, std::string_view newPassword,
                            const PasswordParameters& parameters) {
    CFErrorRef error = nullptr;
    if (!Quiver::QVBackupChangePassword(Text(directory.string()).get(), Text(oldPassword).get(), Text(newPassword).get(),
                                        ToParameters(parameters), &error))
        front::Throw(error);
}

void Backup::writeManifestCSV(const fs::path& manifestDB, const std::function<bool(std::string_view)>& write) {
    CFErrorRef error = nullptr;
    if (!Quiver::QVManifestDBWriteCSVRepresentation(Text(manifestDB.string()).get(), write, &error)) {
        if (!error) return;  // the writer asked to stop
        front::Throw(error);
    }
}

bool setTemporaryFolder(const fs::path& folder) { return QuiverSetTemporaryPath(Text(folder.string()).get()); }

void setLogLevel(int level) {
    Quiver::Logger().set_level(level <= 0 ? spdlog::level::off : level == 1 ? spdlog::level::info : spdlog::level::debug);
}

}  // namespace quiver
