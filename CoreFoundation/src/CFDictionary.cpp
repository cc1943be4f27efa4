// Key-value collections. Entries are kept in insertion order, so that descriptions and written property
// lists come out the same on every run, and a hash index from key hash to entry position makes lookups
// constant-time on average (a manifest may build dictionaries with many keys). Replacing a value keeps
// its entry where it is; removing an entry keeps the order of the others and shifts the index.
//
// The library never stores NULL: setting a NULL key or value does nothing, and a NULL key is never
// found, so that no callback is ever handed NULL.
#include "CFRuntime.hpp"

namespace {

const void* retain_type(CFAllocatorRef, const void* value) { return CFRetain(value); }
void release_type(CFAllocatorRef, const void* value) { CFRelease(value); }
const void* copy_string_key(CFAllocatorRef allocator, const void* key) {
    return CFStringCreateCopy(allocator, static_cast<CFStringRef>(key));
}

const __CFDictionary* dict_of(CFDictionaryRef dict, const char* function) {
    return cf::cast<__CFDictionary>(dict, kCFTypeIDDictionary, function);
}

__CFDictionary* mutable_dict_of(CFMutableDictionaryRef dict, const char* function) {
    __CFDictionary* d = cf::cast_mutable<__CFDictionary>(dict, kCFTypeIDDictionary, function);
    if (!d->mutable_) cf::fatal(function, "attempt to mutate an immutable dictionary");
    return d;
}

const void* retain_key(const __CFDictionary* d, const void* key) {
    return d->keyCallbacks.retain ? d->keyCallbacks.retain(kCFAllocatorDefault, key) : key;
}
void release_key(const __CFDictionary* d, const void* key) {
    if (d->keyCallbacks.release) d->keyCallbacks.release(kCFAllocatorDefault, key);
}
const void* retain_value(const __CFDictionary* d, const void* value) {
    return d->valueCallbacks.retain ? d->valueCallbacks.retain(kCFAllocatorDefault, value) : value;
}
void release_value(const __CFDictionary* d, const void* value) {
    if (d->valueCallbacks.release) d->valueCallbacks.release(kCFAllocatorDefault, value);
}
bool values_equal(const __CFDictionary* d, const void* a, const void* b) {
    if (a == b) return true;
    if (!d->valueCallbacks.equal || !a || !b) return false;
    return d->valueCallbacks.equal(a, b);
}

__CFDictionary* make_dict(const CFDictionaryKeyCallBacks* keyCallBacks,
                          const CFDictionaryValueCallBacks* valueCallBacks, bool isMutable) {
    auto* d = new __CFDictionary();
    if (keyCallBacks) d->keyCallbacks = *keyCallBacks;
    if (valueCallBacks) d->valueCallbacks = *valueCallBacks;
    d->mutable_ = isMutable;
    return d;
}

// Appends a new entry; the key must not be present.
void append_entry(__CFDictionary* d, const void* key, const void* value) {
    const void* storedKey = retain_key(d, key);
    const void* storedValue = retain_value(d, value);
    d->entries.push_back({storedKey, storedValue});
    if (d->entries.size() == __CFDictionary::kIndexThreshold + 1) {
        d->rebuild_index();
    } else if (d->entries.size() > __CFDictionary::kIndexThreshold) {
        d->index.emplace(d->hash_key(storedKey), d->entries.size() - 1);
    }
}

void replace_value_at(__CFDictionary* d, size_t pos, const void* value) {
    const void* retained = retain_value(d, value);  // before the release: the two may be the same object
    const void* old = d->entries[pos].value;
    d->entries[pos].value = retained;
    release_value(d, old);
}

void remove_entry_at(__CFDictionary* d, size_t pos) {
    __CFDictionary::Entry removed = d->entries[pos];
    if (!d->index.empty()) {
        auto [first, last] = d->index.equal_range(d->hash_key(removed.key));
        for (auto it = first; it != last; ++it) {
            if (it->second == pos) {
                d->index.erase(it);
                break;
            }
        }
    }
    d->entries.erase(d->entries.begin() + static_cast<std::ptrdiff_t>(pos));
    if (d->entries.size() <= __CFDictionary::kIndexThreshold) {
        d->index.clear();
    } else if (pos < d->entries.size()) {
        for (auto& slot : d->index)
            if (slot.second > pos) --slot.second;
    }
    // Released last: a release may run arbitrary destructors, which must see a consistent dictionary.
    release_key(d, removed.key);
    release_value(d, removed.value);
}

void set_value(__CFDictionary* d, const void* key, const void* value) {
    if (!key || !value) return;
    long pos = d->find(key);
    if (pos >= 0)
        replace_value_at(d, static_cast<size_t>(pos), value);
    else
        append_entry(d, key, value);
}

__CFDictionary* copy_dict(const __CFDictionary* source, bool isMutable) {
    __CFDictionary* d = make_dict(&source->keyCallbacks, &source->valueCallbacks, isMutable);
    d->entries.reserve(source->entries.size());
    for (const auto& e : source->entries)
        d->entries.push_back({retain_key(d, e.key), retain_value(d, e.value)});
    d->rebuild_index();
    return d;
}

}  // namespace

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {0,       retain_type, release_type, CFCopyDescription,
                                                                CFEqual, CFHash};
