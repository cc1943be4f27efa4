// What the C++ front's sources share: the passage from the library's CF-based layer to plain C++
// (errors to quiver::Error, property lists to quiver::Value), and the state behind the handles.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string_view>

#include "Quiver/CF/CF.hpp"
#include "Quiver/QVBackupContainer.hpp"
#include "quiver/Backup.hpp"

namespace quiver {

struct Backup::Impl {
    Quiver::Backup backup;
    std::filesystem::path path;
};

namespace front {

// Any CoreFoundation object, held like the CF:: classes hold theirs.
class Ref : public CF::Object<Ref, CFTypeRef> {};

// The error as the front throws it: code, reasons from the outermost in, and what it is about.
Error ToError(const CF::Error& error);
// Throws what a call of the layer below stored in its out-parameter (adopting it).
[[noreturn]] void Throw(CFErrorRef error);
[[noreturn]] void Throw(const CF::Error& error);
// Runs a call of the layer below that reports through a CFErrorRef out-parameter and throws on failure.
template <typename Call>
auto Checked(Call&& call) {
    CFErrorRef error = nullptr;
    auto result = call(&error);
    if (!result) Throw(error);
    if (error) CFRelease(error);
    return result;
}

Error InvalidArgumentError(std::string reason);
// The same error naming another check as what failed.
Error WithCheck(const Error& error, std::string check);

Value FromPropertyList(CFTypeRef object);
Ref ToPropertyList(const Value& value);

CF::String Text(std::string_view utf8);

}  // namespace front
}  // namespace quiver
