// Export: every name of the finished backup (stored files, manifest, metadata), produced by
// QVBackupContainerCopyFileForLocalFilename, written to a new directory or a new zip file. Contents
// stream chunk by chunk, so a file of any size costs about one chunk of memory.
#include <minizip/zip.h>
#include <zlib.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <span>
#include <system_error>

#include <fmt/ranges.h>

#include "Quiver/QVBackupContainer.hpp"
#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"
#include "Quiver/Support/File.hpp"

namespace fs = std::filesystem;

namespace Quiver {

namespace {

constexpr size_t kWritePiece = 65536;

// Zip members of 4 GiB or more need zip64 records; without them the archive would be silently corrupt.
constexpr uint64_t kZip64Threshold = 0xFFFFFFFFULL - 16;

void report(const CF::Error& error) { LogError(log_level::error, error); }

struct Progress {
    int64_t total;
    int64_t threshold;
    int64_t written = 0;
    const ExportProgress& callback;

    Progress(int64_t totalSize, const ExportProgress& cb)
        : total(totalSize), threshold(std::max<int64_t>(totalSize / 1000, 3)), callback(cb) {}
    void tick() const {
        if (callback && written >= threshold) callback(static_cast<double>(written) / static_cast<double>(total));
    }
};

// Refuses an existing destination; true when nothing is there.
bool destinationFree(const fs::path& destination) {
    std::error_code ec;
    auto status = fs::status(destination, ec);
    if (!ec && fs::exists(status)) {
        report(Error(QVErrorWritingExternalRepresentation, CF::Error(),
                     fmt::format("File already exists at path {}", destination.string())));
        return false;
    }
    return true;
}

// A partial copy lacks what a device needs to restore it; writing one out would pass it off as whole.
bool completeBackup(const Backup& backup) {
    std::vector<std::string> lacking;
    for (const std::string& name : backup->missingMetadata)
        if (name != "Info.plist") lacking.push_back(name);
    if (lacking.empty()) return true;
    report(Error(QVErrorInvalidBackup, CF::Error(),
                 fmt::format("This backup is a partial copy without {}: it can be read, not written as a backup",
                             fmt::join(lacking, " or "))));
    return false;
}

// Produces every name of the finished backup in order and hands each file to write(name, file,
// counter); a name that cannot be produced is reported and skipped. False when any name failed.
template <typename Write>
bool writeEachName(const Backup& backup, const ExportProgress& progress, const char* destinationKind, Write&& write) {
    // "/" is this platform's separator: the two-character directory then holds the file.
    CF::Array names = CF::Array::Adopt(QVBackupContainerCopyFilesystemPathsList(backup, 1));
    Progress counter(QVManifestGetTotalFileSize(backup->manifest), progress);
    bool failed = false;
    for (CFTypeRef item : names) {
        auto name = CF::String::Retain(static_cast<CFStringRef>(item));
        CFErrorRef loadError = nullptr;
        auto file = QVBackupContainerCopyFileForLocalFilename(backup, name.get(), &loadError);
        if (!file) {
            report(Error(QVErrorLoadingExternalRepresentation, CF::Error::Adopt(loadError),
                         fmt::format("File {} could not be loaded for writing to {}", name, destinationKind)));
            failed = true;
            continue;
        }
        if (!write(name, file, counter)) failed = true;
        file.reset();
        counter.tick();
    }
    return !failed;
}

// Photos, videos, compressed data and every enciphered file are as small as they will get: deflating
// them again costs most of an export's time for nothing. A fast deflate of the member's first bytes,
// which are at hand anyway, tells; it is stored when that does not save a tenth.
bool worthDeflating(std::span<const uint8_t> start) {
    constexpr size_t kSample = 65536;
    const std::span<const uint8_t> sample = start.first(std::min(start.size(), kSample));
    if (sample.size() < 64) return true;
    uLongf packed = compressBound(static_cast<uLong>(sample.size()));
    std::vector<uint8_t> out(packed);
    if (compress2(out.data(), &packed, sample.data(), static_cast<uLong>(sample.size()), 1) != Z_OK) return true;
    return packed < sample.size() - sample.size() / 10;
}

struct ZipWriter {
    zipFile zip = nullptr;
    ~ZipWriter() {
        if (zip) zipClose(zip, nullptr);
    }
};

}  // namespace

unsigned char QVBackupContainerExportToDirectory(const Backup& backup, CFStringRef destination,
                                                 const ExportProgress& progress) {
    QV_ASSERT(backup);
    const fs::path root(CF::String::Retain(destination).utf8());
    if (!completeBackup(backup) || !destinationFree(root)) return 0;
    std::error_code ec;
    fs::create_directories(root, ec);
    if (ec) {
        report(Error(QVErrorFilesystem, CF::Error(),
                     fmt::format("Failed to create containing directory {} - {} ({})", root.string(), ec.message(),
                                 ec.value())));
        return 0;
    }
    const bool written = writeEachName(backup, progress, "directory", [&](const CF::String& name,
                                                                      const std::shared_ptr<QVFileClass>& file,
                                                                      Progress& counter) {
        const fs::path target = root / name.utf8();
        CF::Error chunkError;
        try {
            fs::create_directories(target.parent_path());
            Support::writable_file out;
            try {
                out = Support::writable_file(target, Support::writable_file::mode::append);
            } catch (const std::system_error& e) {
                chunkError = Error(QVErrorFilesystem, CF::Error(),
                                   fmt::format("The file could not be opened for writing: {}", e.code().message()));
                report(chunkError);
                return false;
            }
            QVFileGetData(file, 0, [&](const std::vector<uint8_t>& chunk) {
                for (size_t done = 0; done < chunk.size();) {
                    size_t piece = std::min(kWritePiece, chunk.size() - done);
                    try {
                        out.write(chunk.data() + done, piece);
                    } catch (const std::exception& e) {
                        chunkError = Error(QVErrorFilesystem, CF::Error(),
                                           fmt::format("The file could not be written - {}", e.what()));
                        return false;
                    }
                    done += piece;
                    counter.written += static_cast<int64_t>(piece);
                }
                if (!out.is_open()) {
                    chunkError = Error(QVErrorFilesystem, CF::Error(), "The file closed unexpectedly");
                    return false;
                }
                return true;
            });
            out.close();
        } catch (const CF::Error& e) {
            chunkError = e;
        } catch (const std::exception& e) {
            chunkError = Error(QVErrorFilesystem, CF::Error(), fmt::format("The file could not be written - {}", e.what()));
        }
        if (chunkError) {
            report(Error(static_cast<QVError>(chunkError.Code()), chunkError,
                         fmt::format("File {} could not be written", name)));
            return false;
        }
        return true;
    });
    return written ? 1 : 0;
}

unsigned char QVBackupContainerExportToZip(const Backup& backup, CFStringRef destination,
                                           const ExportProgress& progress) {
    QV_ASSERT(backup);
    const fs::path target(CF::String::Retain(destination).utf8());
    if (!completeBackup(backup) || !destinationFree(target)) return 0;
    ZipWriter writer;
    writer.zip = zipOpen64(target.string().c_str(), APPEND_STATUS_CREATE);
    if (!writer.zip) {
        report(Error(QVErrorWritingExternalRepresentation, CF::Error(),
                     fmt::format("Failed to create zip file {}", target.string())));
        return 0;
    }
    bool failed = !writeEachName(backup, progress, "zip", [&](const CF::String& name,
                                                            const std::shared_ptr<QVFileClass>& file,
                                                            Progress& counter) {
        zip_fileinfo info{};
        CFDateRef date = QVFileGetModifiedDate(file);
        auto seconds = static_cast<time_t>(date ? CFDateGetAbsoluteTime(date) + kCFAbsoluteTimeIntervalSince1970 : 0);
        struct tm local{};
        localtime_r(&seconds, &local);
        info.tmz_date.tm_sec = static_cast<uInt>(local.tm_sec);
        info.tmz_date.tm_min = static_cast<uInt>(local.tm_min);
        info.tmz_date.tm_hour = static_cast<uInt>(local.tm_hour);
        info.tmz_date.tm_mday = static_cast<uInt>(local.tm_mday);
        info.tmz_date.tm_mon = static_cast<uInt>(local.tm_mon);
        info.tmz_date.tm_year = static_cast<uInt>(local.tm_year + 1900);
        const int zip64 = QVFileGetSize(file) >= kZip64Threshold ? 1 : 0;
        const std::string member = name.utf8();
        // The member is opened once its first bytes are read, which decide whether it is deflated.
        bool opened = false;
        auto open = [&](std::span<const uint8_t> start) {
            const bool deflate = worthDeflating(start);
            opened = zipOpenNewFileInZip3_64(writer.zip, member.c_str(), &info, nullptr, 0, nullptr, 0, nullptr,
                                             deflate ? Z_DEFLATED : 0, deflate ? Z_DEFAULT_COMPRESSION : 0, 0,
                                             -MAX_WBITS, 8, Z_DEFAULT_STRATEGY, nullptr, 0, zip64) == ZIP_OK;
            return opened;
        };
        auto write = [&](const uint8_t* bytes, size_t length) {
            int r = zipWriteInFileInZip(writer.zip, bytes, static_cast<unsigned>(length));
            if (r != ZIP_OK) {
                report(Error(QVErrorWritingExternalRepresentation, CF::Error(),
                             fmt::format("ZipWriteInFile failed ({})", r)));
                return false;
            }
            counter.written += static_cast<int64_t>(length);
            return true;
        };
        bool written = true;
        try {
            if (auto whole = QVFileGetDataQuickly(file)) {
                written = open(*whole) && write(whole->data(), whole->size());
            } else {
                QVFileGetData(file, 0, [&](const std::vector<uint8_t>& chunk) {
                    written = (opened || open(chunk)) && write(chunk.data(), chunk.size());
                    return written;
                });
                if (written && !opened) written = open({});  // an empty file
            }
        } catch (const std::exception& e) {
            report(Error(QVErrorWritingExternalRepresentation, CF::Error(),
                         fmt::format("ZipWriteInFile failed ({})", e.what())));
            written = false;
        }
        if (opened && zipCloseFileInZip(writer.zip) != ZIP_OK) written = false;
        if (!written)
            report(Error(QVErrorWritingExternalRepresentation, CF::Error(),
                         fmt::format("File {} could not be written in zip", name)));
        return written;
    });
    int closed = zipClose(writer.zip, nullptr);
    writer.zip = nullptr;
    if (closed != ZIP_OK) {
        report(Error(QVErrorWritingExternalRepresentation, CF::Error(),
                     fmt::format("Failed to finish zip file {} ({})", target.string(), closed)));
        failed = true;
    }
    return failed ? 0 : 1;
}

}  // namespace Quiver
