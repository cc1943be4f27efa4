// File objects: the contents of one backed-up file. The bytes always lie in a file on disk, either a
// cache file in the library's storage directory (registered with the file manager, which counts the
// objects that use each cached content) or a caller's file used in place. Contents made from bytes in
// memory (the manifests and metadata an export writes, a deciphered manifest among them) go to cache
// files that have no name: they are freed with the last object that uses them and never outlive the
// process. A file object records the
// size, SHA-1 digest, modification date and local path, and may carry a key so that readers receive
// the plaintext of an encrypted backup's file, or the ciphertext of a plain file being written into
// an encrypted backup. Appendable file objects grow piece by piece, hashed as they grow, until they are
// finalised into the cache.
#pragma once

#include <quiver/QVFile.hpp>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Quiver/CF/Date.hpp"
#include "Quiver/CF/String.hpp"
#include "Quiver/Export.hpp"
#include "Quiver/Support/File.hpp"
#include "Quiver/Support/OpenSSL.hpp"

class QVFileClass : public std::enable_shared_from_this<QVFileClass> {
public:
    // What a reader receives when the file has a key.
    enum class KeyUse : uint32_t { None = 0, Decrypt = 1, Encrypt = 2 };

    QVFileClass() = default;
    QVFileClass(const QVFileClass&) = delete;
    QVFileClass& operator=(const QVFileClass&) = delete;
    ~QVFileClass();

    uint64_t size = 0;
    std::vector<uint8_t> referenceDigest;  // key in the file manager's registry; empty when not registered
    std::vector<uint8_t> digest;           // SHA-1 of the stored bytes; empty while appendable
    // A file registered where it lies is hashed when its digest is first asked for (or read whole
    // with QVFileGetDataAndHash), not when it is opened: most readers never ask.
    bool digestPending = false;
    CF::Date modifiedDate;
    CF::String localPath;
    // The nameless cache file that localPath reaches, shared by every copy of this object.
    std::shared_ptr<const Quiver::Support::anonymous_file> anonymous;
    Quiver::Support::writable_file writer;  // open only while appendable
    Quiver::Support::OpenSSL::DigestContext digestContext;
    uint32_t hasKey = 0;
    std::array<uint8_t, 32> key{};
    uint32_t keyAlgorithm = 0;  // Support::Cryptor::Algorithm value
    KeyUse keyUse = KeyUse::None;
};

namespace Quiver {

// The same for a path held as a CF::String.
inline std::shared_ptr<QVFileClass> QVFileCreateFromFileAtPath(const CF::String& path, uint8_t copy, CFErrorRef* error) {
    return QVFileCreateFromFileAtPath(path.get(), copy, error);
}

// Closes the writer and frees the digest context of an appendable file; does nothing otherwise.
void CloseAppendableFile(QVFileClass& file);

// A file object for the file at path: size and modification time from the filesystem, the given
// digest, and, for a cached file, the digest as its reference digest (the caller registers it).
std::shared_ptr<QVFileClass> MakeFileReference(const std::filesystem::path& path, const std::vector<uint8_t>& digest,
                                               bool cached);

// A file object for a file without a name that its maker has finished writing; it is hashed when its
// digest is first asked for.
std::shared_ptr<QVFileClass> QVFileCreateFromAnonymousFile(std::shared_ptr<const Support::anonymous_file> anonymous);

}  // namespace Quiver

template <>
struct fmt::formatter<std::shared_ptr<QVFileClass>> : fmt::formatter<std::string_view> {
    auto format(const std::shared_ptr<QVFileClass>& file, format_context& ctx) const {
        return fmt::formatter<std::string_view>::format(Quiver::to_string(file), ctx);
    }
};
