// Helpers for the key bag tests: key bags as editable item lists, blobs that end exactly where their
// allocation ends (so that AddressSanitizer sees any read past them), and the errors they raise.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/Error.hpp"
#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/QVError.hpp"

namespace KeyBagTest {

using Bytes = std::vector<uint8_t>;
using Items = std::vector<MB::KeyBag::Item>;

inline Bytes U32(uint32_t v) {
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
            static_cast<uint8_t>(v)};
}

inline Bytes Blob(const Items& items) {
    Bytes out;
    for (const auto& [tag, value] : items) {
        out.insert(out.end(), tag.begin(), tag.end());
        Bytes length = U32(static_cast<uint32_t>(value.size()));
        out.insert(out.end(), length.begin(), length.end());
        out.insert(out.end(), value.begin(), value.end());
    }
    return out;
}

// Bytes in an allocation of exactly their size, wrapped without copying.
class ExactData {
public:
    explicit ExactData(const Bytes& bytes) : storage_(new uint8_t[bytes.size() ? bytes.size() : 1]), size_(bytes.size()) {
        std::copy(bytes.begin(), bytes.end(), storage_.get());
    }
    CF::Data data() const { return CF::Data::NoCopy({storage_.get(), size_}); }

private:
    std::unique_ptr<uint8_t[]> storage_;
    std::size_t size_;
};

// The index of the n-th (from 0) item with this tag.
inline std::size_t IndexOf(const Items& items, std::string_view tag, int n = 0) {
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (items[i].first == tag && n-- == 0) return i;
    }
    throw std::out_of_range("no such item in test key bag: " + std::string(tag));
}

// Runs f and returns the CF::Error it throws (an empty one, with a test failure, if it throws none).
template <typename F>
CF::Error Thrown(F&& f) {
    try {
        f();
    } catch (const CF::Error& e) {
        return e;
    }
    ADD_FAILURE() << "no CF::Error thrown";
    return CF::Error();
}

inline ::testing::AssertionResult IsError(const CF::Error& e, QVError code, std::string_view reason) {
    if (!e) return ::testing::AssertionFailure() << "no error";
    if (!e.Matches(kQVErrorDomain, code) || e.Reason() != reason) {
        return ::testing::AssertionFailure() << "got " << e.Text();
    }
    return ::testing::AssertionSuccess();
}

}  // namespace KeyBagTest
