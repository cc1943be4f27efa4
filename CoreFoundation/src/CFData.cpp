// Byte buffers. Immutable data either owns a copy of its bytes or, when made without copying, points at
// the caller's bytes and hands them to the given deallocator when it goes away. Mutable data always
// owns its bytes. Every index and range is checked before any byte is touched: a bad one is a
// programming error and stops the process, as it would on Apple's systems.
#include "CFRuntime.hpp"

#include <cstdio>
#include <cstring>

namespace {

// Handed out for empty data so that callers may pass the pointer to memcpy and friends.
const UInt8 kEmptyBytes[1] = {0};

const __CFData* data_of(CFDataRef data, const char* function) {
    return cf::cast<__CFData>(data, kCFTypeIDData, function);
}

__CFData* mutable_data_of(CFMutableDataRef data, const char* function) {
    __CFData* d = cf::cast_mutable<__CFData>(data, kCFTypeIDData, function);
    if (!d->mutable_) cf::fatal(function, "attempt to mutate immutable data");
    return d;
}

void check_range(const __CFData* d, CFRange range, const char* function) {
    if (range.location < 0 || range.length < 0 || range.location > d->length() - range.length)
        cf::fatal(function, "range out of bounds");
}

void check_bytes(const UInt8* bytes, CFIndex length, const char* function) {
    if (length < 0) cf::fatal(function, "negative length");
    if (!bytes && length > 0) cf::fatal(function, "NULL bytes with a non-zero length");
}

__CFData* make_data(const UInt8* bytes, CFIndex length, bool isMutable) {
    auto* d = new __CFData();
    if (length > 0) d->storage.assign(bytes, bytes + length);
    d->mutable_ = isMutable;
    return d;
}

}  // namespace

__CFData::~__CFData() {
    if (external && externalDeallocator != kCFAllocatorNull)
        CFAllocatorDeallocate(externalDeallocator, const_cast<UInt8*>(external));
}

bool __CFData::equal(const __CFObject* other) const {
    const auto* o = static_cast<const __CFData*>(other);
    CFIndex n = length();
    return n == o->length() && (n == 0 || std::memcmp(bytes(), o->bytes(), static_cast<size_t>(n)) == 0);
}

CFHashCode __CFData::hash() const { return cf::hash_bytes(bytes(), static_cast<size_t>(length())); }

std::string __CFData::describe() const { return "<CFData>" + cf::describe_nested(this, 0); }

CFTypeID CFDataGetTypeID(void) { return kCFTypeIDData; }

CFDataRef CFDataCreate(CFAllocatorRef, const UInt8* bytes, CFIndex length) {
    check_bytes(bytes, length, "CFDataCreate");
    return make_data(bytes, length, false);
}

CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef, const UInt8* bytes, CFIndex length,
                                      CFAllocatorRef bytesDeallocator) {
    check_bytes(bytes, length, "CFDataCreateWithBytesNoCopy");
    auto* d = new __CFData();
    d->external = bytes;
    d->externalLength = bytes ? length : 0;
    d->externalDeallocator = bytesDeallocator;
    return d;
}

CFDataRef CFDataCreateCopy(CFAllocatorRef, CFDataRef theData) {
    // Always a real copy: a no-copy original may point at bytes its creator reclaims once it is gone.
    const __CFData* d = data_of(theData, "CFDataCreateCopy");
    return make_data(d->bytes(), d->length(), false);
}

CFMutableDataRef CFDataCreateMutable(CFAllocatorRef, CFIndex capacity) {
    if (capacity < 0) cf::fatal("CFDataCreateMutable", "negative capacity");
    return make_data(nullptr, 0, true);
}

CFMutableDataRef CFDataCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFDataRef theData) {
    if (capacity < 0) cf::fatal("CFDataCreateMutableCopy", "negative capacity");
    const __CFData* d = data_of(theData, "CFDataCreateMutableCopy");
    return make_data(d->bytes(), d->length(), true);
}

CFIndex CFDataGetLength(CFDataRef theData) { return data_of(theData, "CFDataGetLength")->length(); }

const UInt8* CFDataGetBytePtr(CFDataRef theData) {
    const __CFData* d = data_of(theData, "CFDataGetBytePtr");
    const UInt8* p = d->bytes();
    return p ? p : kEmptyBytes;
}

UInt8* CFDataGetMutableBytePtr(CFMutableDataRef theData) {
    __CFData* d = mutable_data_of(theData, "CFDataGetMutableBytePtr");
    if (d->storage.empty()) d->storage.reserve(1);  // a real, writable (if empty) buffer
    return d->storage.data();
}

void CFDataGetBytes(CFDataRef theData, CFRange range, UInt8* buffer) {
    const __CFData* d = data_of(theData, "CFDataGetBytes");
    check_range(d, range, "CFDataGetBytes");
    if (range.length == 0) return;
    if (!buffer) cf::fatal("CFDataGetBytes", "NULL buffer");
    std::memcpy(buffer, d->bytes() + range.location, static_cast<size_t>(range.length));
}

void CFDataSetLength(CFMutableDataRef theData, CFIndex length) {
    __CFData* d = mutable_data_of(theData, "CFDataSetLength");
    if (length < 0) cf::fatal("CFDataSetLength", "negative length");
    d->storage.resize(static_cast<size_t>(length), 0);
}

void CFDataIncreaseLength(CFMutableDataRef theData, CFIndex extraLength) {
    __CFData* d = mutable_data_of(theData, "CFDataIncreaseLength");
    if (extraLength < 0) cf::fatal("CFDataIncreaseLength", "negative length");
    if (extraLength > PTRDIFF_MAX - d->length()) cf::fatal("CFDataIncreaseLength", "length overflow");
    d->storage.resize(d->storage.size() + static_cast<size_t>(extraLength), 0);
}

void CFDataAppendBytes(CFMutableDataRef theData, const UInt8* bytes, CFIndex length) {
    __CFData* d = mutable_data_of(theData, "CFDataAppendBytes");
    check_bytes(bytes, length, "CFDataAppendBytes");
    if (length == 0) return;
    // The bytes may lie inside this very buffer, which growing could move.
    std::vector<UInt8> copy(bytes, bytes + length);
    d->storage.insert(d->storage.end(), copy.begin(), copy.end());
}

void CFDataReplaceBytes(CFMutableDataRef theData, CFRange range, const UInt8* newBytes, CFIndex newLength) {
    __CFData* d = mutable_data_of(theData, "CFDataReplaceBytes");
    check_range(d, range, "CFDataReplaceBytes");
    check_bytes(newBytes, newLength, "CFDataReplaceBytes");
    std::vector<UInt8> copy(newBytes, newBytes + newLength);
    auto first = d->storage.begin() + range.location;
    auto at = d->storage.erase(first, first + range.length);
    d->storage.insert(at, copy.begin(), copy.end());
}

void CFDataDeleteBytes(CFMutableDataRef theData, CFRange range) {
    __CFData* d = mutable_data_of(theData, "CFDataDeleteBytes");
    check_range(d, range, "CFDataDeleteBytes");
    auto first = d->storage.begin() + range.location;
    d->storage.erase(first, first + range.length);
}
