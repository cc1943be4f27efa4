// A bounds-checked view of untrusted bytes.
//
// Decoders of backup formats take offsets and lengths from the bytes they decode, so every offset is
// suspect. byte_reader answers each request either with the bytes asked for or with "no", never
// with a pointer past the end, and does its arithmetic so that no offset or length, however large,
// can wrap around.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace Quiver::Support {

class byte_reader {
public:
    byte_reader() = default;
    explicit byte_reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    size_t size() const { return bytes_.size(); }
    std::span<const uint8_t> bytes() const { return bytes_; }

    // Whether [offset, offset + length) lies inside the bytes.
    bool contains(uint64_t offset, uint64_t length) const {
        return offset <= bytes_.size() && length <= bytes_.size() - offset;
    }

    // The bytes [offset, offset + length), or nullopt when they do not all exist.
    std::optional<std::span<const uint8_t>> slice(uint64_t offset, uint64_t length) const {
        if (!contains(offset, length)) return std::nullopt;
        return bytes_.subspan(static_cast<size_t>(offset), static_cast<size_t>(length));
    }

    // A reader over [offset, offset + length), or nullopt.
    std::optional<byte_reader> sub_reader(uint64_t offset, uint64_t length) const {
        auto s = slice(offset, length);
        if (!s) return std::nullopt;
        return byte_reader(*s);
    }

    std::optional<uint8_t> u8(uint64_t offset) const {
        if (!contains(offset, 1)) return std::nullopt;
        return bytes_[static_cast<size_t>(offset)];
    }

    // An unsigned big-endian integer of `width` bytes (1 to 8).
    std::optional<uint64_t> be(uint64_t offset, unsigned width) const {
        if (width < 1 || width > 8 || !contains(offset, width)) return std::nullopt;
        return unchecked_be(bytes_.data() + offset, width);
    }

    // An unsigned little-endian integer of `width` bytes (1 to 8).
    std::optional<uint64_t> le(uint64_t offset, unsigned width) const {
        if (width < 1 || width > 8 || !contains(offset, width)) return std::nullopt;
        uint64_t v = 0;
        for (unsigned i = width; i-- > 0;) v = (v << 8) | bytes_[static_cast<size_t>(offset) + i];
        return v;
    }

    // For callers that have already checked the range with contains() or slice().
    static uint64_t unchecked_be(const uint8_t* p, unsigned width) {
        uint64_t v = 0;
        for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
        return v;
    }

private:
    std::span<const uint8_t> bytes_;
};

}  // namespace Quiver::Support
