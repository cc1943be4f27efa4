#include "Quiver/QVError.hpp"

#include <CoreFoundation/CFExtension.h>

#include <fmt/format.h>

const CFStringRef kQVErrorDomain = CFSTR("Quiver.ErrorDomain");
const CFStringRef kQVErrorBackupFileKey = CFSTR("QVErrorBackupFile");
const CFStringRef kQVErrorEntryDomainKey = CFSTR("QVErrorEntryDomain");
const CFStringRef kQVErrorEntryPathKey = CFSTR("QVErrorEntryPath");
const CFStringRef kQVErrorEntryFileIDKey = CFSTR("QVErrorEntryFileID");
const CFStringRef kQVErrorCheckKey = CFSTR("QVErrorCheck");

namespace Quiver {

namespace {

// Codes 0 to 24. Code 1 has no text of its own and shares the fallback.
constexpr const char* kDescriptions[] = {
    "",
    "Unknown Error",
    "Invalid argument (This is a bug, please report to developer)",
    "Error in filesystem",
    "Error reading and writing data",
    "No item exists in backup at this path",
    "Requested file not in cache",
    "Error accessing cached file data",
    "Error loading external representation of backup data",
    "Error in archive file manipulation",
    "Invalid backup",
    "Backup manifest database is invalid",
    "Backup metadata references an unknown manifest version (please report to developer)",
    "Database operation failed",
    "Error writing backup data to external representation",
    "Encrypted backups are not supported",
    "File not found",
    "Backup KeyBag is invalid",
    "Cryto operation failed",
    "Backup is encrypted and no password specified",
    "Backup metadata is missing or invalid",
    "Backup is encrypted and the specified password appears to be incorrect",
    "An error occurred preventing the encrypted backup from being unlocked",
    "A password was specified but backup is not encrypted.",
    "The backup archive did not contain a valid MBFile",
};

// Bits 12, 15, 19 and 21 over codes 0 to 21: nothing of 22 or above is ever friendly.
constexpr uint32_t kFriendlyMask = 0x289000;

}  // namespace

const char* ErrorDescription(int32_t code) {
    if (code < 0 || code >= static_cast<int32_t>(std::size(kDescriptions))) return "Unknown Error";
    return kDescriptions[code];
}

bool IsFriendlyErrorCode(int32_t code) { return code >= 0 && code < 22 && ((kFriendlyMask >> code) & 1U) != 0; }

CF::Error Error(QVError code, const CF::Error& underlying, std::string_view reason) {
    CF::Dictionary info = CF::Dictionary::CreateMutable();
    // The description is a constant string: made once per text and never freed.
    info.Set(kCFErrorLocalizedDescriptionKey, __CFStringMakeConstantString(ErrorDescription(code)));
    if (!reason.empty()) info.Set(kCFErrorLocalizedFailureReasonKey, CF::String(reason).get());
    if (underlying) info.Set(kCFErrorUnderlyingErrorKey, underlying.get());
    if (IsFriendlyErrorCode(code)) info.Set(kCFErrorIsFriendlyKey, kCFBooleanTrue);
    return CF::Error::Adopt(CFErrorCreate(kCFAllocatorDefault, kQVErrorDomain, code, info.get()));
}

namespace {

CF::Error withContext(const CF::Error& error, const ErrorContext& context) {
    CF::Dictionary info = error.UserInfo() ? error.UserInfo().MutableCopy() : CF::Dictionary::CreateMutable();
    const std::pair<CFStringRef, const std::string*> values[] = {
        {kQVErrorBackupFileKey, &context.backupFile}, {kQVErrorEntryDomainKey, &context.domain},
        {kQVErrorEntryPathKey, &context.path},        {kQVErrorEntryFileIDKey, &context.fileID},
        {kQVErrorCheckKey, &context.check}};
    for (const auto& [key, value] : values)
        if (!value->empty() && !info.Contains(CF::UTF8(key))) info.Set(key, CF::String(*value).get());
    return CF::Error::Adopt(
        CFErrorCreate(kCFAllocatorDefault, CFErrorGetDomain(error.get()), CFErrorGetCode(error.get()), info.get()));
}

}  // namespace

CF::Error Error(QVError code, const CF::Error& underlying, std::string_view reason, const ErrorContext& context) {
    return withContext(Error(code, underlying, reason), context);
}

CF::Error AddErrorContext(const CF::Error& error, const ErrorContext& context) {
    return error ? withContext(error, context) : error;
}

std::string ErrorContextValue(const CF::Error& error, CFStringRef key) {
    CF::Error current = error;
    for (int depth = 0; current && depth < 32; ++depth, current = current.Underlying()) {
        CF::String value = current.UserInfo().Get<CF::String>(key);
        if (value && value.length() > 0) return value.utf8();
    }
    return {};
}

CF::Error MakeFilesystemError(const std::exception& e, const std::filesystem::path& p) {
    return Error(QVErrorFilesystem, CF::Error(), fmt::format("{} ({})", e.what(), p.string()));
}

CF::Error MakeErrnoError(int errnoValue, std::string_view reason) {
    CF::Error underlying;
    if (errnoValue != 0) {
        CF::Dictionary info = CF::Dictionary::CreateMutable();
        CF::String text = CF::String::Adopt(CFErrorCreateDescriptionFromErrno(errnoValue));
        if (text) info.Set(kCFErrorLocalizedDescriptionKey, text.get());
        info.Set(kCFErrorIsFriendlyKey, kCFBooleanFalse);
        underlying = CF::Error::Adopt(CFErrorCreate(kCFAllocatorDefault, kCFErrorDomainPOSIX, errnoValue, info.get()));
    }
    return Error(QVErrorFilesystem, underlying, reason);
}

void StoreError(CFErrorRef* out, const CF::Error& error) {
    if (out && error) *out = error.CopyRef();
}

void AssertionFailed(const char* file, int line, const char* function, const char* expression) {
    throw std::invalid_argument(fmt::format("{}:{}:  {} Assertion {} failed.", file, line, function, expression));
}

}  // namespace Quiver
