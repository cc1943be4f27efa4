// The polymorphic functions, allocators and kCFNull.
#include "CFConstant.hpp"
#include "CFRuntime.hpp"

#include <cstdio>
#include <cstdlib>

namespace cf {

void fatal(const char* function, const char* message) {
    std::fprintf(stderr, "CoreFoundation: %s: %s\n", function, message);
    std::abort();
}

const __CFObject* object(CFTypeRef ref, const char* function) {
    if (!ref) fatal(function, "NULL object");
    return static_cast<const __CFObject*>(ref);
}

std::string describe(CFTypeRef ref) {
    if (!ref) return "(null)";
    return static_cast<const __CFObject*>(ref)->describe();
}

}  // namespace cf

// Allocators.

std::string __CFAllocator::describe() const {
    switch (kind) {
        case Kind::System: return "<CFAllocator kCFAllocatorSystemDefault>";
        case Kind::Malloc: return "<CFAllocator kCFAllocatorMalloc>";
        case Kind::Null: return "<CFAllocator kCFAllocatorNull>";
    }
    return "<CFAllocator>";
}

namespace {
// Built before any ordinary static initialiser and never destroyed (see CFConstant.hpp).
CF_CONSTANT_OBJECT cf::Immortal<__CFAllocator> gSystemAllocator(__CFAllocator::Kind::System);
CF_CONSTANT_OBJECT cf::Immortal<__CFAllocator> gMallocAllocator(__CFAllocator::Kind::Malloc);
CF_CONSTANT_OBJECT cf::Immortal<__CFAllocator> gNullAllocator(__CFAllocator::Kind::Null);
CF_CONSTANT_OBJECT cf::Immortal<__CFNull> gNull;
}  // namespace

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFAllocatorRef kCFAllocatorSystemDefault = &gSystemAllocator.object;
const CFAllocatorRef kCFAllocatorMalloc = &gMallocAllocator.object;
const CFAllocatorRef kCFAllocatorMallocZone = &gMallocAllocator.object;
const CFAllocatorRef kCFAllocatorNull = &gNullAllocator.object;
const CFNullRef kCFNull = &gNull.object;

CFTypeID CFAllocatorGetTypeID(void) { return kCFTypeIDAllocator; }
CFTypeID CFNullGetTypeID(void) { return kCFTypeIDNull; }

CFAllocatorRef CFAllocatorGetDefault(void) { return kCFAllocatorSystemDefault; }

void* CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags) {
    if (allocator == kCFAllocatorNull || size <= 0) return nullptr;
    return std::malloc(static_cast<size_t>(size));
}

void CFAllocatorDeallocate(CFAllocatorRef allocator, void* ptr) {
    if (allocator == kCFAllocatorNull) return;
    std::free(ptr);
}

// Polymorphic functions.

CFTypeRef CFRetain(CFTypeRef cf) {
    const __CFObject* o = cf::object(cf, "CFRetain");
    if (!o->immortal) const_cast<__CFObject*>(o)->retainCount.fetch_add(1, std::memory_order_relaxed);
    return cf;
}

void CFRelease(CFTypeRef cf) {
    const __CFObject* o = cf::object(cf, "CFRelease");
    if (o->immortal) return;
    auto* m = const_cast<__CFObject*>(o);
    CFIndex previous = m->retainCount.fetch_sub(1, std::memory_order_acq_rel);
    if (previous == 1) {
        delete m;
    } else if (previous <= 0) {
        cf::fatal("CFRelease", "over-released object");
    }
}

CFIndex CFGetRetainCount(CFTypeRef cf) {
    const __CFObject* o = cf::object(cf, "CFGetRetainCount");
    if (o->immortal) return static_cast<CFIndex>(0x7fffffffffffffffLL);
    return o->retainCount.load(std::memory_order_relaxed);
}

CFTypeID CFGetTypeID(CFTypeRef cf) { return cf::object(cf, "CFGetTypeID")->typeID; }

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) {
    const __CFObject* a = cf::object(cf1, "CFEqual");
    const __CFObject* b = cf::object(cf2, "CFEqual");
    if (a == b) return true;
    if (a->typeID != b->typeID) return false;
    return a->equal(b);
}

CFHashCode CFHash(CFTypeRef cf) { return cf::object(cf, "CFHash")->hash(); }

CFStringRef CFCopyDescription(CFTypeRef cf) {
    if (!cf) return nullptr;
    return cf::make_string(static_cast<const __CFObject*>(cf)->describe());
}

CFStringRef CFCopyTypeIDDescription(CFTypeID type_id) {
    const char* name = nullptr;
    switch (type_id) {
        case kCFTypeIDAllocator: name = "CFAllocator"; break;
        case kCFTypeIDNull: name = "CFNull"; break;
        case kCFTypeIDString: name = "CFString"; break;
        case kCFTypeIDData: name = "CFData"; break;
        case kCFTypeIDArray: name = "CFArray"; break;
        case kCFTypeIDDictionary: name = "CFDictionary"; break;
        case kCFTypeIDBoolean: name = "CFBoolean"; break;
        case kCFTypeIDNumber: name = "CFNumber"; break;
        case kCFTypeIDDate: name = "CFDate"; break;
        case kCFTypeIDUUID: name = "CFUUID"; break;
        case kCFTypeIDError: name = "CFError"; break;
        case kCFTypeIDKeyedArchiverUID: name = "CFKeyedArchiverUID"; break;
        default: return nullptr;
    }
    return cf::make_string(name);
}

CFAllocatorRef CFGetAllocator(CFTypeRef cf) {
    cf::object(cf, "CFGetAllocator");
    return kCFAllocatorSystemDefault;
}
