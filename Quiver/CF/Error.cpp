#include "Quiver/CF/Error.hpp"

#include <CoreFoundation/CFExtension.h>

namespace CF {

String Error::Domain() const { return ref_ ? String::Retain(CFErrorGetDomain(ref_)) : String(); }

Dictionary Error::UserInfo() const {
    return ref_ ? Dictionary::Adopt(CFErrorCopyUserInfo(ref_)) : Dictionary();
}

std::string Error::Description() const {
    return ref_ ? String::Adopt(CFErrorCopyDescription(ref_)).utf8() : std::string();
}

std::string Error::Reason() const {
    return ref_ ? String::Adopt(CFErrorCopyFailureReason(ref_)).utf8() : std::string();
}

Error Error::Underlying() const {
    if (!ref_) return {};
    return UserInfo().Get<Error>(kCFErrorUnderlyingErrorKey);
}

bool Error::IsFriendly() const { return UserInfo().Get<Boolean>(kCFErrorIsFriendlyKey).value(); }

std::string Error::Text() const {
    if (!ref_) return "no error";
    std::string text;
    // Underlying chains are short in practice; the bound guards against a hostile cycle.
    Error e = *this;
    for (int depth = 0; e && depth < 8; ++depth, e = e.Underlying()) {
        if (depth > 0) text += "; caused by: ";
        text += fmt::format("{} code {}", e.Domain().utf8(), e.Code());
        std::string description = e.Description();
        if (!description.empty()) text += ": " + description;
        std::string reason = e.Reason();
        if (!reason.empty()) text += " (" + reason + ")";
    }
    return text;
}

const char* Error::what() const noexcept {
    try {
        if (what_.empty()) what_ = Text();
        return what_.c_str();
    } catch (...) {
        return "CF::Error";
    }
}

}  // namespace CF
