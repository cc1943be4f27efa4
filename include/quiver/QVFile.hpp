// File objects: the contents of one backed-up file, behind an opaque handle. The bytes always lie in a
// file on disk (a cache file below the temporary storage path, or a caller's file used in place); a
// file object records their size, SHA-1 digest and modification date, and may carry a key so that
// readers receive the plaintext of an encrypted backup's file, or the ciphertext of a plain file being
// written into an encrypted backup. Appendable file objects grow piece by piece, hashed as they grow,
// until they are finalised.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <quiver/Api.hpp>

class QVFileClass;

namespace Quiver {

// A new cached file holding a copy of the bytes.
QV_EXPORT std::shared_ptr<QVFileClass> QVFileCreateFromData(CFDataRef data, CFErrorRef* error);
QV_EXPORT std::shared_ptr<QVFileClass> QVFileCreateFromData(const std::vector<uint8_t>& data, CFErrorRef* error);
// A file for an existing file on disk; copy non-zero asks for its bytes to be copied into the cache.
QV_EXPORT std::shared_ptr<QVFileClass> QVFileCreateFromFileAtPath(CFStringRef path, uint8_t copy, CFErrorRef* error);
// A new handle for the same contents; empty for an appendable file.
QV_EXPORT std::shared_ptr<QVFileClass> QVFileCreateCopy(const std::shared_ptr<QVFileClass>& file);

// Streams the contents (deciphered or enciphered when the file has a key) to callback in chunks of at
// most chunkSize bytes (0 means 32,768) until it returns false or the file ends. Cipher failures throw
// an exception derived from std::exception; read failures throw std::system_error.
QV_EXPORT void QVFileGetData(const std::shared_ptr<QVFileClass>& file, uint64_t chunkSize,
                             const std::function<bool(const std::vector<uint8_t>&)>& callback);
// The same, and the SHA-1 of the stored bytes read (before deciphering or enciphering), computed in the
// same pass; nothing when the callback stopped the read early.
QV_EXPORT std::optional<std::vector<uint8_t>> QVFileGetDataAndHash(
    const std::shared_ptr<QVFileClass>& file, uint64_t chunkSize,
    const std::function<bool(const std::vector<uint8_t>&)>& callback);
// The whole contents at once when the file is not empty and no larger than the file manager's
// maximum memory size; otherwise, or when reading or the cipher fails, nothing.
QV_EXPORT std::optional<std::vector<uint8_t>> QVFileGetDataQuickly(const std::shared_ptr<QVFileClass>& file);

// The SHA-1 of the stored bytes; a file opened where it lies is hashed on the first call (empty, and
// logged, when it can no longer be read).
QV_EXPORT std::vector<uint8_t> QVFileGetHash(const std::shared_ptr<QVFileClass>& file);
QV_EXPORT uint64_t QVFileGetSize(const std::shared_ptr<QVFileClass>& file);
// Borrowed. For a cache file without a name, a path that this process alone can open, and only while
// the file object lives.
QV_EXPORT CFStringRef QVFileGetLocalPath(const std::shared_ptr<QVFileClass>& file);
// Borrowed; NULL when unset.
QV_EXPORT CFDateRef QVFileGetModifiedDate(const std::shared_ptr<QVFileClass>& file);
QV_EXPORT void _QVFileSetModifiedDate(const std::shared_ptr<QVFileClass>& file, CFDateRef date);
QV_EXPORT bool QVFileIsAppendable(const std::shared_ptr<QVFileClass>& file);

// One-way switches: from now on readers of this object receive the stored bytes deciphered, or
// enciphered (AES-256-CBC with PKCS#7 padding, as a backup stores them), with the 32-byte key. Each
// does nothing on a file that already has a key.
QV_EXPORT void _QVFileSetDecryptionKey(const std::shared_ptr<QVFileClass>& file, const std::array<uint8_t, 32>& key);
QV_EXPORT void _QVFileSetEncryptionKey(const std::shared_ptr<QVFileClass>& file, const std::array<uint8_t, 32>& key);

// Appendable files.
QV_EXPORT std::shared_ptr<QVFileClass> QVFileCreateAppendable(CFErrorRef* error);
QV_EXPORT uint8_t QVFileAppendBytes(const std::shared_ptr<QVFileClass>& file, const uint8_t* bytes, int64_t length,
                                    CFErrorRef* error);
QV_EXPORT uint8_t QVFileAppendData(const std::shared_ptr<QVFileClass>& file, CFDataRef data, CFErrorRef* error);
QV_EXPORT uint8_t QVFileFinalizeAppendable(const std::shared_ptr<QVFileClass>& file, CFErrorRef* error);

// The text form used in logs.
QV_EXPORT std::string to_string(const std::shared_ptr<QVFileClass>& file);

}  // namespace Quiver

// Two files are equal when they are the same object, or when neither is appendable and their digests
// are equal. Must not be given null handles.
QV_EXPORT bool operator==(const std::shared_ptr<QVFileClass>& a, const std::shared_ptr<QVFileClass>& b);
