// CF::Data: a CFDataRef held by value, iterable over its bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "Quiver/CF/Object.hpp"

namespace CF {

class QV_EXPORT Data : public Object<Data, CFDataRef> {
public:
    Data() = default;
    explicit Data(std::span<const uint8_t> bytes);
    explicit Data(const std::vector<uint8_t>& bytes) : Data(std::span<const uint8_t>(bytes)) {}

    static CFTypeID TypeID() { return CFDataGetTypeID(); }
    // Wraps bytes that the caller keeps alive for the life of the data (kCFAllocatorNull).
    static Data NoCopy(std::span<const uint8_t> bytes);
    static Data CreateMutable();

    const uint8_t* data() const { return ref_ ? CFDataGetBytePtr(ref_) : nullptr; }
    size_t size() const { return ref_ ? static_cast<size_t>(CFDataGetLength(ref_)) : 0; }
    bool IsEmpty() const { return size() == 0; }
    std::span<const uint8_t> bytes() const { return {data(), size()}; }
    std::vector<uint8_t> vector() const { return {begin(), end()}; }
    const uint8_t* begin() const { return data(); }
    const uint8_t* end() const { return data() + size(); }
    // Appends to data made with CreateMutable.
    void Append(std::span<const uint8_t> bytes);
};

}  // namespace CF
