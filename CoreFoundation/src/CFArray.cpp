// Ordered collections. The callbacks given at creation are copied into the array and decide how values
// are retained, released and compared; without callbacks the values are raw pointers compared by
// identity. Every index and range is checked first: a bad one is a programming error and stops the
// process rather than touching memory outside the array.
#include "CFRuntime.hpp"

#include <algorithm>

namespace {

const void* retain_type(CFAllocatorRef, const void* value) { return CFRetain(value); }
void release_type(CFAllocatorRef, const void* value) { CFRelease(value); }

const __CFArray* array_of(CFArrayRef array, const char* function) {
    return cf::cast<__CFArray>(array, kCFTypeIDArray, function);
}

__CFArray* mutable_array_of(CFMutableArrayRef array, const char* function) {
    __CFArray* a = cf::cast_mutable<__CFArray>(array, kCFTypeIDArray, function);
    if (!a->mutable_) cf::fatal(function, "attempt to mutate an immutable array");
    return a;
}

CFIndex count_of(const __CFArray* a) { return static_cast<CFIndex>(a->values.size()); }

void check_range(const __CFArray* a, CFRange range, const char* function) {
    if (range.location < 0 || range.length < 0 || range.location > count_of(a) - range.length)
        cf::fatal(function, "range out of bounds");
}

void check_index(const __CFArray* a, CFIndex idx, const char* function) {
    if (idx < 0 || idx >= count_of(a)) cf::fatal(function, "index out of bounds");
}

const void* retain_value(const __CFArray* a, const void* value) {
    return a->callbacks.retain ? a->callbacks.retain(kCFAllocatorDefault, value) : value;
}

void release_value(const __CFArray* a, const void* value) {
    if (a->callbacks.release) a->callbacks.release(kCFAllocatorDefault, value);
}

bool values_equal(const __CFArray* a, const void* x, const void* y) {
    if (x == y) return true;
    if (!a->callbacks.equal || !x || !y) return false;
    return a->callbacks.equal(x, y);
}

__CFArray* make_array(const CFArrayCallBacks* callbacks, bool isMutable) {
    auto* a = new __CFArray();
    if (callbacks) a->callbacks = *callbacks;
    a->mutable_ = isMutable;
    return a;
}

__CFArray* copy_array(const __CFArray* source, bool isMutable) {
    __CFArray* a = make_array(&source->callbacks, isMutable);
    a->values.reserve(source->values.size());
    for (const void* v : source->values) a->values.push_back(retain_value(a, v));
    return a;
}

// Stable merge sort that only ever indexes inside the buffer, whatever the comparator answers
// (a library sort may run off the end when handed an inconsistent comparator).
void merge_sort(std::vector<const void*>& v, size_t first, size_t last, CFComparatorFunction comparator,
                void* context) {
    size_t n = last - first;
    if (n < 2) return;
    std::vector<const void*> buffer(n);
    for (size_t width = 1; width < n; width *= 2) {
        for (size_t lo = 0; lo < n; lo += 2 * width) {
            size_t mid = std::min(lo + width, n), hi = std::min(lo + 2 * width, n);
            size_t i = lo, j = mid, k = lo;
            while (i < mid && j < hi) {
                // Take from the right run only when strictly smaller: equal elements keep their order.
                if (comparator(v[first + j], v[first + i], context) == kCFCompareLessThan)
                    buffer[k++] = v[first + j++];
                else
                    buffer[k++] = v[first + i++];
            }
            while (i < mid) buffer[k++] = v[first + i++];
            while (j < hi) buffer[k++] = v[first + j++];
        }
        std::copy(buffer.begin(), buffer.end(), v.begin() + static_cast<std::ptrdiff_t>(first));
    }
}

}  // namespace

const CFArrayCallBacks kCFTypeArrayCallBacks = {0, retain_type, release_type, CFCopyDescription, CFEqual};

__CFArray::~__CFArray() {
    for (const void* v : values) release_value(this, v);
}

