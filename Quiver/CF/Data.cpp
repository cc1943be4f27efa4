#include "Quiver/CF/Data.hpp"

namespace CF {

Data::Data(std::span<const uint8_t> bytes) {
    ref_ = CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()));
}

Data Data::NoCopy(std::span<const uint8_t> bytes) {
    return Adopt(CFDataCreateWithBytesNoCopy(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()),
                                             kCFAllocatorNull));
}

Data Data::CreateMutable() { return Adopt(CFDataCreateMutable(kCFAllocatorDefault, 0)); }

void Data::Append(std::span<const uint8_t> bytes) {
    if (ref_ && !bytes.empty())
        CFDataAppendBytes(const_cast<CFMutableDataRef>(ref_), bytes.data(), static_cast<CFIndex>(bytes.size()));
}

}  // namespace CF
