// File objects: creation, the reference registry, chunked and whole reads (plain, deciphering and
// enciphering), equality, copies, and appendable files.
#include <gtest/gtest.h>

#include <array>

#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Quiver/CF/Data.hpp"
#include "Quiver/FileManager.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVFile.hpp"
#include "Quiver/Support/Cryptor.hpp"
#include "Quiver/Support/Hash.hpp"
#include "tests/Quiver/ScratchDirectory.hpp"

using namespace Quiver;
namespace fs = std::filesystem;
using Quiver::Support::Cryptor;

namespace {

std::vector<uint8_t> patterned(size_t n, uint32_t seed = 1) {
    std::vector<uint8_t> bytes(n);
    std::mt19937 rng(seed);
    for (auto& b : bytes) b = static_cast<uint8_t>(rng());
    return bytes;
}

std::vector<uint8_t> readAll(const std::shared_ptr<QVFileClass>& file, uint64_t chunk,
                             std::vector<size_t>* sizes = nullptr) {
    std::vector<uint8_t> out;
    QVFileGetData(file, chunk, [&](const std::vector<uint8_t>& piece) {
        out.insert(out.end(), piece.begin(), piece.end());
        if (sizes) sizes->push_back(piece.size());
        return true;
    });
    return out;
}

CF::Error takeError(CFErrorRef error) { return CF::Error::Adopt(error); }

class FileTest : public QuiverTest::ScratchBackupTest {
protected:
    void SetUp() override {
        ScratchBackupTest::SetUp();
        FileManager::SetMaxMemorySize(FileManager::kDefaultMaxMemorySize);
    }
    fs::path writeScratch(const std::string& name, const std::vector<uint8_t>& bytes) {
        fs::path p = root / name;
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                 static_cast<std::streamsize>(bytes.size()));
        return p;
    }
};

}  // namespace

// Bytes made in memory may be the plaintext of an encrypted backup: their cache file has no name in
// any folder, so nothing of it is left when the process is killed, yet every copy reads it.
TEST_F(FileTest, CreatedFromDataHoldsTheBytesInAFileWithoutANameNullDataFails) {
    const fs::path storage = FileManager::GetStorageDirectory();
    auto namesInStorage = [&] {
        size_t count = 0;
        for (auto it = fs::recursive_directory_iterator(storage); it != fs::recursive_directory_iterator(); ++it) ++count;
        return count;
    };
    const size_t before = namesInStorage();
    for (size_t size : {100000, 0}) {
        auto bytes = patterned(size);
        CFErrorRef error = nullptr;
        auto file = QVFileCreateFromData(bytes, &error);
        ASSERT_TRUE(file);
        EXPECT_EQ(error, nullptr);
        EXPECT_EQ(QVFileGetSize(file), bytes.size());
        EXPECT_EQ(QVFileGetHash(file), Support::Sha1(bytes));
        EXPECT_EQ(namesInStorage(), before);
        auto copy = QVFileCreateCopy(file);
        file.reset();  // the copy keeps the contents
        EXPECT_EQ(readAll(copy, 0), bytes);
        EXPECT_NE(QVFileGetModifiedDate(copy), nullptr);
        EXPECT_GE(FileManager::GetReferenceCount(Support::Sha1(bytes)), 1u);
    }
    EXPECT_FALSE(QVFileGetDataQuickly(QVFileCreateFromData(std::vector<uint8_t>{}, nullptr)));
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVFileCreateFromData(static_cast<CFDataRef>(nullptr), &error));
    CF::Error e = takeError(error);
    EXPECT_EQ(e.Code(), QVErrorInvalidArgument);
    EXPECT_EQ(e.Reason(), "NULL sourceData");
    EXPECT_FALSE(QVFileCreateFromData(static_cast<CFDataRef>(nullptr), nullptr));
}

TEST_F(FileTest, FromPathRegistersAnExistingFileWhereItLiesAndAMissingOneFails) {
    auto bytes = patterned(5000, 3);
    fs::path p = writeScratch("source.bin", bytes);
    for (uint8_t copy : {0, 1}) {
        auto file = QVFileCreateFromFileAtPath(CF::String(p.string()), copy, nullptr);
        ASSERT_TRUE(file);
        EXPECT_EQ(QVFileGetHash(file), Support::Sha1(bytes));
        EXPECT_EQ(CF::String::Retain(QVFileGetLocalPath(file)).utf8(), p.string());
        EXPECT_EQ(readAll(file, 1000), bytes);
    }
    CFErrorRef error = nullptr;
    std::string missing = (root / "nope").string();
    EXPECT_FALSE(QVFileCreateFromFileAtPath(CF::String(missing), 1, &error));
    CF::Error e = takeError(error);
    EXPECT_EQ(e.Code(), QVErrorFileNotFound);
    EXPECT_EQ(e.Reason(), "File does not exist at path '" + missing + "'");
}

