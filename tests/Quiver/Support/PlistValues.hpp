// Short spellings of property-list values for tests that build keyed archives by hand, and the
// serialisation of such a list in either format (UIDs become {"CF$UID": n} in XML, as XML archives
// write them). The benchmarks and fuzz targets of keyed archives use them too.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Support/KeyedArchiver.hpp"

namespace plist_values {

using Quiver::Support::cf_value;
using Bytes = std::vector<uint8_t>;

// Any value: strings from text, numbers from integers, data from bytes, or a CF holder as it is.
struct V {
    V(const char* s) : v(cf_value::Retain(CF::String(s).get())) {}
    V(std::string_view s) : v(cf_value::Retain(CF::String(s).get())) {}
    V(int n) : v(cf_value::Retain(CF::Number(int64_t{n}).get())) {}
    V(int64_t n) : v(cf_value::Retain(CF::Number(n).get())) {}
    V(const Bytes& b) : v(cf_value::Retain(CF::Data(b).get())) {}
    template <typename T>
        requires requires(const T& t) { t.get(); }
    V(const T& holder) : v(cf_value::Retain(holder.get())) {}
    cf_value v;
};

inline cf_value UID(uint32_t n) { return cf_value::Adopt(_CFKeyedArchiverUIDCreate(kCFAllocatorDefault, n)); }

inline CF::Dictionary Dict(std::initializer_list<std::pair<std::string_view, V>> entries) {
    CF::Dictionary d = CF::Dictionary::CreateMutable();
    for (const auto& [key, value] : entries) d.Set(key, value.v);
    return d;
}

inline CF::Array Arr(std::initializer_list<V> values) {
    CF::Array a = CF::Array::CreateMutable();
    for (const auto& value : values) a.Append(value.v);
    return a;
}

enum class Format { Binary, XML };

inline cf_value WithoutUIDs(CFTypeRef value) {
    const CFTypeID t = CFGetTypeID(value);
    if (t == _CFKeyedArchiverUIDGetTypeID())
        return cf_value::Retain(
            Dict({{"CF$UID", int64_t{_CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(value))}}}).get());
    if (t == CFDictionaryGetTypeID()) {
        CF::Dictionary out = CF::Dictionary::CreateMutable();
        for (const auto& [k, v] : CF::Dictionary::Retain(static_cast<CFDictionaryRef>(value)).Entries())
            out.Set(k, WithoutUIDs(v));
        return cf_value::Retain(out.get());
    }
    if (t == CFArrayGetTypeID()) {
        CF::Array out = CF::Array::CreateMutable();
        for (CFTypeRef v : CF::Array::Retain(static_cast<CFArrayRef>(value))) out.Append(WithoutUIDs(v));
        return cf_value::Retain(out.get());
    }
    return cf_value::Retain(value);
}

inline Bytes Serialize(CFTypeRef plist, Format format = Format::Binary) {
    cf_value source = format == Format::XML ? WithoutUIDs(plist) : cf_value::Retain(plist);
    CF::Data data = CF::Data::Adopt(CFPropertyListCreateData(
        kCFAllocatorDefault, source.get(),
        format == Format::XML ? kCFPropertyListXMLFormat_v1_0 : kCFPropertyListBinaryFormat_v1_0, 0, nullptr));
    return data.vector();
}

inline cf_value Parse(const Bytes& bytes) {
    CF::Data data(bytes);
    return cf_value::Adopt(CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(), 0, nullptr, nullptr));
}

}  // namespace plist_values
