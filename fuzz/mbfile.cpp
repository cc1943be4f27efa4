// MBFile blob decoding: any bytes give a record, nothing, or an archive exception; never a crash, a
// hang or another exception.
//
// A decoded record is encoded again and must decode to the same record. And the two ways of reading
// an archive must agree: when CoreFoundation parses the bytes, the list it sees is written once as a
// binary list (read in place by binary_plist_reader) and once as XML (read through CoreFoundation
// values), and both must give the same record or the same exception.
#include <CoreFoundation/CoreFoundation.h>

#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <typeinfo>
#include <vector>

#include "Quiver/CF/CF.hpp"
#include "Quiver/MB/File.hpp"
#include "Quiver/Support/KeyedArchiver.hpp"
#include "tests/Quiver/Support/PlistValues.hpp"

using Quiver::Support::cf_value;
using plist_values::WithoutUIDs;
namespace ax = Quiver::Support::archiver_exceptions;

namespace {

struct Outcome {
    std::optional<MB::File> file;
    std::string error;  // exception type and text; empty when none was thrown
};

Outcome Decode(std::span<const uint8_t> bytes) {
    Outcome o;
    try {
        o.file = MB::File::Decode(bytes);
    } catch (const ax::archive_error& e) {
        o.error = std::string(typeid(e).name()) + ": " + e.what();
    }
    // Any other exception escapes and ends the run as a finding.
    return o;
}

bool Same(const Outcome& a, const Outcome& b) {
    if (a.error != b.error || a.file.has_value() != b.file.has_value()) return false;
    return !a.file || *a.file == *b.file;
}

bool HoldsNUL(const MB::File& f) {
    auto has = [](const CF::String& s) {
        for (CFIndex i = 0, n = s.length(); i < n; ++i)
            if (CFStringGetCharacterAtIndex(s.get(), i) == 0) return true;
        return false;
    };
    if (has(f.RelativePath) || has(f.Target)) return true;
    for (const auto& [key, value] : f.ExtendedAttributes.Entries())
        if (has(CF::String::Retain(static_cast<CFStringRef>(key)))) return true;
    // Keys the record does not model are kept with their values, strings among them.
    for (const auto& [key, value] : f.Unmodelled.Entries()) {
        if (has(CF::String::Retain(static_cast<CFStringRef>(key)))) return true;
        if (CFGetTypeID(value) == CFStringGetTypeID() && has(CF::String::Retain(static_cast<CFStringRef>(value))))
            return true;
    }
    return false;
}

CF::Data Write(CFTypeRef plist, CFPropertyListFormat format) {
    return CF::Data::Adopt(CFPropertyListCreateData(kCFAllocatorDefault, plist, format, 0, nullptr));
}

cf_value Read(const CF::Data& bytes) {
    return cf_value::Adopt(CFPropertyListCreateWithData(kCFAllocatorDefault, bytes.get(), 0, nullptr, nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> bytes(data, size);
    const Outcome outcome = Decode(bytes);
    if (outcome.file) {
        CF::Data again;
        try {
            again = outcome.file->Encode();
        } catch (const ax::archive_error&) {
            // Refused only for text that the property-list writer would cut short.
            if (!HoldsNUL(*outcome.file)) std::abort();
        }
        if (again) {
            const Outcome back = Decode(again.bytes());
            if (!back.file || !(*back.file == *outcome.file)) std::abort();
        }
    }

    // The two readers on the same list.
    const cf_value parsed = Read(CF::Data::NoCopy(bytes));
    // Spelling UIDs as dictionaries would make an archive of a top-level UID.
    if (!parsed || CFGetTypeID(parsed.get()) != CFDictionaryGetTypeID()) return 0;
    const CF::Data binary = Write(parsed.get(), kCFPropertyListBinaryFormat_v1_0);
    const cf_value withoutUIDs = WithoutUIDs(parsed.get());
    const CF::Data xml = Write(withoutUIDs.get(), kCFPropertyListXMLFormat_v1_0);
    if (!binary || !xml) return 0;
    // Only lists that XML carries unchanged (no NaN, no text XML cannot hold) can be compared.
    const cf_value xmlBack = Read(xml);
    if (!xmlBack || !CFEqual(xmlBack.get(), withoutUIDs.get())) return 0;
    if (!Same(Decode(binary.bytes()), Decode(xml.bytes()))) std::abort();
    return 0;
}