// A file registered where it lies is hashed when its digest is asked for, not when it is opened; a read
// that hashes as it goes gives the digest of the stored bytes, deciphered or not, on one thread or two.
TEST_F(FileTest, DigestsOfFilesWhereTheyLieAreTakenLazilyOrWhileReading) {
    auto bytes = patterned(5000, 9);
    fs::path p = writeScratch("lazy.bin", bytes);
    auto file = QVFileCreateFromFileAtPath(CF::String(p.string()), 0, nullptr);
    ASSERT_TRUE(file);
    bytes[0] ^= 1;  // changed after opening: the digest is of what is there when it is asked for
    writeScratch("lazy.bin", bytes);
    EXPECT_EQ(QVFileGetHash(file), Support::Sha1(bytes));

    std::array<uint8_t, 32> key{};
    key.fill(0x42);
    for (size_t size : {size_t{100000}, size_t{9 << 20}}) {  // below and above the two-thread size
        SCOPED_TRACE(size);
        const auto plain = patterned(size, 4);
        const auto cipher = Cryptor::Encrypt(Cryptor::Algorithm::AES256, key, {}, plain);
        auto stored = QVFileCreateFromFileAtPath(CF::String(writeScratch("stored.bin", cipher).string()), 0, nullptr);
        auto reader = QVFileCreateCopy(stored);
        _QVFileSetDecryptionKey(reader, key);
        std::vector<uint8_t> out;
        size_t largest = 0;
        auto digest = QVFileGetDataAndHash(reader, 65536, [&](const std::vector<uint8_t>& chunk) {
            out.insert(out.end(), chunk.begin(), chunk.end());
            largest = std::max(largest, chunk.size());
            return true;
        });
        EXPECT_EQ(out, plain);
        EXPECT_LE(largest, 65536u);
        EXPECT_EQ(digest, Support::Sha1(cipher));
        EXPECT_EQ(QVFileGetHash(stored), Support::Sha1(cipher));
        int calls = 0;
        EXPECT_FALSE(QVFileGetDataAndHash(reader, 0, [&](const std::vector<uint8_t>&) { return ++calls < 2; }));
        EXPECT_EQ(calls, 2);
        // Damage in the last block fails the read, whichever thread hashes.
        auto damaged = cipher;
        damaged.back() ^= 0x55;
        auto bad = QVFileCreateFromFileAtPath(CF::String(writeScratch("bad.bin", damaged).string()), 0, nullptr);
        _QVFileSetDecryptionKey(bad, key);
        EXPECT_THROW(QVFileGetDataAndHash(bad, 0, [](const std::vector<uint8_t>&) { return true; }), CF::Error);
    }
}

// ---- Keys ----

class FileCipherTest : public FileTest, public ::testing::WithParamInterface<uint64_t> {
protected:
    std::array<uint8_t, 32> key = [] {
        std::array<uint8_t, 32> k{};
        std::iota(k.begin(), k.end(), uint8_t{1});
        return k;
    }();
};

TEST_P(FileCipherTest, DecipheringReadsMatchThePlaintextAtAnyChunkSize) {
    for (size_t length : {0, 1, 15, 16, 17, 4095, 70001}) {
        SCOPED_TRACE(length);
        auto plain = patterned(length, static_cast<uint32_t>(length) + 1);
        auto stored = Cryptor::Encrypt(Cryptor::Algorithm::AES256, key, {}, plain);
        auto file = QVFileCreateFromData(stored, nullptr);
        auto reader = QVFileCreateCopy(file);
        _QVFileSetDecryptionKey(reader, key);
        EXPECT_EQ(readAll(reader, GetParam()), plain);
        if (length > 0) {
            EXPECT_EQ(QVFileGetDataQuickly(reader), plain);
        }
        EXPECT_EQ(readAll(file, GetParam()), stored);  // the source object is untouched
    }
}

TEST_P(FileCipherTest, EncipheringReadsGiveWhatABackupStores) {
    auto plain = patterned(50000, 9);
    auto file = QVFileCreateFromData(plain, nullptr);
    _QVFileSetEncryptionKey(file, key);
    auto wrong = key;
    wrong[0] ^= 1;
    _QVFileSetEncryptionKey(file, wrong);  // a second switch does nothing
    _QVFileSetDecryptionKey(file, wrong);
    auto ciphertext = readAll(file, GetParam());
    EXPECT_EQ(ciphertext.size(), 50000u + 16u - 50000u % 16u);
    EXPECT_EQ(Cryptor::Decrypt(Cryptor::Algorithm::AES256, key, {}, ciphertext), plain);
    EXPECT_EQ(QVFileGetDataQuickly(file), ciphertext);
}

INSTANTIATE_TEST_SUITE_P(ChunkSizes, FileCipherTest, ::testing::Values(1, 7, 16, 33, 4096, 0));

