#include "Quiver/CF/Array.hpp"

namespace CF {

Array Array::CreateMutable() { return Adopt(CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks)); }

void Array::Append(CFTypeRef value) {
    if (ref_ && value) CFArrayAppendValue(const_cast<CFMutableArrayRef>(ref_), value);
}

}  // namespace CF