bool __CFArray::equal(const __CFObject* other) const {
    const auto* o = static_cast<const __CFArray*>(other);
    if (values.size() != o->values.size()) return false;
    for (size_t i = 0; i < values.size(); ++i)
        if (!values_equal(this, values[i], o->values[i])) return false;
    return true;
}

std::string __CFArray::describe() const { return cf::describe_nested(this, 0); }

CFTypeID CFArrayGetTypeID(void) { return kCFTypeIDArray; }

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex numValues, const CFArrayCallBacks* callBacks) {
    if (numValues < 0) cf::fatal("CFArrayCreate", "negative count");
    if (!values && numValues > 0) cf::fatal("CFArrayCreate", "NULL values with a non-zero count");
    __CFArray* a = make_array(callBacks, false);
    a->values.reserve(static_cast<size_t>(numValues));
    for (CFIndex i = 0; i < numValues; ++i) a->values.push_back(retain_value(a, values[i]));
    return a;
}

CFArrayRef CFArrayCreateCopy(CFAllocatorRef, CFArrayRef theArray) {
    return copy_array(array_of(theArray, "CFArrayCreateCopy"), false);
}

CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef, CFIndex capacity, const CFArrayCallBacks* callBacks) {
    if (capacity < 0) cf::fatal("CFArrayCreateMutable", "negative capacity");
    return make_array(callBacks, true);
}

CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFArrayRef theArray) {
    if (capacity < 0) cf::fatal("CFArrayCreateMutableCopy", "negative capacity");
    return copy_array(array_of(theArray, "CFArrayCreateMutableCopy"), true);
}

CFIndex CFArrayGetCount(CFArrayRef theArray) { return count_of(array_of(theArray, "CFArrayGetCount")); }

const void* CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx) {
    const __CFArray* a = array_of(theArray, "CFArrayGetValueAtIndex");
    check_index(a, idx, "CFArrayGetValueAtIndex");
    return a->values[static_cast<size_t>(idx)];
}

void CFArrayGetValues(CFArrayRef theArray, CFRange range, const void** values) {
    const __CFArray* a = array_of(theArray, "CFArrayGetValues");
    check_range(a, range, "CFArrayGetValues");
    if (range.length == 0) return;
    if (!values) cf::fatal("CFArrayGetValues", "NULL buffer");
    std::copy_n(a->values.begin() + range.location, range.length, values);
}

CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef theArray, CFRange range, const void* value) {
    const __CFArray* a = array_of(theArray, "CFArrayGetFirstIndexOfValue");
    check_range(a, range, "CFArrayGetFirstIndexOfValue");
    for (CFIndex i = range.location; i < range.location + range.length; ++i)
        if (values_equal(a, a->values[static_cast<size_t>(i)], value)) return i;
    return kCFNotFound;
}

Boolean CFArrayContainsValue(CFArrayRef theArray, CFRange range, const void* value) {
    return CFArrayGetFirstIndexOfValue(theArray, range, value) != kCFNotFound;
}

CFIndex CFArrayGetCountOfValue(CFArrayRef theArray, CFRange range, const void* value) {
    const __CFArray* a = array_of(theArray, "CFArrayGetCountOfValue");
    check_range(a, range, "CFArrayGetCountOfValue");
    CFIndex n = 0;
    for (CFIndex i = range.location; i < range.location + range.length; ++i)
        if (values_equal(a, a->values[static_cast<size_t>(i)], value)) ++n;
    return n;
}

void CFArrayApplyFunction(CFArrayRef theArray, CFRange range, CFArrayApplierFunction applier, void* context) {
    const __CFArray* a = array_of(theArray, "CFArrayApplyFunction");
    check_range(a, range, "CFArrayApplyFunction");
    if (!applier) cf::fatal("CFArrayApplyFunction", "NULL applier");
    // Re-checked each time: an applier that shrinks the array must not make us read past its end.
    for (CFIndex i = range.location; i < range.location + range.length && i < count_of(a); ++i)
        applier(a->values[static_cast<size_t>(i)], context);
}