TEST_F(FileCipherTest, DamagedCiphertextFailsWithCryptoOperation) {
    auto plain = patterned(100);
    auto stored = Cryptor::Encrypt(Cryptor::Algorithm::AES256, key, {}, plain);
    std::vector<uint8_t> truncated(stored.begin(), stored.end() - 3);  // not a multiple of 16
    auto badPadding = stored;
    badPadding.back() ^= 0x5a;
    for (const auto& bytes : {truncated, badPadding}) {
        auto file = QVFileCreateFromData(bytes, nullptr);
        _QVFileSetDecryptionKey(file, key);
        try {
            readAll(file, 32);
            ADD_FAILURE() << "damaged ciphertext read without error";
        } catch (const CF::Error& e) {
            EXPECT_EQ(e.Code(), QVErrorCryptoOperation);
            EXPECT_TRUE(e.Reason().starts_with("Cryptor finalize failed: ")) << e.Reason();
        }
        EXPECT_FALSE(QVFileGetDataQuickly(file));
    }
}

// ---- Appendable files ----

TEST_F(FileTest, AppendedBytesFinaliseIntoTheCache) {
    CFErrorRef error = nullptr;
    auto file = QVFileCreateAppendable(&error);
    ASSERT_TRUE(file);
    EXPECT_TRUE(QVFileIsAppendable(file));
    std::string temporary = CF::String::Retain(QVFileGetLocalPath(file)).utf8();
    EXPECT_TRUE(fs::path(temporary).filename().string().starts_with("__"));
    auto a = patterned(100000, 1), b = patterned(3, 2);
    ASSERT_TRUE(QVFileAppendBytes(file, a.data(), static_cast<int64_t>(a.size()), &error));
    ASSERT_TRUE(QVFileAppendData(file, CF::Data(b).get(), &error));
    EXPECT_TRUE(QVFileGetHash(file).empty());
    EXPECT_FALSE(QVFileCreateCopy(file));  // appendable files cannot be copied
    EXPECT_FALSE(file == QVFileCreateFromData(a, nullptr));
    EXPECT_TRUE(file == file);

    ASSERT_TRUE(QVFileFinalizeAppendable(file, &error));
    auto all = a;
    all.insert(all.end(), b.begin(), b.end());
    EXPECT_FALSE(QVFileIsAppendable(file));
    EXPECT_EQ(QVFileGetSize(file), all.size());
    EXPECT_EQ(QVFileGetHash(file), Support::Sha1(all));
    std::string final = CF::String::Retain(QVFileGetLocalPath(file)).utf8();
    EXPECT_FALSE(fs::path(final).filename().string().starts_with("__"));
    EXPECT_FALSE(fs::exists(temporary));
    EXPECT_EQ(readAll(file, 0), all);
    EXPECT_GE(FileManager::GetReferenceCount(Support::Sha1(all)), 1u);
    EXPECT_NE(QVFileGetModifiedDate(file), nullptr);

    EXPECT_FALSE(QVFileFinalizeAppendable(file, &error));
    EXPECT_EQ(takeError(error).Reason(), "File reference not appendable");
    error = nullptr;
    EXPECT_FALSE(QVFileAppendBytes(file, a.data(), 1, &error));
    EXPECT_EQ(takeError(error).Reason(), "File reference not appendable");
}

TEST_F(FileTest, AppendingNothingOrTamperingIsRefusedAndClosesTheFileFinalisingNothingGivesTheEmptyDigest) {
    auto file = QVFileCreateAppendable(nullptr);
    uint8_t byte = 1;
    CFErrorRef error = nullptr;
    EXPECT_FALSE(QVFileAppendBytes(file, &byte, 0, &error));
    CF::Error e = takeError(error);
    EXPECT_EQ(e.Code(), QVErrorInvalidArgument);
    EXPECT_EQ(e.Reason(), "Bad buffer argument");
    EXPECT_FALSE(QVFileIsAppendable(file));
    EXPECT_FALSE(QVFileFinalizeAppendable(file, nullptr));
    auto other = QVFileCreateAppendable(nullptr);
    EXPECT_FALSE(QVFileAppendBytes(other, nullptr, 5, nullptr));
    EXPECT_FALSE(QVFileIsAppendable(other));
    auto empty = QVFileCreateAppendable(nullptr);
    ASSERT_TRUE(QVFileFinalizeAppendable(empty, nullptr));
    EXPECT_EQ(QVFileGetSize(empty), 0u);
    EXPECT_EQ(QVFileGetHash(empty), Support::Sha1({}));
    auto tampered = QVFileCreateAppendable(nullptr);
    auto bytes = patterned(64);
    ASSERT_TRUE(QVFileAppendBytes(tampered, bytes.data(), 64, nullptr));
    // Someone else writes into our temporary file: the size on disk no longer matches.
    std::ofstream(CF::String::Retain(QVFileGetLocalPath(tampered)).utf8(), std::ios::app) << "extra";
    error = nullptr;
    EXPECT_FALSE(QVFileFinalizeAppendable(tampered, &error));
    e = takeError(error);
    EXPECT_EQ(e.Code(), QVErrorFilesystem);
    EXPECT_TRUE(e.Reason().starts_with("Calculated appended size does not match size on disk! (64 != 69)")) << e.Reason();
    EXPECT_FALSE(QVFileIsAppendable(tampered));
}

