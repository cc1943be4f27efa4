// UUIDs. New ones are random (version 4, RFC 4122 variant) from the kernel's generator; this layer
// links no cryptographic library. The text form is the 36-character one in upper case; parsing takes
// either case and refuses anything else.
#include "CFRuntime.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

namespace {

const __CFUUID* uuid_of(CFUUIDRef uuid, const char* function) {
    return cf::cast<__CFUUID>(uuid, kCFTypeIDUUID, function);
}

bool read_urandom(UInt8* out, size_t length) {
    int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < length) {
        ssize_t n = ::read(fd, out + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    return done == length;
}

void random_bytes(UInt8* out, size_t length) {
    size_t done = 0;
    while (done < length) {
        ssize_t n = ::getrandom(out + done, length - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    // Kernels without getrandom(2) still have the device.
    if (done < length && !read_urandom(out + done, length - done))
        cf::fatal("CFUUIDCreate", "no source of random bytes");
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr size_t kTextLength = 36;
bool is_hyphen_position(size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

__CFUUID* make_uuid(const UInt8* bytes) {
    auto* u = new __CFUUID();
    std::memcpy(u->bytes, bytes, sizeof u->bytes);
    return u;
}

}  // namespace

bool __CFUUID::equal(const __CFObject* other) const {
    return std::memcmp(bytes, static_cast<const __CFUUID*>(other)->bytes, sizeof bytes) == 0;
}

CFHashCode __CFUUID::hash() const { return cf::hash_bytes(bytes, sizeof bytes); }

std::string __CFUUID::describe() const {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(kTextLength);
    size_t b = 0;
    for (size_t i = 0; i < kTextLength; ++i) {
        if (is_hyphen_position(i)) {
            text += '-';
        } else {
            UInt8 byte = bytes[b / 2];
            text += kDigits[(b % 2 == 0) ? byte >> 4 : byte & 0x0f];
            ++b;
        }
    }
    return text;
}

CFTypeID CFUUIDGetTypeID(void) { return kCFTypeIDUUID; }

CFUUIDRef CFUUIDCreate(CFAllocatorRef) {
    UInt8 bytes[16];
    random_bytes(bytes, sizeof bytes);
    bytes[6] = static_cast<UInt8>((bytes[6] & 0x0f) | 0x40);  // version 4
    bytes[8] = static_cast<UInt8>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
    return make_uuid(bytes);
}

CFUUIDRef CFUUIDCreateFromUUIDBytes(CFAllocatorRef, CFUUIDBytes bytes) {
    static_assert(sizeof(CFUUIDBytes) == 16);
    UInt8 raw[16];
    std::memcpy(raw, &bytes, sizeof raw);
    return make_uuid(raw);
}

CFUUIDRef CFUUIDCreateFromString(CFAllocatorRef, CFStringRef uuidStr) {
    if (!uuidStr) return nullptr;
    const std::string& text = cf::cast<__CFString>(uuidStr, kCFTypeIDString, "CFUUIDCreateFromString")->utf8;
    if (text.size() != kTextLength) return nullptr;
    UInt8 raw[16] = {};
    size_t b = 0;
    for (size_t i = 0; i < kTextLength; ++i) {
        if (is_hyphen_position(i)) {
            if (text[i] != '-') return nullptr;
            continue;
        }
        int v = hex_value(text[i]);
        if (v < 0) return nullptr;
        raw[b / 2] = static_cast<UInt8>(raw[b / 2] << 4 | v);
        ++b;
    }
    return make_uuid(raw);
}

CFStringRef CFUUIDCreateString(CFAllocatorRef, CFUUIDRef uuid) {
    return cf::make_string(uuid_of(uuid, "CFUUIDCreateString")->describe());
}

CFUUIDBytes CFUUIDGetUUIDBytes(CFUUIDRef uuid) {
    CFUUIDBytes out;
    std::memcpy(&out, uuid_of(uuid, "CFUUIDGetUUIDBytes")->bytes, sizeof out);
    return out;
}
