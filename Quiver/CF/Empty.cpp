#include "Quiver/CF/Empty.hpp"

namespace CF {

// Built on first use and never destroyed, so that objects released during exit can still compare
// against them.
const String& EmptyString() {
    static const String* s = new String(String::Retain(CFSTR("")));
    return *s;
}

const Data& EmptyData() {
    static const Data* d = new Data(Data::Adopt(CFDataCreate(kCFAllocatorDefault, nullptr, 0)));
    return *d;
}

const Dictionary& EmptyDictionary() {
    static const Dictionary* d = new Dictionary(Dictionary::Adopt(CFDictionaryCreate(
        kCFAllocatorDefault, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks)));
    return *d;
}

}  // namespace CF
