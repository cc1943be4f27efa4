// See Random.hpp.
#include "Quiver/Support/Random.hpp"

#include <algorithm>
#include <climits>

#include <openssl/rand.h>

#include "Quiver/Support/OpenSSL.hpp"

namespace Quiver::Support {

std::vector<uint8_t> RandomBytes(std::size_t n) {
    std::vector<uint8_t> bytes(n);
    // RAND_bytes takes an int length.
    for (std::size_t done = 0; done < n;) {
        int piece = static_cast<int>(std::min<std::size_t>(n - done, INT_MAX));
        if (RAND_bytes(bytes.data() + done, piece) != 1) {
            OpenSSL::ThrowError("RAND_bytes failed");
        }
        done += static_cast<std::size_t>(piece);
    }
    return bytes;
}

std::string MakeUUIDString() {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::vector<uint8_t> bytes = RandomBytes(16);
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);  // variant 10xx
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0f];
    }
    return text;
}

}  // namespace Quiver::Support