void CFArrayAppendValue(CFMutableArrayRef theArray, const void* value) {
    __CFArray* a = mutable_array_of(theArray, "CFArrayAppendValue");
    a->values.push_back(retain_value(a, value));
}

void CFArrayInsertValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void* value) {
    __CFArray* a = mutable_array_of(theArray, "CFArrayInsertValueAtIndex");
    if (idx < 0 || idx > count_of(a)) cf::fatal("CFArrayInsertValueAtIndex", "index out of bounds");
    a->values.insert(a->values.begin() + idx, retain_value(a, value));
}

void CFArraySetValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void* value) {
    __CFArray* a = mutable_array_of(theArray, "CFArraySetValueAtIndex");
    if (idx == count_of(a)) {  // one past the end appends
        a->values.push_back(retain_value(a, value));
        return;
    }
    check_index(a, idx, "CFArraySetValueAtIndex");
    const void* retained = retain_value(a, value);  // before the release: the two may be the same object
    const void* old = a->values[static_cast<size_t>(idx)];
    a->values[static_cast<size_t>(idx)] = retained;
    release_value(a, old);
}

void CFArrayRemoveValueAtIndex(CFMutableArrayRef theArray, CFIndex idx) {
    __CFArray* a = mutable_array_of(theArray, "CFArrayRemoveValueAtIndex");
    check_index(a, idx, "CFArrayRemoveValueAtIndex");
    const void* old = a->values[static_cast<size_t>(idx)];
    a->values.erase(a->values.begin() + idx);
    release_value(a, old);
}

void CFArrayRemoveAllValues(CFMutableArrayRef theArray) {
    __CFArray* a = mutable_array_of(theArray, "CFArrayRemoveAllValues");
    std::vector<const void*> old;
    old.swap(a->values);
    for (const void* v : old) release_value(a, v);
}

void CFArrayAppendArray(CFMutableArrayRef theArray, CFArrayRef otherArray, CFRange otherRange) {
    __CFArray* a = mutable_array_of(theArray, "CFArrayAppendArray");
    const __CFArray* other = array_of(otherArray, "CFArrayAppendArray");
    check_range(other, otherRange, "CFArrayAppendArray");
    // Copied first: the other array may be this one.
    std::vector<const void*> added(other->values.begin() + otherRange.location,
                                   other->values.begin() + otherRange.location + otherRange.length);
    a->values.reserve(a->values.size() + added.size());
    for (const void* v : added) a->values.push_back(retain_value(a, v));
}

void CFArrayExchangeValuesAtIndices(CFMutableArrayRef theArray, CFIndex idx1, CFIndex idx2) {
    __CFArray* a = mutable_array_of(theArray, "CFArrayExchangeValuesAtIndices");
    check_index(a, idx1, "CFArrayExchangeValuesAtIndices");
    check_index(a, idx2, "CFArrayExchangeValuesAtIndices");
    std::swap(a->values[static_cast<size_t>(idx1)], a->values[static_cast<size_t>(idx2)]);
}

void CFArraySortValues(CFMutableArrayRef theArray, CFRange range, CFComparatorFunction comparator, void* context) {
    __CFArray* a = mutable_array_of(theArray, "CFArraySortValues");
    check_range(a, range, "CFArraySortValues");
    if (!comparator) cf::fatal("CFArraySortValues", "NULL comparator");
    // Sorted on a copy: a comparator that mutates the array cannot make the sort index outside it.
    std::vector<const void*> values = a->values;
    merge_sort(values, static_cast<size_t>(range.location), static_cast<size_t>(range.location + range.length),
               comparator, context);
    if (values.size() != a->values.size()) cf::fatal("CFArraySortValues", "array mutated while sorting");
    a->values.swap(values);
}
