// quiver::Error, made from the CFError chains of the layer below.
#include "quiver/Error.hpp"

#include <algorithm>

#include "Quiver/Front/Front.hpp"
#include "Quiver/QVError.hpp"

namespace quiver {

namespace {

std::string Joined(const std::vector<std::string>& reasons) {
    std::string text;
    for (const std::string& reason : reasons) text += (text.empty() ? "" : ": ") + reason;
    return text.empty() ? "unknown error" : text;
}

}  // namespace

Error::Error(Details details) : std::runtime_error(Joined(details.reasons)), details_(std::move(details)) {}

bool Error::isPasswordProblem() const {
    return code() == ErrorCode::PasswordRequired || code() == ErrorCode::IncorrectPassword ||
           ((code() == ErrorCode::UnlockFailed || code() == ErrorCode::InvalidArgument) && check() == "password");
}

bool Error::isBadBackup() const {
    if (isPasswordProblem()) return false;
    switch (code()) {
        case ErrorCode::InvalidBackup:
        case ErrorCode::UnknownManifestVersion:
        case ErrorCode::EncryptionNotSupported:
        case ErrorCode::InvalidManifestDatabase:
        case ErrorCode::DatabaseOperation:
        case ErrorCode::LoadingExternalRepresentation:
        case ErrorCode::InvalidMBFile:
        case ErrorCode::ArchiveFile:
        case ErrorCode::CryptoOperation:
        case ErrorCode::InvalidKeyBag:
        case ErrorCode::InvalidMetadata:
        case ErrorCode::UnlockFailed:
            return true;
        default:
            return false;
    }
}

namespace front {

Error ToError(const CF::Error& error) {
    Error::Details details;
    CF::Error current = error;
    bool coded = false;
    for (int depth = 0; current && depth < 16; ++depth, current = current.Underlying()) {
        std::string text = current.Reason();
        if (text.empty()) text = current.Description();
        if (!text.empty() && std::find(details.reasons.begin(), details.reasons.end(), text) == details.reasons.end())
            details.reasons.push_back(std::move(text));
        // The code is the library's own, from the outermost error that has one; a bare system error
        // keeps its domain and reads as a filesystem failure.
        if (!coded && current.Domain() && CFEqual(current.Domain().get(), kQVErrorDomain)) {
            details.code = static_cast<ErrorCode>(current.Code());
            details.domain = current.Domain().utf8();
            coded = true;
        }
    }
    if (!coded && error) {
        details.domain = error.Domain().utf8();
        details.code = ErrorCode::Filesystem;
    }
    details.backupFile = Quiver::ErrorContextValue(error, kQVErrorBackupFileKey);
    details.entryDomain = Quiver::ErrorContextValue(error, kQVErrorEntryDomainKey);
    details.entryPath = Quiver::ErrorContextValue(error, kQVErrorEntryPathKey);
    details.fileID = Quiver::ErrorContextValue(error, kQVErrorEntryFileIDKey);
    details.check = Quiver::ErrorContextValue(error, kQVErrorCheckKey);
    details.trace = error.Text();
    return Error(std::move(details));
}

void Throw(CFErrorRef error) { Throw(CF::Error::Adopt(error)); }

void Throw(const CF::Error& error) {
    if (!error) throw Error(Error::Details{ErrorCode::Unknown, "Quiver.ErrorDomain", {"unknown error"}, {}, {}, {}, {}, {}, {}});
    throw ToError(error);
}

Error InvalidArgumentError(std::string reason) {
    return Error(Error::Details{ErrorCode::InvalidArgument, "Quiver.ErrorDomain", {std::move(reason)}, {}, {}, {}, {}, {}, {}});
}

Error WithCheck(const Error& error, std::string check) {
    return Error(Error::Details{error.code(), error.domain(), error.reasons(), error.backupFile(), error.entryDomain(),
                                error.entryPath(), error.fileID(), std::move(check), error.trace()});
}

CF::String Text(std::string_view utf8) {
    CF::String text(utf8);
    if (!text && !utf8.empty()) throw InvalidArgumentError("text that is not valid UTF-8");
    return text;
}

}  // namespace front
}  // namespace quiver
