#include "Quiver/CF/Dictionary.hpp"

namespace CF {

Dictionary Dictionary::CreateMutable() {
    return Adopt(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                           &kCFTypeDictionaryValueCallBacks));
}

Dictionary Dictionary::MutableCopy() const {
    if (!ref_) return CreateMutable();
    return Adopt(CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, ref_));
}

void Dictionary::Set(CFTypeRef key, CFTypeRef value) {
    if (ref_ && key && value) CFDictionarySetValue(const_cast<CFMutableDictionaryRef>(ref_), key, value);
}

void Dictionary::Remove(std::string_view key) {
    if (ref_) CFDictionaryRemoveValue(const_cast<CFMutableDictionaryRef>(ref_), String(key).get());
}

std::vector<std::pair<CFTypeRef, CFTypeRef>> Dictionary::Entries() const {
    std::vector<std::pair<CFTypeRef, CFTypeRef>> entries;
    CFIndex n = size();
    if (n == 0) return entries;
    std::vector<const void*> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
    CFDictionaryGetKeysAndValues(ref_, keys.data(), values.data());
    entries.reserve(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) entries.emplace_back(keys[i], values[i]);
    return entries;
}

Dictionary::const_iterator Dictionary::begin() const {
    return const_iterator(std::make_shared<const std::vector<std::pair<CFTypeRef, CFTypeRef>>>(Entries()), 0);
}

Dictionary::const_iterator Dictionary::end() const { return const_iterator(nullptr, static_cast<size_t>(size())); }

}  // namespace CF
