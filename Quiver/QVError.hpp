// The library's errors from inside (the domain and codes are in <quiver/QVError.hpp>): the one factory
// that makes every error of the domain, and the rule by which failures cross the exported interface.
//
// Inside the library a failure is thrown as a CF::Error made by Quiver::Error. Exported functions take
// a CFErrorRef* last and run their body through Quiver::Boundary, which turns what was thrown into one
// retained error for the caller and the function's failure value. Programming errors (a null handle)
// are not failures: QV_ASSERT throws std::invalid_argument, which is placed outside the boundary so that
// it reaches the caller.
#pragma once

#include <quiver/QVError.hpp>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "Quiver/CF/Error.hpp"

namespace Quiver {

// Makes a new error of the library's domain. `reason`, when not empty, becomes the failure reason;
// `underlying`, when it holds an error, the underlying error.
CF::Error Error(QVError code, const CF::Error& underlying = CF::Error(), std::string_view reason = {});
// What an error is about, for the keys above; empty members are left out.
struct ErrorContext {
    std::string backupFile;
    std::string domain;
    std::string path;
    std::string fileID;
    std::string check;

    // A file of the backup as a whole (metadata, the manifest, the zip), not an entry's.
    static ErrorContext File(std::string backupFile, std::string check = {}) {
        return {std::move(backupFile), {}, {}, {}, std::move(check)};
    }
};
CF::Error Error(QVError code, const CF::Error& underlying, std::string_view reason, const ErrorContext& context);
// The same error (domain, code, text, cause) with the context's keys added where it has none.
CF::Error AddErrorContext(const CF::Error& error, const ErrorContext& context);
// The first value of `key` on the error or, failing that, on its underlying errors; "" when none has one.
std::string ErrorContextValue(const CF::Error& error, CFStringRef key);

// QVErrorFilesystem with the reason "<exception text> (<path>)".
CF::Error MakeFilesystemError(const std::exception& e, const std::filesystem::path& p);
// QVErrorFilesystem with `reason`; for a non-zero errno value the underlying error is the POSIX error.
CF::Error MakeErrnoError(int errnoValue, std::string_view reason);

// Stores a new reference to `error` in *out when out is not null; the caller of the exported function
// owns it.
void StoreError(CFErrorRef* out, const CF::Error& error);

// The default translation of a standard exception at the boundary: QVErrorFilesystem, "text ()".
struct FilesystemErrorFromException {
    CF::Error operator()(const std::exception& e) const { return MakeFilesystemError(e, {}); }
};

// Runs `body` and returns its result. When it throws a CF::Error, or a standard exception (translated
// by `translate`), `onFailure` runs, the error is stored in *error (if not null) and the result type's
// empty value is returned: an empty handle, nullptr, false, or an empty optional. *error is written
// only on failure.
template <typename Body, typename Translate = FilesystemErrorFromException, typename OnFailure = void (*)()>
auto Boundary(CFErrorRef* error, Body&& body, Translate&& translate = {}, OnFailure&& onFailure = [] {})
    -> std::invoke_result_t<Body> {
    using Result = std::invoke_result_t<Body>;
    CF::Error failure;
    try {
        return body();
    } catch (const CF::Error& e) {
        failure = e;
    } catch (const std::exception& e) {
        failure = translate(e);
    }
    onFailure();
    StoreError(error, failure);
    if constexpr (std::is_void_v<Result>) {
        return;
    } else {
        return Result{};
    }
}

[[noreturn]] void AssertionFailed(const char* file, int line, const char* function, const char* expression);

}  // namespace Quiver

// Throws std::invalid_argument "<file>:<line>:  <function> Assertion <expr> failed." when expr is false.
#define QV_ASSERT(expr)                                                                    \
    do {                                                                                   \
        if (!(expr)) ::Quiver::AssertionFailed(__FILE__, __LINE__, __PRETTY_FUNCTION__, #expr); \
    } while (0)
