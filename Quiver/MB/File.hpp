// MB::File: the record that a Manifest.db row keeps in its `file` blob, an "MBFile" object in a keyed
// archive (binary property list).
//
// Decoding takes the blob's bytes: a binary property list is read in place by binary_plist_reader
// (nothing but the members themselves is built), any other property-list format goes through
// CFPropertyListCreateWithData. Devices write strings and data as separate objects referred to by
// UID, data either plain or as an NSData/NSMutableData object holding "NS.data", and the extended
// attributes either as an archived NSDictionary or as data holding a property-list dictionary; all
// of these are read. Members that a blob lacks, and empty strings, data and dictionaries, share one
// empty object each, so a decoded record holds only what it really has.
//
// Encoding writes the one form devices write, because decryptors in common use read only that form:
// data by UID as plain data, except the encryption key, which is an NSMutableData object holding its
// bytes under "NS.data"; the attributes as data holding a binary property-list dictionary; "Flags"
// always. Root keys that no member models are kept in Unmodelled and written back as they came.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/CF/String.hpp"
#include "Quiver/Export.hpp"

namespace MB {

// A decoded record whose strings and data are views: into the blob where they lie there, else into
// the record's own spare storage. Valid while both the blob and the record live; nothing else is made
// unless the record has extended attributes or unmodelled keys (null dictionaries otherwise).
struct FileView {
    std::string_view RelativePath;
    std::string_view Target;
    std::span<const uint8_t> Digest;
    std::span<const uint8_t> EncryptionKey;
    uint32_t Mode = 0;
    uint32_t UserID = 0;
    uint32_t GroupID = 0;
    int64_t LastModified = 0;
    int64_t LastStatusChange = 0;
    int64_t Birth = 0;
    uint64_t Size = 0;
    uint64_t InodeNumber = 0;
    uint32_t ProtectionClass = 0;
    CF::Dictionary ExtendedAttributes;
    int64_t Flags = 0;
    CF::Dictionary Unmodelled;
    std::string spare[4];
};

class QV_EXPORT File {
public:
    File();
    File(const File& other);
    File& operator=(const File& other);
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    ~File();

    // Decodes a blob. The result is nullopt when the bytes are not a property list whose top level is a
    // dictionary (for a binary list: also when an object that decoding reads is malformed, where
    // CoreFoundation would not have parsed the list at all). Anything else that is wrong throws one of
    // Quiver::Support::archiver_exceptions (all derived from archive_error, a std::runtime_error) in
    // the order in which the archive is checked: creator, version, $top, $objects, root object, then
    // the members (decode_cycle, uid_out_of_range, cant_decode_as_value...). Callers that report a
    // failure take the exception's what() as its text.
    static std::optional<File> Decode(std::span<const uint8_t> blob);
    static std::optional<File> Decode(CFDataRef blob);
    // The same checks and failures, into views (false where Decode gives nullopt).
    static bool DecodeView(std::span<const uint8_t> blob, FileView& out);

    // The blob: a binary property list with the members in the order below. Target, Digest,
    // EncryptionKey and ExtendedAttributes are written only when not empty. Throws
    // Quiver::Support::archiver_exceptions::archive_error when the record cannot be written faithfully
    // (attributes that are not names to data, a string holding a NUL character, an unmodelled key that
    // names a member or holds a value of another kind).
    CF::Data Encode() const;

    friend bool operator==(const File& a, const File& b);

    // Never null: an absent or empty value is the shared empty string, data or dictionary.
    CF::String RelativePath;
    CF::String Target;
    CF::Data Digest;
    CF::Data EncryptionKey;
    uint32_t Mode = 0;
    uint32_t UserID = 0;
    uint32_t GroupID = 0;
    int64_t LastModified = 0;      // Unix seconds
    int64_t LastStatusChange = 0;  // Unix seconds
    int64_t Birth = 0;             // Unix seconds
    uint64_t Size = 0;
    uint64_t InodeNumber = 0;      // 0 when the blob has none
    uint32_t ProtectionClass = 0;  // the stored code; checked by whoever converts it
    CF::Dictionary ExtendedAttributes;  // string to data
    int64_t Flags = 0;
    // The root object's other keys (not "$class"): numbers and booleans stored in the object, strings and
    // data stored by UID. Devices may add keys; a record read and written again keeps them.
    CF::Dictionary Unmodelled;
};

// Writes records straight from views to the bytes that File::Encode makes of the same record through
// the general keyed archiver and CFPropertyListCreateData: the same objects in the same order, strings
// and UIDs shared the same way, the same reference and offset sizes. A manifest writer encodes hundreds
// of thousands of records, and the archiver's CF objects cost most of its time. Texts that are not
// UTF-8 are written as File::Encode writes a record whose CF string could not be made of them: as
// absent. One writer per thread; it keeps its buffers from record to record.
class QV_EXPORT FileWriter {
public:
    FileWriter();
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    // Appends the blob of `record` to `out`; `out` is left as it was when the record throws what
    // File::Encode throws for it (the same archive_error and message).
    void Append(const FileView& record, std::vector<uint8_t>& out);

private:
    struct Plist;
    std::unique_ptr<Plist> archive_;
    std::unique_ptr<Plist> attributes_;
    std::vector<uint8_t> attributeBytes_;
};

}  // namespace MB