const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks = {0,       copy_string_key, release_type,
                                                                      CFCopyDescription, CFEqual, CFHash};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {0, retain_type, release_type, CFCopyDescription,
                                                                    CFEqual};

CFHashCode __CFDictionary::hash_key(const void* key) const {
    return keyCallbacks.hash ? keyCallbacks.hash(key) : reinterpret_cast<CFHashCode>(key);
}

bool __CFDictionary::keys_equal(const void* a, const void* b) const {
    if (a == b) return true;
    if (!keyCallbacks.equal || !a || !b) return false;
    return keyCallbacks.equal(a, b);
}

long __CFDictionary::find(const void* key) const {
    if (!key) return -1;
    if (index.empty()) {
        // Small dictionaries (most of them: archive objects, error information) go without an index.
        for (size_t i = 0; i < entries.size(); ++i)
            if (keys_equal(entries[i].key, key)) return static_cast<long>(i);
        return -1;
    }
    auto [first, last] = index.equal_range(hash_key(key));
    for (auto it = first; it != last; ++it) {
        if (it->second < entries.size() && keys_equal(entries[it->second].key, key))
            return static_cast<long>(it->second);
    }
    return -1;
}

void __CFDictionary::rebuild_index() {
    index.clear();
    if (entries.size() <= kIndexThreshold) return;
    index.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) index.emplace(hash_key(entries[i].key), i);
}

__CFDictionary::~__CFDictionary() {
    for (const auto& e : entries) {
        release_key(this, e.key);
        release_value(this, e.value);
    }
}

bool __CFDictionary::equal(const __CFObject* other) const {
    const auto* o = static_cast<const __CFDictionary*>(other);
    if (entries.size() != o->entries.size()) return false;
    for (const auto& e : entries) {
        long pos = o->find(e.key);
        if (pos < 0 || !values_equal(this, e.value, o->entries[static_cast<size_t>(pos)].value)) return false;
    }
    return true;
}

std::string __CFDictionary::describe() const { return cf::describe_nested(this, 0); }

CFTypeID CFDictionaryGetTypeID(void) { return kCFTypeIDDictionary; }

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void** keys, const void** values, CFIndex numValues,
                                   const CFDictionaryKeyCallBacks* keyCallBacks,
                                   const CFDictionaryValueCallBacks* valueCallBacks) {
    if (numValues < 0) cf::fatal("CFDictionaryCreate", "negative count");
    if ((!keys || !values) && numValues > 0) cf::fatal("CFDictionaryCreate", "NULL keys or values");
    __CFDictionary* d = make_dict(keyCallBacks, valueCallBacks, false);
    d->entries.reserve(static_cast<size_t>(numValues));
    // A key given twice keeps its first position and its last value.
    for (CFIndex i = 0; i < numValues; ++i) set_value(d, keys[i], values[i]);
    return d;
}

CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef, CFDictionaryRef theDict) {
    return copy_dict(dict_of(theDict, "CFDictionaryCreateCopy"), false);
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks* keyCallBacks,
                                                 const CFDictionaryValueCallBacks* valueCallBacks) {
    if (capacity < 0) cf::fatal("CFDictionaryCreateMutable", "negative capacity");
    return make_dict(keyCallBacks, valueCallBacks, true);
}

CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFDictionaryRef theDict) {
    if (capacity < 0) cf::fatal("CFDictionaryCreateMutableCopy", "negative capacity");
    return copy_dict(dict_of(theDict, "CFDictionaryCreateMutableCopy"), true);
}

CFIndex CFDictionaryGetCount(CFDictionaryRef theDict) {
    return static_cast<CFIndex>(dict_of(theDict, "CFDictionaryGetCount")->entries.size());
}

CFIndex CFDictionaryGetCountOfKey(CFDictionaryRef theDict, const void* key) {
    return dict_of(theDict, "CFDictionaryGetCountOfKey")->find(key) >= 0 ? 1 : 0;
}

CFIndex CFDictionaryGetCountOfValue(CFDictionaryRef theDict, const void* value) {
    const __CFDictionary* d = dict_of(theDict, "CFDictionaryGetCountOfValue");
    CFIndex n = 0;
    for (const auto& e : d->entries)
        if (values_equal(d, e.value, value)) ++n;
    return n;
}

Boolean CFDictionaryContainsKey(CFDictionaryRef theDict, const void* key) {
    return dict_of(theDict, "CFDictionaryContainsKey")->find(key) >= 0;
}

Boolean CFDictionaryContainsValue(CFDictionaryRef theDict, const void* value) {
    return CFDictionaryGetCountOfValue(theDict, value) > 0;
}

const void* CFDictionaryGetValue(CFDictionaryRef theDict, const void* key) {
    const __CFDictionary* d = dict_of(theDict, "CFDictionaryGetValue");
    long pos = d->find(key);
    return pos >= 0 ? d->entries[static_cast<size_t>(pos)].value : nullptr;
}

Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef theDict, const void* key, const void** value) {
    const __CFDictionary* d = dict_of(theDict, "CFDictionaryGetValueIfPresent");
    long pos = d->find(key);
    if (pos < 0) return false;
    if (value) *value = d->entries[static_cast<size_t>(pos)].value;
    return true;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef theDict, const void** keys, const void** values) {
    const __CFDictionary* d = dict_of(theDict, "CFDictionaryGetKeysAndValues");
    for (size_t i = 0; i < d->entries.size(); ++i) {
        if (keys) keys[i] = d->entries[i].key;
        if (values) values[i] = d->entries[i].value;
    }
}

void CFDictionaryApplyFunction(CFDictionaryRef theDict, CFDictionaryApplierFunction applier, void* context) {
    const __CFDictionary* d = dict_of(theDict, "CFDictionaryApplyFunction");
    if (!applier) cf::fatal("CFDictionaryApplyFunction", "NULL applier");
    // Bounds re-checked each time: an applier that removes entries must not make us read past the end.
    for (size_t i = 0; i < d->entries.size(); ++i) {
        __CFDictionary::Entry e = d->entries[i];
        applier(e.key, e.value, context);
    }
}

void CFDictionaryAddValue(CFMutableDictionaryRef theDict, const void* key, const void* value) {
    __CFDictionary* d = mutable_dict_of(theDict, "CFDictionaryAddValue");
    if (!key || !value || d->find(key) >= 0) return;
    append_entry(d, key, value);
}

void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void* key, const void* value) {
    set_value(mutable_dict_of(theDict, "CFDictionarySetValue"), key, value);
}

void CFDictionaryReplaceValue(CFMutableDictionaryRef theDict, const void* key, const void* value) {
    __CFDictionary* d = mutable_dict_of(theDict, "CFDictionaryReplaceValue");
    if (!value) return;
    long pos = d->find(key);
    if (pos >= 0) replace_value_at(d, static_cast<size_t>(pos), value);
}

void CFDictionaryRemoveValue(CFMutableDictionaryRef theDict, const void* key) {
    __CFDictionary* d = mutable_dict_of(theDict, "CFDictionaryRemoveValue");
    long pos = d->find(key);
    if (pos >= 0) remove_entry_at(d, static_cast<size_t>(pos));
}

void CFDictionaryRemoveAllValues(CFMutableDictionaryRef theDict) {
    __CFDictionary* d = mutable_dict_of(theDict, "CFDictionaryRemoveAllValues");
    std::vector<__CFDictionary::Entry> old;
    old.swap(d->entries);
    d->index.clear();
    for (const auto& e : old) {
        release_key(d, e.key);
        release_value(d, e.value);
    }
}
