// AES in CBC mode with PKCS#7 padding: the cipher of stored files, encrypted strings and the
// manifest database of an encrypted backup.
//
// The backups use an all-zero initial value for every file (each file has its own key), so an empty
// initial value means sixteen zero bytes. Decryption is strict: a total length that is not a
// multiple of the block size, or padding that is not valid PKCS#7, throws std::runtime_error rather
// than handing back garbage or silently dropping bytes. The one exception is an empty ciphertext,
// which decrypts to nothing: backups keep empty files empty.
//
// Files are deciphered as they are read, often a gigabyte at a time, so Update has overloads that
// write into the caller's buffer; with those a stream costs no allocation per chunk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Quiver/Support/OpenSSL.hpp"

namespace Quiver::Support {

class readable_file;
class writable_file;

class Cryptor {
public:
    // The numeric values are stored by callers and must not change.
    enum class Operation : uint32_t { Decrypt = 0, Encrypt = 1 };
    enum class Algorithm : uint32_t { AES128 = 0, AES256 = 1 };

    static constexpr std::size_t kBlockSize = 16;
    // The most output one Update call can produce for n bytes of input.
    static constexpr std::size_t OutputBound(std::size_t n) { return n + kBlockSize; }

    // key must be 16 bytes for AES128 and 32 for AES256; initialValue empty (zero) or 16 bytes.
    // Throws std::runtime_error otherwise, and for operation or algorithm values it does not know.
    Cryptor(Operation operation, Algorithm algorithm, std::span<const uint8_t> key,
            std::span<const uint8_t> initialValue = {});

    Cryptor(Cryptor&&) noexcept = default;
    Cryptor& operator=(Cryptor&&) noexcept = default;

    // Decryption without the padding check: every block is output, Finalize adds nothing. For data
    // that devices have written both with and without padding (the caller decides what to drop).
    void DisablePadding();

    // Starts a new stream under the same key with another initial value (16 bytes), keeping the
    // key's schedule: for many short streams under one key, such as the pages of a database.
    void Restart(std::span<const uint8_t> initialValue);

    // Feeds n bytes and returns the output they complete. Decryption holds the last block back
    // until Finalize, as it may be the padding.
    std::vector<uint8_t> Update(const uint8_t* in, std::size_t n);
    std::vector<uint8_t> Update(std::span<const uint8_t> in) { return Update(in.data(), in.size()); }
    // The same, replacing the contents of out (its capacity is reused).
    void Update(const uint8_t* in, std::size_t n, std::vector<uint8_t>& out);
    // The same into out, which must have room for OutputBound(n) bytes and must not overlap in;
    // returns the number of bytes written.
    std::size_t Update(const uint8_t* in, std::size_t n, uint8_t* out);

    // Ends the stream and returns the last bytes (encryption: the padded final block; decryption:
    // the last plaintext bytes without padding). Afterwards the Cryptor refuses further use.
    std::vector<uint8_t> Finalize();
    // The same into out, which must have room for kBlockSize bytes; returns the bytes written.
    std::size_t Finalize(uint8_t* out);

    // One-shot forms.
    static std::vector<uint8_t> Crypt(Operation operation, Algorithm algorithm, std::span<const uint8_t> key,
                                      std::span<const uint8_t> initialValue, std::span<const uint8_t> data);
    static std::vector<uint8_t> Decrypt(Algorithm algorithm, std::span<const uint8_t> key,
                                        std::span<const uint8_t> initialValue, std::span<const uint8_t> data);
    static std::vector<uint8_t> Encrypt(Algorithm algorithm, std::span<const uint8_t> key,
                                        std::span<const uint8_t> initialValue, std::span<const uint8_t> data);

    // Streams everything left in source through the cipher into destination, in 1 MiB pieces.
    // Returns the number of bytes written. The files stay open; closing (and learning whether the
    // data reached the disk) is the caller's. File failures throw std::system_error.
    static uint64_t Crypt(Operation operation, Algorithm algorithm, std::span<const uint8_t> key,
                          std::span<const uint8_t> initialValue, readable_file& source,
                          writable_file& destination);

private:
    OpenSSL::CipherContext ctx_;
    Operation operation_;
    bool finished_ = false;
    uint64_t consumed_ = 0;  // input bytes so far, to tell a bad length from bad padding
};

}  // namespace Quiver::Support
